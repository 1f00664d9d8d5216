// Our substitute for the stereo unit's library, through its C interface only:
// return codes, two groups at once, sub-pixel disparity, occlusions, borders.

#include <gtest/gtest.h>

#include <cmath>
#include <thread>
#include <tuple>
#include <vector>

#include <opencv2/core.hpp>

#include "dpu.h"

namespace {

using Words = std::vector<unsigned short>;
constexpr unsigned short kInvalid = 0xFFFF;
constexpr unsigned short kUntouched = 0x1234;
constexpr int kFirstValidColumn = 63;  // the whole 0..63 px range lies inside the right image

// A band-limited random texture (waves of 4..20 px period) at (x + shiftPx, y):
// a fractional shift is exact. Serial: ThreadSanitizer cannot see OpenCV's pool.
cv::Mat waves(cv::Size size, double shiftPx, uint64_t seed)
{
    cv::RNG rng(seed);
    cv::Mat sum(size, CV_64F, cv::Scalar(128.0));
    for (int k = 0; k < 24; ++k) {
        const double r = rng.uniform(0.05, 0.25), angle = rng.uniform(0.0, CV_PI), phase = rng.uniform(0.0, 2 * CV_PI);
        const double fx = 2 * CV_PI * r * std::cos(angle), fy = 2 * CV_PI * r * std::sin(angle);
        for (int y = 0; y < size.height; ++y) {
            for (int x = 0; x < size.width; ++x) {
                sum.at<double>(y, x) += 20.0 * std::cos(fx * (x + shiftPx) + fy * y + phase);
            }
        }
    }
    return cv::Mat_<uchar>(sum);
}

Words computeUnit(const cv::Mat& left, const cv::Mat& right)
{
    Words out(left.total(), kUntouched);
    EXPECT_EQ(dpu_init(left.cols, left.rows), DPU_OK);
    EXPECT_EQ(dpu_compute_grp0(left.data, right.data, out.data()), DPU_OK);
    return out;
}

const cv::Size kSize(160, 120);
const cv::Mat kLeft = waves(kSize, 0.0, 1), kRight = waves(kSize, 8.0, 1);

// Nothing is computed without buffers and a refused size keeps the previous
// one; two threads computing at once get from each group exactly what it
// returns alone, on pairs whose results differ.
TEST(DpuSubstitute, RefusesWorkWithoutBuffersAndGroupsComputeAtOnceWithTheirOwnResults)
{
    Words out(kSize.area(), kUntouched);
    ASSERT_EQ(dpu_init(kSize.width, kSize.height), DPU_OK);
    EXPECT_EQ(dpu_compute_grp0(nullptr, kRight.data, out.data()), DPU_EINVAL);
    EXPECT_EQ(dpu_compute_grp1(kLeft.data, nullptr, out.data()), DPU_EINVAL);
    EXPECT_EQ(dpu_compute_grp0(kLeft.data, kRight.data, nullptr), DPU_EINVAL);
    EXPECT_EQ(out, Words(kSize.area(), kUntouched));

    const cv::Mat right[2] = {kRight, waves(kSize, 20.0, 1)};
    const auto compute = [&right](int group) {
        Words words(kSize.area(), kUntouched);
        EXPECT_EQ((group ? dpu_compute_grp1 : dpu_compute_grp0)(kLeft.data, right[group].data, words.data()), DPU_OK);
        return words;
    };
    const Words alone[2] = {compute(0), compute(1)};
    ASSERT_NE(alone[0], alone[1]);
    EXPECT_EQ(dpu_init(100000, kSize.height), DPU_ESIZE);  // what follows still gets the results of kSize
    const auto repeat = [&](int group) {
        for (int round = 0; round < 4; ++round) {
            EXPECT_EQ(compute(group), alone[group]) << "group " << group << ", round " << round;
        }
    };
    std::thread down(repeat, 1);
    repeat(0);
    down.join();
}

// The share of `area` whose disparity is within `within` px of `px`, or whose
// word is 0xFFFF for px below 0.
double share(const Words& out, int width, cv::Rect area, double px, double within = 1.0)
{
    const double low = px < 0 ? kInvalid : 64 * (px - within), high = px < 0 ? kInvalid : 64 * (px + within);
    cv::Mat inside;
    cv::inRange(cv::Mat(out).reshape(1, static_cast<int>(out.size()) / width)(area), low, high, inside);
    return cv::countNonZero(inside) / static_cast<double>(area.area());
}

// Every column left of 63 is invalid; right of it at least 95 % of the pixels
// are within 1 px and more than half within 0.1 px (whole-pixel rounding fails
// this), also with a gain and offset between the cameras' grey levels.
TEST(DpuMatcher, RecoversFractionalShiftsAndLeavesTheLeftBorderInvalid)
{
    const cv::Size size(200, 120);  // tall enough to be split into bands
    const std::tuple<double, double, double> shifts[] = {{7.25, 1, 0}, {62.0, 1, 0}, {9.6, 0.7, 40}};
    for (const auto& [px, gain, offset] : shifts) {
        const Words out = computeUnit(waves(size, 0.0, 5), cv::Mat_<uchar>(waves(size, px, 5) * gain + offset));
        EXPECT_EQ(share(out, size.width, cv::Rect(0, 0, kFirstValidColumn, size.height), -1), 1.0) << px;
        const cv::Rect matched(kFirstValidColumn, 0, size.width - kFirstValidColumn, size.height);
        EXPECT_GT(share(out, size.width, matched, px), 0.95) << px;
        EXPECT_GT(share(out, size.width, matched, px, 0.1), 0.5) << px;  // a median error below 0.1 px
    }
}

// A square at 24 px before a background at 4 px hides, in the right view,
// the 20 px of background left of it. Those pixels must not come out valid
// with a wrong disparity; the square and the visible background must.
TEST(DpuMatcher, MarksOccludedBackgroundInvalid)
{
    const cv::Size size(240, 120);
    const cv::Rect square(140, 30, 60, 60), occluded(120, 30, 20, 60);
    cv::Mat left = waves(size, 0.0, 7), right = waves(size, 4.0, 7);
    waves(size, 0.0, 8)(square).copyTo(left(square));
    waves(size, 24.0, 8)(square - cv::Point(24, 0)).copyTo(right(square - cv::Point(24, 0)));
    const Words out = computeUnit(left, right);
    EXPECT_GT(share(out, size.width, occluded, -1), 0.8);
    EXPECT_LT(share(out, size.width, occluded, 24), 0.1);
    EXPECT_GT(share(out, size.width, square, 24), 0.9);
    EXPECT_GT(share(out, size.width, cv::Rect(kFirstValidColumn, 0, 60, size.height), 4), 0.9);
}

// Every word is 0xFFFF (never a bare flag) or within 0..63 px; frames too
// narrow for the range or without texture are invalid throughout. Under
// AddressSanitizer this also checks that no border is overrun.
TEST(DpuMatcher, OddFramesGetEveryWordWithinTheRange)
{
    const std::tuple<int, int, bool> frames[] = {{1, 1, false}, {63, 40, false}, {333, 97, false}, {160, 120, true}};
    for (const auto& [width, height, flat] : frames) {  // flat: one grey level, no disparity tells from another
        const cv::Size size(width, height);
        const cv::Mat left = flat ? cv::Mat(size, CV_8UC1, cv::Scalar(90)) : waves(size, 0.0, 9);
        const Words out = computeUnit(left, flat ? left : waves(size, -6.0, 9));
        const double inRange = flat || width <= kFirstValidColumn ? 0 : share(out, width, {{}, size}, 31.5, 31.5);
        EXPECT_DOUBLE_EQ(share(out, width, {{}, size}, -1) + inRange, 1.0) << size << (flat ? " flat" : "");
    }
}

}  // namespace
