// Our substitute for the stereo unit's library, through its C interface only:
// return codes, two groups computing at once, and what the matcher must get
// right: sub-pixel disparity, occlusions, borders, odd sizes.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/core.hpp>

#include "dpu.h"

namespace {

using Words = std::vector<unsigned short>;
constexpr unsigned short kInvalid = 0xFFFF;
constexpr unsigned short kUntouched = 0x1234;
constexpr int kFirstValidColumn = 63;  // the whole 0..63 px range lies inside the right image

// A band-limited random texture (waves of 4..20 px period) sampled at
// (x + shiftPx, y): a fractional shift is exact, with no interpolation.
// Serial on purpose: OpenCV's thread pool synchronises in ways
// ThreadSanitizer cannot see.
cv::Mat waves(cv::Size size, double shiftPx, uint64_t seed)
{
    cv::RNG rng(seed);
    cv::Mat sum(size, CV_64F, cv::Scalar(128.0));
    for (int k = 0; k < 24; ++k) {
        const double radius = rng.uniform(0.05, 0.25), angle = rng.uniform(0.0, CV_PI);
        const double fx = 2 * CV_PI * radius * std::cos(angle), fy = 2 * CV_PI * radius * std::sin(angle);
        const double phase = rng.uniform(0.0, 2 * CV_PI);
        for (int y = 0; y < size.height; ++y) {
            for (int x = 0; x < size.width; ++x) {
                sum.at<double>(y, x) += 20.0 * std::cos(fx * (x + shiftPx) + fy * y + phase);
            }
        }
    }
    cv::Mat image;
    sum.convertTo(image, CV_8U);
    return image;
}

Words computeUnit(const cv::Mat& left, const cv::Mat& right)
{
    Words out(left.total(), kUntouched);
    EXPECT_EQ(dpu_init(left.cols, left.rows), DPU_OK);
    EXPECT_EQ(dpu_compute_grp0(left.data, right.data, out.data()), DPU_OK);
    return out;
}

const cv::Size kSize(160, 120);
const cv::Mat kLeft = waves(kSize, 0.0, 1);
const cv::Mat kRight = waves(kSize, 8.0, 1);

// The unit has no reset, so the before-init calls run in a fresh child
// process. Exits 0 when every call was refused and nothing was written.
void refuseBeforeInit()
{
    Words out(kSize.area(), kUntouched);
    const bool refused = dpu_compute_grp0(kLeft.data, kRight.data, out.data()) == DPU_EINVAL &&
                         dpu_compute_grp1(kLeft.data, kRight.data, out.data()) == DPU_EINVAL &&
                         dpu_init(0, kSize.height) == DPU_ESIZE && dpu_init(kSize.width, -1) == DPU_ESIZE &&
                         dpu_compute_grp0(kLeft.data, kRight.data, out.data()) == DPU_EINVAL;
    std::fprintf(stderr, "refused=%d untouched=%d", refused, out == Words(kSize.area(), kUntouched));
    std::exit(0);
}

// Nothing is computed before dpu_init nor without buffers; a refused size
// keeps the previous one.
TEST(DpuSubstitute, RefusesWorkBeforeInitAndWithoutBuffers)
{
    // The child re-runs this binary, unless it runs under the cross-compiling
    // emulator: there the kernel cannot exec an arm64 program, so the child is
    // forked. It is fresh all the same: ctest runs each test in a process of
    // its own, and this test comes first in file order.
    GTEST_FLAG_SET(death_test_style, std::string(BINO_EMULATOR).empty() ? "threadsafe" : "fast");
    EXPECT_EXIT(refuseBeforeInit(), ::testing::ExitedWithCode(0), "refused=1 untouched=1");

    Words out(kSize.area(), kUntouched);
    ASSERT_EQ(dpu_init(kSize.width, kSize.height), DPU_OK);
    EXPECT_EQ(dpu_compute_grp0(nullptr, kRight.data, out.data()), DPU_EINVAL);
    EXPECT_EQ(dpu_compute_grp1(kLeft.data, nullptr, out.data()), DPU_EINVAL);
    EXPECT_EQ(dpu_compute_grp0(kLeft.data, kRight.data, nullptr), DPU_EINVAL);
    EXPECT_EQ(out, Words(kSize.area(), kUntouched));
    EXPECT_EQ(dpu_init(100000, kSize.height), DPU_ESIZE);
    EXPECT_EQ(dpu_compute_grp1(kLeft.data, kRight.data, out.data()), DPU_OK);
}

// Two threads computing at once get from each group exactly what it returns
// alone, on pairs whose results differ.
TEST(DpuSubstitute, GroupsComputeAtTheSameTimeWithTheirOwnResults)
{
    const cv::Mat right[2] = {kRight, waves(kSize, 20.0, 1)};
    const auto compute = [&right](int group) {
        Words out(kSize.area(), kUntouched);
        EXPECT_EQ((group == 0 ? dpu_compute_grp0 : dpu_compute_grp1)(kLeft.data, right[group].data, out.data()),
                  DPU_OK);
        return out;
    };
    ASSERT_EQ(dpu_init(kSize.width, kSize.height), DPU_OK);
    const Words alone[2] = {compute(0), compute(1)};
    ASSERT_NE(alone[0], alone[1]);
    const auto repeat = [&](int group) {
        for (int round = 0; round < 4; ++round) {
            EXPECT_EQ(compute(group), alone[group]) << "group " << group << ", round " << round;
        }
    };
    std::thread down(repeat, 1);
    repeat(0);
    down.join();
}

// The share of `area` whose word is `disparity` within 1 px, or invalid for a
// disparity below 0.
double share(const Words& out, int width, cv::Rect area, double disparity)
{
    int matching = 0;
    for (int y = area.y; y < area.br().y; ++y) {
        for (int x = area.x; x < area.br().x; ++x) {
            const unsigned short word = out[static_cast<size_t>(y * width + x)];
            matching += disparity < 0 ? word == kInvalid : std::abs(word / 64.0 - disparity) <= 1.0;
        }
    }
    return static_cast<double>(matching) / area.area();
}

// Every column left of 63 is invalid; right of it at least 95 % of the pixels
// are valid and their median error is below 0.1 px, at whole and fractional
// shifts alike (disparities rounded to whole pixels fail this), also with a
// gain and offset between the cameras' grey levels.
TEST(DpuMatcher, RecoversFractionalShiftsAndLeavesTheLeftBorderInvalid)
{
    const struct {
        double px, gain, offset;
    } shifts[] = {{3.0, 1, 0}, {7.25, 1, 0}, {12.5, 1, 0}, {41.4, 1, 0}, {62.0, 1, 0}, {9.6, 0.7, 40}};
    const cv::Size size(200, 120);  // tall enough to be split into bands
    for (const auto& shift : shifts) {
        SCOPED_TRACE(testing::Message() << shift.px << " px, grey x" << shift.gain << " + " << shift.offset);
        cv::Mat right;
        waves(size, shift.px, 5).convertTo(right, CV_8U, shift.gain, shift.offset);
        const Words out = computeUnit(waves(size, 0.0, 5), right);
        EXPECT_EQ(share(out, size.width, cv::Rect(0, 0, kFirstValidColumn, size.height), -1), 1.0);
        std::vector<double> errors;
        for (size_t i = 0; i < out.size(); ++i) {
            if (static_cast<int>(i) % size.width >= kFirstValidColumn && out[i] < 0x8000) {
                errors.push_back(std::abs(out[i] / 64.0 - shift.px));
            }
        }
        ASSERT_GT(errors.size(), 0.95 * (size.width - kFirstValidColumn) * size.height);
        std::nth_element(errors.begin(), errors.begin() + errors.size() / 2, errors.end());
        EXPECT_LT(errors[errors.size() / 2], 0.1);
    }
}

// A square at 24 px before a background at 4 px hides, in the right view,
// the 20 px of background left of it. Those pixels must not come out valid
// with a wrong disparity; the square and the visible background must.
TEST(DpuMatcher, MarksOccludedBackgroundInvalid)
{
    const cv::Size size(240, 120);
    const cv::Rect square(140, 30, 60, 60);
    cv::Mat left = waves(size, 0.0, 7);
    cv::Mat right = waves(size, 4.0, 7);
    waves(size, 0.0, 8)(square).copyTo(left(square));
    waves(size, 24.0, 8)(square - cv::Point(24, 0)).copyTo(right(square - cv::Point(24, 0)));
    const Words out = computeUnit(left, right);
    const cv::Rect occluded(square.x - 20, square.y, 20, square.height);
    EXPECT_GT(share(out, size.width, occluded, -1), 0.8);
    EXPECT_LT(share(out, size.width, occluded, 24), 0.1);
    EXPECT_GT(share(out, size.width, square, 24), 0.9);
    EXPECT_GT(share(out, size.width, cv::Rect(kFirstValidColumn, 0, 60, size.height), 4), 0.9);
}

// Every word is written as 0xFFFF (never a bare flag) or a disparity within
// 0..63 px, and frames too narrow for the range or without texture are
// invalid throughout. Under AddressSanitizer this also checks that no row or
// column border is overrun.
TEST(DpuMatcher, OddFramesGetEveryWordWithinTheRange)
{
    const struct {
        int width, height;
        bool flat;  // one grey level: no disparity can be told apart from another
    } frames[] = {{1, 1, false},    {63, 40, false},  {64, 1, false},  {65, 200, false},
                  {333, 97, false}, {1000, 3, false}, {160, 120, true}};
    for (const auto& frame : frames) {
        SCOPED_TRACE(testing::Message() << frame.width << "x" << frame.height << (frame.flat ? " flat" : ""));
        const cv::Size size(frame.width, frame.height);
        const cv::Mat left = frame.flat ? cv::Mat(size, CV_8UC1, cv::Scalar(90)) : waves(size, 0.0, 9);
        const Words out = computeUnit(left, frame.flat ? left : waves(size, -6.0, 9));
        const bool allInvalid = frame.flat || frame.width <= kFirstValidColumn;
        const auto wrong = std::find_if(out.begin(), out.end(), [&](unsigned short word) {
            return word != kInvalid && (allInvalid || word > 63 * 64);
        });
        EXPECT_TRUE(wrong == out.end()) << "word " << wrong - out.begin() << ": " << *wrong;
    }
}

}  // namespace
