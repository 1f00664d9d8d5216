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

/// Writes the file at a fixed path; "" writes none.
void put(const char* fixedPath, const std::string& bytes)
{
    if (bytes.empty()) {
        return;
    }
    fs::create_directories(fs::path(paths::resolve(fixedPath)).parent_path());
    std::ofstream(paths::resolve(fixedPath), std::ios::binary) << bytes;
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

/// Every captured line as "level file message\n".
std::string logged(const testsupport::LogCapture& capture)
{
    std::string lines;
    for (const binolog::Record& record : capture.records()) {
        lines += std::to_string(record.level) + " " + record.file + " " + record.message + "\n";
    }
    return lines;
}

const char* const kStoi = "invalid_argument stoi";

}  // namespace

// Given binocular.ini and the switch file ("": none), when
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
        std::vector<bool> frontDownVision;
        Logged logged;
    } cases[] = {
        {common + "enableDown=2", "", "", {false, true, true}, NO_SWITCH},
        {common + "enableDown=0x1", "[common]\n", "", {false, false, true}, NO_SWITCH},
        {common + "enableDown=1", "[Common]\nVisionSwitch = 0", "", {false, true, false}, NONE},
        {common + "enableDown=1", "[common]\nvisionSwitch = on", kStoi, {false, true, true}, NONE},
        {common + "enableDown=99999999999", "", "out_of_range", {false, true, true}, NONE},
        {common, "", kStoi, {false, true, true}, NONE},
        {"", "", kStoi, {true, true, false}, NO_CONFIG},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.config);
        testsupport::ScratchRoot scratch;
        testsupport::LogCapture capture;
        put(paths::kConfigFile, c.config);
        put(paths::kVisionSwitchFile, c.switchFile);
        enableFront = enableDown = true;
        visionSwitch = false;
        EXPECT_EQ(thrownBy(loadCfg), c.thrown);
        EXPECT_EQ(std::vector<bool>({enableFront, enableDown, visionSwitch}), c.frontDownVision);
        const std::string lines[] = {
            "", "40 src/binocular.cpp [BINOLIB] mINI: read " + paths::resolve(paths::kConfigFile) + " failed.\n",
            "100 src/binocular.cpp [BINOLIB] read " + paths::resolve(paths::kVisionSwitchFile) + " failed\n"};
        EXPECT_EQ(logged(capture), lines[c.logged]);
    }
}

// The switch file is generated as two lines without a final line feed,
// merged onto a host's file, and always reads back; a save that cannot write
// logs the one ERROR line.
TEST(ModuleConfig, SavedSwitchReadsBackAndMergesOntoTheOldFile)
{
    testsupport::ScratchRoot scratch;
    testsupport::LogCapture capture;
    const std::string path = paths::resolve(paths::kVisionSwitchFile);
    visionSwitch = true;
    saveVisionSwitch();  // no /run yet
    EXPECT_EQ(logged(capture), "100 src/binocular.cpp [BINOLIB] save " + path + " failed\n");

    fs::create_directories(paths::resolve("/run"));
    saveVisionSwitch();
    EXPECT_EQ(testsupport::readFile(path), "[common]\nvisionswitch = 1");
    put(paths::kVisionSwitchFile,
        "[common]\n; by the host\nVisionSwitch = 0\nnot a line\nother = 3\n\n[front]\nk = 1\n");
    saveVisionSwitch();
    EXPECT_EQ(testsupport::readFile(path), "[common]\n; by the host\nVisionSwitch = 1\n\n");
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
    const std::vector<int> defaults = {0, 640, 480, 0, 0, 0, 0, 5};
    struct Case {
        std::string config;
        bool loaded;
        const char* thrown;
        bool vision;
        std::vector<int> settings;
    } cases[] = {
        {"[common]\nvisionSwitch=1\n[Down]\n" + keys + "SaveInterval=-1",
         true,
         "",
         true,
         {1, 320, 240, 2, 1, 1, 1, -1}},
        {"", false, "", false, defaults},
        {"[common]\nvisionSwitch=1\n[front]\n" + keys + "saveInterval=3", false, kStoi, true, defaults},
        {"[common]\nvisionSwitch=2\n[down]\n" + keys, false, kStoi, true, {1, 320, 240, 2, 1, 1, 1, 5}},
        {"[down]\n" + keys + "saveInterval=3", false, kStoi, false, defaults},
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

// The example file holds every key at its default under a comment made of
// its meaning from kKeys and the default, and the module starts with it.
TEST(CameraConfig, ExampleFileDocumentsTheKeyTable)
{
    const std::string text = testsupport::readFile(BINO_CONFIG_EXAMPLE);
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
