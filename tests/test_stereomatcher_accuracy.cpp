// On a rendered obstacle plane at 2..20 m (20..2 px, 3 m and 7 m between whole
// pixels) both back ends keep the median absolute error of valid pixels below
// 0.25 px (unit) or 1 px (BM, whose 65 px blocks lose the obstacle's rim), with
// more than 90 % valid.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <tuple>
#include <vector>

#include "scenerender.h"
#include "stereomatcher.h"

namespace {

// Inside the BM band of pitch 0 (rows 40-319, columns 80-399), clear of its border.
const cv::Rect kObstacle(176, 96, 176, 160);

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
    StereoMatcher matcher(Common::DOWN, backEnd, rig.size);  // a front unit matcher would write its dump
    matcher.setPitch(0.0f);
    cv::Mat disparity;
    matcher.compute(left, right, disparity, 0);

    const int margin = backEnd == StereoMatcher::BM ? 65 / 2 : 0;
    cv::Mat px;
    disparity(kObstacle + cv::Point(margin, margin) - cv::Size(2 * margin, 2 * margin)).convertTo(px, CV_32F);
    std::vector<float> errors;
    for (auto d = px.begin<float>(); d != px.end<float>(); ++d) {
        if (*d >= 0.0f) {
            errors.push_back(std::abs(*d - static_cast<float>(scene::disparityPx(rig, distanceM))));
        }
    }
    const double validFraction = static_cast<double>(errors.size()) / px.total();
    EXPECT_GT(validFraction, 0.90);
    ASSERT_FALSE(errors.empty());
    std::nth_element(errors.begin(), errors.begin() + errors.size() / 2, errors.end());
    EXPECT_LT(errors[errors.size() / 2], backEnd == StereoMatcher::DPU ? 0.25 : 1.0);
}

INSTANTIATE_TEST_SUITE_P(RenderedPlanes, StereoMatcherAccuracy,
                         ::testing::Combine(::testing::Values(StereoMatcher::DPU, StereoMatcher::BM),
                                            ::testing::Values(2.0, 3.0, 5.0, 7.0, 10.0, 20.0)),
                         [](const ::testing::TestParamInfo<Param>& param) {
                             const char* backEnd = std::get<0>(param.param) == StereoMatcher::DPU ? "Unit" : "BM";
                             return backEnd + std::to_string(static_cast<int>(std::get<1>(param.param))) + "m";
                         });

}  // namespace
