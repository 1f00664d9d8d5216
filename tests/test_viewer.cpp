// The viewer program against a Server in this process: snapshots byte-exact
// with what was streamed, across a restart of the module; its window under a
// virtual display.

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "server.h"
#include "streamview.h"
#include "test_support.h"

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

using testsupport::waitUntil;

struct Frame {
    cv::Mat left, right, disparity;  ///< CV_8UC1, CV_8UC1, CV_8UC3 as streamed
    PacketParser::Packet packets[2];
};

// Frame k: ramps offset by k, an obstacle area, the distance k + 0.5 m.
Frame frameOf(int k, cv::Size size = cv::Size(40, 30))
{
    cv::Mat ramp(size, CV_8UC1);
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
            ramp.at<uchar>(y, x) = static_cast<uchar>(x * 3 + y * 5 + k);
        }
    }
    Frame frame{ramp, 255 - ramp, cv::Mat(), {}};
    cv::cvtColor(ramp / 2, frame.disparity, cv::COLOR_GRAY2BGR);
    frame.disparity(cv::Rect(5, 25, 6, 4)).setTo(cv::Scalar(255, 0, 0));  // below the distance text
    const float distance = 0.5f + static_cast<float>(k);
    std::memcpy(frame.disparity.data, &distance, sizeof distance);
    cv::Mat pair;
    cv::vconcat(frame.left, frame.right, pair);
    frame.packets[0] = {STEREO_PAIR, std::vector<unsigned char>(pair.datastart, pair.dataend)};
    frame.packets[1] = {DISPARITY_COLOR,
                        std::vector<unsigned char>(frame.disparity.datastart, frame.disparity.dataend)};
    return frame;
}

void send(Server& server, const Frame& frame)
{
    for (const PacketParser::Packet& packet : frame.packets) {
        server.write(packet.payload.data(), static_cast<int>(packet.payload.size()),
                     static_cast<ServerDataType>(packet.type));
    }
}

// The viewer program with `arguments`, its output in viewer.out.
struct ViewerProcess : testsupport::Program {
    explicit ViewerProcess(const std::string& arguments) : Program(VIEWER_PATH, arguments, "viewer.out") {}
    /// Waits at most 10 s: the exit status, 128 + signal, or -1 while it runs.
    int exitCode()
    {
        waitUntil([&] { return status(false) != -1; });
        return status(false);
    }
};

std::string snapshot(int n, const char* image) { return "snaps/frame00000" + std::to_string(n) + "-" + image + ".png"; }

bool same(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

TEST(Viewer, SnapshotsMatchTheStreamAcrossAModuleRestart)
{
    testsupport::ScratchRoot root;
    auto server = std::make_unique<Server>("127.0.0.1", 0);
    const int port = server->listeningPort();
    ViewerProcess viewer("--port " + std::to_string(port) +
                         " --size 40x30 --snapshot snaps --every 1 --frames 6 --no-window");
    // Each frame waits for the previous one's snapshot, so none is in flight
    // when the module restarts.
    for (int n = 1; n <= 6; ++n) {
        if (n == 3) {
            server.reset();
            server = std::make_unique<Server>("127.0.0.1", port);
        }
        ASSERT_TRUE(waitUntil([&] { return server->isConnected.load(); }));
        send(*server, frameOf(n));
        ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(snapshot(n, "view")); }));
    }
    const int code = viewer.exitCode();
    const std::string output = testsupport::readFile("viewer.out");
    ASSERT_EQ(code, 0) << output;
    EXPECT_NE(output.find("disconnected from 127.0.0.1:" + std::to_string(port)), std::string::npos);

    for (int n = 1; n <= 6; ++n) {
        SCOPED_TRACE(n);
        const Frame sent = frameOf(n);
        EXPECT_TRUE(same(cv::imread(snapshot(n, "left"), cv::IMREAD_UNCHANGED), sent.left));
        EXPECT_TRUE(same(cv::imread(snapshot(n, "right"), cv::IMREAD_UNCHANGED), sent.right));
        EXPECT_TRUE(same(cv::imread(snapshot(n, "disparity"), cv::IMREAD_UNCHANGED), sent.disparity));
        // The picture: left | right | disparity, with the obstacle area white.
        const cv::Mat view = cv::imread(snapshot(n, "view"), cv::IMREAD_UNCHANGED);
        ASSERT_EQ(view.size(), cv::Size(120, 30));
        cv::Mat leftPanel;
        cv::cvtColor(sent.left, leftPanel, cv::COLOR_GRAY2BGR);
        EXPECT_TRUE(same(view(cv::Rect(0, 0, 40, 30)), leftPanel));
        EXPECT_EQ(view.at<cv::Vec3b>(26, 86), cv::Vec3b(255, 255, 255));
    }
}

#ifdef BINO_HAVE_X11
// The whole screen, CV_8UC3; empty if it cannot be read.
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
    if (image != nullptr) {
        if (image->bits_per_pixel == 32) {  // B, G, R, unused on a 24-bit TrueColor screen
            cv::cvtColor(cv::Mat(root.height, root.width, CV_8UC4, image->data, image->bytes_per_line), screen,
                         cv::COLOR_BGRA2BGR);
        }
        XDestroyImage(image);
    }
    XCloseDisplay(display);
    return screen;
}

// Under a display (scripts/viewer-window.sh: Xvfb) the window shows, pixel
// for pixel, the picture the viewer renders for the streamed frame. The last
// screenshot is kept at the path in BINOCULAR_WINDOW_TEST.
TEST(ViewerWindow, ShowsThePairAndTheDisparity)
{
    const char* screenshotPath = std::getenv("BINOCULAR_WINDOW_TEST");
    if (screenshotPath == nullptr || std::getenv("DISPLAY") == nullptr) {
        GTEST_SKIP() << "run by scripts/viewer-window.sh under a virtual display";
    }
    const std::string screenshot = std::filesystem::absolute(screenshotPath).string();
    testsupport::ScratchRoot root;
    Server server("127.0.0.1", 0);
    ViewerProcess viewer("--port " + std::to_string(server.listeningPort()) + " --size 160x120");
    const Frame frame = frameOf(5, cv::Size(160, 120));
    StreamView expected(cv::Size(160, 120));
    expected.take(frame.packets[0]);
    expected.take(frame.packets[1]);
    const cv::Mat picture = expected.render();
    cv::Mat screen;
    const bool shown = waitUntil([&] {
        if (server.isConnected) {
            send(server, frame);
        }
        screen = grabScreen();
        if (screen.empty()) {
            return false;
        }
        // The best match (computed in floating point), then checked exactly.
        cv::Mat difference;
        cv::Point at;
        cv::matchTemplate(screen, picture, difference, cv::TM_SQDIFF);
        cv::minMaxLoc(difference, nullptr, nullptr, &at);
        return same(screen(cv::Rect(at, picture.size())), picture);
    });
    cv::imwrite(screenshot, screen);
    viewer.signal(SIGTERM);
    EXPECT_TRUE(shown) << "screenshot: " << screenshot;
    EXPECT_EQ(viewer.exitCode(), 0);
}
#endif

}  // namespace
