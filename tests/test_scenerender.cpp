// The renderer is the ground truth of the accuracy tests, so its one promise is
// checked independently: the right image is the left one shifted by exactly
// f*B/Z, measured to a small fraction of a pixel by sub-pixel image alignment.

#include <gtest/gtest.h>

#include <cmath>

#include <opencv2/imgproc.hpp>

#include "scenerender.h"

namespace {

// Shift s (pixels) that best maps the left patch `region` onto the right
// image, right(x - s, y) ~ left(x, y): integer search over 0..maxShift, then
// Gauss-Newton on bicubic resampling of the right image.
double measureShift(const cv::Mat& left, const cv::Mat& right, cv::Rect region, int maxShift)
{
    cv::Mat leftF;
    cv::Mat rightF;
    left.convertTo(leftF, CV_32F);
    right.convertTo(rightF, CV_32F);
    const cv::Mat patch = leftF(region);

    int best = 0;
    double bestCost = INFINITY;
    for (int s = 0; s <= maxShift; ++s) {
        double cost = cv::norm(patch, rightF(region - cv::Point(s, 0)), cv::NORM_L2SQR);
        if (cost < bestCost) {
            bestCost = cost;
            best = s;
        }
    }

    auto resample = [&](double at) {
        cv::Mat mapX(region.size(), CV_32F);
        cv::Mat mapY(region.size(), CV_32F);
        for (int y = 0; y < region.height; ++y) {
            for (int x = 0; x < region.width; ++x) {
                mapX.at<float>(y, x) = static_cast<float>(region.x + x - at);
                mapY.at<float>(y, x) = static_cast<float>(region.y + y);
            }
        }
        cv::Mat out;
        cv::remap(rightF, out, mapX, mapY, cv::INTER_CUBIC, cv::BORDER_REPLICATE);
        return out;
    };

    double shift = best;
    for (int iteration = 0; iteration < 10; ++iteration) {
        cv::Mat residual = resample(shift) - patch;
        // slope = right'(x - s) = -d residual / ds
        cv::Mat slope = resample(shift - 0.5) - resample(shift + 0.5);
        double step = residual.dot(slope) / slope.dot(slope);
        shift += step;
        if (std::abs(step) < 1e-4) {
            break;
        }
    }
    return shift;
}

cv::Rect shrink(cv::Rect rect, int margin)
{
    return cv::Rect(rect.x + margin, rect.y + margin, rect.width - 2 * margin, rect.height - 2 * margin);
}

constexpr double kShiftTolerancePx = 0.05;

TEST(SceneRender, DisparityIsFocalTimesBaselineInMetresOverDistance)
{
    scene::Rig rig;
    EXPECT_DOUBLE_EQ(scene::disparityPx(rig, 5.0), 8.0);
    rig.focalPx = 300.0;
    rig.baselineMm = 60.0;
    EXPECT_DOUBLE_EQ(scene::disparityPx(rig, 2.0), 9.0);
}

// Given planes at distances with fractional disparities, when the pair is
// rendered, then each plane's patch lines up with the right image at exactly
// its disparity (metric: absolute shift error, pixels).
TEST(SceneRender, EachPlaneIsShiftedByItsExactDisparity)
{
    const scene::Rig rig;
    for (double obstacleM : {3.1, 4.7, 7.3, 12.9}) {
        SCOPED_TRACE(obstacleM);
        scene::SceneLayout layout;
        layout.obstacleM = obstacleM;
        layout.backgroundM = 17.0;
        cv::Mat left;
        cv::Mat right;
        scene::renderPair(rig, layout, left, right);

        const cv::Rect obstacle = scene::obstacleExtent(rig, layout);
        const double obstacleShift = scene::disparityPx(rig, obstacleM);
        EXPECT_NEAR(measureShift(left, right, shrink(obstacle, 20), 24), obstacleShift, kShiftTolerancePx);

        // Above the obstacle only the background is seen.
        const cv::Rect band(32, 16, rig.size.width - 64, obstacle.y - 32);
        EXPECT_NEAR(measureShift(left, right, band, 24), scene::disparityPx(rig, 17.0), kShiftTolerancePx);
    }
}

// Given a custom obstacle rectangle, the left image differs from the bare
// background exactly inside it, and the right image exactly where x + d falls
// inside it: the obstacle occludes the background at the right place.
TEST(SceneRender, ObstacleCoversItsRectangleInBothViews)
{
    const scene::Rig rig;
    scene::SceneLayout layout;
    layout.obstacleM = 4.0;  // 10 px
    layout.obstacleRect = cv::Rect(100, 200, 150, 120);
    scene::SceneLayout bare = layout;
    bare.obstacleM = 0.0;

    cv::Mat left;
    cv::Mat right;
    cv::Mat bareLeft;
    cv::Mat bareRight;
    scene::renderPair(rig, layout, left, right);
    scene::renderPair(rig, bare, bareLeft, bareRight);

    cv::Mat leftChanged = left != bareLeft;
    cv::Mat rightChanged = right != bareRight;
    const cv::Rect inLeft = layout.obstacleRect;
    const cv::Rect inRight = layout.obstacleRect - cv::Point(10, 0);
    EXPECT_EQ(cv::countNonZero(leftChanged) - cv::countNonZero(leftChanged(inLeft)), 0);
    EXPECT_EQ(cv::countNonZero(rightChanged) - cv::countNonZero(rightChanged(inRight)), 0);
    // Inside, two independent textures coincide on a few pixels at most.
    EXPECT_GT(cv::countNonZero(leftChanged(inLeft)), inLeft.area() * 9 / 10);
    EXPECT_GT(cv::countNonZero(rightChanged(inRight)), inRight.area() * 9 / 10);
}

// The images must suit a block matcher and pass the reader's 240 clip
// unchanged: textured, mid-grey, in range, and reproducible from the seed.
TEST(SceneRender, TextureIsInRangeTexturedAndSeeded)
{
    const scene::Rig rig;
    cv::Mat firstLeft;
    for (uint32_t seed : {1u, 2u, 977u}) {
        SCOPED_TRACE(seed);
        scene::SceneLayout layout;
        layout.seed = seed;
        cv::Mat left;
        cv::Mat right;
        scene::renderPair(rig, layout, left, right);
        ASSERT_EQ(left.size(), rig.size);
        ASSERT_EQ(right.size(), rig.size);
        ASSERT_EQ(left.type(), CV_8UC1);
        for (const cv::Mat& image : {left, right}) {
            double lowest = 0;
            double highest = 0;
            cv::minMaxLoc(image, &lowest, &highest);
            EXPECT_GE(lowest, 20);
            EXPECT_LE(highest, 240);
            cv::Scalar mean;
            cv::Scalar deviation;
            cv::meanStdDev(image, mean, deviation);
            EXPECT_NEAR(mean[0], 130.0, 15.0);
            EXPECT_GT(deviation[0], 25.0);
        }
        if (seed == 1u) {
            firstLeft = left;
        } else {
            EXPECT_GT(cv::countNonZero(left != firstLeft), left.total() / 2);
        }
        cv::Mat again;
        cv::Mat againRight;
        scene::renderPair(rig, layout, again, againRight);
        EXPECT_EQ(cv::countNonZero(again != left), 0);
        EXPECT_EQ(cv::countNonZero(againRight != right), 0);
    }
}

}  // namespace
