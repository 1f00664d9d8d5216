// The camera simulator: its command line, its sources, and the program itself
// feeding a running frame reader through the fixed-key queue.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
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

// Given a command line, every option lands in its field, --help wins over
// what follows it, and each bad argument is refused saying why.
TEST(CamsimOptions, ParsesGoodAndRejectsBadArguments)
{
    camsim::Options options;
    std::string error;
    ASSERT_EQ(parse("--direction down --fps=50 --frames 3 --width 320 --height 240 --distance 3 --speed 1.5 "
                    "--seed=4294967295 --header-size 10x20 --dark-period 10 --dark-length 7 --pause-period 5 "
                    "--pause-ms 600 --no-calib",
                    options, error),
              camsim::ParseResult::Run)
        << error;
    EXPECT_EQ(std::make_tuple(options.direction, options.fps, options.frames, options.distanceM, options.speedMps,
                              options.seed, options.headerWidth, options.headerHeight, options.darkLength,
                              options.pauseMs, options.overrideHeader, options.writeCalibration),
              std::make_tuple(Common::DOWN, 50.0, uint64_t{3}, 3.0, 1.5, 4294967295u, 10u, 20u, uint64_t{7},
                              uint64_t{600}, true, false));
    EXPECT_EQ(camsim::rigOf(options).size, cv::Size(240, 320));
    EXPECT_EQ(parse("--help --fps 0", options, error), camsim::ParseResult::Help);

    const std::pair<const char*, const char*> bad[] = {
        {"--fps nan --help", "--fps expects"},
        {"--fps", "--fps needs a value"},
        {"--frames -1", "--frames expects"},
        {"--direction side", "expects front or down"},
        {"--width 1000 --height 1000", "exceeds"},
        {"--distance 50", "nearer than --background"},
        {"--header-size 4294967296x1", "WIDTHxHEIGHT"},
        {"--seed 4294967296", "--seed"},
        {"--dark-period 5 --dark-length 6", "--dark-length"},
        {"--pause-ms 100", "go together"},
        {"--left a.png", "--left and --right go together"},
        {"--left a --right b --yuv-left c --yuv-right d", "alternative sources"},
        {"--no-calib=1", "takes no value"},
        {"frames", "unknown option 'frames'"}};
    for (const auto& [args, expected] : bad) {
        SCOPED_TRACE(args);
        camsim::Options fresh;
        error.clear();
        EXPECT_EQ(parse(args, fresh, error), camsim::ParseResult::Error);
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
}

// The wall that comes and goes: the options that ask for it, the motion as a
// triangle wave between the two distances, and the rounded, cached frames.
TEST(CamsimOptions, BounceStepAndTruth)
{
    camsim::Options options;
    std::string error;
    ASSERT_EQ(parse("--distance 15 --min-distance 2 --speed 1.5 --bounce --step 0.05 --truth t.txt", options, error),
              camsim::ParseResult::Run)
        << error;
    EXPECT_EQ(std::make_tuple(options.bounce, options.stepM, options.truthFile),
              std::make_tuple(true, 0.05, std::string("t.txt")));
    const std::pair<const char*, const char*> bad[] = {
        {"--bounce --distance 5", "--bounce needs --speed"},
        {"--bounce --speed 1 --distance 1 --min-distance 2", "--bounce needs"},
        {"--bounce=1", "takes no value"},
        {"--step -1", "--step"},
        {"--truth=", "--truth expects a file name"},
    };
    for (const auto& [args, expected] : bad) {
        SCOPED_TRACE(args);
        camsim::Options fresh;
        error.clear();
        EXPECT_EQ(parse(args, fresh, error), camsim::ParseResult::Error);
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
}

TEST(CamsimSources, ObstacleDistanceOverTime)
{
    const struct {
        double start, speed, min;
        bool bounce;
        double t, expected;
    } cases[] = {
        {15, 1.5, 2, false, 0, 15},
        {15, 1.5, 2, false, 4, 9},
        {15, 1.5, 2, false, 100, 2},
        {15, 1.5, 2, true, 0, 15},
        {15, 1.5, 2, true, 4, 9},
        {15, 1.5, 2, true, 26.0 / 3.0, 2},
        {15, 1.5, 2, true, 10, 4},
        {15, 1.5, 2, true, 52.0 / 3.0, 15},
        {15, 1.5, 2, true, 52.0 / 3.0 + 4, 9},
        {15, 0, 2, true, 50, 15},
        {0, 1.5, 2, true, 5, 0},
        {15, 1.5, 2, true, -1, 15},
        {1, 1, 2, true, 5, 1},  // starts inside the minimum: stays
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << c.start << " " << c.speed << " " << c.min << " " << c.bounce << " t " << c.t);
        EXPECT_NEAR(camsim::obstacleDistanceAt(c.start, c.speed, c.min, c.bounce, c.t), c.expected, 1e-9);
    }
}

// Rounded distances are exact multiples of the step, and a pair taken from
// the cache equals a fresh rendering of its distance, also after other
// distances were rendered in between.
TEST(CamsimSources, SteppedSceneReusesExactPairs)
{
    camsim::Options options;
    std::string error;
    ASSERT_EQ(parse("--distance 6 --min-distance 2 --speed 1 --bounce --step 0.5", options, error),
              camsim::ParseResult::Run);
    auto source = camsim::makeSource(options, error);
    ASSERT_NE(source, nullptr) << error;
    cv::Mat left, right;
    for (double t : {0.0, 0.3, 1.0, 2.2, 4.0, 7.8, 8.0}) {
        SCOPED_TRACE(t);
        ASSERT_TRUE(source->next(t, left, right));
        const double expected = std::round(camsim::obstacleDistanceAt(6, 1, 2, true, t) / 0.5) * 0.5;
        ASSERT_DOUBLE_EQ(source->distanceM(), expected);
        scene::SceneLayout layout;
        layout.obstacleM = expected;
        cv::Mat fresh[2];
        scene::renderPair(camsim::rigOf(options), layout, fresh[0], fresh[1]);
        EXPECT_EQ(cv::countNonZero(left != fresh[0]) + cv::countNonZero(right != fresh[1]), 0);
    }
}

// The source a command line selects, or null with `error` set.
std::unique_ptr<camsim::FrameSource> sourceOf(const std::string& line, std::string& error)
{
    camsim::Options options;
    EXPECT_EQ(parse(line, options, error), camsim::ParseResult::Run) << error;
    return camsim::makeSource(options, error);
}

// Replay cycles through whole frames; an image pair is resized; the scene's
// obstacle approaches down to the minimum distance; a missing file: no source.
TEST(CamsimSources, ReplayImagePairAndApproachingScene)
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

    source = sourceOf("--distance 5 --speed 2 --min-distance 1", error);
    ASSERT_TRUE(source->next(0.0, left, right));
    EXPECT_EQ(source->distanceM(), 5.0);
    ASSERT_TRUE(source->next(1.5, left, right));
    EXPECT_DOUBLE_EQ(source->distanceM(), 2.0);
    scene::SceneLayout layout;
    layout.obstacleM = 2.0;
    cv::Mat expected[2];
    scene::renderPair(scene::Rig(), layout, expected[0], expected[1]);
    EXPECT_EQ(cv::countNonZero(right != expected[1]), 0);
    ASSERT_TRUE(source->next(60.0, left, right));
    EXPECT_EQ(source->distanceM(), 1.0);
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

    // Starts camsim with its output appended to camsim.out.
    static pid_t spawn(const std::string& line)
    {
        const std::string command = "exec " BINO_EMULATOR CAMSIM_PATH " " + line + " >>camsim.out 2>&1";
        const pid_t pid = fork();
        if (pid == 0) {
            execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        return pid;
    }

    // Exit code, 128 + signal when killed, -1 while running (with WNOHANG).
    static int reap(pid_t pid, int options = 0)
    {
        int status = 0;
        if (waitpid(pid, &status, options) != pid) {
            return -1;
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    static std::string output()
    {
        std::ifstream file("camsim.out");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    // Frames the reader queues until `wanted` have come, or until camsim has
    // exited (`code` then set) and all it sent has been through the reader:
    // the ring empty, nothing queued, and two polls finished since.
    std::vector<ImageReader::QueueData> collect(pid_t pid, int& code, size_t wanted = SIZE_MAX)
    {
        std::vector<ImageReader::QueueData> frames;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        code = -1;
        std::optional<uint64_t> idleSince;
        while (frames.size() < wanted && std::chrono::steady_clock::now() < deadline) {
            if (code == -1) {
                code = reap(pid, WNOHANG);
            }
            while (reader->frameReady->value() > 0 && frames.size() < wanted) {
                ImageReader::QueueData frame;
                reader->getImageBlock(frame.left, frame.right, frame.leftTimestamp, frame.rightTimestamp);
                frames.push_back(frame);
                idleSince.reset();
            }
            if (code != -1 && reader->queue->GetDataSize() == 0 && reader->frameReady->value() == 0) {
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
        const pid_t pid = spawn(label + " --fps 50");
        int code = -1;
        std::vector<ImageReader::QueueData> frames = collect(pid, code, 3);
        ASSERT_EQ(code, -1) << "camsim ended early: " << output();
        kill(pid, SIGTERM);
        EXPECT_EQ(reap(pid), 0);
        EXPECT_NE(output().find("[camsim " + Common::binoString(direction) + "] stopped after "), std::string::npos);
        EXPECT_NE(shmget(direction == Common::FRONT ? 9990 : 9991, 0, 0), -1);

        const uint64_t restart = monotonicMicroseconds();
        const std::vector<ImageReader::QueueData> next =
            collect(spawn(label + " --fps 50 --frames 3 --no-calib"), code);
        EXPECT_EQ(code, 0) << output();
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

TEST_F(CamsimProcessTest, BadArgumentsExitTwoWithTheReason)
{
    EXPECT_EQ(reap(spawn("--fps 0")), 2);
    EXPECT_NE(output().find("camsim: --fps expects"), std::string::npos) << output();
    EXPECT_EQ(reap(spawn("--help")), 0);
    EXPECT_NE(output().find("Usage: camsim"), std::string::npos);
    EXPECT_EQ(shmget(framelayout::kFrontQueueKey, 0, 0), -1) << "argument errors must not touch the queue";
}

}  // namespace
