// A camera pair's settings, and the shipped example file that documents them.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "camerasettings.h"
#include "inifile.h"
#include "paths.h"
#include "test_support.h"

namespace {

void putConfig(const std::string& bytes)
{
    const std::filesystem::path path = paths::resolve(paths::kConfigFile);
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

std::vector<int> values(const CameraSettings& settings)
{
    std::vector<int> all;
    for (const auto& key : CameraSettings::kKeys) {
        all.push_back(settings.*key.member);
    }
    return all;
}

const std::vector<int> kDefaults = {0, 640, 480, 0, 0, 0, 0, 5};

}  // namespace

// Given binocular.ini (nullptr: absent), when the down pair loads, then the
// settings in kKeys order, the result and the exception are as listed.
TEST(CameraSettings, EveryKeyOfTheSectionIsRequired)
{
    const std::string full = "imageType=1\nwidth=320\nheight=240\nsource=2\nmatcher=1\nprocessor=1\nsaveImage=1\n";
    struct Case {
        const char* what;
        std::string config;
        bool loaded;
        bool thrown;
        bool vision;
        std::vector<int> settings;
    } cases[] = {
        {"complete", "[common]\nvisionSwitch=1\n[front]\nwidth=1\n[Down]\n" + full + "SaveInterval=-1",
         true, false, true, {1, 320, 240, 2, 1, 1, 1, -1}},
        {"no file", "", false, false, false, kDefaults},
        {"no section", "[common]\nvisionSwitch=1\n[front]\n" + full + "saveInterval=3", true, true, true, kDefaults},
        {"one key missing", "[common]\nvisionSwitch=2\n[down]\n" + full, true, true, true,
         {1, 320, 240, 2, 1, 1, 1, 5}},
        {"no common", "[down]\n" + full + "saveInterval=3", true, true, false, kDefaults},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        testsupport::ScratchRoot scratch;
        if (!c.config.empty()) {
            putConfig(c.config);
        }
        CameraSettings settings;
        settings.width = 1;
        bool vision = false;
        bool loaded = false;
        try {
            loaded = settings.load(Common::DOWN, vision);
            EXPECT_FALSE(c.thrown);
            EXPECT_EQ(loaded, c.loaded);
        } catch (const std::invalid_argument&) {
            EXPECT_TRUE(c.thrown);
        }
        EXPECT_EQ(vision, c.vision);
        EXPECT_EQ(values(settings), c.settings);
    }
}

// The example file holds every key at its default, each under a comment that
// ends with its meaning from kKeys and the default, and loads as it stands.
TEST(CameraSettings, ExampleFileDocumentsTheKeyTable)
{
    std::ifstream in(BINO_CONFIG_EXAMPLE);
    std::stringstream text;
    text << in.rdbuf();
    IniFile example = IniFile::parse(text.str());
    for (const char* key : {"visionSwitch", "enableFront", "enableDown"}) {
        EXPECT_TRUE(example["common"].has(key)) << key;
    }
    for (const char* section : {"front", "down"}) {
        EXPECT_EQ(example[section].items().size(), 8u);
        for (const auto& key : CameraSettings::kKeys) {
            EXPECT_EQ(example[section].get(key.name), std::to_string(key.defaultValue)) << key.name;
            const std::string documented = std::string("; ") + key.meaning + " Default: " +
                                           std::to_string(key.defaultValue) + ".\n" + key.name + " = ";
            EXPECT_NE(text.str().find(documented), std::string::npos) << documented;
        }
    }
    testsupport::ScratchRoot scratch;
    putConfig(text.str());
    for (auto direction : {Common::FRONT, Common::DOWN}) {
        CameraSettings settings;
        bool vision = true;
        ASSERT_TRUE(settings.load(direction, vision));
        EXPECT_EQ(values(settings), kDefaults);
        EXPECT_FALSE(vision);
    }
}
