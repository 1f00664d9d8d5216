// The avoidance search on scenes with known free areas, in frames upright like
// the rotated images (240 px wide, 320 rows). The pruned circle search against
// the literal per-pixel one is fuzz/fuzz_target_region.cpp's.

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include <opencv2/imgproc.hpp>

#include "target_region.h"

namespace {

const cv::Size kFrame(240, 320);

cv::Mat pointImage(const cv::Mat& depth_mm)
{
    cv::Mat points, zero = cv::Mat::zeros(depth_mm.size(), CV_32FC1);
    cv::merge(std::vector<cv::Mat>{zero, zero, depth_mm}, points);
    return points;
}

// getTargetPt aims at the centre of a free disc in a near wall, or of the larger
// of two free areas (a square at the frame edge, which does not erode). The
// circle left after ten 3x3 erosions (R - 10 sqrt 2, +1 px from the blur)
// decides passability, to within 1.5 px either way. Nothing beyond 3 m, or no
// image: the frame centre, never passable.
TEST(TargetRegionCircle, AimsAtTheFreeAreaAndPassesWhenItsErodedCircleIsWideEnough)
{
    struct Case {
        cv::Mat depth;
        cv::Vec3f target;
        bool passable;
    };
    std::vector<Case> cases;
    for (const auto& [centre, radius] : {std::pair(cv::Point(120, 160), 50), std::pair(cv::Point(150, 250), 24)}) {
        const double eroded = radius - 10 * std::sqrt(2.0) + 1.0;
        for (const double threshold : {eroded + 1.5, eroded - 1.5}) {
            // passable when 2 x 2.2371... x wall x r / 240 > 200 mm, i.e. when r > threshold
            const float wall_mm = static_cast<float>(200.0 * 240 / (2 * 2.237160944224742 * threshold));
            cv::Mat depth(kFrame, CV_32FC1, cv::Scalar(wall_mm));
            cv::circle(depth, centre, radius, 5000, cv::FILLED);
            const cv::Vec3f target((centre.x - 120) / 6.0f, (centre.y - 160) / 8.0f, wall_mm);
            cases.push_back({depth, target, threshold < eroded});
        }
    }
    cv::Mat edge(kFrame, CV_32FC1, cv::Scalar(1000));
    edge(cv::Rect(0, 110, 100, 110)).setTo(5000);
    cv::circle(edge, {180, 60}, 30, 5000, cv::FILLED);  // a smaller free area, not aimed at
    cases.push_back({edge, {-12.5f, 0.5625f, 1000}, true});
    cases.push_back({cv::Mat(kFrame, CV_32FC1, cv::Scalar(3000)), {0, 0, 3000}, false});
    cases.push_back({cv::Mat(), {0, 0, 1e6f}, false});
    for (const Case& c : cases) {
        bool passable = !c.passable;
        const cv::Vec3f target = TargetRegion::getTargetPt(c.depth.empty() ? cv::Mat() : pointImage(c.depth), passable);
        EXPECT_LE(cv::norm(target, c.target, cv::NORM_INF), 0.25) << target << " for " << c.target;
        EXPECT_EQ(passable, c.passable) << c.target;
    }
}

// Only whole 40 x 40 blocks count: a near cut-off last block row is
// ignored (and never read past the frame: AddressSanitizer checks), a near
// whole last block row is found. A block is valid up to 533 missing pixels
// (above 100000 mm), which still count in its mean; at 534 it is not.
TEST(TargetRegionDistance, WholeBlocksWithEnoughDepth)
{
    // frame, a near area (100 mm), missing pixels per block, nearest block, the block at the near area
    const std::tuple<cv::Size, cv::Rect, int, float, float> cases[] = {{{240, 344}, {0, 320, 240, 24}, 0, 2000, 1e6f},
                                                                       {{240, 320}, {0, 280, 240, 40}, 0, 100, 100},
                                                                       {{240, 320}, {}, 533, 67958.75f, 67958.75f},
                                                                       {{240, 320}, {}, 534, 1e6f, 1e6f}};
    for (const auto& [size, near, missing, nearest_mm, block_mm] : cases) {
        cv::Mat block(40, 40, CV_32FC1, cv::Scalar(2000));
        block.reshape(1, 1).colRange(0, missing).setTo(200000);
        cv::Mat tiled;
        cv::repeat(block, 9, 7, tiled);
        cv::Mat depth = tiled(cv::Rect({}, size)).clone();
        depth(near).setTo(100);
        bool passable = false;
        EXPECT_EQ(TargetRegion::getTargetPt(pointImage(depth), passable)[2], nearest_mm) << size;
        EXPECT_EQ(TargetRegion::getSinegleAreaDis(depth, near.y, near.x), block_mm) << size;
    }
}

// Wider than 200 mm is passable; what counts is the width as a float
// (286.076874 mm gives 200.0000028 in double, 200 in float).
TEST(TargetRegionPassable, StrictlyWiderThan200Millimetres)
{
    const std::tuple<float, double, int, bool> cases[] = {
        {286.076874f, 100, 640, false}, {286.076904f, 100, 640, true}, {1000.0f, 100, 0, false}};
    for (const auto& [distance_mm, radius_px, width_px, passable] : cases) {
        EXPECT_EQ(TargetRegion::isExistAvailableArea({radius_px, {}, {}}, distance_mm, width_px), passable)
            << distance_mm;
    }
}

}  // namespace
