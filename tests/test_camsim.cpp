// The camera simulator: its command line, its sources, and the program itself
// feeding a real frame reader through the fixed-key queue.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include <opencv2/imgcodecs.hpp>

#include "camsimoptions.h"
#include "framesource.h"
#include "imagereader.h"
#include "rigcalibration.h"
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

std::vector<std::string> words(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> result;
    for (std::string word; stream >> word;) {
        result.push_back(word);
    }
    return result;
}

camsim::ParseResult parse(std::vector<std::string> args, camsim::Options& options, std::string& error)
{
    return camsim::parseOptions(args, options, error);
}

TEST(CamsimOptions, ReadsEveryOptionAndItsDefaults)
{
    camsim::Options options;
    std::string error;
    ASSERT_EQ(parse({}, options, error), camsim::ParseResult::Run);
    EXPECT_EQ(options.direction, Common::FRONT);
    EXPECT_EQ(options.source, camsim::SourceKind::Scene);
    EXPECT_EQ(options.frames, 0u);

    ASSERT_EQ(parse(words("--direction down --fps=50 --frames 3 --width 320 --height 240 --distance 3 --speed 1.5 "
                          "--seed=4294967295 --header-size 10x20 --dark-period 10 --dark-length 7 "
                          "--pause-period 5 --pause-ms 600 --no-calib"),
                    options, error),
              camsim::ParseResult::Run)
        << error;
    EXPECT_EQ(options.direction, Common::DOWN);
    EXPECT_EQ(options.fps, 50.0);
    EXPECT_EQ(options.frames, 3u);
    EXPECT_EQ(camsim::rigOf(options).size, cv::Size(240, 320));
    EXPECT_EQ(options.distanceM, 3.0);
    EXPECT_EQ(options.speedMps, 1.5);
    EXPECT_EQ(options.seed, 4294967295u);
    EXPECT_TRUE(options.overrideHeader);
    EXPECT_EQ(options.headerWidth, 10u);
    EXPECT_EQ(options.headerHeight, 20u);
    EXPECT_EQ(options.darkLength, 7u);
    EXPECT_EQ(options.pauseMs, 600u);
    EXPECT_FALSE(options.writeCalibration);

    EXPECT_EQ(parse({"--yuv-left", "l.yuv", "--yuv-right", "r.yuv"}, options, error), camsim::ParseResult::Run);
    EXPECT_EQ(options.source, camsim::SourceKind::Replay);
    EXPECT_EQ(parse({"--fps", "0", "--help"}, options, error), camsim::ParseResult::Error);
    EXPECT_EQ(parse({"--help", "--fps", "0"}, options, error), camsim::ParseResult::Help);
}

TEST(CamsimOptions, RejectsBadArgumentsSayingWhy)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--fps", "0"}, "--fps expects"},
        {{"--fps", "201"}, "--fps expects"},
        {{"--fps", "nan"}, "--fps expects"},
        {{"--fps"}, "--fps needs a value"},
        {{"--frames", "-1"}, "--frames expects"},
        {{"--direction", "side"}, "expects front or down"},
        {{"--width", "12x"}, "--width expects"},
        {{"--width", "1000", "--height", "1000"}, "exceeds"},
        {{"--distance", "50"}, "nearer than --background"},
        {{"--header-size", "12x"}, "WIDTHxHEIGHT"},
        {{"--header-size", "4294967296x1"}, "WIDTHxHEIGHT"},
        {{"--seed", "4294967296"}, "--seed"},
        {{"--dark-period", "5", "--dark-length", "6"}, "--dark-length"},
        {{"--pause-ms", "100"}, "go together"},
        {{"--left", "a.png"}, "--left and --right go together"},
        {{"--left", "a", "--right", "b", "--yuv-left", "c", "--yuv-right", "d"}, "alternative sources"},
        {{"--no-calib=1"}, "takes no value"},
        {{"frames"}, "unknown option 'frames'"},
    };
    for (const auto& [args, expected] : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        camsim::Options options;
        std::string error;
        EXPECT_EQ(parse(args, options, error), camsim::ParseResult::Error);
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
}

