// The matcher's contract with the distance logic. Front DPU matchers compute
// only in child processes: a process's first front frame writes "test.yuv".

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <numeric>
#include <tuple>
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

// Each word 0..65535 at its own index (509 x 129 words: the last ones do not
// fill a block) decodes bit for bit: sign bit and 1/64 px magnitude, negative
// is -1.0, -0.0 stays; the output is a rows x cols view on the matcher's buffer.
TEST(StereoMatcherDecoding, EveryWordBecomesPixelsInARowMajorView)
{
    StereoMatcher matcher(Common::DOWN, StereoMatcher::DPU, cv::Size(509, 129));
    std::iota(matcher.hwDisparity.get(), matcher.hwDisparity.get() + 509 * 129, uint16_t{0});
    cv::Mat disparity;
    matcher.fixed2float(disparity);
    ASSERT_EQ(disparity.type(), CV_32F);
    ASSERT_EQ(disparity.size(), cv::Size(509, 129));  // 129 rows of 509
    EXPECT_EQ(disparity.data, reinterpret_cast<uchar*>(matcher.disparityBuffer.get()));
    int mismatches = 0;
    for (int i = 0; i < 509 * 129; ++i) {
        const int word = i & 0xFFFF;
        const float expected = word > 0x8000 ? -1.0f : word == 0x8000 ? -0.0f : word / 64.0f;
        mismatches += std::memcmp(&expected, disparity.ptr<float>() + i, sizeof(float)) != 0;
    }
    EXPECT_EQ(mismatches, 0);
}

// Down frames neither write the dump nor use it up; the first front frame
// writes its raw words padded with zeros to 614400 bytes; later ones never.
TEST(StereoMatcherDump, OnlyTheFirstFrontFrameIsWritten)
{
    const auto child = testsupport::runInChild([] {
        testsupport::ScratchRoot scratch;
        const cv::Size size(120, 160);
        cv::Mat left = noise(size, 1), right = shiftedRight(left, 6), disparity;
        StereoMatcher down(Common::DOWN, StereoMatcher::DPU, size), front(Common::FRONT, StereoMatcher::DPU, size);
        down.compute(left, right, disparity, 0);
        EXPECT_EQ(access("test.yuv", F_OK), -1);
        front.compute(left, right, disparity, 0);
        std::ifstream in("test.yuv", std::ios::binary);
        std::vector<char> dump{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()}, expected(614400);
        std::memcpy(expected.data(), front.hwDisparity.get(), size.area() * sizeof(uint16_t));
        EXPECT_TRUE(dump == expected) << dump.size() << " bytes";
        std::remove("test.yuv");
        front.compute(left, right, disparity, 0);
        StereoMatcher(Common::FRONT, StereoMatcher::DPU, size).compute(left, right, disparity, 0);
        EXPECT_EQ(access("test.yuv", F_OK), -1);
        std::fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    });
    EXPECT_TRUE(child.exited && child.exitCode == 0) << child.output;
}

// The band for each pitch on a 480x640 image, also next to each threshold; the
// middle threshold, 98 / (rows / 40), follows the row count.
TEST(StereoMatcherROI, PitchChoosesTheBand)
{
    StereoMatcher matcher(Common::FRONT, StereoMatcher::NPU, kRotated);
    // clang-format off
    const std::tuple<float, int, int> cases[] = {  // pitch, y, height
        {0.0f, 40, 280}, {3.0f, 80, 280}, {6.125f, 120, 240}, {16.333334f, 120, 280}, {20.0f, 120, 280},
        {-10.0f, 40, 280}, {-16.333334f, 0, 280}, {NAN, 0, 280},
        // next to each threshold
        {std::nextafter(6.125f, 0.0f), 80, 280}, {std::nextafter(16.333334f, 0.0f), 120, 240},
        {std::nextafter(-16.333334f, 0.0f), 40, 280}, {1e-45f, 80, 280},
        {-0.0f, 40, 280}, {INFINITY, 120, 280}, {-INFINITY, 0, 280}};
    // clang-format on
    for (const auto& [pitch, y, height] : cases) {
        EXPECT_EQ(matcher.decideROI(pitch, kRotated.height, kRotated.width), cv::Rect(80, y, 320, height)) << pitch;
    }
    EXPECT_EQ(matcher.decideROI(8.0f, 480, 640), cv::Rect(80, 80, 480, 280));
    EXPECT_EQ(matcher.decideROI(8.2f, 480, 640), cv::Rect(80, 120, 480, 240));
}

