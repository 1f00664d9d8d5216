// The viewer program against a Server in this process: snapshots byte-exact
// with what was streamed, across a restart of the module. And its command line.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
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
#include "streamview.h"
#include "test_support.h"
#include "vieweroptions.h"

#ifdef BINO_HAVE_X11
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#endif

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

// Frame k as the test's module streams it.
Frame frameOf(int k, cv::Size size = kSize)
{
    Frame frame{cv::Mat(size, CV_8UC1), cv::Mat(size, CV_8UC1), cv::Mat()};
    cv::Mat grey(size, CV_8UC1);
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
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

// The frame's two packets: the pair, then the disparity.
std::pair<PacketParser::Packet, PacketParser::Packet> packetsOf(const Frame& frame)
{
    cv::Mat pair;
    cv::vconcat(frame.left, frame.right, pair);
    return {{STEREO_PAIR, std::vector<unsigned char>(pair.datastart, pair.dataend)},
            {DISPARITY_COLOR, std::vector<unsigned char>(frame.disparity.datastart, frame.disparity.dataend)}};
}

void send(Server& server, const Frame& frame)
{
    const auto [pair, disparity] = packetsOf(frame);
    for (const PacketParser::Packet* packet : {&pair, &disparity}) {
        server.write(packet->payload.data(), static_cast<int>(packet->payload.size()),
                     static_cast<ServerDataType>(packet->type));
    }
}

// Runs the viewer with `arguments`, its output going to viewer.out.
pid_t spawnViewer(const std::string& arguments)
{
    const std::string command = "exec " VIEWER_PATH " " + arguments + " >viewer.out 2>&1";
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

bool waitUntil(const std::function<bool()>& condition)
{
    for (int i = 0; i < 2000 && !condition(); ++i) {  // at most about 10 s
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

std::string snapshot(int frame, const char* image)
{
    return "snaps/frame00000" + std::to_string(frame) + "-" + image + ".png";
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
    const pid_t pid = spawnViewer("--port " + std::to_string(port) +
                                  " --size 40x30 --snapshot snaps --every 1 --frames 6 --no-window");
    // Frame n once a viewer is connected; then waits until the viewer has
    // written its snapshot, so no frame is still in flight at a restart.
    auto streamFrame = [&](int n) {
        ASSERT_TRUE(waitUntil([&] { return server->isConnected.load(); }));
        send(*server, frameOf(n));
        ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(snapshot(n, "view")); }));
    };
    for (int n = 1; n <= 6; ++n) {
        if (n == 3) {
            server.reset();  // the module restarts
            server = std::make_unique<Server>("127.0.0.1", port);
            ASSERT_EQ(server->listeningPort(), port);
        }
        streamFrame(n);
    }
    int status = 0;
    if (!waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; })) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    std::stringstream output;
    output << std::ifstream("viewer.out").rdbuf();
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << output.str();
    EXPECT_NE(output.str().find("disconnected from 127.0.0.1:" + std::to_string(port)), std::string::npos);

    for (int n = 1; n <= 6; ++n) {
        SCOPED_TRACE(n);
        const Frame sent = frameOf(n);
        EXPECT_TRUE(same(cv::imread(snapshot(n, "left"), cv::IMREAD_UNCHANGED), sent.left));
        EXPECT_TRUE(same(cv::imread(snapshot(n, "right"), cv::IMREAD_UNCHANGED), sent.right));
        EXPECT_TRUE(same(cv::imread(snapshot(n, "disparity"), cv::IMREAD_UNCHANGED), sent.disparity));
        const cv::Mat view = cv::imread(snapshot(n, "view"), cv::IMREAD_UNCHANGED);
        ASSERT_EQ(view.size(), cv::Size(3 * kSize.width, kSize.height));
        cv::Mat leftPanel;
        cv::cvtColor(sent.left, leftPanel, cv::COLOR_GRAY2BGR);
        EXPECT_TRUE(same(view(cv::Rect(cv::Point(0, 0), kSize)), leftPanel));
        // The obstacle area (below the distance text) is white in the disparity panel.
        EXPECT_EQ(view.at<cv::Vec3b>(26, 2 * kSize.width + 6), cv::Vec3b(255, 255, 255));
    }
}

#ifdef BINO_HAVE_X11
// The whole screen of the display, CV_8UC3; empty if it cannot be read.
cv::Mat grabScreen()
{
    Display* display = XOpenDisplay(nullptr);
    if (display == nullptr) {
        return cv::Mat();
    }
    XWindowAttributes root = {};
    XGetWindowAttributes(display, DefaultRootWindow(display), &root);
    XImage* image = XGetImage(display, DefaultRootWindow(display), 0, 0, static_cast<unsigned>(root.width),
                              static_cast<unsigned>(root.height), AllPlanes, ZPixmap);
    cv::Mat screen;
    if (image != nullptr && image->bits_per_pixel == 32) {  // B, G, R, unused on a 24-bit TrueColor screen
        const cv::Mat bgrx(root.height, root.width, CV_8UC4, image->data, static_cast<size_t>(image->bytes_per_line));
        cv::cvtColor(bgrx, screen, cv::COLOR_BGRA2BGR);
    }
    if (image != nullptr) {
        XDestroyImage(image);
    }
    XCloseDisplay(display);
    return screen;
}

// Under a display (scripts/viewer-window.sh: Xvfb), the window shows exactly
// the picture the viewer renders for the streamed frame. The last screenshot
// is kept at the path in BINOCULAR_WINDOW_TEST.
TEST(ViewerWindow, ShowsThePairAndTheDisparity)
{
    const char* screenshotPath = std::getenv("BINOCULAR_WINDOW_TEST");
    if (screenshotPath == nullptr || std::getenv("DISPLAY") == nullptr) {
        GTEST_SKIP() << "run by scripts/viewer-window.sh under a virtual display";
    }
    const std::string screenshot = std::filesystem::absolute(screenshotPath).string();
    testsupport::ScratchRoot root;
    Server server("127.0.0.1", 0);
    const pid_t pid = spawnViewer("--port " + std::to_string(server.listeningPort()) + " --size 160x120");
    const Frame frame = frameOf(5, cv::Size(160, 120));
    StreamView expected(cv::Size(160, 120));
    expected.take(packetsOf(frame).first);
    expected.take(packetsOf(frame).second);
    const cv::Mat picture = expected.render();

    bool shown = false;
    cv::Mat screen;
    for (int i = 0; i < 100 && !shown; ++i) {  // at most about 10 s
        if (server.isConnected) {
            send(server, frame);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        screen = grabScreen();
        ASSERT_FALSE(screen.empty());
        cv::Mat difference;
        cv::matchTemplate(screen, picture, difference, cv::TM_SQDIFF);
        double best = 0;
        cv::minMaxLoc(difference, &best);
        shown = best == 0.0;
    }
    cv::imwrite(screenshot, screen);
    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(shown) << "screenshot: " << screenshot;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}
#endif

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
