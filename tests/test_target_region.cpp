// The avoidance search on scenes with known free areas, and against the
// literal per-pixel search (target_region_reference.h), which it must match
// exactly. Frames are upright like the rotated images: 240 px wide, 320 rows.

#include <gtest/gtest.h>

#include <cmath>

#include "target_region.h"
#include "target_region_reference.h"

namespace {

const cv::Size kFrame(240, 320);
const Region kNone{0.0, {120, 160}, {}};

void expectSame(const Region& actual, const Region& expected)
{
    EXPECT_EQ(actual.value, expected.value);
    EXPECT_EQ(actual.centre, expected.centre);
    EXPECT_EQ(actual.box, expected.box);
}

// A wall at wall_mm with a disc 5 m away cut out of it.
cv::Mat wallWithOpening(cv::Size size, cv::Point centre, int radius, float wall_mm)
{
    cv::Mat points(size, CV_32FC3, cv::Scalar(0, 0, wall_mm));
    cv::circle(points, centre, radius, cv::Scalar(0, 0, 5000), cv::FILLED);
    return points;
}

struct Disc {
    cv::Point centre;
    int radius;
};
const Disc kDiscs[] = {{{120, 160}, 50}, {{75, 100}, 30}, {{150, 250}, 24}};

// Given a free disc, the circle search finds it; given the same disc in a
// wall, the target points at its centre, and the circle kept after ten 3x3
// erosions (R - 10 sqrt 2, plus about 1 px regained by the blur) decides
// passability: a wall just near enough to make a 1.5 px larger circle pass
// does not, one that makes a 1.5 px smaller circle pass does.
TEST(TargetRegionCircle, FindsAFreeDiscAndAimsAtIt)
{
    for (const Disc& disc : kDiscs) {
        SCOPED_TRACE(disc.centre);
        cv::Mat mask = cv::Mat::zeros(kFrame, CV_8UC1);
        cv::circle(mask, disc.centre, disc.radius, 255, cv::FILLED);
        const Region region = TargetRegion::getTargetCircleRegion(mask);
        EXPECT_NEAR(region.centre.x, disc.centre.x, 1.5);
        EXPECT_NEAR(region.centre.y, disc.centre.y, 1.5);
        EXPECT_NEAR(region.value, disc.radius, 1.5);
        expectSame(region, reference::circleRegion(mask));

        const double eroded = disc.radius - 10 * std::sqrt(2.0) + 1.0;
        for (const double radius : {eroded + 1.5, eroded - 1.5}) {
            // passable exactly when 2 x 2.2371... x wall x r / 240 > 200 mm
            const float wall_mm = static_cast<float>(200.0 * 240 / (2 * 2.237160944224742 * radius));
            const cv::Mat points = wallWithOpening(kFrame, disc.centre, disc.radius, wall_mm);
            bool passable = true, expectedPassable = false;
            const cv::Vec3f target = TargetRegion::getTargetPt(points, passable);
            EXPECT_EQ(target, reference::targetPt(points, expectedPassable));
            EXPECT_EQ(passable, radius < eroded);
            EXPECT_EQ(passable, expectedPassable);
            EXPECT_NEAR(target[0], (disc.centre.x - 120) * 40.0 / 240, 1.5 * 40.0 / 240);
            EXPECT_NEAR(target[1], (disc.centre.y - 160) * 30.0 / 240, 1.5 * 30.0 / 240);
            EXPECT_EQ(target[2], wall_mm);
        }
    }
    bool passable = false;
    EXPECT_EQ(TargetRegion::getTargetPt(wallWithOpening(kFrame, {120, 160}, 50, 1000.0f), passable),
              cv::Vec3f(0, 0, 1000));
    // The frame edge does not erode: free columns 0..99 keep 0..89, 0..90 after the blur.
    cv::Mat band(kFrame, CV_32FC3, cv::Scalar(0, 0, 1000));
    band.colRange(0, 100).setTo(cv::Scalar(0, 0, 5000));
    EXPECT_NEAR(TargetRegion::getTargetPt(band, passable)[0], (45 - 120) * 40.0 / 240, 1.5 * 40.0 / 240);
}

// Nothing beyond 3 m (or no image at all): no outline, so the target is the
// frame centre and nothing is passable.
TEST(TargetRegionCircle, NoFreeAreaAimsAtTheCentreAndIsNotPassable)
{
    const struct {
        cv::Mat points;
        cv::Vec3f expected;
    } cases[] = {{cv::Mat(kFrame, CV_32FC3, cv::Scalar(0, 0, 3000)), {0, 0, 3000}},
                 {cv::Mat(cv::Size(33, 17), CV_32FC3, cv::Scalar(0, 0, 500)), {0, 0, 1e6f}},
                 {cv::Mat(), {0, 0, 1e6f}}};
    for (const auto& c : cases) {
        bool passable = true;
        EXPECT_EQ(TargetRegion::getTargetPt(c.points, passable), c.expected);
        EXPECT_FALSE(passable);
    }
    expectSame(TargetRegion::getTargetCircleRegion(cv::Mat::zeros(kFrame, CV_8UC1)), kNone);
}

// A 13 px square holds a 6 px circle, an 11 px one only 5 px: never a
// candidate. The 10 x 10 closing moves every area 1 px right and down.
// Of a long strip (4,400 px, circle 9 px) and a 41 px square
// (1,681 px, circle 20 px) the square wins the rectangle search, while the
// circle search takes the strip, the outline of larger area.
TEST(TargetRegionRect, LargestInscribedCircleAboveFivePixelsWins)
{
    const auto squareMask = [](int side) {
        cv::Mat mask = cv::Mat::zeros(kFrame, CV_8UC1);
        mask(cv::Rect(100, 100, side, side)).setTo(255);
        return mask;
    };
    expectSame(TargetRegion::getTargetRectRegion(squareMask(11)), kNone);
    expectSame(TargetRegion::getTargetRectRegion(squareMask(13)), Region{6, {107, 107}, {101, 101, 12, 12}});

    cv::Mat mask = cv::Mat::zeros(kFrame, CV_8UC1);
    mask(cv::Rect(10, 40, 220, 20)).setTo(255);
    mask(cv::Rect(100, 200, 41, 41)).setTo(255);
    const cv::Mat before = mask.clone();
    expectSame(TargetRegion::getTargetRectRegion(mask), Region{20, {121, 221}, {101, 201, 40, 40}});
    EXPECT_EQ(cv::norm(mask, before, cv::NORM_INF), 0);
    const Region circle = TargetRegion::getTargetCircleRegion(mask);
    EXPECT_EQ(circle.centre.y, 49);
    EXPECT_NEAR(circle.value, 10, 1);
}

// Random blobs, rings, lines and dots on frames down to 1 x 1 px: both
// searches equal the literal per-pixel search, ties in row-major order included.
TEST(TargetRegionExactness, RandomMasksMatchThePerPixelSearch)
{
    cv::RNG rng(19);
    for (int i = 0; i < 60; ++i) {
        const cv::Size size(rng.uniform(1, 161), rng.uniform(1, 121));
        cv::Mat mask = cv::Mat::zeros(size, CV_8UC1);
        for (int shapes = rng.uniform(0, 6); shapes > 0; --shapes) {
            const cv::Point at(rng.uniform(-10, size.width + 10), rng.uniform(-10, size.height + 10));
            const int extent = rng.uniform(0, 60);
            const int thickness = rng.uniform(0, 2) ? cv::FILLED : rng.uniform(1, 12);
            if (rng.uniform(0, 2)) {
                cv::circle(mask, at, extent, 255, thickness);
            } else {
                cv::rectangle(mask, cv::Rect(at, cv::Size(extent, rng.uniform(0, 60))), 255, thickness);
            }
        }
        for (int dots = rng.uniform(0, 8); dots > 0; --dots) {
            mask.at<uchar>(rng.uniform(0, size.height), rng.uniform(0, size.width)) = 255;
        }
        SCOPED_TRACE(i);
        expectSame(TargetRegion::getTargetCircleRegion(mask), reference::circleRegion(mask));
        expectSame(TargetRegion::getTargetRectRegion(mask), reference::rectRegion(mask));
    }
}

// Only whole 40 x 40 blocks count: a near strip in the cut-off last block row
// or column is ignored (and never read past the frame, which AddressSanitizer
// checks), the same strip in a whole last block row is found.
TEST(TargetRegionDistance, OnlyWholeBlocksCount)
{
    const struct {
        cv::Size size;
        cv::Rect near;
        float expected_mm;
    } cases[] = {{{480, 544}, {0, 520, 480, 24}, 2000.0f},
                 {{500, 480}, {480, 0, 20, 480}, 2000.0f},
                 {{480, 520}, {0, 480, 480, 40}, 100.0f}};
    for (const auto& c : cases) {
        cv::Mat depth(c.size, CV_32FC1, cv::Scalar(2000));
        depth(c.near).setTo(100);
        EXPECT_EQ(TargetRegion::getMinDistance(depth), c.expected_mm);
        EXPECT_EQ(TargetRegion::getSinegleAreaDis(depth, c.near.y, c.near.x), c.expected_mm == 100 ? 100 : 1e6f);
        cv::Mat points;
        cv::merge(std::vector<cv::Mat>{cv::Mat::zeros(c.size, CV_32FC1), cv::Mat::zeros(c.size, CV_32FC1), depth},
                  points);
        bool passable = true;
        EXPECT_EQ(TargetRegion::getTargetPt(points, passable)[2], c.expected_mm);
    }
}

// A block is valid up to 533 missing pixels (above 100000 mm), which still
// count in its mean; at 534 it is not, and an image of such blocks has no distance.
TEST(TargetRegionDistance, BlocksWithMoreThan533MissingPixelsHaveNoDistance)
{
    const struct {
        int missing;
        bool valid;
        float mean_mm;
    } cases[] = {{0, true, 1000.0f}, {533, true, 67291.875f}, {534, false, 1e6f}, {1600, false, 1e6f}};
    for (const auto& c : cases) {
        cv::Mat block(40, 40, CV_32FC1, cv::Scalar(1000));
        for (int i = 0; i < c.missing; ++i) {
            block.at<float>(i / 40, i % 40) = 200000;
        }
        cv::Mat depth;
        cv::repeat(block, 3, 3, depth);
        SCOPED_TRACE(c.missing);
        EXPECT_EQ(TargetRegion::isValid(depth, 40, 80), c.valid);
        EXPECT_EQ(TargetRegion::getSinegleAreaDis(depth, 40, 80), c.mean_mm);
        EXPECT_EQ(TargetRegion::getMinDistance(depth), c.mean_mm);
    }
}

// 200 mm is not passable, the next float above it is; the width in float is
// what counts (286.076874 mm gives 200.0000028 in double, 200 in float).
TEST(TargetRegionPassable, StrictlyWiderThan200Millimetres)
{
    const struct {
        float distance_mm;
        double radius_px;
        int width_px;
        bool passable;
    } cases[] = {{286.076843f, 100, 640, false},
                 {286.076874f, 100, 640, false},
                 {286.076904f, 100, 640, true},
                 {1e6f, 0, 640, false},
                 {1000.0f, 100, 0, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.distance_mm);
        EXPECT_EQ(TargetRegion::isExistAvailableArea(Region{c.radius_px, {}, {}}, c.distance_mm, c.width_px),
                  c.passable);
    }
}

}  // namespace
