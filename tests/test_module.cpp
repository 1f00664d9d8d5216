// The module end to end: the built library loaded with dlopen as the host
// loads it, the real shared-memory queues, and camsim as the camera process.
// A started module runs until its process ends, so every scenario runs in a
// child process of its own (testsupport::runInChild).

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "binocular/binocular.h"
#include "paths.h"
#include "test_support.h"

namespace fs = std::filesystem;
using testsupport::waitUntil;

namespace {

constexpr int kFrontKey = 9990;
constexpr int kDownKey = 9991;

// ---------------------------------------------------------------- the host

struct Message {
    uint32_t type;
    std::vector<uint8_t> bytes;
};

std::mutex g_inboxMutex;
std::vector<Message> g_inbox;

template <typename Record>
void keep(void* message, uint32_t type)
{
    auto* record = static_cast<Record*>(message);
    const auto* bytes = reinterpret_cast<const uint8_t*>(record);
    {
        std::lock_guard<std::mutex> lock(g_inboxMutex);
        g_inbox.push_back({type, std::vector<uint8_t>(bytes, bytes + sizeof(Record))});
    }
    delete record;
}

int64_t onMessage(void* message, uint32_t type, uint64_t module)
{
    EXPECT_EQ(module, 42u);
    switch (type) {
        case BINO_MSG_STATUS:
            keep<BinoStatusReport>(message, type);
            break;
        case BINO_MSG_VERSION_REPLY:
            keep<BinoVersionReply>(message, type);
            break;
        case BINO_MSG_SWITCH_REPLY:
            keep<BinoSwitchReply>(message, type);
            break;
        case BINO_MSG_DISTANCE:
            keep<BinoDistanceReport>(message, type);
            break;
        default:
            ADD_FAILURE() << "unknown message type " << type;
    }
    return 0;
}

std::vector<Message> messages(uint32_t type)
{
    std::lock_guard<std::mutex> lock(g_inboxMutex);
    std::vector<Message> kept;
    std::copy_if(g_inbox.begin(), g_inbox.end(), std::back_inserter(kept),
                 [type](const Message& m) { return m.type == type; });
    return kept;
}

uint16_t u16At(const Message& m, size_t offset)
{
    return static_cast<uint16_t>(m.bytes[offset] | m.bytes[offset + 1] << 8);
}

// Front (offset 2) or down (offset 167) distance of the distance reports
// that arrived after the first `skip` ones, in metres.
std::vector<double> distances(size_t offset, size_t skip = 0)
{
    std::vector<double> metres;
    const std::vector<Message> reports = messages(BINO_MSG_DISTANCE);
    for (size_t i = skip; i < reports.size(); ++i) {
        metres.push_back(u16At(reports[i], offset) / 100.0);
    }
    return metres;
}

double median(std::vector<double> values)
{
    if (values.empty()) {
        return NAN;
    }
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

struct Module {
    decltype(&binocularInit) init = nullptr;
    decltype(&binocular_getInfoFromVM) getInfo = nullptr;

    Module()
    {
        void* library = dlopen(BINOCULAR_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            throw std::runtime_error(dlerror());
        }
        init = reinterpret_cast<decltype(init)>(dlsym(library, "binocularInit"));
        getInfo = reinterpret_cast<decltype(getInfo)>(dlsym(library, "binocular_getInfoFromVM"));
    }

    // A host message of `size` bytes with `bytes` written at `offset`.
    void send(uint32_t type, size_t size, size_t offset = 0, std::vector<uint8_t> bytes = {})
    {
        auto* buffer = new uint8_t[size]();
        std::copy(bytes.begin(), bytes.end(), buffer + offset);
        getInfo(buffer, type);
    }
};

// ---------------------------------------------------------------- the rig

fs::path rooted(const std::string& fixedPath) { return paths::resolve(fixedPath); }

struct Pair {
    int matcher = 0;  ///< 0 stereo unit, 1 block matching
    int width = 640;
    int height = 480;
    int processor = 0;
};

void writeConfig(bool sensing, bool enableFront, bool enableDown, const Pair& front, const Pair& down)
{
    const fs::path dir = rooted("/home/tarnwick/component/vision_cmp");
    fs::create_directories(dir);
    std::ofstream ini(dir / "binocular.ini");
    ini << "[common]\nvisionSwitch = " << sensing << "\nenableFront = " << enableFront
        << "\nenableDown = " << enableDown << "\n";
    for (const auto& [name, pair] : {std::pair<const char*, Pair>("front", front), {"down", down}}) {
        ini << "[" << name << "]\nimageType = 0\nwidth = " << pair.width << "\nheight = " << pair.height
            << "\nsource = 0\nmatcher = " << pair.matcher << "\nprocessor = " << pair.processor
            << "\nsaveImage = 0\nsaveInterval = 5\n";
    }
    fs::create_directories(rooted("/home/tarnwick/scripts"));
    fs::create_directories(rooted("/run"));
    std::ofstream(rooted("/home/tarnwick/scripts/zlog_count.cfg")) << "7";
}

// camsim with its output appended to camsim.out; ended by the destructor.
struct Camsim : testsupport::Program {
    explicit Camsim(const std::string& arguments) : Program(CAMSIM_PATH, arguments, "camsim.out") {}
    static int run(const std::string& arguments) { return Camsim(arguments).status(); }
};

// f x B: 120 px·m in front (40, 15 and 8 px at 3, 8 and 15 m), 80 px·m
// below (40 px at 2 m): whole pixels within block matching's 0..47.
const char* const kFrontRig = "--direction front --focal 400 --baseline 300";
// The stereo unit's substitute costs the most per pixel, and sanitizer builds
// multiply that: its pairs run at a quarter of the default size.
const Pair kSmallUnit{0, 320, 240};
std::string sizeOf(const Pair& pair)
{
    return " --width " + std::to_string(pair.width) + " --height " + std::to_string(pair.height);
}
const char* const kDownRig = "--direction down --focal 400 --baseline 200";
const char* const kThreads[] = {"bino-poll-front\n", "bino-work-front\n", "bino-rep-front\n", "bino-status\n"};

std::vector<std::string> recordFiles()
{
    std::vector<std::string> files;
    const fs::path dir = rooted("/data/log/frontBino");
    if (fs::exists(dir)) {
        for (const auto& entry : fs::directory_iterator(dir)) {
            if (entry.path().extension() == ".log") {
                files.push_back(entry.path().string());
            }
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

// The record lines (header excluded) of every front record file, split into columns.
std::vector<std::vector<std::string>> recordLines()
{
    std::vector<std::vector<std::string>> lines;
    for (const std::string& file : recordFiles()) {
        std::ifstream in(file);
        std::string line;
        while (std::getline(in, line)) {
            if (line.rfind("pitch\t", 0) == 0) {
                continue;
            }
            std::vector<std::string> columns;
            std::stringstream split(line);
            for (std::string column; std::getline(split, column, '\t');) {
                columns.push_back(column);
            }
            lines.push_back(columns);
        }
    }
    return lines;
}

// The record line count once it has not changed for a second (a pass in
// progress when sensing goes off still ends with its line).
size_t settledLineCount()
{
    size_t lines = recordLines().size();
    for (int quietPolls = 0, polls = 0; quietPolls < 10 && polls < 600; ++polls) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const size_t now = recordLines().size();
        quietPolls = now == lines ? quietPolls + 1 : 0;
        lines = now;
    }
    return lines;
}

// Runs `scenario` in a child process in a scratch root with the fixed keys
// free before and after; returns what the child wrote (the module logs to
// stderr).
std::string inChild(const std::function<void()>& scenario, int timeoutSeconds = 240)
{
    testsupport::SysvGuard guard{kFrontKey, kDownKey};
    const testsupport::ChildResult child = testsupport::runInChild(
        [&] {
            {
                testsupport::SysvGuard childGuard{kFrontKey, kDownKey};
                testsupport::ScratchRoot root;
                scenario();
            }
            std::fflush(nullptr);
            _exit(::testing::Test::HasFailure() ? 1 : 0);
        },
        timeoutSeconds);
    EXPECT_TRUE(child.exited && child.exitCode == 0) << child.output.substr(0, 20000);
    return child.output;
}

// ---------------------------------------------------------------- scenarios

// A static obstacle at 3, 8 and 15 m in front and ground at 2 m below: once the
// filters have settled, both reported distances are within 3 % of the truth,
// with either matcher in front. The front camera is restarted for each
// distance, so this also shows reports resuming after a camera restart.
class ModuleAccuracy : public ::testing::TestWithParam<int> {};

TEST_P(ModuleAccuracy, ReportedDistancesFollowTheScene)
{
    const int frontMatcher = GetParam();
    inChild([frontMatcher] {
        const Pair front = frontMatcher == 0 ? kSmallUnit : Pair{1};
        writeConfig(true, true, true, front, Pair{1});
        ASSERT_EQ(Camsim::run(kFrontRig + sizeOf(front) + " --calib-only"), 0);
        ASSERT_EQ(Camsim::run(std::string(kDownRig) + " --calib-only"), 0);
        Module module;
        ASSERT_EQ(module.init(onMessage, 42), 0);
        module.send(HOST_MSG_BASIC_STATE, sizeof(AircraftBasicState), 1, {1});  // armed: the whole front search
        Camsim ground(std::string(kDownRig) + " --fps 30 --distance 2 --no-calib");
        for (double truth : {3.0, 8.0, 15.0}) {
            SCOPED_TRACE(truth);
            const size_t linesBefore = recordLines().size();
            Camsim wall(kFrontRig + sizeOf(front) + " --fps 30 --no-calib --distance " + std::to_string(truth));
            ASSERT_TRUE(waitUntil([&] { return recordLines().size() > linesBefore; }, 30.0)) << "front frames resume";
            ASSERT_TRUE(waitUntil([&] { return recordLines().size() > linesBefore + 30; }, 120.0));
            const size_t settled = messages(BINO_MSG_DISTANCE).size() - 20;
            EXPECT_NEAR(median(distances(2, settled)), truth, 0.03 * truth);
            EXPECT_NEAR(median(distances(167, settled)), 2.0, 0.06);
        }
    });
}

INSTANTIATE_TEST_SUITE_P(FrontMatcher, ModuleAccuracy, ::testing::Values(0, 1),
                         [](const ::testing::TestParamInfo<int>& param) {
                             return param.param == 0 ? "Unit" : "BlockMatching";
                         });

// Sensing off at start with the down pair disabled: status only, no record
// and no distance until the host turns sensing on; every outgoing record is
// byte-exact, and the flight state reaches the record line.
TEST(ModuleHost, MessagesSwitchAndRecordsAreExact)
{
    const std::string log = inChild([] {
        writeConfig(false, true, false, kSmallUnit, Pair{0});
        ASSERT_EQ(Camsim::run(kFrontRig + sizeOf(kSmallUnit) + " --calib-only"), 0);
        Module module;
        ASSERT_EQ(module.init(onMessage, 42), 0);
        Camsim wall(kFrontRig + sizeOf(kSmallUnit) + " --fps 30 --no-calib --distance 5");

        // The module's threads carry names an engineer finds in top -H.
        EXPECT_TRUE(waitUntil([] {
            std::string names;  // one per line
            for (const auto& task : fs::directory_iterator("/proc/self/task")) {
                names += testsupport::readFile(task.path() / "comm");
            }
            return std::all_of(std::begin(kThreads), std::end(kThreads),
                               [&](const char* name) { return names.find(name) != std::string::npos; });
        }));

        // Given sensing off: status once a second, nothing else.
        ASSERT_TRUE(waitUntil([] { return messages(BINO_MSG_STATUS).size() >= 2; }, 30.0));
        for (const Message& status : messages(BINO_MSG_STATUS)) {
            EXPECT_EQ(status.bytes, std::vector<uint8_t>({status.bytes[0], 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
        }
        EXPECT_TRUE(messages(BINO_MSG_DISTANCE).empty());
        EXPECT_TRUE(recordFiles().empty());

        // Requests: one version reply; an unknown type is logged; the flight state.
        module.send(HOST_MSG_VERSION_REQUEST, 1);
        ASSERT_EQ(messages(BINO_MSG_VERSION_REPLY).size(), 1u);
        EXPECT_EQ(messages(BINO_MSG_VERSION_REPLY)[0].bytes,
                  std::vector<uint8_t>({1, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 3}));
        module.send(7, 4);
        module.send(HOST_MSG_IGNORED, 3);
        module.send(HOST_MSG_BASIC_STATE, sizeof(AircraftBasicState), 71, {0xD2, 0x04, 0, 0});  // 12.34 m, not armed
        module.send(HOST_MSG_ATTITUDE, sizeof(AircraftAttitudeInfo), 32, {0x2C, 0x01});         // 3.00 degrees
        module.send(HOST_MSG_SPEED, sizeof(AircraftSpeedInfo), 8, {150, 0, 0xF6, 0xFF});        // 1.5, -0.1 m/s
        EXPECT_TRUE(messages(BINO_MSG_DISTANCE).empty());

        // When the host turns sensing on: a zero reply, the switch persisted,
        // records and distance reports.
        module.send(HOST_MSG_SENSOR_SWITCH, 1, 0, {0});
        ASSERT_EQ(messages(BINO_MSG_SWITCH_REPLY).size(), 1u);
        EXPECT_EQ(messages(BINO_MSG_SWITCH_REPLY)[0].bytes, std::vector<uint8_t>({0, 0}));
        EXPECT_EQ(testsupport::readFile(rooted("/run/visionSwitch.ini")), "[common]\nvisionswitch = 1");
        ASSERT_TRUE(waitUntil([] { return recordLines().size() >= 20; }, 60.0));

        // Then off: once the pass in progress has ended, reports and record
        // lines stop; on again a second later: a new record file.
        module.send(HOST_MSG_SENSOR_SWITCH, 1, 0, {1});
        const size_t linesWhenOff = settledLineCount();
        const size_t reportsWhenOff = messages(BINO_MSG_DISTANCE).size();
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));
        EXPECT_EQ(recordLines().size(), linesWhenOff);
        EXPECT_EQ(messages(BINO_MSG_DISTANCE).size(), reportsWhenOff);
        module.send(HOST_MSG_SENSOR_SWITCH, 1, 0, {0});
        ASSERT_TRUE(waitUntil([&] { return recordLines().size() >= linesWhenOff + 10; }, 60.0));
        module.send(HOST_MSG_SENSOR_SWITCH, 1, 0, {1});
        settledLineCount();
        EXPECT_EQ(recordFiles().size(), 2u);

        // One report per processed frame; centimetres truncated from the
        // final distance column; the down half reads 60 m; bytes of no meaning are 0.
        const std::vector<std::vector<std::string>> lines = recordLines();
        const std::vector<Message> reports = messages(BINO_MSG_DISTANCE);
        EXPECT_EQ(reports.size(), lines.size());
        std::set<uint16_t> truncatedCm;
        for (const std::vector<std::string>& columns : lines) {
            ASSERT_EQ(columns.size(), 23u);
            EXPECT_EQ(columns[0], "3.000000");                                               // pitch
            EXPECT_EQ(columns[1], "1.500000");                                               // headSpeed
            EXPECT_EQ(columns[2], "-0.100000");                                              // rightSpeed
            EXPECT_EQ(columns[4], "12.340000");                                              // height
            EXPECT_EQ(columns[5], "0");                                                      // armOrDisarm
            EXPECT_EQ(columns[18] + columns[19] + columns[20], "0.0000000.0000000.000000");  // no target region
            truncatedCm.insert(static_cast<uint16_t>(std::stod(columns[14]) * 100.0));
        }
        for (const Message& report : reports) {
            EXPECT_EQ(truncatedCm.count(u16At(report, 2)), 1u) << u16At(report, 2);
            EXPECT_EQ(u16At(report, 167), 6000);
            std::vector<uint8_t> meaningless = report.bytes;
            std::fill_n(meaningless.begin() + 2, 2, 0);
            std::fill_n(meaningless.begin() + 167, 2, 0);
            EXPECT_EQ(std::count(meaningless.begin(), meaningless.end(), 0), 170);
        }
        EXPECT_LT(std::abs(median(distances(2)) - 5.0), 0.15);
    });
    for (const char* line :
         {"[BINOLIB] version: 2.5.3; Date: ", "[BINOLIB] receive req: full visual version.",
          "[BINOLIB] msg type 7 not implement.", "[BINOLIB] receive req: avoid sensor. sensor_switch: 1",
          "[BINOLIB] frontHardware: 0, frontCalib: 0, lowerHardware: 0, lowerCalib: 0"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
}

// A configuration the module cannot run is refused at start with the reason,
// before any pipeline or thread of the refused pair exists.
TEST(ModuleHost, BadConfigurationIsRefusedAtStart)
{
    inChild([] {
        Module module;
        const auto threads = [] {
            return std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator());
        };
        const auto refusal = [&module]() -> std::string {
            try {
                module.init(onMessage, 42);
            } catch (const std::invalid_argument& error) {
                return error.what();
            }
            return "accepted";
        };
        const auto before = threads();
        EXPECT_EQ(refusal(), "stoi") << "no binocular.ini";
        Pair narrow{1, 300, 480};
        writeConfig(true, true, true, narrow, Pair{});
        EXPECT_NE(refusal().find("[front] width = 300"), std::string::npos);
        Pair huge{0, 1000, 1000};
        writeConfig(true, true, true, huge, Pair{});
        EXPECT_NE(refusal().find("[front] width = 1000"), std::string::npos);
        EXPECT_EQ(threads(), before);
        EXPECT_EQ(shmget(kFrontKey, 0, 0), -1) << "no queue attached";

        // Both pairs on the unit at two sizes: the down pair is refused.
        writeConfig(true, true, true, Pair{0, 640, 480}, Pair{0, 320, 240});
        EXPECT_NE(refusal().find("[down] width = 320"), std::string::npos);
    });
}

// A pair with the avoid processor never reports; a disabled pair neither, and
// its status bytes stay 0.
TEST(ModuleHost, AvoidProcessorAndDisabledPairNeverReport)
{
    inChild([] {
        writeConfig(true, true, false, Pair{1, 640, 480, 1}, Pair{});
        ASSERT_EQ(Camsim::run(std::string(kFrontRig) + " --calib-only"), 0);
        Module module;
        ASSERT_EQ(module.init(onMessage, 42), 0);
        Camsim wall(std::string(kFrontRig) + " --fps 30 --no-calib --distance 5");
        ASSERT_TRUE(waitUntil([] { return messages(BINO_MSG_STATUS).size() >= 3; }, 30.0));
        EXPECT_TRUE(messages(BINO_MSG_DISTANCE).empty());
        const Message status = messages(BINO_MSG_STATUS).back();
        EXPECT_EQ(status.bytes[0], 0) << "frames arriving";
        EXPECT_EQ(status.bytes[1], 0) << "calibration present";
        EXPECT_EQ(status.bytes[10] + status.bytes[11], 0);
    });
}

}  // namespace
