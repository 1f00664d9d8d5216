// The module's switches from binocular.ini and /run/visionSwitch.ini.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "binocular.h"
#include "paths.h"
#include "test_support.h"

namespace fs = std::filesystem;

namespace {

void put(const char* fixedPath, const std::string& bytes)
{
    const fs::path path = paths::resolve(fixedPath);
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string slurp(const char* fixedPath)
{
    std::ifstream in(paths::resolve(fixedPath), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

enum Thrown { NOTHING, INVALID, OUT_OF_RANGE };

}  // namespace

// Given binocular.ini and the switch file (nullptr: absent), when loadCfg
// runs, then the switches, the exception and the log lines are as listed.
TEST(ModuleConfig, SwitchesComeFromBothFiles)
{
    const std::string common = "[common]\nvisionSwitch = 1 ; on\nEnableFront = 0\n";
    struct Case {
        std::string config;  // "" means no binocular.ini
        const char* switchFile;
        Thrown thrown;
        bool front, down, vision;  // expected; `vision` also when thrown
        const char* logged;        // one line containing this text
    } cases[] = {
        {common + "enableDown=2", nullptr, NOTHING, false, true, true, "[BINOLIB] read "},
        {common + "enableDown=0x1", "[common]\n", NOTHING, false, false, true, "[BINOLIB] read "},
        {common + "enableDown=1", "[Common]\nVisionSwitch = 0", NOTHING, false, true, false, nullptr},
        {common + "enableDown=1", "[common]\nvisionSwitch = on", INVALID, false, true, true, nullptr},
        {common + "enableDown=99999999999", nullptr, OUT_OF_RANGE, false, true, true, nullptr},
        {common, nullptr, INVALID, false, true, true, nullptr},
        {"", nullptr, INVALID, true, true, false, "[BINOLIB] mINI: read "},
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
        try {
            loadCfg();
            EXPECT_EQ(c.thrown, NOTHING);
        } catch (const std::invalid_argument& error) {
            EXPECT_EQ(c.thrown, INVALID);
            EXPECT_STREQ(error.what(), "stoi");
        } catch (const std::out_of_range&) {
            EXPECT_EQ(c.thrown, OUT_OF_RANGE);
        }
        EXPECT_EQ(enableFront, c.front);
        EXPECT_EQ(enableDown, c.down);
        EXPECT_EQ(visionSwitch, c.vision);
        const auto records = capture.records();
        ASSERT_EQ(records.size(), c.logged ? 1u : 0u);
        if (c.logged) {
            const bool info = std::string(c.logged).find("mINI") != std::string::npos;
            const std::string path = paths::resolve(info ? paths::kConfigFile : paths::kVisionSwitchFile);
            EXPECT_EQ(records[0].message, std::string(c.logged) + path + (info ? " failed." : " failed"));
            EXPECT_EQ(records[0].level, info ? binolog::INFO : binolog::ERROR);
            EXPECT_EQ(records[0].file, "src/binocular.cpp");
        }
    }
}

TEST(ModuleConfig, SavedSwitchReadsBackAndMergesOntoTheOldFile)
{
    testsupport::ScratchRoot scratch;
    testsupport::LogCapture capture;
    visionSwitch = true;
    saveVisionSwitch();  // no /run yet
    ASSERT_EQ(capture.count("[BINOLIB] save " + paths::resolve(paths::kVisionSwitchFile) + " failed"), 1u);

    fs::create_directories(paths::resolve("/run"));
    saveVisionSwitch();
    EXPECT_EQ(slurp(paths::kVisionSwitchFile), "[common]\nvisionswitch = 1");

    put(paths::kVisionSwitchFile,
        "[common]\n; set by the host\nVisionSwitch = 0\nnot a line\nother = 3\n\n[front]\nwidth = 1\n");
    saveVisionSwitch();
    EXPECT_EQ(slurp(paths::kVisionSwitchFile), "[common]\n; set by the host\nVisionSwitch = 1\n\n");
    for (bool value : {false, true, false}) {
        visionSwitch = value;
        saveVisionSwitch();
        visionSwitch = !value;
        EXPECT_EQ(loadVisionSwitch(), value ? 1 : 0);
        EXPECT_EQ(visionSwitch, value);
    }
    EXPECT_EQ(capture.records().size(), 1u);
}
