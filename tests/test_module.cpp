// The module end to end: the library loaded with dlopen as the host loads it, the
// real queues, camsim as the camera process; each scenario in a child of its own.

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <opencv2/core.hpp>

#include "binocular/binocular.h"
#include "framelayout.h"
#include "framemessage.h"
#include "hostmessage.h"
#include "imagereader.h"
#include "paths.h"
#include "test_support.h"

namespace fs = std::filesystem;
using testsupport::waitUntil;

namespace {

constexpr int kFrontKey = 9990, kDownKey = 9991;

struct Message {
    uint32_t type;
    std::vector<uint8_t> bytes;
    uint16_t u16(size_t at) const { return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8); }
};

std::mutex g_inboxMutex;
std::vector<Message> g_inbox;

// Keeps each outgoing record's bytes, then frees it as its own type, as the host tool does.
int64_t onMessage(void* message, uint32_t type, uint64_t module)
{
    EXPECT_EQ(module, 42u);
    const auto* bytes = static_cast<const uint8_t*>(message);
    std::lock_guard<std::mutex> lock(g_inboxMutex);
    g_inbox.push_back({type, std::vector<uint8_t>(bytes, bytes + host::outgoingSize(type))});
    EXPECT_TRUE(host::releaseOutgoing(message, type)) << "unknown message type " << type;
    return 0;
}

std::vector<Message> messages(uint32_t type)
{
    std::lock_guard<std::mutex> lock(g_inboxMutex);
    std::vector<Message> kept;
    std::copy_if(g_inbox.begin(), g_inbox.end(), std::back_inserter(kept), [=](auto& m) { return m.type == type; });
    return kept;
}

// The median front (offset 2) or down (167) distance in metres of the reports after the first `skip`.
double medianDistance(size_t offset, size_t skip = 0)
{
    std::vector<double> metres;
    const std::vector<Message> reports = messages(BINO_MSG_DISTANCE);
    for (size_t i = skip; i < reports.size(); ++i) {
        metres.push_back(reports[i].u16(offset) / 100.0);
    }
    metres.resize(std::max<size_t>(metres.size(), 1), NAN);  // no report: no median
    std::nth_element(metres.begin(), metres.begin() + metres.size() / 2, metres.end());
    return metres[metres.size() / 2];
}

