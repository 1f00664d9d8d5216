// Accuracy of both back ends on rendered scenes with known depth: a textured,
// fronto-parallel obstacle plane at 2, 5, 10 or 20 m before a background at
// 40 m, seen by the simulator's rig (f = 400 px, B = 100 mm: 20, 8, 4, 2 px).
//
// Metrics, inside the obstacle rectangle of the left image (for BM less a
// border of half its 65 px block, across which a block straddles the depth
// edge and cannot match):
//   median absolute disparity error over valid pixels, px:
//     below 0.25 for the stereo unit, below 1 for BM (whole pixels);
//   fraction of valid pixels: above 90 % for both.
// 3 m and 7 m add disparities between whole pixels (13.33 and 5.71 px).

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <tuple>
#include <vector>

#include "scenerender.h"
#include "stereomatcher.h"

namespace {

constexpr double kUnitMedianTolerancePx = 0.25;
constexpr double kBmMedianTolerancePx = 1.0;
constexpr double kMinValidFraction = 0.90;

// Inside the BM band of pitch 0 (rows 40-319, columns 80-399) and clear of the
// band's border, where 65 px blocks and a 48 px search leave no match.
const cv::Rect kObstacle(176, 96, 176, 160);
constexpr int kBmEdgeMarginPx = 65 / 2;

struct ObstacleStats {
    double medianErrorPx = 0.0;
    double validFraction = 0.0;
};

ObstacleStats measure(const cv::Mat& disparity, cv::Rect region, double truthPx)
{
    cv::Mat px;
    disparity(region).convertTo(px, CV_32F);
    std::vector<float> errors;
    for (int y = 0; y < px.rows; ++y) {
        for (int x = 0; x < px.cols; ++x) {
            const float d = px.at<float>(y, x);
            if (d >= 0.0f) {
                errors.push_back(std::abs(d - static_cast<float>(truthPx)));
            }
        }
    }
    ObstacleStats stats;
    stats.validFraction = static_cast<double>(errors.size()) / region.area();
    if (!errors.empty()) {
        std::nth_element(errors.begin(), errors.begin() + errors.size() / 2, errors.end());
        stats.medianErrorPx = errors[errors.size() / 2];
    }
    return stats;
}

using Param = std::tuple<StereoMatcher::Matcher, double>;

class StereoMatcherAccuracy : public ::testing::TestWithParam<Param> {};

TEST_P(StereoMatcherAccuracy, ObstacleDisparityIsCloseAndMostlyValid)
{
    const auto [backEnd, distanceM] = GetParam();
    const scene::Rig rig;
    scene::SceneLayout layout;
    layout.obstacleM = distanceM;
    layout.obstacleRect = kObstacle;
    cv::Mat left;
    cv::Mat right;
    scene::renderPair(rig, layout, left, right);

    // The down camera: a front unit matcher would write the debug dump here.
    StereoMatcher matcher(Common::DOWN, backEnd, rig.size);
    matcher.setPitch(0.0f);
    cv::Mat disparity;
    matcher.compute(left, right, disparity, 0);

    const int margin = backEnd == StereoMatcher::BM ? kBmEdgeMarginPx : 0;
    const cv::Rect inside(kObstacle.x + margin, kObstacle.y + margin, kObstacle.width - 2 * margin,
                          kObstacle.height - 2 * margin);
    const ObstacleStats stats = measure(disparity, inside, scene::disparityPx(rig, distanceM));
    RecordProperty("median_abs_error_px", std::to_string(stats.medianErrorPx));
    RecordProperty("valid_fraction", std::to_string(stats.validFraction));
    const double tolerance = backEnd == StereoMatcher::DPU ? kUnitMedianTolerancePx : kBmMedianTolerancePx;
    EXPECT_LT(stats.medianErrorPx, tolerance);
    EXPECT_GT(stats.validFraction, kMinValidFraction);
}

INSTANTIATE_TEST_SUITE_P(RenderedPlanes, StereoMatcherAccuracy,
                         ::testing::Combine(::testing::Values(StereoMatcher::DPU, StereoMatcher::BM),
                                            ::testing::Values(2.0, 3.0, 5.0, 7.0, 10.0, 20.0)),
                         [](const ::testing::TestParamInfo<Param>& param) {
                             const char* backEnd = std::get<0>(param.param) == StereoMatcher::DPU ? "Unit" : "BM";
                             return backEnd + std::to_string(static_cast<int>(std::get<1>(param.param))) + "m";
                         });

}  // namespace
