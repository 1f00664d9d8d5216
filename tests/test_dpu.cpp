// Our substitute for the stereo unit's library, through its C interface only:
// return codes, the word format, and two groups computing at once.

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

#include <opencv2/core.hpp>

#include "dpu.h"

namespace {

constexpr int kWidth = 160;
constexpr int kHeight = 120;
constexpr size_t kPixels = kWidth * kHeight;

struct Pair {
    std::vector<unsigned char> left;
    std::vector<unsigned char> right;
};

// Noise whose right view is the left one moved by d px: right(x - d) = left(x).
Pair shiftedNoise(int d, uint64_t seed)
{
    cv::Mat left(kHeight, kWidth, CV_8UC1);
    cv::Mat right(kHeight, kWidth, CV_8UC1);
    cv::RNG rng(seed);
    rng.fill(left, cv::RNG::UNIFORM, 0, 256);
    rng.fill(right, cv::RNG::UNIFORM, 0, 256);
    left.colRange(d, kWidth).copyTo(right.colRange(0, kWidth - d));
    return Pair{std::vector<unsigned char>(left.datastart, left.dataend),
                std::vector<unsigned char>(right.datastart, right.dataend)};
}

// Must run in a process where dpu_init has not succeeded yet; ctest starts
// each test in its own process.
TEST(DpuSubstitute, RefusesWorkBeforeInitAndWithoutBuffers)
{
    Pair pair = shiftedNoise(8, 1);
    std::vector<unsigned short> out(kPixels, 0x1234);
    EXPECT_EQ(dpu_compute_grp0(pair.left.data(), pair.right.data(), out.data()), DPU_EINVAL);
    EXPECT_EQ(dpu_compute_grp1(pair.left.data(), pair.right.data(), out.data()), DPU_EINVAL);

    EXPECT_EQ(dpu_init(0, kHeight), DPU_ESIZE);
    EXPECT_EQ(dpu_init(kWidth, -1), DPU_ESIZE);
    EXPECT_EQ(dpu_compute_grp0(pair.left.data(), pair.right.data(), out.data()), DPU_EINVAL);

    ASSERT_EQ(dpu_init(kWidth, kHeight), DPU_OK);
    EXPECT_EQ(dpu_compute_grp0(nullptr, pair.right.data(), out.data()), DPU_EINVAL);
    EXPECT_EQ(dpu_compute_grp1(pair.left.data(), nullptr, out.data()), DPU_EINVAL);
    EXPECT_EQ(dpu_compute_grp0(pair.left.data(), pair.right.data(), nullptr), DPU_EINVAL);
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](unsigned short w) { return w == 0x1234; }));

    // A refused size keeps the one before.
    EXPECT_EQ(dpu_init(100000, kHeight), DPU_ESIZE);
    EXPECT_EQ(dpu_compute_grp1(pair.left.data(), pair.right.data(), out.data()), DPU_OK);
}

// Given a pair shifted by 12 px, matched pixels read 12 * 64 in 1/64 px and
// every other pixel is 0xFFFF: flag and full magnitude, never a bare flag.
TEST(DpuSubstitute, WordsCarry64thsOfAPixelOrTheInvalidFlag)
{
    ASSERT_EQ(dpu_init(kWidth, kHeight), DPU_OK);
    Pair pair = shiftedNoise(12, 2);
    std::vector<unsigned short> out(kPixels);
    ASSERT_EQ(dpu_compute_grp0(pair.left.data(), pair.right.data(), out.data()), DPU_OK);

    std::vector<unsigned short> valid;
    for (unsigned short word : out) {
        if (word & 0x8000) {
            EXPECT_EQ(word, 0xFFFF);
        } else {
            valid.push_back(word);
        }
    }
    ASSERT_GT(valid.size(), kPixels / 2);
    std::nth_element(valid.begin(), valid.begin() + valid.size() / 2, valid.end());
    EXPECT_EQ(valid[valid.size() / 2], 12 * 64);
    EXPECT_EQ(out[kWidth * (kHeight / 2) + 2], 0xFFFF);  // no right-image pixel 12 px to the left
}

// Each group keeps its own state: run together from two threads, each returns
// exactly what it returns alone.
TEST(DpuSubstitute, GroupsComputeAtTheSameTimeWithTheirOwnResults)
{
    ASSERT_EQ(dpu_init(kWidth, kHeight), DPU_OK);
    Pair near = shiftedNoise(20, 3);
    Pair far = shiftedNoise(5, 4);
    std::vector<unsigned short> nearAlone(kPixels);
    std::vector<unsigned short> farAlone(kPixels);
    ASSERT_EQ(dpu_compute_grp0(near.left.data(), near.right.data(), nearAlone.data()), DPU_OK);
    ASSERT_EQ(dpu_compute_grp1(far.left.data(), far.right.data(), farAlone.data()), DPU_OK);
    ASSERT_NE(nearAlone, farAlone);

    constexpr int kRounds = 4;
    std::vector<std::vector<unsigned short>> nearRuns(kRounds, std::vector<unsigned short>(kPixels));
    std::vector<std::vector<unsigned short>> farRuns(kRounds, std::vector<unsigned short>(kPixels));
    std::thread front([&] {
        for (auto& run : nearRuns) {
            dpu_compute_grp0(near.left.data(), near.right.data(), run.data());
        }
    });
    std::thread down([&] {
        for (auto& run : farRuns) {
            dpu_compute_grp1(far.left.data(), far.right.data(), run.data());
        }
    });
    front.join();
    down.join();
    for (int round = 0; round < kRounds; ++round) {
        EXPECT_EQ(nearRuns[round], nearAlone) << round;
        EXPECT_EQ(farRuns[round], farAlone) << round;
    }
}

}  // namespace
