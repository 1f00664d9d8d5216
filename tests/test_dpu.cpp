// Our substitute for the stereo unit's library, through its C interface only:
// return codes, the word format, two groups computing at once, and what the
// matcher must get right: sub-pixel disparity, occlusions, borders, odd sizes.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/core.hpp>

#include "dpu.h"

namespace {

constexpr int kWidth = 160;
constexpr int kHeight = 120;
constexpr size_t kPixels = kWidth * kHeight;

// Noise whose right view is the left one moved by d px: right(x - d) = left(x).
std::array<cv::Mat, 2> shiftedNoise(int d, uint64_t seed)
{
    std::array<cv::Mat, 2> pair = {cv::Mat(kHeight, kWidth, CV_8UC1), cv::Mat(kHeight, kWidth, CV_8UC1)};
    cv::RNG rng(seed);
    rng.fill(pair[0], cv::RNG::UNIFORM, 0, 256);
    rng.fill(pair[1], cv::RNG::UNIFORM, 0, 256);
    pair[0].colRange(d, kWidth).copyTo(pair[1].colRange(0, kWidth - d));
    return pair;
}

constexpr unsigned short kInvalid = 0xFFFF;
constexpr int kFirstValidColumn = 63;  // the whole 0..63 px range lies inside the right image

// A fresh unit (the child process re-runs this binary, so no earlier test has
// initialised it) refuses to compute; exits 0 when every call gave what it must.
void refuseBeforeInitInFreshProcess()
{
    auto [left, right] = shiftedNoise(8, 1);
    std::vector<unsigned short> out(kPixels, 0x1234);
    const bool refused = dpu_compute_grp0(left.data, right.data, out.data()) == DPU_EINVAL &&
                         dpu_compute_grp1(left.data, right.data, out.data()) == DPU_EINVAL &&
                         dpu_init(0, kHeight) == DPU_ESIZE && dpu_init(kWidth, -1) == DPU_ESIZE &&
                         dpu_compute_grp0(left.data, right.data, out.data()) == DPU_EINVAL;
    const bool untouched = std::all_of(out.begin(), out.end(), [](unsigned short w) { return w == 0x1234; });
    std::fprintf(stderr, "refused=%d untouched=%d", refused, untouched);
    std::exit(refused && untouched ? 0 : 1);
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
    EXPECT_EXIT(refuseBeforeInitInFreshProcess(), ::testing::ExitedWithCode(0), "refused=1 untouched=1");

    auto [left, right] = shiftedNoise(8, 1);
    std::vector<unsigned short> out(kPixels, 0x1234);
    ASSERT_EQ(dpu_init(kWidth, kHeight), DPU_OK);
    EXPECT_EQ(dpu_compute_grp0(nullptr, right.data, out.data()), DPU_EINVAL);
    EXPECT_EQ(dpu_compute_grp1(left.data, nullptr, out.data()), DPU_EINVAL);
    EXPECT_EQ(dpu_compute_grp0(left.data, right.data, nullptr), DPU_EINVAL);
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](unsigned short w) { return w == 0x1234; }));
    EXPECT_EQ(dpu_init(100000, kHeight), DPU_ESIZE);
    EXPECT_EQ(dpu_compute_grp1(left.data, right.data, out.data()), DPU_OK);
}

// Invalid pixels read 0xFFFF, never a bare flag; two threads computing at once
// get from each group exactly what it returns alone.
TEST(DpuSubstitute, GroupsComputeAtTheSameTimeWithTheirOwnResults)
{
    ASSERT_EQ(dpu_init(kWidth, kHeight), DPU_OK);
    std::array<cv::Mat, 2> pairs[] = {shiftedNoise(20, 3), shiftedNoise(5, 4)};
    const auto compute = [&pairs](int group, std::vector<unsigned short>& out) {
        return (group == 0 ? dpu_compute_grp0 : dpu_compute_grp1)(pairs[group][0].data, pairs[group][1].data,
                                                                  out.data());
    };
    std::vector<unsigned short> alone[2] = {std::vector<unsigned short>(kPixels), std::vector<unsigned short>(kPixels)};
    for (int group : {0, 1}) {
        ASSERT_EQ(compute(group, alone[group]), DPU_OK);
        const auto flagged =
            std::count_if(alone[group].begin(), alone[group].end(), [](unsigned short w) { return w >= 0x8000; });
        EXPECT_EQ(std::count(alone[group].begin(), alone[group].end(), 0xFFFF), flagged) << group;
        EXPECT_LT(flagged, static_cast<long>(kPixels / 2)) << group;
    }
    ASSERT_NE(alone[0], alone[1]);

    const auto repeat = [&](int group) {
        std::vector<unsigned short> out(kPixels);
        for (int round = 0; round < 4; ++round) {
            compute(group, out);
            EXPECT_EQ(out, alone[group]) << "group " << group << ", round " << round;
        }
    };
    std::thread down(repeat, 1);
    repeat(0);
    down.join();
}

