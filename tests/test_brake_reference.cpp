// Brake's chain against the straightforward reading (brake_reference) on
// seeded random maps of both types: the two known frame sizes and arbitrary
// ones, the rig's Q, the uncalibrated identity and random matrices, every
// pitch case, flying or not, each camera. Frames run in sequences, so the
// filters see the same history in both. And the chain's depth (BlockDepth)
// against cv::reprojectImageTo3D pixel by pixel.

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "blockdepth.h"
#include "brake_maps.h"
#include "brake_reference.h"

namespace {

using namespace brakemaps;

// A pitch at or next to a band boundary of either field of view, a level,
// steep or backward-flight one, one no flight controller should send, or any.
float randomPitch(cv::RNG& rng)
{
    const float fov = rng.uniform(0, 2) ? 65.0f : 49.0f;
    const float boundaries[] = {fov * 0.33333334f, -fov * 0.33333334f, 2 * fov / 16.0f, 2 * fov / 13.6f};
    const float b = boundaries[rng.uniform(0, 4)];
    const float nearBoundary[] = {b, std::nextafter(b, 0.0f), std::nextafter(b, 2 * b)};
    const float others[] = {0.0f,
                            -0.0f,
                            -10.0f,
                            -10.5f,
                            26.0f,
                            std::numeric_limits<float>::quiet_NaN(),
                            std::numeric_limits<float>::infinity()};
    switch (rng.uniform(0, 3)) {
        case 0:
            return nearBoundary[rng.uniform(0, 3)];
        case 1:
            return others[rng.uniform(0, static_cast<int>(std::size(others)))];
        default:
            return static_cast<float>(rng.uniform(-70.0, 70.0));
    }
}

Common::FlyInfo randomFlight(cv::RNG& rng)
{
    Common::FlyInfo info;
    info.pitch = randomPitch(rng);
    info.headSpeed = static_cast<float>(rng.uniform(0, 8) == 0 ? rng.uniform(-3.0, -0.9) : rng.uniform(-0.5, 4.0));
    info.rightSpeed = static_cast<float>(rng.uniform(0, 2) * rng.uniform(-2.0, 2.0));
    info.verticalSpeed = static_cast<float>(rng.uniform(0, 2) * rng.uniform(-2.0, 2.0));
    info.armOrDisarm = static_cast<uint32_t>(rng.uniform(0, 4));
    return info;
}

void set(cv::Mat& map, int y, int x, double px)
{
    if (map.depth() == CV_16S) {
        map.at<int16_t>(y, x) = cv::saturate_cast<int16_t>(px);
    } else {
        map.at<float>(y, x) = static_cast<float>(px);
    }
}

// Disparities over the whole value range, and the special floats no
// matcher should send.
cv::Mat noiseMap(cv::RNG& rng, int type, cv::Size size)
{
    cv::Mat map(size, type);
    if (type == CV_16S) {
        rng.fill(map, cv::RNG::UNIFORM, rng.uniform(0, 2) ? -32768 : -2, rng.uniform(0, 2) ? 32768 : 200);
        return map;
    }
    rng.fill(map, cv::RNG::UNIFORM, -2.0, rng.uniform(0, 2) ? 400.0 : 1e6);
    const float specials[] = {std::numeric_limits<float>::quiet_NaN(),
                              std::numeric_limits<float>::infinity(),
                              -std::numeric_limits<float>::infinity(),
                              FLT_MAX,
                              -FLT_MAX,
                              std::nextafter(FLT_MAX, 0.0f),
                              -0.0f,
                              std::numeric_limits<float>::denorm_min(),
                              1e-30f,
                              1e30f};
    for (int i = 0; i < size.area() / 10; ++i) {
        map.at<float>(rng.uniform(0, size.height), rng.uniform(0, size.width)) =
            specials[rng.uniform(0, static_cast<int>(std::size(specials)))];
    }
    return map;
}

// A random map of one of five kinds: planes and boxes with holes (sharp or
// noisy), noise, a sparse map with solid patches (the mismatch check), or
// nothing valid. (The block thresholds have their own table in test_brake.)
cv::Mat randomScene(cv::RNG& rng, int type, cv::Size size)
{
    cv::Mat map = invalidMap(type, size);
    const auto disparity = [&] {
        const double px = kFocalPx * kBaselineMm / (rng.uniform(0.3, 70.0) * 1000) + rng.gaussian(0.3);
        return type == CV_16S ? std::round(px) : std::round(px * 64) / 64;
    };
    const int kind = size.area() == 0 ? 4 : rng.uniform(0, 5);
    if (kind <= 1) {
        const double holes = std::vector<double>{0.0, 0.02, 0.3, 0.6}[static_cast<size_t>(rng.uniform(0, 4))];
        cv::Rect area(cv::Point(), size);
        double px = disparity();
        for (int box = rng.uniform(0, 7); box >= 0; --box) {
            for (int y = area.y; y < area.br().y; ++y) {
                for (int x = area.x; x < area.br().x; ++x) {
                    set(map, y, x, rng.uniform(0.0, 1.0) < holes ? -1.0 : px + kind * rng.gaussian(0.5));
                }
            }
            const int w = rng.uniform(1, 240);
            const int h = rng.uniform(1, 240);
            area = cv::Rect(rng.uniform(-w / 2, size.width), rng.uniform(-h / 2, size.height), w, h) &
                   cv::Rect(cv::Point(), size);
            px = disparity();
        }
    } else if (kind == 2) {
        map = noiseMap(rng, type, size);
    } else if (kind == 3) {
        map.setTo(cv::Scalar(-rng.uniform(0, 2)));
        for (int patch = rng.uniform(0, 3); patch > 0; --patch) {
            const int side = rng.uniform(4, 60);
            map(cv::Rect(rng.uniform(0, size.width), rng.uniform(0, size.height), side, side) &
                cv::Rect(cv::Point(), size))
                .setTo(cv::Scalar(rng.uniform(40, 1100)));
        }
    }
    return map;
}

cv::Size randomSize(cv::RNG& rng)
{
    const int kind = rng.uniform(0, 6);
    return kind == 0 ? kTall : kind == 1 ? kWide : cv::Size(rng.uniform(0, 700), rng.uniform(0, 700));
}

cv::Mat randomQ(cv::RNG& rng, cv::Size size)
{
    cv::Mat q;
    switch (rng.uniform(0, 8)) {
        case 0:
            return cv::Mat::eye(4, 4, CV_32S);
        case 1:
            q.create(4, 4, CV_64F);
            rng.fill(q, cv::RNG::UNIFORM, -2.0, 2.0);
            return q;
        case 2:
            rigQ(size).convertTo(q, CV_32F);
            return q;
        default:
            return rigQ(size);
    }
}

TEST(BrakeReference, RandomSequencesAgreeBitForBit)
{
    // A sequence mostly keeps its frame size and Q, as a camera does, and now
    // and then switches (the 544 x 640 field of view change).
    cv::RNG rng(0x5eed14);
    int frames = 0;
    int measured = 0;
    for (int sequence = 0; sequence < 24; ++sequence) {
        const auto direction = sequence % 2 == 0 ? Common::FRONT : Common::DOWN;
        brakeref::Twin twin(direction);
        const int type = rng.uniform(0, 2) == 0 ? CV_16S : CV_32F;
        cv::Size size = randomSize(rng);
        cv::Mat Q = randomQ(rng, size);
        for (int frame = rng.uniform(3, 9); frame > 0; --frame) {
            if (rng.uniform(0, 6) == 0) {
                size = randomSize(rng);
                Q = randomQ(rng, size);
            }
            const Common::FlyInfo info = randomFlight(rng);
            ASSERT_EQ(twin.frame(info, randomScene(rng, type, size), Q), "")
                << "sequence " << sequence << ", " << Common::binoString(direction) << ", type " << type << " " << size
                << ", pitch " << info.pitch << ", arm " << info.armOrDisarm;
            ++frames;
            measured += twin.fast.dis_ori_z < Brake::kNoObstacle ? 1 : 0;
        }
    }
    // The maps are meant to be measured often, not only to yield 60.
    EXPECT_GT(measured, frames / 4) << measured << " of " << frames;
}

TEST(BrakeReference, EdgeSizesTypesAndMatricesAreReadInsideTheMap)
{
    // Empty maps, sizes around the 20 px the mismatch template needs and the
    // 40 px blocks, one pixel beyond the known sizes; map types the chain
    // does not read; matrices that are no 4 x 4 Q. The sanitizer build
    // checks that nothing is read outside the map.
    cv::RNG rng(99);
    const cv::Size sizes[] = {{0, 0},   {1, 1},     {0, 640},   {19, 19},   {20, 20},
                              {39, 41}, {161, 320}, {481, 641}, {641, 545}, {30, 1000}};
    const cv::Mat wrongQ[] = {cv::Mat(), cv::Mat::eye(3, 3, CV_64F), cv::Mat(4, 4, CV_64FC2, cv::Scalar(1, 0))};
    for (const cv::Size size : sizes) {
        for (int type : {CV_16S, CV_32F}) {
            for (auto direction : {Common::FRONT, Common::DOWN}) {
                brakeref::Twin twin(direction);
                const cv::Mat Q = rigQ(size.area() > 0 ? size : cv::Size(10, 10));
                for (uint32_t arm : {0u, 1u}) {
                    const Common::FlyInfo info = flight(static_cast<float>(rng.uniform(-40.0, 40.0)), 1.0f, arm);
                    ASSERT_EQ(twin.frame(info, randomScene(rng, type, size), Q), "") << size << " type " << type;
                    ASSERT_EQ(twin.frame(info, planeMap(type, size, Q, 3.0), Q), "") << size << " type " << type;
                }
                for (const cv::Mat& q : wrongQ) {
                    ASSERT_EQ(twin.frame(flight(0.0f), planeMap(type, size, Q, 3.0), q), "") << size << " Q " << q.size;
                    EXPECT_EQ(twin.fast.dis_ori_z, 60.0f);
                }
            }
        }
    }
    for (int type : {CV_8U, CV_32S, CV_64F, CV_32FC2}) {
        for (auto direction : {Common::FRONT, Common::DOWN}) {
            brakeref::Twin twin(direction);
            ASSERT_EQ(twin.frame(flight(0.0f), cv::Mat(kTall, type, cv::Scalar::all(20)), rigQ(kTall)), "") << type;
            EXPECT_EQ(twin.fast.dis_ori_z, 60.0f);
            EXPECT_FALSE(twin.fast.faultDetectFlagOfTen);
            // A readable map after an unreadable one is measured again.
            ASSERT_EQ(twin.frame(flight(0.0f), planeMap(CV_32F, kTall, rigQ(kTall), 3.0), rigQ(kTall)), "");
            EXPECT_LT(twin.fast.dis_ori_z, 60.0f);
        }
    }
}

TEST(BlockDepth, DepthIsBitIdenticalToReprojectImageTo3D)
{
    // Noise maps (one a view with a stride) under the rig's Q, the identity,
    // one whose depth depends on the column and row, and random matrices of
    // every depth; a NaN may come out as any NaN.
    cv::RNG rng(20240614);
    for (int round = 0; round < 6; ++round) {
        const cv::Size size(rng.uniform(1, 90), rng.uniform(1, 90));
        std::vector<cv::Mat> matrices = {rigQ(size), cv::Mat::eye(4, 4, CV_32S), rigQ(size)};
        matrices.back().at<double>(2, 0) = 1e-3;
        matrices.back().at<double>(3, 1) = -2e-5;
        for (int depth : {CV_64F, CV_32F, CV_32S, CV_16S}) {
            cv::Mat q(4, 4, CV_64F);
            rng.fill(q, cv::RNG::UNIFORM, -3.0, 3.0);
            q.convertTo(matrices.emplace_back(), depth);
        }
        const cv::Mat maps[] = {noiseMap(rng, CV_16S, size),
                                noiseMap(rng, CV_32F, size + cv::Size(7, 3))(cv::Rect(cv::Point(5, 2), size))};
        for (const cv::Mat& map : maps) {
            for (const cv::Mat& q : matrices) {
                cv::Mat points;
                cv::reprojectImageTo3D(map, points, q, false, -1);
                BlockDepth depth;
                ASSERT_TRUE(depth.setFrame(map, q));
                int mismatches = 0;
                for (int y = 0; y < size.height; ++y) {
                    for (int x = 0; x < size.width; ++x) {
                        const float fast = depth.depthAt(y, x);
                        const float expected = points.at<cv::Vec3f>(y, x)[2];
                        mismatches += std::memcmp(&fast, &expected, sizeof fast) == 0 ||
                                              (std::isnan(fast) && std::isnan(expected))
                                          ? 0
                                          : 1;
                    }
                }
                EXPECT_EQ(mismatches, 0) << "type " << map.type() << ", Q depth " << q.depth() << ", " << size;
            }
        }
    }
}

}  // namespace
