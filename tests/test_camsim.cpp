// The camera simulator: its command line, its sources, and the program itself
// feeding a running frame reader through the fixed-key queue.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/shm.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <numeric>
#include <optional>
#include <sstream>
#include <thread>
#include <tuple>

#include <opencv2/imgcodecs.hpp>

#include "camsimoptions.h"
#include "framelayout.h"
#include "framesource.h"
#include "imagereader.h"
#include "scenerender.h"
#include "test_support.h"

// GDAL, which OpenCV's image codecs load, takes two of its own mutexes in
// both orders while cv::imread/cv::imwrite probe formats; ThreadSanitizer
// reports that as a potential deadlock outside this code base.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions()
{
    return "deadlock:libgdal.so\n";
}

namespace {

camsim::ParseResult parse(const std::string& line, camsim::Options& options, std::string& error)
{
    std::istringstream stream(line);
    const std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    return camsim::parseOptions(words, options, error);
}

// Given a command line, every option lands in its field and --help wins
// over what follows it; each rule on the arguments refuses with its reason.
TEST(CamsimOptions, ParsesGoodAndRejectsBadArguments)
{
    camsim::Options options;
    std::string error;
    ASSERT_EQ(parse("--direction down --fps=50 --frames 3 --width 320 --height 240 --distance 3 --speed 1.5 "
                    "--seed=4294967295 --header-size 10x20 --dark-period 10 --dark-length 7 --pause-period 5 "
                    "--pause-ms 600 --no-calib --min-distance 2 --bounce --step 0.05 --truth t.txt",
                    options, error),
              camsim::ParseResult::Run)
        << error;
    EXPECT_EQ(std::make_tuple(options.direction, options.fps, options.frames, options.distanceM, options.speedMps,
                              options.seed, options.headerWidth, options.headerHeight, options.darkLength,
                              options.pauseMs, options.overrideHeader, options.writeCalibration),
              std::make_tuple(Common::DOWN, 50.0, uint64_t{3}, 3.0, 1.5, 4294967295u, 10u, 20u, uint64_t{7},
                              uint64_t{600}, true, false));
    EXPECT_EQ(std::make_tuple(options.bounce, options.stepM, options.truthFile),
              std::make_tuple(true, 0.05, std::string("t.txt")));
    EXPECT_EQ(camsim::rigOf(options).size, cv::Size(240, 320));
    EXPECT_EQ(parse("--help --fps 0", options, error), camsim::ParseResult::Help);

    const std::pair<const char*, const char*> bad[] = {
        {"--fps nan --help", "--fps expects"},
        {"--direction side", "expects front or down"},
        {"--width 1000 --height 1000", "exceeds"},
        {"--distance 50", "nearer than --background"},
        {"--seed 4294967296", "--seed"},
        {"--dark-period 5 --dark-length 6", "--dark-length"},
        {"--pause-ms 100", "go together"},
        {"--left a --right b --yuv-left c --yuv-right d", "alternative sources"},
        {"--no-calib=1", "takes no value"},
        {"frames", "unknown option 'frames'"},
        {"--bounce --distance 5", "--bounce needs --speed"},
    };
    for (const auto& [args, expected] : bad) {
        SCOPED_TRACE(args);
        camsim::Options fresh;
        error.clear();
        EXPECT_EQ(parse(args, fresh, error), camsim::ParseResult::Error);
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
}

// The wall approaches down to the minimum and stays; with --bounce it moves
// as a triangle wave between the two distances.
TEST(CamsimSources, ObstacleDistanceOverTime)
{
    const struct {
        double start, speed;
        bool bounce;
        double t, expected;
    } cases[] = {
        {15, 1.5, false, 4, 9}, {15, 1.5, false, 100, 2},        {15, 1.5, true, 26.0 / 3.0, 2},
        {15, 1.5, true, 10, 4}, {15, 1.5, true, 52.0 / 3.0, 15}, {15, 1.5, true, 52.0 / 3.0 + 4, 9},
        {15, 0, true, 50, 15},  {15, 1.5, true, -1, 15},         {1, 1, true, 5, 1},  // starts inside the minimum
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.start << " " << c.speed << " " << c.bounce << " t " << c.t);
        EXPECT_NEAR(camsim::obstacleDistanceAt(c.start, c.speed, 2, c.bounce, c.t), c.expected, 1e-9);
    }
}

// A moving wall is rendered at its distance of the moment. With a step, that
// distance is a multiple of the step and a pair taken from the cache equals
// a fresh rendering, also after other distances were rendered in between.
TEST(CamsimSources, MovingSceneIsRenderedAtItsDistance)
{
    for (double step : {0.5, 0.0}) {
        camsim::Options options;
        std::string error;
        ASSERT_EQ(
            parse("--distance 6 --min-distance 2 --speed 1 --bounce --step " + std::to_string(step), options, error),
            camsim::ParseResult::Run);
        auto source = camsim::makeSource(options, error);
        ASSERT_NE(source, nullptr) << error;
        cv::Mat left, right;
        for (double t : {0.0, 0.3, 1.0, 2.2, 4.0, 7.8, 8.0}) {
            SCOPED_TRACE(::testing::Message() << "step " << step << " t " << t);
            ASSERT_TRUE(source->next(t, left, right));
            double expected = camsim::obstacleDistanceAt(6, 1, 2, true, t);
            expected = step > 0 ? std::round(expected / step) * step : expected;
            ASSERT_DOUBLE_EQ(source->distanceM(), expected);
            scene::SceneLayout layout;
            layout.obstacleM = expected;
            cv::Mat fresh[2];
            scene::renderPair(camsim::rigOf(options), layout, fresh[0], fresh[1]);
            EXPECT_EQ(cv::countNonZero(left != fresh[0]) + cv::countNonZero(right != fresh[1]), 0);
        }
    }
}

// The source a command line selects, or null with `error` set.
std::unique_ptr<camsim::FrameSource> sourceOf(const std::string& line, std::string& error)
{
    camsim::Options options;
    EXPECT_EQ(parse(line, options, error), camsim::ParseResult::Run) << error;
    return camsim::makeSource(options, error);
}

// Replay cycles through whole frames; an image pair is resized; a missing
// file: no source.
TEST(CamsimSources, ReplayAndImagePair)
{
    testsupport::ScratchRoot root;
    std::string error;
    cv::Mat left, right;
    std::string bytes(30, '\0');  // two and a half 4x3 frames
    std::iota(bytes.begin(), bytes.end(), 0);
    std::ofstream("l.yuv", std::ios::binary) << bytes;
    std::iota(bytes.begin(), bytes.end(), 100);
    std::ofstream("r.yuv", std::ios::binary) << bytes.substr(0, 24);
    auto source = sourceOf("--yuv-left l.yuv --yuv-right r.yuv --width 3 --height 4", error);
    ASSERT_NE(source, nullptr) << error;
    for (int expected : {0, 1, 0}) {
        ASSERT_TRUE(source->next(0.0, left, right));
        EXPECT_EQ(left.size(), cv::Size(4, 3));
        EXPECT_EQ(left.at<uint8_t>(0, 0), 12 * expected);
        EXPECT_EQ(left.at<uint8_t>(2, 3), 12 * expected + 11);
        EXPECT_EQ(right.at<uint8_t>(2, 3), 100 + 12 * expected + 11);
    }
    EXPECT_EQ(sourceOf("--yuv-left l.yuv --yuv-right missing.yuv", error), nullptr);
    EXPECT_NE(error.find("missing.yuv"), std::string::npos);

    ASSERT_TRUE(cv::imwrite("left.png", cv::Mat(50, 100, CV_8UC1, cv::Scalar(70))));
    ASSERT_TRUE(cv::imwrite("right.png", cv::Mat(50, 100, CV_8UC1, cv::Scalar(90))));
    source = sourceOf("--left left.png --right right.png", error);
    ASSERT_NE(source, nullptr) << error;
    ASSERT_TRUE(source->next(0.0, left, right));
    EXPECT_EQ(left.size(), cv::Size(480, 640));
    EXPECT_EQ(cv::countNonZero(left != 70) + cv::countNonZero(right != 90), 0);
    EXPECT_EQ(sourceOf("--left left.png --right absent.png", error), nullptr);
}

uint64_t monotonicMicroseconds()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count());
}

