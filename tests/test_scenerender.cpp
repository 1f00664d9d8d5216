// The renderer is the accuracy tests' ground truth: each plane appears in the
// right image shifted by exactly f*B/Z, and the obstacle covers its rectangle.

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "scenerender.h"

namespace {

// Mean squared grey-level difference between the left image over `region`
// and the right image moved s px to the right (bicubic).
double misfit(const cv::Mat& left, const cv::Mat& right, cv::Rect region, double s)
{
    cv::Mat moved;
    const cv::Mat move = (cv::Mat_<double>(2, 3) << 1, 0, region.x - s, 0, 1, region.y);
    cv::warpAffine(cv::Mat_<float>(right), moved, move, region.size(), cv::INTER_CUBIC | cv::WARP_INVERSE_MAP);
    return cv::norm(moved, cv::Mat_<float>(left(region)), cv::NORM_L2SQR) / region.area();
}

// Obstacle (7.3 m) and background (17 m) fit better at f*B/Z than 0.1 px to
// either side. An obstacle at 4 m (10 px) changes the left image exactly inside
// its rectangle and the right one exactly 10 px left of it.
TEST(SceneRender, PlanesShiftByTheirExactDisparityAndTheObstacleCoversItsRectangle)
{
    const scene::Rig rig;  // f 400 px, B 0.1 m
    EXPECT_DOUBLE_EQ(scene::disparityPx(scene::Rig{300.0, 60.0, {480, 640}}, 2.0), 9.0);
    const scene::SceneLayout layout{17.0, 7.3, {}, 1};
    cv::Mat left, right;
    scene::renderPair(rig, layout, left, right);
    const cv::Rect o = scene::obstacleExtent(rig, layout);
    const cv::Rect inner(o.x + 20, o.y + 20, o.width - 40, o.height - 40), above(32, 16, 416, o.y - 32);
    for (const auto& [region, d] : {std::pair(inner, 40.0 / 7.3), std::pair(above, 40.0 / 17.0)}) {
        EXPECT_LT(misfit(left, right, region, d), misfit(left, right, region, d - 0.1)) << d;
        EXPECT_LT(misfit(left, right, region, d), misfit(left, right, region, d + 0.1)) << d;
    }
    const scene::SceneLayout near{40.0, 4.0, {100, 200, 150, 120}, 1}, bare{40.0, 0.0, near.obstacleRect, 1};
    cv::Mat with[2], without[2];
    scene::renderPair(rig, near, with[0], with[1]);
    scene::renderPair(rig, bare, without[0], without[1]);
    for (int view : {0, 1}) {
        const cv::Mat changed = with[view] != without[view];
        const cv::Rect inside = near.obstacleRect - cv::Point(10 * view, 0);
        EXPECT_EQ(cv::countNonZero(changed), cv::countNonZero(changed(inside))) << "view " << view;
        EXPECT_GT(cv::countNonZero(changed(inside)), inside.area() * 9 / 10) << "view " << view;  // textures differ
    }
}

}  // namespace