// One of the module's two entry points, the library loaded with dlopen as the host loads it.
template <typename Function>
Function* entry(const char* name)
{
    static void* const handle = dlopen(BINOCULAR_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE(handle, nullptr) << dlerror();
    return reinterpret_cast<Function*>(dlsym(handle, name));
}

int startModule() { return entry<decltype(binocularInit)>("binocularInit")(onMessage, 42); }

// A host message of `size` bytes with `bytes` written at `offset`.
void send(uint32_t type, size_t size, size_t offset = 0, std::vector<uint8_t> bytes = {})
{
    auto* buffer = new uint8_t[size]();
    std::copy(bytes.begin(), bytes.end(), buffer + offset);
    entry<decltype(binocular_getInfoFromVM)>("binocular_getInfoFromVM")(buffer, type);
}

struct Pair {
    int matcher = 0, width = 640, height = 480;  // matcher 0: the stereo unit; 1: block matching
    int saveImage = 0, saveInterval = 5;
};

void writeConfig(bool sensing, bool enableDown, const Pair& front, const Pair& down)
{
    fs::create_directories(paths::resolve("/home/tarnwick/component/vision_cmp"));
    std::ofstream ini(paths::resolve("/home/tarnwick/component/vision_cmp/binocular.ini"));
    ini << "[common]\nvisionSwitch = " << sensing << "\nenableFront = 1\nenableDown = " << enableDown << "\n";
    for (const auto& [name, pair] : {std::pair<const char*, Pair>("front", front), {"down", down}}) {
        ini << "[" << name << "]\nimageType = 0\nwidth = " << pair.width << "\nheight = " << pair.height
            << "\nsource = 0\nmatcher = " << pair.matcher << "\nprocessor = 0\nsaveImage = " << pair.saveImage
            << "\nsaveInterval = " << pair.saveInterval << "\n";
    }
    fs::create_directories(paths::resolve("/home/tarnwick/scripts"));
    fs::create_directories(paths::resolve("/run"));
    std::ofstream(paths::resolve("/home/tarnwick/scripts/zlog_count.cfg")) << "7";
}

// camsim with its output appended to camsim.out; ended by the destructor.
struct Camsim : testsupport::Program {
    explicit Camsim(const std::string& arguments) : Program(CAMSIM_PATH, arguments, "camsim.out") {}
    static int run(const std::string& arguments) { return Camsim(arguments).status(); }
};

// f x B: 120 px·m in front (40, 15 and 8 px at 3, 8 and 15 m), 80 px·m
// below (40 px at 2 m): whole pixels within block matching's 0..47.
const std::string kFrontRig = "--direction front --focal 400 --baseline 300";
const std::string kDownRig = "--direction down --focal 400 --baseline 200";
// The stereo unit's substitute costs the most per pixel: its pairs run at a quarter size.
const Pair kSmallUnit{0, 320, 240};
const std::string kSmallSize = " --width 320 --height 240";

// The record lines (headers excluded) of the front record files, split into columns, in no set order.
std::vector<std::vector<std::string>> recordLines()
{
    std::vector<std::vector<std::string>> lines;
    std::error_code none;  // no directory yet: no lines
    for (const auto& file : fs::directory_iterator(paths::resolve("/data/log/frontBino"), none)) {
        std::ifstream in(file.path());
        for (std::string line; std::getline(in, line);) {
            std::stringstream split(line);
            lines.emplace_back();
            for (std::string column; std::getline(split, column, '\t');) {
                lines.back().push_back(column);
            }
            lines.resize(lines.size() - (line.rfind("pitch\t", 0) == 0));  // the header
        }
    }
    return lines;
}

// Runs `scenario` in a child in a scratch root, the fixed keys free.
void inChild(const std::function<void()>& scenario)
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
        240);
    EXPECT_TRUE(child.exited && child.exitCode == 0) << child.output.substr(0, 20000);
}

// A static obstacle at 3, 8 and 15 m in front, ground at 2 m below: once the filters have
// settled, both reported distances are within 3 %, either matcher in front, after each restart.
class ModuleAccuracy : public ::testing::TestWithParam<int> {};

TEST_P(ModuleAccuracy, ReportedDistancesFollowTheScene)
{
    inChild([unit = GetParam() == 0] {
        const std::string front = kFrontRig + (unit ? kSmallSize : "");
        writeConfig(true, true, unit ? kSmallUnit : Pair{1}, Pair{1});
        ASSERT_EQ(Camsim::run(front + " --calib-only"), 0);
        ASSERT_EQ(Camsim::run(kDownRig + " --calib-only"), 0);
        ASSERT_EQ(startModule(), 0);
        send(HOST_MSG_BASIC_STATE, sizeof(AircraftBasicState), 1, {1});  // armed: the whole front search
        Camsim ground(kDownRig + " --fps 30 --distance 2 --no-calib");
        for (double truth : {3.0, 8.0, 15.0}) {
            SCOPED_TRACE(truth);
            const size_t linesBefore = recordLines().size();
            Camsim wall(front + " --fps 30 --no-calib --distance " + std::to_string(truth));
            ASSERT_TRUE(waitUntil([&] { return recordLines().size() > linesBefore + 30; }, 150.0)) << "frames resume";
            const size_t settled = messages(BINO_MSG_DISTANCE).size() - 20;
            EXPECT_NEAR(medianDistance(2, settled), truth, 0.03 * truth);
            EXPECT_NEAR(medianDistance(167, settled), 2.0, 0.06);
        }
    });
}

INSTANTIATE_TEST_SUITE_P(FrontMatcher, ModuleAccuracy, ::testing::Values(0, 1));  // 0: the unit; 1: block matching

