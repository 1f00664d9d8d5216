// The viewer program against a Server in this process: snapshots byte-exact
// with what was streamed, across a restart of the module.

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "server.h"
#include "test_support.h"

// GDAL (loaded by OpenCV's codecs) takes two mutexes in both orders: not ours.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions()
{
    return "deadlock:libgdal.so\n";
}

namespace {

// Frame k, 40 x 30: ramps offset by k; an obstacle area, the distance k + 0.5 m.
struct Frame {
    explicit Frame(int k) : left(30, 40, CV_8UC1)
    {
        for (int i = 0; i < 30 * 40; ++i) {
            left.data[i] = static_cast<uchar>(i % 40 * 3 + i / 40 * 5 + k);  // x * 3 + y * 5 + k
        }
        right = 255 - left;
        cv::cvtColor(left / 2, disparity, cv::COLOR_GRAY2BGR);
        disparity(cv::Rect(5, 25, 6, 4)).setTo(cv::Scalar(255, 0, 0));  // below the distance text
        const float distance = 0.5f + static_cast<float>(k);
        std::memcpy(disparity.data, &distance, sizeof distance);
    }
    void sendTo(Server& server) const
    {
        cv::Mat pair;
        cv::vconcat(left, right, pair);
        server.write(pair.data, static_cast<int>(pair.total()), STEREO_PAIR);
        server.write(disparity.data, static_cast<int>(disparity.total() * 3), DISPARITY_COLOR);
    }
    cv::Mat left, right, disparity;  ///< CV_8UC1, CV_8UC1, CV_8UC3
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
    testsupport::Program viewer(
        VIEWER_PATH,
        "--port " + std::to_string(port) + " --size 40x30 --snapshot snaps --every 1 --frames 6 --no-window",
        "viewer.out");
    // Each frame waits for the previous snapshot: none is in flight at the restart.
    for (int n = 1; n <= 6; ++n) {
        if (n == 3) {
            server.reset();
            server = std::make_unique<Server>("127.0.0.1", port);
        }
        ASSERT_TRUE(testsupport::waitUntil([&] { return server->isConnected.load(); }));
        Frame(n).sendTo(*server);
        ASSERT_TRUE(testsupport::waitUntil([&] { return std::filesystem::exists(snapshot(n, "view")); }));
    }
    testsupport::waitUntil([&] { return viewer.status(false) != -1; });
    ASSERT_EQ(viewer.status(false), 0) << testsupport::readFile("viewer.out");

    for (int n = 1; n <= 6; ++n) {
        SCOPED_TRACE(n);
        const Frame sent(n);
        EXPECT_TRUE(same(cv::imread(snapshot(n, "left"), cv::IMREAD_UNCHANGED), sent.left));
        EXPECT_TRUE(same(cv::imread(snapshot(n, "right"), cv::IMREAD_UNCHANGED), sent.right));
        EXPECT_TRUE(same(cv::imread(snapshot(n, "disparity"), cv::IMREAD_UNCHANGED), sent.disparity));
        // The picture: left | right | disparity, with the obstacle area white.
        const cv::Mat view = cv::imread(snapshot(n, "view"), cv::IMREAD_UNCHANGED);
        ASSERT_EQ(view.size(), cv::Size(120, 30));
        EXPECT_EQ(view.at<cv::Vec3b>(26, 86), cv::Vec3b(255, 255, 255));
    }
}

}  // namespace