// The program against a running reader.
class CamsimProcessTest : public ::testing::Test {
protected:
    testsupport::ScratchRoot root;
    testsupport::SysvGuard guard{framelayout::kFrontQueueKey, framelayout::kDownQueueKey};
    std::unique_ptr<ImageReader> reader;

    static std::unique_ptr<testsupport::Program> spawn(const std::string& arguments)
    {
        return std::make_unique<testsupport::Program>(CAMSIM_PATH, arguments, "camsim.out");
    }
    static std::string output() { return testsupport::readFile("camsim.out"); }

    // Frames the reader queues until `wanted` have come, or until camsim has
    // exited and all it sent has been through the reader: the ring empty,
    // nothing queued, and two polls finished since.
    std::vector<ImageReader::QueueData> collect(testsupport::Program& camsim, size_t wanted = SIZE_MAX)
    {
        std::vector<ImageReader::QueueData> frames;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        std::optional<uint64_t> idleSince;
        while (frames.size() < wanted && std::chrono::steady_clock::now() < deadline) {
            const bool exited = camsim.status(false) != -1;
            while (reader->frameReady->value() > 0 && frames.size() < wanted) {
                ImageReader::QueueData frame;
                reader->getImageBlock(frame.left, frame.right, frame.leftTimestamp, frame.rightTimestamp);
                frames.push_back(frame);
                idleSince.reset();
            }
            if (exited && reader->queue->GetDataSize() == 0 && reader->frameReady->value() == 0) {
                if (!idleSince) {
                    idleSince = reader->pollCount();
                } else if (reader->pollCount() >= *idleSince + 2) {
                    break;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return frames;
    }
};

// In both directions camsim feeds a running reader the rendered scene with
// monotonic stamps; SIGTERM ends it with 0 and leaves the segment, so the
// reader takes the next run's frames; Q from its files gives the scene's depth.
TEST_F(CamsimProcessTest, FeedsARunningReaderAcrossRestarts)
{
    scene::Rig rig;
    cv::Mat uprightLeft, uprightRight;
    scene::renderPair(rig, scene::SceneLayout(), uprightLeft, uprightRight);
    for (Common::Direction direction : {Common::FRONT, Common::DOWN}) {
        const std::string label = "--direction " + Common::binoString(direction);
        SCOPED_TRACE(label);
        reader = std::make_unique<ImageReader>(direction, ImageReader::SHM, 640, 480);
        const uint64_t before = monotonicMicroseconds();
        auto running = spawn(label + " --fps 50");
        std::vector<ImageReader::QueueData> frames = collect(*running, 3);
        ASSERT_EQ(running->status(false), -1) << "camsim ended early: " << output();
        running->signal(SIGTERM);
        EXPECT_EQ(running->status(), 0);
        EXPECT_NE(output().find("[camsim " + Common::binoString(direction) + "] stopped after "), std::string::npos);
        EXPECT_NE(shmget(direction == Common::FRONT ? 9990 : 9991, 0, 0), -1);

        const uint64_t restart = monotonicMicroseconds();
        auto limited = spawn(label + " --fps 50 --frames 3 --no-calib");
        const std::vector<ImageReader::QueueData> next = collect(*limited);
        EXPECT_EQ(limited->status(false), 0) << output();
        ASSERT_FALSE(next.empty());
        EXPECT_GE(next.back().leftTimestamp, restart);
        frames.insert(frames.end(), next.begin(), next.end());
        const uint64_t after = monotonicMicroseconds();
        uint64_t previous = before;
        for (const ImageReader::QueueData& frame : frames) {
            EXPECT_GE(frame.leftTimestamp, previous);
            EXPECT_LE(frame.leftTimestamp, after);
            EXPECT_EQ(frame.rightTimestamp, frame.leftTimestamp);
            previous = frame.leftTimestamp;
            const cv::Rect unstamped(0, direction == Common::FRONT ? 8 : 0, 480, 632);
            EXPECT_EQ(cv::countNonZero(frame.left(unstamped) != uprightLeft(unstamped)), 0);
            EXPECT_EQ(cv::countNonZero(frame.right(unstamped) != uprightRight(unstamped)), 0);
        }

        ImageReader calibrated(direction, ImageReader::NONE, 640, 480);
        ASSERT_TRUE(calibrated.calibOk);
        cv::Mat point = calibrated.getQ() * (cv::Mat_<double>(4, 1) << 0, 0, scene::disparityPx(rig, 5.0), 1);
        EXPECT_NEAR(point.at<double>(2) / point.at<double>(3), 5000.0, 1e-6);  // mm
    }
}

TEST_F(CamsimProcessTest, BadArgumentsExitTwoWithoutTouchingTheQueue)
{
    EXPECT_EQ(spawn("--fps 0")->status(), 2);
    EXPECT_NE(output().find("camsim: --fps expects"), std::string::npos) << output();
    EXPECT_EQ(shmget(framelayout::kFrontQueueKey, 0, 0), -1);
}

}  // namespace