TEST(CamsimSources, ReplayReadsWholeFramesInOrderAndStartsOver)
{
    testsupport::ScratchRoot root;
    const cv::Size size(4, 3);
    {
        std::ofstream left("l.yuv", std::ios::binary);
        std::ofstream right("r.yuv", std::ios::binary);
        for (int i = 0; i < 30; ++i) {  // two and a half frames
            left.put(static_cast<char>(i));
        }
        for (int i = 0; i < 24; ++i) {
            right.put(static_cast<char>(100 + i));
        }
    }
    camsim::ReplaySource replay("l.yuv", "r.yuv", size);
    ASSERT_EQ(replay.frameCount(), 2u);
    for (int expected : {0, 1, 0}) {
        cv::Mat left;
        cv::Mat right;
        ASSERT_TRUE(replay.next(0.0, left, right));
        EXPECT_EQ(left.size(), size);
        EXPECT_EQ(left.at<uint8_t>(0, 0), 12 * expected);
        EXPECT_EQ(left.at<uint8_t>(2, 3), 12 * expected + 11);
        EXPECT_EQ(right.at<uint8_t>(2, 3), 100 + 12 * expected + 11);
    }

    camsim::Options options;
    options.source = camsim::SourceKind::Replay;
    options.leftFile = "l.yuv";
    options.rightFile = "missing.yuv";
    std::string error;
    EXPECT_EQ(camsim::makeSource(options, error), nullptr);
    EXPECT_NE(error.find("missing.yuv"), std::string::npos);
}

TEST(CamsimSources, ImagePairIsResizedAndSceneApproachesToItsMinimum)
{
    testsupport::ScratchRoot root;
    ASSERT_TRUE(cv::imwrite("left.png", cv::Mat(50, 100, CV_8UC1, cv::Scalar(70))));
    ASSERT_TRUE(cv::imwrite("right.png", cv::Mat(50, 100, CV_8UC1, cv::Scalar(90))));
    camsim::Options options;
    options.source = camsim::SourceKind::ImagePair;
    options.leftFile = "left.png";
    options.rightFile = "right.png";
    std::string error;
    auto pair = camsim::makeSource(options, error);
    ASSERT_NE(pair, nullptr) << error;
    cv::Mat left;
    cv::Mat right;
    ASSERT_TRUE(pair->next(0.0, left, right));
    EXPECT_EQ(left.size(), cv::Size(480, 640));
    EXPECT_EQ(cv::countNonZero(left != 70), 0);
    EXPECT_EQ(cv::countNonZero(right != 90), 0);
    options.rightFile = "absent.png";
    EXPECT_EQ(camsim::makeSource(options, error), nullptr);

    options = camsim::Options();
    options.distanceM = 5.0;
    options.speedMps = 2.0;
    options.minDistanceM = 1.0;
    auto approaching = camsim::makeSource(options, error);
    ASSERT_TRUE(approaching->next(0.0, left, right));
    EXPECT_EQ(approaching->distanceM(), 5.0);
    ASSERT_TRUE(approaching->next(1.5, left, right));
    EXPECT_DOUBLE_EQ(approaching->distanceM(), 2.0);
    cv::Mat expectedLeft;
    cv::Mat expectedRight;
    scene::SceneLayout layout;
    layout.obstacleM = 2.0;
    scene::renderPair(camsim::rigOf(options), layout, expectedLeft, expectedRight);
    EXPECT_EQ(cv::countNonZero(right != expectedRight), 0);
    ASSERT_TRUE(approaching->next(60.0, left, right));
    EXPECT_EQ(approaching->distanceM(), 1.0);
}

// The program against a running reader.
class CamsimProcessTest : public ::testing::Test {
protected:
    testsupport::ScratchRoot root;
    testsupport::SysvGuard guard{ImageReader::kFrontShmKey, ImageReader::kDownShmKey};
    std::unique_ptr<ImageReader> reader;

    pid_t spawn(std::vector<std::string> args)
    {
        args.insert(args.begin(), CAMSIM_PATH);
        std::vector<char*> argv;
        for (std::string& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            int out = open("camsim.out", O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(out, STDOUT_FILENO);
            dup2(out, STDERR_FILENO);
            execv(argv[0], argv.data());
            _exit(127);
        }
        return pid;
    }

    static int exitCode(pid_t pid)
    {
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    static bool exited(pid_t pid, int& code)
    {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) != pid) {
            return false;
        }
        code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return true;
    }

