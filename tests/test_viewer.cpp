// The viewer program against a Server in this process: snapshots byte-exact
// with what was streamed, across a restart of the module. And its command line.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <thread>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "server.h"
#include "test_support.h"
#include "vieweroptions.h"

// GDAL, which OpenCV's image codecs load, takes two of its own mutexes in
// both orders; ThreadSanitizer reports that outside this code base.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions()
{
    return "deadlock:libgdal.so\n";
}

namespace {

const cv::Size kSize(40, 30);  // cols x rows

struct Frame {
    cv::Mat left, right, disparity;
};

// Frame k as the test's module streams it; left(0, 0) is k.
Frame frameOf(int k)
{
    Frame frame{cv::Mat(kSize, CV_8UC1), cv::Mat(kSize, CV_8UC1), cv::Mat()};
    cv::Mat grey(kSize, CV_8UC1);
    for (int y = 0; y < kSize.height; ++y) {
        for (int x = 0; x < kSize.width; ++x) {
            frame.left.at<uchar>(y, x) = static_cast<uchar>(x * 3 + y * 5 + k);
            frame.right.at<uchar>(y, x) = static_cast<uchar>(x * 3 + y * 5 + k + 7);
            grey.at<uchar>(y, x) = static_cast<uchar>(x + 2 * y + 3 * k);
        }
    }
    cv::cvtColor(grey, frame.disparity, cv::COLOR_GRAY2BGR);
    frame.disparity(cv::Rect(5, 25, 6, 4)).setTo(cv::Scalar(255, 0, 0));
    const float distance = 0.5f + static_cast<float>(k);
    std::memcpy(frame.disparity.data, &distance, sizeof distance);
    return frame;
}

void send(Server& server, const Frame& frame)
{
    cv::Mat pair;
    cv::vconcat(frame.left, frame.right, pair);
    server.write(pair.data, static_cast<int>(pair.total()), STEREO_PAIR);
    server.write(frame.disparity.data, static_cast<int>(frame.disparity.total() * 3), DISPARITY_COLOR);
}

bool same(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

TEST(Viewer, SnapshotsMatchTheStreamAcrossAModuleRestart)
{
    testsupport::ScratchRoot root;
    auto server = std::make_unique<Server>("127.0.0.1", 0);
    const int port = server->listeningPort();
    const std::string command = "exec " VIEWER_PATH " --port " + std::to_string(port) +
                                " --size 40x30 --snapshot snaps --every 1 --frames 6 --no-window >viewer.out 2>&1";
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    int k = 0;
    // Streams frames while a viewer is connected, every 10 ms, for at most 10 s.
    auto streamUntil = [&](const std::function<bool()>& done) {
        for (int i = 0; i < 1000 && !done(); ++i) {
            if (server->isConnected) {
                send(*server, frameOf(++k));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    };
    streamUntil([] { return std::filesystem::exists("snaps/frame000002-view.png"); });
    server.reset();  // the module restarts
    server = std::make_unique<Server>("127.0.0.1", port);
    ASSERT_EQ(server->listeningPort(), port);
    streamUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; });
    if (!WIFEXITED(status)) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    std::stringstream output;
    output << std::ifstream("viewer.out").rdbuf();
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << output.str();
    EXPECT_NE(output.str().find("disconnected from 127.0.0.1:" + std::to_string(port)), std::string::npos);

    for (int n = 1; n <= 6; ++n) {
        SCOPED_TRACE(n);
        const std::string stem = "snaps/frame00000" + std::to_string(n);
        const cv::Mat left = cv::imread(stem + "-left.png", cv::IMREAD_UNCHANGED);
        ASSERT_FALSE(left.empty());
        const Frame sent = frameOf(left.at<uchar>(0, 0));
        EXPECT_TRUE(same(left, sent.left));
        EXPECT_TRUE(same(cv::imread(stem + "-right.png", cv::IMREAD_UNCHANGED), sent.right));
        EXPECT_TRUE(same(cv::imread(stem + "-disparity.png", cv::IMREAD_UNCHANGED), sent.disparity));
        const cv::Mat view = cv::imread(stem + "-view.png", cv::IMREAD_UNCHANGED);
        ASSERT_EQ(view.size(), cv::Size(3 * kSize.width, kSize.height));
        cv::Mat leftPanel;
        cv::cvtColor(sent.left, leftPanel, cv::COLOR_GRAY2BGR);
        EXPECT_TRUE(same(view(cv::Rect(cv::Point(0, 0), kSize)), leftPanel));
        // The obstacle area (below the distance text) is white in the disparity panel.
        EXPECT_EQ(view.at<cv::Vec3b>(26, 2 * kSize.width + 6), cv::Vec3b(255, 255, 255));
    }
}

TEST(ViewerOptions, ParsesGoodAndRejectsBadArguments)
{
    viewer::Options options;
    std::string error;
    ASSERT_EQ(viewer::parseOptions({"--host", "ground", "--port=8884", "--size", "240x320", "--snapshot", "d",
                                    "--every", "5", "--frames", "9", "--no-window"},
                                   options, error),
              viewer::ParseResult::Run)
        << error;
    EXPECT_EQ(
        std::make_tuple(options.host, options.port, options.cols, options.rows, options.snapshotDir,
                        options.snapshotEvery, options.frames, options.window),
        std::make_tuple(std::string("ground"), 8884, 240, 320, std::string("d"), uint64_t{5}, uint64_t{9}, false));
    EXPECT_EQ(viewer::parseOptions({"--help", "--port", "0"}, options, error), viewer::ParseResult::Help);

    const std::pair<std::vector<std::string>, const char*> bad[] = {
        {{"--port", "65536"}, "--port expects"},     {{"--size", "480x"}, "--size expects"},
        {{"--size", "1000x1000"}, "--size expects"}, {{"--every", "0"}, "--every expects"},
        {{"--every", "2"}, "needs --snapshot"},      {{"--frames"}, "--frames needs a value"},
        {{"--zoom", "2"}, "--zoom is not an option"}};
    for (const auto& [args, expected] : bad) {
        SCOPED_TRACE(expected);
        options = viewer::Options();
        EXPECT_EQ(viewer::parseOptions(args, options, error), viewer::ParseResult::Error);
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
}

}  // namespace