// A band-limited random texture (waves of 4..20 px period) sampled at
// (x + shiftPx, y): a fractional shift is exact, with no interpolation.
cv::Mat waves(cv::Size size, double shiftPx, uint64_t seed)
{
    constexpr int kWaves = 24;
    cv::RNG rng(seed);
    std::array<double, kWaves> fx, fy, phase;
    for (int k = 0; k < kWaves; ++k) {
        const double radius = rng.uniform(0.05, 0.25);
        const double angle = rng.uniform(0.0, CV_PI);
        fx[k] = 2 * CV_PI * radius * std::cos(angle);
        fy[k] = 2 * CV_PI * radius * std::sin(angle);
        phase[k] = rng.uniform(0.0, 2 * CV_PI);
    }
    cv::Mat image(size, CV_8UC1);
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
            double sum = 0.0;
            for (int k = 0; k < kWaves; ++k) {
                sum += std::cos(fx[k] * (x + shiftPx) + fy[k] * y + phase[k]);
            }
            image.at<uint8_t>(y, x) = cv::saturate_cast<uint8_t>(128.0 + 20.0 * sum);
        }
    }
    return image;
}

std::vector<unsigned short> computeUnit(const cv::Mat& left, const cv::Mat& right)
{
    std::vector<unsigned short> out(left.total(), 0x1234);
    EXPECT_EQ(dpu_init(left.cols, left.rows), DPU_OK);
    EXPECT_EQ(dpu_compute_grp0(left.data, right.data, out.data()), DPU_OK);
    return out;
}

struct Shift {
    double px;
    double gain;  // the right camera's grey levels: gain * left + offset
    double offset;
};

void PrintTo(const Shift& shift, std::ostream* os)
{
    *os << shift.px << " px, grey x" << shift.gain << " + " << shift.offset;
}

class DpuMatcherShift : public ::testing::TestWithParam<Shift> {};

// Every column left of 63 is invalid; right of it at least 95 % of the pixels
// are valid and their median error is below 0.1 px, at whole and fractional
// shifts alike (a fit pulled toward whole pixels errs by 0.11..0.13 px here).
// A gain and offset between the cameras changes none of this. The image is
// tall enough to be split into bands.
TEST_P(DpuMatcherShift, RecoversFractionalShiftsAndLeavesTheLeftBorderInvalid)
{
    const Shift shift = GetParam();
    const cv::Size size(200, 120);
    cv::Mat right;
    waves(size, shift.px, 5).convertTo(right, CV_8U, shift.gain, shift.offset);
    const std::vector<unsigned short> out = computeUnit(waves(size, 0.0, 5), right);
    std::vector<double> errors;
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
            const unsigned short word = out[static_cast<size_t>(y * size.width + x)];
            if (x < kFirstValidColumn) {
                ASSERT_EQ(word, kInvalid) << x << ", " << y;
            } else if (word < 0x8000) {
                errors.push_back(std::abs(word / 64.0 - shift.px));
            }
        }
    }
    EXPECT_GT(errors.size(), 0.95 * (size.width - kFirstValidColumn) * size.height);
    ASSERT_FALSE(errors.empty());
    std::nth_element(errors.begin(), errors.begin() + errors.size() / 2, errors.end());
    EXPECT_LT(errors[errors.size() / 2], 0.1);
}

