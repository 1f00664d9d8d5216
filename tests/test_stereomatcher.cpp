// The matcher's contract with the distance logic: decoding of the unit's
// words, the CV_32F view, the one-time dump, the BM band and its values, and
// the reserved back end. Front DPU matchers only compute in child processes
// under a scratch directory: their first frame writes "test.yuv" into the
// working directory and clears a process-wide flag.

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <numeric>
#include <vector>

#include "stereomatcher.h"
#include "test_support.h"

namespace {

const cv::Size kRotated(480, 640);  // width x height after rotation

cv::Mat noise(cv::Size size, uint64_t seed)
{
    cv::Mat image(size, CV_8UC1);
    cv::RNG(seed).fill(image, cv::RNG::UNIFORM, 0, 256);
    return image;
}

// right(x - d) = left(x); the d right-most columns get unrelated texture.
cv::Mat shiftedRight(const cv::Mat& left, int d)
{
    cv::Mat right = noise(left.size(), 99);
    left.colRange(d, left.cols).copyTo(right.colRange(0, left.cols - d));
    return right;
}

std::vector<char> readFile(const char* name)
{
    std::ifstream in(name, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The scenario runs in a fresh child, whose failures are reported here.
void inChild(const std::function<void()>& scenario)
{
    const auto result = testsupport::runInChild([&] {
        scenario();
        std::fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    });
    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.output;
}

TEST(StereoMatcherDecoding, UnitWordsBecomePixelsInARowMajorView)
{
    StereoMatcher matcher(Common::DOWN, StereoMatcher::DPU, cv::Size(3, 2));
    const uint16_t words[] = {0x0040, 0x7FFF, 0x8040, 0x8000, 0x0000, 0xFFFF};
    std::copy(std::begin(words), std::end(words), matcher.hwDisparity.get());
    cv::Mat disparity;
    matcher.fixed2float(disparity);

    ASSERT_EQ(disparity.type(), CV_32F);
    ASSERT_EQ(disparity.size(), cv::Size(3, 2));
    EXPECT_EQ(disparity.data, reinterpret_cast<uchar*>(matcher.disparityBuffer.get()));
    EXPECT_EQ(disparity.at<float>(0, 0), 1.0f);
    EXPECT_EQ(disparity.at<float>(0, 1), 511.984375f);
    EXPECT_EQ(disparity.at<float>(0, 2), -1.0f);
    EXPECT_EQ(disparity.at<float>(1, 0), 0.0f);
    EXPECT_TRUE(std::signbit(disparity.at<float>(1, 0)));  // 0x8000 keeps -0.0
    EXPECT_EQ(disparity.at<float>(1, 1), 0.0f);
    EXPECT_FALSE(std::signbit(disparity.at<float>(1, 1)));
    EXPECT_EQ(disparity.at<float>(1, 2), -1.0f);

    // A view, not a copy: the next decoding shows through the earlier result.
    const cv::Mat earlier = disparity;
    matcher.hwDisparity[0] = 0x0100;
    matcher.fixed2float(disparity);
    EXPECT_EQ(earlier.at<float>(0, 0), 4.0f);
}

// Every one of the 65536 words against the decoding rule taken step by step:
// magnitude / 64 in double, negated when flagged, -1.0 if then below zero.
TEST(StereoMatcherDecoding, EveryWordFollowsTheFlagAndMagnitudeRule)
{
    StereoMatcher matcher(Common::DOWN, StereoMatcher::DPU, cv::Size(256, 256));
    std::iota(matcher.hwDisparity.get(), matcher.hwDisparity.get() + 65536, uint16_t{0});
    cv::Mat disparity;
    matcher.fixed2float(disparity);
    int mismatches = 0;
    for (int word = 0; word < 65536; ++word) {
        double d = (word & 0x7FFF) * 0.015625;
        if (word & 0x8000) {
            d = -d;
        }
        const float expected = d < 0 ? -1.0f : static_cast<float>(d);
        const float actual = disparity.ptr<float>()[word];
        mismatches += std::memcmp(&expected, &actual, sizeof(float)) != 0;
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(StereoMatcherDump, FirstFrontFrameIsWrittenOnceWithItsRawWords)
{
    inChild([] {
        testsupport::ScratchRoot scratch;
        cv::Mat left = noise(kRotated, 1);
        cv::Mat right = shiftedRight(left, 10);
        StereoMatcher front(Common::FRONT, StereoMatcher::DPU, kRotated);
        cv::Mat disparity;
        front.compute(left, right, disparity, 0);

        const std::vector<char> dump = readFile("test.yuv");
        ASSERT_EQ(dump.size(), 614400u);
        EXPECT_EQ(std::memcmp(dump.data(), front.hwDisparity.get(), dump.size()), 0);

        std::remove("test.yuv");
        front.compute(left, right, disparity, 0);
        StereoMatcher another(Common::FRONT, StereoMatcher::DPU, kRotated);
        another.compute(left, right, disparity, 0);
        EXPECT_EQ(access("test.yuv", F_OK), -1);
    });
}

// 307200 words are written whatever the size; past a smaller image they are 0.
TEST(StereoMatcherDump, SmallerImageStillDumps640By480Words)
{
    inChild([] {
        testsupport::ScratchRoot scratch;
        const cv::Size size(120, 160);
        cv::Mat left = noise(size, 2);
        cv::Mat right = shiftedRight(left, 4);
        StereoMatcher front(Common::FRONT, StereoMatcher::DPU, size);
        cv::Mat disparity;
        front.compute(left, right, disparity, 0);

        const std::vector<char> dump = readFile("test.yuv");
        ASSERT_EQ(dump.size(), 614400u);
        const size_t imageBytes = size.area() * sizeof(uint16_t);
        EXPECT_EQ(std::memcmp(dump.data(), front.hwDisparity.get(), imageBytes), 0);
        EXPECT_TRUE(std::all_of(dump.begin() + imageBytes, dump.end(), [](char byte) { return byte == 0; }));
    });
}

TEST(StereoMatcherDump, DownCameraNeverWritesNorUsesUpTheFrontDump)
{
    inChild([] {
        testsupport::ScratchRoot scratch;
        cv::Mat left = noise(kRotated, 3);
        cv::Mat right = shiftedRight(left, 6);
        StereoMatcher down(Common::DOWN, StereoMatcher::DPU, kRotated);
        cv::Mat disparity;
        down.compute(left, right, disparity, 0);
        down.compute(left, right, disparity, 0);
        EXPECT_EQ(access("test.yuv", F_OK), -1);

        StereoMatcher front(Common::FRONT, StereoMatcher::DPU, kRotated);
        front.compute(left, right, disparity, 0);
        EXPECT_EQ(readFile("test.yuv").size(), 614400u);
    });
}

TEST(StereoMatcherROI, PitchChoosesTheBandOfA480By640Image)
{
    StereoMatcher matcher(Common::FRONT, StereoMatcher::NPU, kRotated);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    struct Case {
        float pitch;
        int y;
        int height;
    };
    const Case cases[] = {
        {0.0f, 40, 280},        {3.0f, 80, 280},         {6.125f, 120, 240},  {16.333334f, 120, 280},
        {20.0f, 120, 280},      {-10.0f, 40, 280},       {-16.333334f, 0, 280}, {nan, 0, 280},
        // next to each threshold
        {std::nextafter(6.125f, 0.0f), 80, 280},         {std::nextafter(16.333334f, 0.0f), 120, 240},
        {std::nextafter(-16.333334f, 0.0f), 40, 280},    {std::numeric_limits<float>::denorm_min(), 80, 280},
        {-0.0f, 40, 280},       {inf, 120, 280},         {-inf, 0, 280},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.pitch);
        EXPECT_EQ(matcher.decideROI(c.pitch, kRotated.height, kRotated.width), cv::Rect(80, c.y, 320, c.height));
    }
    // The middle threshold follows the row count: 98 / (480 / 40) = 8.1666...
    EXPECT_EQ(matcher.decideROI(8.0f, 480, 640), cv::Rect(80, 80, 480, 280));
    EXPECT_EQ(matcher.decideROI(8.2f, 480, 640), cv::Rect(80, 120, 480, 240));
}

// Given noise shifted by 8 px with a flat patch, BM gives whole pixels in the
// band (8 where it matches, -1 where it cannot) and 0 everywhere else.
TEST(StereoMatcherBM, BandHoldsWholePixelsOrMinusOneAndTheRestIsZero)
{
    StereoMatcher matcher(Common::FRONT, StereoMatcher::BM, kRotated);
    cv::Mat left = noise(kRotated, 4);
    left(cv::Rect(200, 150, 120, 120)).setTo(128);
    cv::Mat right = shiftedRight(left, 8);
    for (float pitch : {0.0f, 10.0f, -20.0f}) {
        SCOPED_TRACE(pitch);
        matcher.setPitch(pitch);
        cv::Mat disparity;
        EXPECT_EQ(matcher.compute(left, right, disparity, 0), 0);
        ASSERT_EQ(disparity.type(), CV_16S);
        ASSERT_EQ(disparity.size(), kRotated);

        const cv::Rect band = matcher.decideROI(pitch, kRotated.height, kRotated.width);
        cv::Mat outside = disparity.clone();
        outside(band).setTo(0);
        EXPECT_EQ(cv::countNonZero(outside), 0);
        const cv::Mat inside = disparity(band);
        const int matched = cv::countNonZero(inside == 8);
        const int unmatched = cv::countNonZero(inside == -1);
        EXPECT_EQ(matched + unmatched, band.area());
        EXPECT_GT(matched, band.area() / 3);  // 65 px blocks leave the band's rim unmatched
        EXPECT_EQ(disparity.at<int16_t>(210, 260), -1);  // middle of the flat patch
    }
}

TEST(StereoMatcherReserved, NpuAndUnknownMatchersLeaveTheOutputUntouched)
{
    cv::Mat left = noise(kRotated, 5);
    cv::Mat right = shiftedRight(left, 8);
    for (int value : {2, 3, -1}) {
        SCOPED_TRACE(value);
        StereoMatcher matcher(Common::FRONT, static_cast<StereoMatcher::Matcher>(value), kRotated);
        EXPECT_FALSE(matcher.bm);
        EXPECT_FALSE(matcher.hwDisparity);
        cv::Mat disparity(4, 4, CV_16S, cv::Scalar(7));
        const uchar* data = disparity.data;
        EXPECT_EQ(matcher.compute(left, right, disparity, 0), 0);
        EXPECT_EQ(disparity.data, data);
        EXPECT_EQ(cv::countNonZero(disparity != 7), 0);
    }
}

TEST(StereoMatcherInit, LogsItsBackEndAtDebugLevel)
{
    testsupport::LogCapture capture;
    StereoMatcher matcher(Common::DOWN, StereoMatcher::BM, kRotated);
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].message, "[BINOLIB] [down] StereoMatcher matcher: 1");
    EXPECT_EQ(records[0].level, binolog::DEBUG);
    EXPECT_EQ(records[0].file, "src/stereomatcher.cpp");
}

TEST(StereoMatcherInit, SizeWithoutAPixelCountThrowsBadArrayLength)
{
    EXPECT_THROW(StereoMatcher(Common::DOWN, StereoMatcher::DPU, cv::Size(-2, 10)), std::bad_array_new_length);
}

// The unit would read past images of another size; the frame then reports no
// disparity at all instead of the previous frame's.
TEST(StereoMatcherDPU, ImagesOfAnotherSizeGiveOnlyInvalidPixels)
{
    testsupport::LogCapture capture;
    StereoMatcher matcher(Common::DOWN, StereoMatcher::DPU, cv::Size(64, 48));
    std::fill_n(matcher.hwDisparity.get(), 64 * 48, uint16_t{0x0040});
    cv::Mat small(24, 32, CV_8UC1, cv::Scalar(0));
    cv::Mat disparity;
    matcher.compute(small, small, disparity, 0);
    EXPECT_EQ(cv::countNonZero(disparity != -1.0f), 0);
    EXPECT_EQ(capture.count("do not match"), 1u);
}

}  // namespace
