// The module's switches (binocular.ini and /run/visionSwitch.ini), a camera
// pair's settings, and the shipped example file.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "binocular.h"
#include "camerasettings.h"
#include "paths.h"
#include "test_support.h"

namespace fs = std::filesystem;

namespace {

/// Writes the file at a fixed path; "" writes none.
void put(const char* fixedPath, const std::string& bytes)
{
    if (bytes.empty()) {
        return;
    }
    fs::create_directories(fs::path(paths::resolve(fixedPath)).parent_path());
    std::ofstream(paths::resolve(fixedPath), std::ios::binary) << bytes;
}

/// What body throws: "" for nothing, else the invalid_argument's text.
template <typename Body>
std::string thrownBy(Body body)
{
    try {
        body();
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "";
}

}  // namespace

// Given binocular.ini and the switch file ("": none), when loadCfg runs, then
// the switches and the exception are as listed; switches assigned before a
// bad key keep their values.
TEST(ModuleConfig, SwitchesComeFromBothFiles)
{
    const std::string common = "[common]\nvisionSwitch = 1 ; on\nEnableFront = 0\n";
    const struct {
        std::string config;
        const char* switchFile;
        const char* thrown;
        std::vector<bool> frontDownVision;
    } cases[] = {
        {common + "enableDown=2", "", "", {false, true, true}},
        {common + "enableDown=1", "[Common]\nVisionSwitch = 0", "", {false, true, false}},
        {common + "enableDown=1", "[common]\nvisionSwitch = on", "stoi", {false, true, true}},
        {"", "", "stoi", {true, true, false}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.config);
        testsupport::ScratchRoot scratch;
        put(paths::kConfigFile, c.config);
        put(paths::kVisionSwitchFile, c.switchFile);
        enableFront = enableDown = true;
        visionSwitch = false;
        EXPECT_EQ(thrownBy(loadCfg), c.thrown);
        EXPECT_EQ(std::vector<bool>({enableFront, enableDown, visionSwitch}), c.frontDownVision);
    }
}

// The switch file is generated as two lines without a final line feed,
// merged onto a host's file, and always reads back.
TEST(ModuleConfig, SavedSwitchReadsBackAndMergesOntoTheOldFile)
{
    testsupport::ScratchRoot scratch;
    const std::string path = paths::resolve(paths::kVisionSwitchFile);
    fs::create_directories(paths::resolve("/run"));
    visionSwitch = true;
    saveVisionSwitch();
    EXPECT_EQ(testsupport::readFile(path), "[common]\nvisionswitch = 1");
    put(paths::kVisionSwitchFile, "[common]\n; by the host\nVisionSwitch = 0\nother = 3\n\n[front]\nk = 1\n");
    saveVisionSwitch();
    EXPECT_EQ(testsupport::readFile(path), "[common]\n; by the host\nVisionSwitch = 1\n\n");
    visionSwitch = false;
    saveVisionSwitch();
    visionSwitch = true;
    EXPECT_EQ(loadVisionSwitch(), 0);
    EXPECT_FALSE(visionSwitch);
}

// Given binocular.ini ("": none), when the down pair loads, then the result,
// the exception, the common switch and the settings (kKeys order) are as
// listed: defaults first, then every key, each one required. The shipped
// example holds the defaults.
TEST(CameraConfig, EveryKeyOfTheSectionIsRequired)
{
    const std::string keys = "imageType=1\nwidth=320\nheight=240\nsource=2\nmatcher=1\nprocessor=1\nsaveImage=1\n";
    const std::vector<int> defaults = {0, 640, 480, 0, 0, 0, 0, 5};
    const std::string on = "[common]\nvisionSwitch=1\n";
    struct Case {
        bool loaded;
        const char* thrown;
        bool vision;
        std::vector<int> settings;
        std::string config;
    } cases[] = {
        {true, "", true, {1, 320, 240, 2, 1, 1, 1, -1}, on + "[Down]\n" + keys + "SaveInterval=-1"},
        {false, "", false, defaults, ""},
        {false, "stoi", true, defaults, on + "[front]\n" + keys + "saveInterval=3"},
        {true, "", false, defaults, testsupport::readFile(BINO_CONFIG_EXAMPLE)},  // the shipped example
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.config);
        testsupport::ScratchRoot scratch;
        put(paths::kConfigFile, c.config);
        CameraSettings settings;
        settings.width = 1;
        bool vision = false;
        bool loaded = false;
        EXPECT_EQ(thrownBy([&] { loaded = settings.load(Common::DOWN, vision); }), c.thrown);
        EXPECT_EQ(loaded, c.loaded);
        EXPECT_EQ(vision, c.vision);
        std::vector<int> values;
        for (const auto& key : CameraSettings::kKeys) {
            values.push_back(settings.*key.member);
        }
        EXPECT_EQ(values, c.settings);
    }
}