    std::string output()
    {
        std::ifstream file("camsim.out");
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    // Frames the reader queues until `pid` exits (or `wanted` frames arrive).
    std::vector<ImageReader::QueueData> collect(pid_t pid, int& code, size_t wanted = SIZE_MAX)
    {
        std::vector<ImageReader::QueueData> frames;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        bool done = false;
        while (!done && frames.size() < wanted && std::chrono::steady_clock::now() < deadline) {
            done = exited(pid, code);
            while (reader->frameReady->value() > 0 && frames.size() < wanted) {
                ImageReader::QueueData frame;
                reader->getImageBlock(frame.left, frame.right, frame.leftTimestamp, frame.rightTimestamp);
                frames.push_back(frame);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return frames;
    }
};

uint64_t monotonicMicroseconds()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

// Given the default scene, each frame leaves the reader as the rendered pair,
// upright, with the monotonic timestamp over the 8 pixels where the sensor's
// first 8 bytes land after the reader's rotation, and Q from camsim's
// calibration matches the scene's depth.
TEST_F(CamsimProcessTest, FramesArriveAsTheRenderedSceneInBothDirections)
{
    scene::Rig rig;
    cv::Mat uprightLeft;
    cv::Mat uprightRight;
    scene::renderPair(rig, scene::SceneLayout(), uprightLeft, uprightRight);

    for (Common::Direction direction : {Common::FRONT, Common::DOWN}) {
        const std::string label = Common::binoString(direction);
        SCOPED_TRACE(label);
        reader = std::make_unique<ImageReader>(direction, ImageReader::SHM, 640, 480);
        const uint64_t before = monotonicMicroseconds();
        pid_t pid = spawn({"--direction", label, "--frames", "4", "--fps", "40"});
        int code = -1;
        std::vector<ImageReader::QueueData> frames = collect(pid, code);
        if (code == -1) {
            code = exitCode(pid);
        }
        const uint64_t after = monotonicMicroseconds();
        EXPECT_EQ(code, 0) << output();
        EXPECT_NE(output().find("[camsim " + label + "] stopped after "), std::string::npos) << output();
        ASSERT_FALSE(frames.empty());

        uint64_t previous = before;
        for (const ImageReader::QueueData& frame : frames) {
            EXPECT_GE(frame.leftTimestamp, previous);
            EXPECT_LE(frame.leftTimestamp, after);
            EXPECT_EQ(frame.rightTimestamp, frame.leftTimestamp);
            previous = frame.leftTimestamp;
            cv::Mat expectedLeft = uprightLeft.clone();
            cv::Mat expectedRight = uprightRight.clone();
            for (int i = 0; i < 8; ++i) {
                const cv::Point at = direction == Common::FRONT ? cv::Point(479, i) : cv::Point(0, 639 - i);
                const auto byte =
                    static_cast<uint8_t>(std::min<uint64_t>((frame.leftTimestamp >> (8 * i)) & 0xff, 240));
                expectedLeft.at<uint8_t>(at) = byte;
                expectedRight.at<uint8_t>(at) = byte;
            }
            EXPECT_EQ(cv::countNonZero(frame.left != expectedLeft), 0);
            EXPECT_EQ(cv::countNonZero(frame.right != expectedRight), 0);
        }

        ImageReader calibrated(direction, static_cast<ImageReader::Source>(2), 640, 480);
        ASSERT_TRUE(calibrated.calibOk);
        cv::Mat point = calibrated.getQ() * (cv::Mat_<double>(4, 1) << 0, 0, scene::disparityPx(rig, 5.0), 1);
        EXPECT_NEAR(point.at<double>(2) / point.at<double>(3), 5000.0, 1e-6);  // mm
        reader.reset();
    }
}

// Given camsim stopped by SIGTERM, it exits 0 and leaves the segment in
// place, so the running reader gets the frames of the next camsim run.
TEST_F(CamsimProcessTest, StopsOnSigtermAndTheReaderKeepsWorkingAcrossRestarts)
{
    reader = std::make_unique<ImageReader>(Common::FRONT, ImageReader::SHM, 640, 480);
    pid_t pid = spawn({"--fps", "50", "--no-calib"});
    int code = -1;
    ASSERT_EQ(collect(pid, code, 1).size(), 1u) << output();
    ASSERT_EQ(code, -1) << "camsim ended early: " << output();
    kill(pid, SIGTERM);
    EXPECT_EQ(exitCode(pid), 0);
    EXPECT_NE(shmget(ImageReader::kFrontShmKey, 0, 0), -1);

    const uint64_t restart = monotonicMicroseconds();
    pid = spawn({"--fps", "50", "--frames", "3", "--no-calib"});
    code = -1;
    std::vector<ImageReader::QueueData> frames = collect(pid, code);
    ASSERT_FALSE(frames.empty()) << output();
    EXPECT_GE(frames.back().leftTimestamp, restart);
    if (code == -1) {
        code = exitCode(pid);
    }
    EXPECT_EQ(code, 0);
}

TEST_F(CamsimProcessTest, BadArgumentsExitTwoWithTheReason)
{
    EXPECT_EQ(exitCode(spawn({"--fps", "0"})), 2);
    EXPECT_NE(output().find("camsim: --fps expects"), std::string::npos) << output();
    EXPECT_EQ(exitCode(spawn({"--help"})), 0);
    EXPECT_NE(output().find("Usage: camsim"), std::string::npos);
    EXPECT_EQ(shmget(ImageReader::kFrontShmKey, 0, 0), -1) << "argument errors must not touch the queue";
}

}  // namespace
