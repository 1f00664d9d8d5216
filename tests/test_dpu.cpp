// Our substitute for the stereo unit's library, through its C interface only:
// return codes, the word format, and two groups computing at once.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
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

// Nothing is computed before dpu_init (ctest runs each case in a fresh process)
// nor without buffers; a refused size keeps the previous one.
TEST(DpuSubstitute, RefusesWorkBeforeInitAndWithoutBuffers)
{
    auto [left, right] = shiftedNoise(8, 1);
    std::vector<unsigned short> out(kPixels, 0x1234);
    EXPECT_EQ(dpu_compute_grp0(left.data, right.data, out.data()), DPU_EINVAL);
    EXPECT_EQ(dpu_compute_grp1(left.data, right.data, out.data()), DPU_EINVAL);
    EXPECT_EQ(dpu_init(0, kHeight), DPU_ESIZE);
    EXPECT_EQ(dpu_init(kWidth, -1), DPU_ESIZE);
    EXPECT_EQ(dpu_compute_grp0(left.data, right.data, out.data()), DPU_EINVAL);

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

}  // namespace