// Given noise shifted by 8 px with a flat patch, BM gives 8 where it matches,
// -1 where it cannot (the flat patch) inside the band and 0 everywhere else.
TEST(StereoMatcherBM, BandHoldsWholePixelsOrMinusOneAndTheRestIsZero)
{
    StereoMatcher matcher(Common::FRONT, StereoMatcher::BM, kRotated);
    cv::Mat left = noise(kRotated, 4), disparity;
    left(cv::Rect(200, 150, 120, 120)).setTo(128);
    cv::Mat right = shiftedRight(left, 8);
    for (float pitch : {0.0f, 10.0f, -20.0f}) {
        matcher.setPitch(pitch);
        EXPECT_EQ(matcher.compute(left, right, disparity, 0), 0);
        ASSERT_EQ(disparity.type(), CV_16S);
        const cv::Rect band = matcher.decideROI(pitch, kRotated.height, kRotated.width);
        EXPECT_EQ(cv::countNonZero(disparity), cv::countNonZero(disparity(band))) << pitch;  // 0 outside
        const int matched = cv::countNonZero(disparity(band) == 8);
        EXPECT_EQ(matched + cv::countNonZero(disparity(band) == -1), band.area()) << pitch;
        EXPECT_GT(matched, band.area() / 3) << pitch;  // 65 px blocks leave the band's rim unmatched
        EXPECT_EQ(disparity.at<int16_t>(210, 260), -1) << pitch;
    }
}

// Striping is invisible: the parallel stripes give StereoBM's own map with the
// module's settings, bit for bit, for bands of odd and even height (the
// pre-filter treats an image's last row by its parity), any stripe count, and
// scenes whose small patches of another disparity the speckle filter removes.
TEST(StereoMatcherBM, StripesGiveTheWholeMatchersVeryMap)
{
    StereoMatcher matcher(Common::FRONT, StereoMatcher::BM, kRotated);
    for (cv::Size size : {cv::Size(320, 280), cv::Size(320, 279), cv::Size(161, 131), cv::Size(400, 67)}) {
        cv::Mat left = noise(size, 7), right = shiftedRight(left, 8);
        // An 80 px square at 20 px, across the stripes' border, leaves a few
        // pixels the speckle filter removes.
        if (size.height >= 100 && size.width >= 200) {
            const cv::Rect speck(size.width / 2, size.height / 2 - 40, 80, 80);
            left(speck).copyTo(right(speck - cv::Point(20, 0)));
        }
        cv::Mat whole;
        matcher.bm->compute(left, right, whole);
        for (int stripes : {2, 3, 8}) {
            StripedBlockMatcher striped(matcher.bm, stripes);
            cv::Mat parts(size, CV_16S, cv::Scalar(12345));
            striped.compute(left, right, parts);
            EXPECT_EQ(cv::countNonZero(parts != whole), 0) << size << ", " << stripes << " stripes";
        }
    }
}

// Images the unit would read past give a frame of invalid pixels only, not
// the previous frame's; a size without a pixel count is refused.
TEST(StereoMatcherDPU, ImagesOfAnotherSizeGiveOnlyInvalidPixels)
{
    testsupport::LogCapture capture;
    StereoMatcher matcher(Common::DOWN, StereoMatcher::DPU, cv::Size(64, 48));
    std::fill_n(matcher.hwDisparity.get(), 64 * 48, uint16_t{0x0040});
    cv::Mat small(24, 32, CV_8UC1, cv::Scalar(0)), disparity;
    matcher.compute(small, small, disparity, 0);
    EXPECT_EQ(cv::countNonZero(disparity != -1.0f), 0);
    EXPECT_EQ(capture.count("do not match"), 1u);
    EXPECT_THROW(StereoMatcher(Common::DOWN, StereoMatcher::DPU, cv::Size(-2, 10)), std::bad_array_new_length);
}

// The unit holds one image size for both groups, the last one initialised.
// A camera of another size must never reach the unit (it would write the
// other size's pixel count into its buffer): it gets invalid maps and one
// ERROR line, while the camera whose size the unit holds keeps working.
TEST(StereoMatcherDPU, CamerasOfAnotherSizeThanTheUnitsGetInvalidMapsOnly)
{
    const cv::Size frontSize(160, 120);
    for (cv::Size downSize : {frontSize, cv::Size(240, 100), cv::Size(480, 640)}) {
        const auto child = testsupport::runInChild([frontSize, downSize] {
            testsupport::ScratchRoot scratch;  // the front camera's dump lands here
            testsupport::LogCapture capture;
            StereoMatcher front(Common::FRONT, StereoMatcher::DPU, frontSize),
                down(Common::DOWN, StereoMatcher::DPU, downSize);
            const bool shared = downSize == frontSize;
            cv::Mat frontLeft = noise(frontSize, 11), frontRight = shiftedRight(frontLeft, 6), disparity;
            cv::Mat downLeft = noise(downSize, 12), downRight = shiftedRight(downLeft, 6);
            for (int frame = 0; frame < 3; ++frame) {
                front.compute(frontLeft, frontRight, disparity, 0);
                const int frontValid = cv::countNonZero(disparity >= 0.0f);
                EXPECT_TRUE(shared ? frontValid > frontSize.area() / 2 : frontValid == 0) << "front, " << frame;
                down.compute(downLeft, downRight, disparity, 0);
                EXPECT_GT(cv::countNonZero(disparity >= 0.0f), downSize.area() / 2) << "down, frame " << frame;
            }
            EXPECT_EQ(capture.count("stereo unit is set up for"), shared ? 0u : 1u);
            std::fflush(nullptr);
            _exit(::testing::Test::HasFailure() ? 1 : 0);
        });
        EXPECT_TRUE(child.exited && child.exitCode == 0) << downSize << ": " << child.output;
    }
}

}  // namespace