// Sensing off at start, the down pair disabled: status only until the host turns sensing
// on; every outgoing record is byte-exact, and the flight state reaches the record line.
TEST(ModuleHost, MessagesSwitchAndRecordsAreExact)
{
    inChild([] {
        writeConfig(false, false, kSmallUnit, Pair{0});
        ASSERT_EQ(Camsim::run(kFrontRig + kSmallSize + " --calib-only"), 0);
        ASSERT_EQ(startModule(), 0);
        Camsim wall(kFrontRig + kSmallSize + " --fps 30 --no-calib --distance 5");
        // Given sensing off: status once a second, nothing else.
        ASSERT_TRUE(waitUntil([] { return messages(BINO_MSG_STATUS).size() >= 2; }, 30.0));
        for (const Message& status : messages(BINO_MSG_STATUS)) {
            EXPECT_EQ(status.bytes, std::vector<uint8_t>({status.bytes[0], 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
        }
        EXPECT_TRUE(messages(BINO_MSG_DISTANCE).empty());
        EXPECT_TRUE(recordLines().empty());
        // Requests: one version reply; the flight state.
        send(HOST_MSG_VERSION_REQUEST, 1);
        ASSERT_EQ(messages(BINO_MSG_VERSION_REPLY).size(), 1u);
        const std::vector<uint8_t> version = {1, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 3};
        EXPECT_EQ(messages(BINO_MSG_VERSION_REPLY)[0].bytes, version);
        send(HOST_MSG_BASIC_STATE, sizeof(AircraftBasicState), 71, {0xD2, 0x04, 0, 0});  // 12.34 m, not armed
        send(HOST_MSG_ATTITUDE, sizeof(AircraftAttitudeInfo), 32, {0x2C, 0x01});         // 3.00 degrees
        send(HOST_MSG_SPEED, sizeof(AircraftSpeedInfo), 8, {150, 0, 0xF6, 0xFF});        // 1.5, -0.1 m/s
        // Sensing on: a zero reply, the switch persisted, records and reports.
        send(HOST_MSG_SENSOR_SWITCH, 1, 0, {0});
        ASSERT_EQ(messages(BINO_MSG_SWITCH_REPLY).size(), 1u);
        EXPECT_EQ(messages(BINO_MSG_SWITCH_REPLY)[0].bytes, std::vector<uint8_t>({0, 0}));
        EXPECT_EQ(testsupport::readFile(paths::resolve("/run/visionSwitch.ini")), "[common]\nvisionswitch = 1");
        ASSERT_TRUE(waitUntil([] { return recordLines().size() >= 20; }, 60.0));
        // Then off: once the pass in progress has ended with its line (no change for 1 s), both stop.
        send(HOST_MSG_SENSOR_SWITCH, 1, 0, {1});
        size_t linesWhenOff = SIZE_MAX;
        for (int polls = 0; polls < 60 && recordLines().size() != linesWhenOff; ++polls) {
            linesWhenOff = recordLines().size();
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
        const size_t reportsWhenOff = messages(BINO_MSG_DISTANCE).size();
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));
        EXPECT_EQ(recordLines().size(), linesWhenOff);
        EXPECT_EQ(messages(BINO_MSG_DISTANCE).size(), reportsWhenOff);
        // One report per processed frame; centimetres truncated from the final
        // distance column; the down half reads 60 m; bytes of no meaning are 0.
        const std::vector<std::vector<std::string>> lines = recordLines();
        const std::vector<Message> reports = messages(BINO_MSG_DISTANCE);
        EXPECT_EQ(reports.size(), lines.size());
        std::set<uint16_t> truncatedCm;
        for (const std::vector<std::string>& columns : lines) {
            ASSERT_EQ(columns.size(), 23u);
            EXPECT_EQ(columns[0] + " " + columns[1] + " " + columns[2] + " " + columns[4] + " " + columns[5],
                      "3.000000 1.500000 -0.100000 12.340000 0");
            truncatedCm.insert(static_cast<uint16_t>(std::stod(columns[14]) * 100.0));
        }
        for (const Message& report : reports) {
            EXPECT_EQ(truncatedCm.count(report.u16(2)), 1u) << report.u16(2);
            EXPECT_EQ(report.u16(167), 6000);
            std::vector<uint8_t> rest = report.bytes;
            rest[2] = rest[3] = rest[167] = rest[168] = 0;
            EXPECT_EQ(std::count(rest.begin(), rest.end(), 0), 170);
        }
        EXPECT_NEAR(medianDistance(2), 5.0, 0.15);
    });
}

// Block matching rectifies first only what it reads; the raw images recorded are
// nonetheless whole: each the very frame the reader hands out for the same message.
TEST(ModuleHost, RecordedImagesAreWholeRectifiedFrames)
{
    inChild([] {
        writeConfig(true, false, Pair{1, 640, 480, 1, 1}, Pair{0});
        ASSERT_EQ(Camsim::run(kFrontRig + " --calib-only"), 0);
        cv::Mat upright[2] = {cv::Mat(640, 480, CV_8UC1), cv::Mat(640, 480, CV_8UC1)};
        for (int i : {0, 1}) {
            cv::randu(upright[i], 0, 256);  // noise: every pixel tells
            std::ofstream(i == 0 ? "left.yuv" : "right.yuv", std::ios::binary)
                .write(reinterpret_cast<const char*>(upright[i].data),
                       static_cast<std::streamsize>(upright[i].total()));
        }
        ASSERT_EQ(startModule(), 0);
        {
            Camsim replay(kFrontRig + " --fps 30 --no-calib --yuv-left left.yuv --yuv-right right.yuv");
            ASSERT_TRUE(waitUntil([] { return recordLines().size() >= 3; }, 60.0));
            send(HOST_MSG_SENSOR_SWITCH, 1, 0, {1});  // sensing off closes the files after the pass
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
        const std::vector<std::string> first = recordLines().at(0);
        const auto stamp = static_cast<uint64_t>(std::llround(std::stod(first.at(21)) * 1000.0));

        ImageReader reader(Common::FRONT, ImageReader::NONE, 640, 480);  // the same calibration
        reader.enableRemap(true);
        camsim::encodeFrameMessage(camsim::toSensorOrientation(Common::FRONT, upright[0]),
                                   camsim::toSensorOrientation(Common::FRONT, upright[1]), stamp, stamp, 640, 480,
                                   reader.frameBuffer);
        reader.frameBuffer.resize(framelayout::kMessageBytes);
        reader.processMessage(framelayout::kMessageBytes);
        ImageReader::QueueData expected;
        reader.getImageBlock(expected.left, expected.right, expected.leftTimestamp, expected.rightTimestamp);
        std::vector<fs::path> runs;
        for (const auto& entry : fs::directory_iterator(paths::resolve("/data/log/frontBino"))) {
            if (entry.is_directory()) {
                runs.push_back(entry.path());
            }
        }
        ASSERT_EQ(runs.size(), 1u);
        for (const auto& [side, image] :
             {std::pair<std::string, cv::Mat>("left", expected.left), {"right", expected.right}}) {
            const std::string recorded = testsupport::readFile(runs[0] / ("gray_480x640_" + side + ".yuv"));
            ASSERT_GE(recorded.size(), image.total()) << side;
            EXPECT_EQ(recorded.compare(0, image.total(), reinterpret_cast<const char*>(image.data), image.total()), 0)
                << side;
        }
    });
}

// A configuration the module cannot run is refused at start with the reason, before its queue exists.
TEST(ModuleHost, BadConfigurationIsRefusedAtStart)
{
    inChild([] {
        EXPECT_THROW(startModule(), std::invalid_argument) << "no binocular.ini";
        const std::tuple<Pair, Pair, const char*, int> cases[] = {
            {{1, 300, 480}, {}, "[front] width = 300", kFrontKey},
            {{0, 640, 480}, {0, 320, 240}, "[down] width = 320", kDownKey},  // the unit at two sizes
        };
        for (const auto& [front, down, reason, refusedKey] : cases) {
            writeConfig(true, true, front, down);
            std::string refusal = "accepted";
            try {
                startModule();
            } catch (const std::invalid_argument& error) {
                refusal = error.what();
            }
            EXPECT_NE(refusal.find(reason), std::string::npos) << refusal;
            EXPECT_EQ(shmget(refusedKey, 0, 0), -1) << "a queue attached although refused: " << reason;
        }
    });
}

}  // namespace
