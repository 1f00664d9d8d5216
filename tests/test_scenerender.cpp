// The renderer is the accuracy tests' ground truth: the right image is the left
// one shifted by exactly f*B/Z, the obstacle occludes where it should, and the
// grey levels suit a block matcher.

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "scenerender.h"

namespace {

// Mean squared grey-level difference between the left image over `region`
// and the right image moved s px to the right (bicubic).
double misfit(const cv::Mat& left, const cv::Mat& right, cv::Rect region, double s)
{
    cv::Mat leftF, rightF, moved;
    left(region).convertTo(leftF, CV_32F);
    right.convertTo(rightF, CV_32F);
    const cv::Mat move = (cv::Mat_<double>(2, 3) << 1, 0, region.x - s, 0, 1, region.y);
    cv::warpAffine(rightF, moved, move, region.size(), cv::INTER_CUBIC | cv::WARP_INVERSE_MAP);
    return cv::norm(moved, leftF, cv::NORM_L2SQR) / region.area();
}

// Planes at fractional disparities fit the right image better at f*B/Z than
// 0.1 px to either side: the best fit lies within 0.05 px of it.
TEST(SceneRender, EachPlaneIsShiftedByItsExactDisparity)
{
    const scene::Rig rig;  // f 400 px, B 0.1 m
    for (double obstacleM : {3.1, 4.7, 7.3, 12.9}) {
        scene::SceneLayout layout;
        layout.obstacleM = obstacleM;
        layout.backgroundM = 17.0;
        cv::Mat left, right;
        scene::renderPair(rig, layout, left, right);
        EXPECT_DOUBLE_EQ(scene::disparityPx(rig, obstacleM), 40.0 / obstacleM);
        const cv::Rect obstacle = scene::obstacleExtent(rig, layout);
        const cv::Rect inner(obstacle.x + 20, obstacle.y + 20, obstacle.width - 40, obstacle.height - 40);
        const cv::Rect aboveObstacle(32, 16, rig.size.width - 64, obstacle.y - 32);
        for (const auto& [region, d] : {std::pair(inner, 40.0 / obstacleM), std::pair(aboveObstacle, 40.0 / 17.0)}) {
            SCOPED_TRACE(::testing::Message() << obstacleM << " m, d " << d);
            const double best = misfit(left, right, region, d);
            EXPECT_LT(best, misfit(left, right, region, d - 0.1));
            EXPECT_LT(best, misfit(left, right, region, d + 0.1));
        }
    }
    scene::Rig other;
    other.focalPx = 300.0;
    other.baselineMm = 60.0;
    EXPECT_DOUBLE_EQ(scene::disparityPx(other, 2.0), 9.0);
}

// Given an obstacle rectangle, the left image differs from the bare background
// exactly inside it and the right image exactly where x + d falls inside it.
TEST(SceneRender, ObstacleCoversItsRectangleInBothViews)
{
    const scene::Rig rig;
    scene::SceneLayout layout;
    layout.obstacleM = 4.0;  // 10 px
    layout.obstacleRect = cv::Rect(100, 200, 150, 120);
    scene::SceneLayout bare = layout;
    bare.obstacleM = 0.0;
    cv::Mat left[2], right[2];
    scene::renderPair(rig, layout, left[0], right[0]);
    scene::renderPair(rig, bare, left[1], right[1]);

    const cv::Mat leftChanged = left[0] != left[1];
    const cv::Mat rightChanged = right[0] != right[1];
    const cv::Rect inLeft = layout.obstacleRect;
    const cv::Rect inRight = layout.obstacleRect - cv::Point(10, 0);
    EXPECT_EQ(cv::countNonZero(leftChanged) - cv::countNonZero(leftChanged(inLeft)), 0);
    EXPECT_EQ(cv::countNonZero(rightChanged) - cv::countNonZero(rightChanged(inRight)), 0);
    // Inside, two independent textures coincide on a few pixels at most.
    EXPECT_GT(cv::countNonZero(leftChanged(inLeft)), inLeft.area() * 9 / 10);
    EXPECT_GT(cv::countNonZero(rightChanged(inRight)), inRight.area() * 9 / 10);
}

// Images of rig.size within 25..235 (never clipped by the reader), mid-grey,
// textured, the same for the same seed and different for another.
TEST(SceneRender, TextureIsInRangeTexturedAndSeeded)
{
    const scene::Rig rig;
    scene::SceneLayout layout;
    cv::Mat left[3], right[3];
    scene::renderPair(rig, layout, left[0], right[0]);
    scene::renderPair(rig, layout, left[1], right[1]);
    layout.seed = 977;
    scene::renderPair(rig, layout, left[2], right[2]);
    for (const cv::Mat& image : {left[0], right[0], left[2], right[2]}) {
        ASSERT_EQ(image.type(), CV_8UC1);
        ASSERT_EQ(image.size(), rig.size);
        EXPECT_EQ(cv::countNonZero((image < 25) | (image > 235)), 0);
        cv::Scalar mean, deviation;
        cv::meanStdDev(image, mean, deviation);
        EXPECT_NEAR(mean[0], 130.0, 15.0);
        EXPECT_GT(deviation[0], 25.0);
    }
    EXPECT_EQ(cv::countNonZero(left[0] != left[1]) + cv::countNonZero(right[0] != right[1]), 0);
    EXPECT_GT(cv::countNonZero(left[0] != left[2]), left[0].total() / 2);
}

}  // namespace
