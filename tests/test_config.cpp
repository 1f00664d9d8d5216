// The module's switches (binocular.ini and /run/visionSwitch.ini), a camera
// pair's settings, and the shipped example file that documents them.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "binocular.h"
#include "camerasettings.h"
#include "inifile.h"
#include "paths.h"
#include "test_support.h"

namespace fs = std::filesystem;

namespace {

void put(const char* fixedPath, const std::string& bytes)
{
    fs::create_directories(fs::path(paths::resolve(fixedPath)).parent_path());
    std::ofstream(paths::resolve(fixedPath), std::ios::binary) << bytes;
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

/// What body throws: "" for nothing, else the exception's kind and text.
template <typename Body>
std::string thrownBy(Body body)
{
    try {
        body();
    } catch (const std::invalid_argument& error) {
        return std::string("invalid_argument ") + error.what();
    } catch (const std::out_of_range&) {
        return "out_of_range";
    }
    return "";
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
const char* const kStoi = "invalid_argument stoi";

}  // namespace

// Given binocular.ini ("": none) and the switch file (nullptr: none), when
// loadCfg runs, then the switches, the exception and the one log line (if
// any) are as listed; switches assigned before a bad key keep their values.
TEST(ModuleConfig, SwitchesComeFromBothFiles)
{
    const std::string common = "[common]\nvisionSwitch = 1 ; on\nEnableFront = 0\n";
    enum Logged { NONE, NO_CONFIG, NO_SWITCH };
    struct Case {
        std::string config;
        const char* switchFile;
        const char* thrown;
        bool front, down, vision;
        Logged logged;
    } cases[] = {
        {common + "enableDown=2", nullptr, "", false, true, true, NO_SWITCH},
        {common + "enableDown=0x1", "[common]\n", "", false, false, true, NO_SWITCH},
        {common + "enableDown=1", "[Common]\nVisionSwitch = 0", "", false, true, false, NONE},
        {common + "enableDown=1", "[common]\nvisionSwitch = on", kStoi, false, true, true, NONE},
        {common + "enableDown=99999999999", nullptr, "out_of_range", false, true, true, NONE},
        {common, nullptr, kStoi, false, true, true, NONE},
        {"", nullptr, kStoi, true, true, false, NO_CONFIG},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.config);
        testsupport::ScratchRoot scratch;
        testsupport::LogCapture capture;
        if (!c.config.empty()) {
            put(paths::kConfigFile, c.config);
        }
        if (c.switchFile) {
            put(paths::kVisionSwitchFile, c.switchFile);
        }
        enableFront = enableDown = true;
        visionSwitch = false;
        EXPECT_EQ(thrownBy(loadCfg), c.thrown);
        EXPECT_EQ(std::vector<bool>({enableFront, enableDown, visionSwitch}),
                  std::vector<bool>({c.front, c.down, c.vision}));
        const auto records = capture.records();
        ASSERT_EQ(records.size(), c.logged == NONE ? 0u : 1u);
        if (c.logged == NO_CONFIG) {
            EXPECT_EQ(records[0].message, "[BINOLIB] mINI: read " + paths::resolve(paths::kConfigFile) + " failed.");
            EXPECT_EQ(records[0].level, binolog::INFO);
        } else if (c.logged == NO_SWITCH) {
            EXPECT_EQ(records[0].message, "[BINOLIB] read " + paths::resolve(paths::kVisionSwitchFile) + " failed");
            EXPECT_EQ(records[0].level, binolog::ERROR);
            EXPECT_EQ(records[0].file, "src/binocular.cpp");
        }
    }
}

TEST(ModuleConfig, SavedSwitchReadsBackAndMergesOntoTheOldFile)
{
    testsupport::ScratchRoot scratch;
    testsupport::LogCapture capture;
    const std::string path = paths::resolve(paths::kVisionSwitchFile);
    visionSwitch = true;
    saveVisionSwitch();  // no /run yet
    ASSERT_EQ(capture.count("[BINOLIB] save " + path + " failed"), 1u);

    fs::create_directories(paths::resolve("/run"));
    saveVisionSwitch();
    EXPECT_EQ(slurp(path), "[common]\nvisionswitch = 1");
    put(paths::kVisionSwitchFile,
        "[common]\n; by the host\nVisionSwitch = 0\nnot a line\nother = 3\n\n[front]\nk = 1\n");
    saveVisionSwitch();
    EXPECT_EQ(slurp(path), "[common]\n; by the host\nVisionSwitch = 1\n\n");
    for (bool value : {false, true, false}) {
        visionSwitch = value;
        saveVisionSwitch();
        visionSwitch = !value;
        EXPECT_EQ(loadVisionSwitch(), value ? 1 : 0);
        EXPECT_EQ(visionSwitch, value);
    }
    EXPECT_EQ(capture.records().size(), 1u);
}

// Given binocular.ini ("": none), when the down pair loads, then the result,
// the exception, the common switch and the settings (kKeys order) are as
// listed: defaults first, then every key, each one required.
TEST(CameraConfig, EveryKeyOfTheSectionIsRequired)
{
    const std::string keys = "imageType=1\nwidth=320\nheight=240\nsource=2\nmatcher=1\nprocessor=1\nsaveImage=1\n";
    struct Case {
        std::string config;
        bool loaded;
        const char* thrown;
        bool vision;
        std::vector<int> settings;
    } cases[] = {
        {"[common]\nvisionSwitch=1\n[front]\nwidth=1\n[Down]\n" + keys + "SaveInterval=-1",
         true,
         "",
         true,
         {1, 320, 240, 2, 1, 1, 1, -1}},
        {"", false, "", false, kDefaults},
        {"[common]\nvisionSwitch=1\n[front]\n" + keys + "saveInterval=3", false, kStoi, true, kDefaults},
        {"[common]\nvisionSwitch=2\n[down]\n" + keys, false, kStoi, true, {1, 320, 240, 2, 1, 1, 1, 5}},
        {"[down]\n" + keys + "saveInterval=3", false, kStoi, false, kDefaults},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.config);
        testsupport::ScratchRoot scratch;
        if (!c.config.empty()) {
            put(paths::kConfigFile, c.config);
        }
        CameraSettings settings;
        settings.width = 1;
        bool vision = false;
        bool loaded = false;
        EXPECT_EQ(thrownBy([&] { loaded = settings.load(Common::DOWN, vision); }), c.thrown);
        EXPECT_EQ(loaded, c.loaded);
        EXPECT_EQ(vision, c.vision);
        EXPECT_EQ(values(settings), c.settings);
    }
}

// The example file holds every key at its default under a comment made of
// its meaning from kKeys and the default, and the module starts with it.
TEST(CameraConfig, ExampleFileDocumentsTheKeyTable)
{
    const std::string text = slurp(BINO_CONFIG_EXAMPLE);
    IniFile example = IniFile::parse(text);
    EXPECT_EQ(example["common"].items().size(), 3u);
    for (const char* section : {"front", "down"}) {
        EXPECT_EQ(example[section].items().size(), 8u);
        for (const auto& key : CameraSettings::kKeys) {
            const std::string value = std::to_string(key.defaultValue);
            EXPECT_EQ(example[section].get(key.name), value) << key.name;
            const std::string documented =
                std::string("; ") + key.meaning + " Default: " + value + ".\n" + key.name + " = " + value + "\n";
            EXPECT_NE(text.find(documented), std::string::npos) << documented;
        }
    }
    testsupport::ScratchRoot scratch;
    put(paths::kConfigFile, text);
    EXPECT_NO_THROW(loadCfg());
}