INSTANTIATE_TEST_SUITE_P(Shifts, DpuMatcherShift,
                         ::testing::Values(Shift{3.0, 1.0, 0.0}, Shift{7.25, 1.0, 0.0}, Shift{12.5, 1.0, 0.0},
                                           Shift{20.75, 1.0, 0.0}, Shift{41.4, 1.0, 0.0}, Shift{62.0, 1.0, 0.0},
                                           Shift{9.6, 0.7, 40.0}));

// A square at 24 px before a background at 4 px hides, in the right view,
// the 20 px of background left of it. Those pixels must not come out valid
// with a wrong disparity; the square and the visible background must.
TEST(DpuMatcher, MarksOccludedBackgroundInvalid)
{
    const cv::Size size(240, 120);
    const cv::Rect square(140, 30, 60, 60);
    constexpr int kBackground = 4;
    constexpr int kSquare = 24;
    cv::Mat left = waves(size, 0.0, 7);
    cv::Mat right = waves(size, kBackground, 7);
    waves(size, 0.0, 8)(square).copyTo(left(square));
    waves(size, kSquare, 8)(square - cv::Point(kSquare, 0)).copyTo(right(square - cv::Point(kSquare, 0)));
    const std::vector<unsigned short> out = computeUnit(left, right);

    const auto share = [&](cv::Rect area, int disparity) {
        int matching = 0;
        for (int y = area.y; y < area.br().y; ++y) {
            for (int x = area.x; x < area.br().x; ++x) {
                const unsigned short word = out[static_cast<size_t>(y * size.width + x)];
                matching += disparity < 0 ? word == kInvalid : std::abs(word / 64.0 - disparity) <= 1.0;
            }
        }
        return static_cast<double>(matching) / area.area();
    };
    const cv::Rect occluded(square.x - (kSquare - kBackground), square.y, kSquare - kBackground, square.height);
    EXPECT_GT(share(occluded, -1), 0.8);
    EXPECT_LT(share(occluded, kSquare), 0.1);
    EXPECT_GT(share(square, kSquare), 0.9);
    EXPECT_GT(share(cv::Rect(kFirstValidColumn, 0, 60, size.height), kBackground), 0.9);
}

struct OddFrame {
    int width;
    int height;
    bool flat;  // one grey level: no disparity can be told apart from another
};

void PrintTo(const OddFrame& frame, std::ostream* os)
{
    *os << frame.width << "x" << frame.height << (frame.flat ? " flat" : "");
}

class DpuMatcherOddFrame : public ::testing::TestWithParam<OddFrame> {};

// Every word is written, valid ones lie in 0..63 px, and frames too narrow for
// the range or without texture are invalid throughout. Under AddressSanitizer
// this also checks that no row or column border is overrun.
TEST_P(DpuMatcherOddFrame, WritesEveryWordWithinTheRange)
{
    const OddFrame frame = GetParam();
    const cv::Size size(frame.width, frame.height);
    cv::Mat left = frame.flat ? cv::Mat(size, CV_8UC1, cv::Scalar(90)) : waves(size, 0.0, 9);
    cv::Mat right = frame.flat ? left.clone() : waves(size, -6.0, 9);
    const std::vector<unsigned short> out = computeUnit(left, right);
    const bool allInvalid = frame.flat || frame.width <= kFirstValidColumn;
    for (size_t i = 0; i < out.size(); ++i) {
        ASSERT_TRUE(out[i] == kInvalid || (!allInvalid && out[i] <= 63 * 64)) << i << ": " << out[i];
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, DpuMatcherOddFrame,
                         ::testing::Values(OddFrame{1, 1, false}, OddFrame{63, 40, false}, OddFrame{64, 1, false},
                                           OddFrame{65, 200, false}, OddFrame{333, 97, false}, OddFrame{1000, 3, false},
                                           OddFrame{160, 120, true}),
                         [](const ::testing::TestParamInfo<OddFrame>& param) {
                             return std::to_string(param.param.width) + "x" + std::to_string(param.param.height) +
                                    (param.param.flat ? "Flat" : "");
                         });

}  // namespace
