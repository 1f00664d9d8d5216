// Brake's chain against the straightforward reading (brake_reference): on
// seeded random maps of both types, the two known frame sizes and arbitrary
// ones, the rig's Q, the uncalibrated identity and full random matrices,
// every pitch case, flying or not, each camera. Sequences of frames go
// through both, so the filters see the same history; every record column,
// the front area and every filter member must agree bit for bit.

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <vector>

#include "brake_maps.h"
#include "brake_reference.h"

namespace {

using namespace brakemaps;

// Pitches at and around every band boundary of both fields of view, and
// the values no flight controller should send.
std::vector<float> pitches()
{
    std::vector<float> values = {0.0f, -0.0f, 1.0f, -1.0f, 10.0f, -10.0f, -10.5f, 30.0f, -30.0f, 60.0f, -60.0f, 26.0f};
    for (float fov : {65.0f, 49.0f}) {
        for (float rowBlocks : {16.0f, 13.6f}) {
            const float third = fov * 0.33333334f;
            const float low = 2 * fov / rowBlocks;
            for (float boundary : {third, -third, low}) {
                values.push_back(boundary);
                values.push_back(std::nextafter(boundary, 0.0f));
                values.push_back(std::nextafter(boundary, boundary * 2));
            }
        }
    }
    values.push_back(std::numeric_limits<float>::quiet_NaN());
    values.push_back(std::numeric_limits<float>::infinity());
    return values;
}

Common::FlyInfo randomFlight(cv::RNG& rng)
{
    static const std::vector<float> cases = pitches();
    Common::FlyInfo info;
    info.pitch = rng.uniform(0, 3) == 0 ? static_cast<float>(rng.uniform(-70.0, 70.0))
                                        : cases[static_cast<size_t>(rng.uniform(0, static_cast<int>(cases.size())))];
    info.headSpeed = static_cast<float>(rng.uniform(0, 8) == 0 ? rng.uniform(-3.0, -0.9) : rng.uniform(-0.5, 4.0));
    info.rightSpeed = static_cast<float>(rng.uniform(0, 2) == 0 ? 0.0 : rng.uniform(-2.0, 2.0));
    info.verticalSpeed = static_cast<float>(rng.uniform(0, 2) == 0 ? 0.0 : rng.uniform(-2.0, 2.0));
    info.height = static_cast<float>(rng.uniform(0.0, 120.0));
    info.armOrDisarm = static_cast<uint32_t>(rng.uniform(0, 4));
    return info;
}

// Sets one pixel to a disparity in px (rounded for CV_16S).
void set(cv::Mat& map, int y, int x, double px)
{
    if (map.depth() == CV_16S) {
        map.at<int16_t>(y, x) = cv::saturate_cast<int16_t>(px);
    } else {
        map.at<float>(y, x) = static_cast<float>(px);
    }
}

double randomDisparity(cv::RNG& rng, const cv::Mat& Q, int type)
{
    const double px = disparityFor(Q, rng.uniform(0.3, 70.0)) + rng.gaussian(0.3);
    return type == CV_16S ? std::round(px) : std::round(px * 64) / 64;
}

// A random map of one of several kinds: planes and boxes at random depths
// with holes, plain noise over the whole value range, a sparse map with solid
// patches (the mismatch check), an empty one, or blocks holding 1,064 to
// 1,069 points (the qualification threshold).
cv::Mat randomScene(cv::RNG& rng, int type, cv::Size size, const cv::Mat& Q)
{
    const int kind = rng.uniform(0, 6);
    cv::Mat map = invalidMap(type, size);
    if (size.area() == 0) {
        return map;
    }
    if (kind <= 1) {
        const double holes = std::vector<double>{0.0, 0.02, 0.3, 0.6}[static_cast<size_t>(rng.uniform(0, 4))];
        const double background = randomDisparity(rng, Q, type);
        for (int y = 0; y < size.height; ++y) {
            for (int x = 0; x < size.width; ++x) {
                set(map, y, x, rng.uniform(0.0, 1.0) < holes ? -1.0 : background);
            }
        }
        for (int box = rng.uniform(0, 7); box > 0; --box) {
            const int w = rng.uniform(1, 240);
            const int h = rng.uniform(1, 240);
            const cv::Rect area = cv::Rect(rng.uniform(-w / 2, size.width), rng.uniform(-h / 2, size.height), w, h) &
                                  cv::Rect(cv::Point(), size);
            const double px = randomDisparity(rng, Q, type);
            for (int y = area.y; y < area.y + area.height; ++y) {
                for (int x = area.x; x < area.x + area.width; ++x) {
                    set(map, y, x, rng.uniform(0.0, 1.0) < holes ? -1.0 : px + (kind == 1 ? rng.gaussian(0.5) : 0.0));
                }
            }
        }
    } else if (kind == 2) {
        if (type == CV_16S) {
            rng.fill(map, cv::RNG::UNIFORM, -32768, 32768);
        } else {
            rng.fill(map, cv::RNG::UNIFORM, -2.0, 400.0);
            const float specials[] = {std::numeric_limits<float>::quiet_NaN(),
                                      std::numeric_limits<float>::infinity(),
                                      -std::numeric_limits<float>::infinity(),
                                      FLT_MAX,
                                      -0.0f,
                                      1e-30f,
                                      1e30f};
            for (int i = 0; i < size.area() / 10; ++i) {
                map.at<float>(rng.uniform(0, size.height), rng.uniform(0, size.width)) =
                    specials[rng.uniform(0, static_cast<int>(std::size(specials)))];
            }
        }
    } else if (kind == 3) {
        map.setTo(cv::Scalar(rng.uniform(0, 2) == 0 ? 0 : -1));
        for (int patch = rng.uniform(0, 3); patch > 0; --patch) {
            const int side = rng.uniform(4, 60);
            const cv::Rect area = cv::Rect(rng.uniform(0, size.width), rng.uniform(0, size.height), side, side) &
                                  cv::Rect(cv::Point(), size);
            map(area).setTo(cv::Scalar(rng.uniform(40, 1100)));
        }
    } else if (kind == 4) {
        // Empty: every pixel invalid.
    } else {
        for (int y0 = 0; y0 < size.height; y0 += 40) {
            for (int x0 = 0; x0 < size.width; x0 += 40) {
                const int points =
                    std::vector<int>{0, 1064, 1066, 1067, 1069, 1600}[static_cast<size_t>(rng.uniform(0, 6))];
                const double px = randomDisparity(rng, Q, type);
                for (int i = 0; i < points; ++i) {
                    const int y = y0 + i / 40;
                    const int x = x0 + i % 40;
                    if (y < size.height && x < size.width) {
                        set(map, y, x, px);
                    }
                }
            }
        }
    }
    return map;
}

cv::Mat randomQ(cv::RNG& rng, cv::Size size)
{
    switch (rng.uniform(0, 8)) {
        case 0:
            return cv::Mat::eye(4, 4, CV_32S);
        case 1: {
            cv::Mat q(4, 4, CV_64F);
            rng.fill(q, cv::RNG::UNIFORM, -2.0, 2.0);
            return q;
        }
        case 2: {
            cv::Mat q;
            rigQ(size).convertTo(q, CV_32F);
            return q;
        }
        default:
            return rigQ(size);
    }
}

cv::Size randomSize(cv::RNG& rng)
{
    switch (rng.uniform(0, 6)) {
        case 0:
            return kTall;
        case 1:
            return kWide;
        case 2:
            return cv::Size(rng.uniform(0, 30), rng.uniform(0, 30));
        default:
            return cv::Size(rng.uniform(1, 700), rng.uniform(1, 700));
    }
}

TEST(BrakeReference, RandomSequencesAgreeBitForBit)
{
    // Each sequence keeps one camera's pair of brakes through frames of
    // random maps; a sequence mostly keeps its frame size and Q, as a camera
    // does, and now and then switches (the 544 x 640 field of view change).
    cv::RNG rng(0x5eed14);
    int frames = 0;
    int measured = 0;
    for (int sequence = 0; sequence < 48; ++sequence) {
        const auto direction = sequence % 2 == 0 ? Common::FRONT : Common::DOWN;
        brakeref::Twin twin(direction);
        cv::Size size = randomSize(rng);
        cv::Mat Q = randomQ(rng, size);
        const int type = rng.uniform(0, 2) == 0 ? CV_16S : CV_32F;
        for (int frame = rng.uniform(3, 9); frame > 0; --frame) {
            if (rng.uniform(0, 6) == 0) {
                size = randomSize(rng);
                Q = randomQ(rng, size);
            }
            const cv::Mat map = randomScene(rng, type, size, Q);
            const Common::FlyInfo info = randomFlight(rng);
            const std::string difference = twin.frame(info, map, Q);
            ASSERT_EQ(difference, "") << "sequence " << sequence << ", " << Common::binoString(direction) << ", "
                                      << (type == CV_16S ? "CV_16S " : "CV_32F ") << size << ", pitch " << info.pitch
                                      << ", arm " << info.armOrDisarm;
            ++frames;
            measured += twin.fast.dis_ori_z < Brake::kNoObstacle ? 1 : 0;
        }
    }
    // The maps are meant to be measured often, not only to yield 60.
    EXPECT_GT(measured, frames / 4) << measured << " of " << frames;
}

TEST(BrakeReference, AnySizeAndShapeIsReadInsideTheMap)
{
    // Every size from empty to one pixel wider than the known ones, maps of
    // types the chain does not read, and matrices that are no 4 x 4 Q: no
    // read outside the map (the sanitizer build checks), and the same result
    // as the straightforward reading.
    cv::RNG rng(99);
    const std::vector<cv::Size> sizes = {{0, 0},     {1, 1},     {0, 640},   {480, 0},   {3, 7},
                                         {19, 19},   {20, 20},   {39, 41},   {40, 40},   {119, 81},
                                         {160, 200}, {161, 320}, {170, 100}, {481, 641}, {641, 545},
                                         {640, 544}, {480, 640}, {1000, 30}, {30, 1000}, {700, 700}};
    const std::vector<cv::Mat> extraQ = {cv::Mat(), cv::Mat::eye(3, 3, CV_64F), cv::Mat::eye(4, 3, CV_64F),
                                         cv::Mat(4, 4, CV_64FC2, cv::Scalar(1, 0))};
    for (const cv::Size size : sizes) {
        for (int type : {CV_16S, CV_32F}) {
            for (auto direction : {Common::FRONT, Common::DOWN}) {
                brakeref::Twin twin(direction);
                const cv::Mat Q = rigQ(size.area() > 0 ? size : cv::Size(10, 10));
                for (uint32_t arm : {0u, 1u}) {
                    const Common::FlyInfo info = flight(static_cast<float>(rng.uniform(-40.0, 40.0)), 1.0f, arm);
                    ASSERT_EQ(twin.frame(info, randomScene(rng, type, size, Q), Q), "") << size << " " << type;
                    ASSERT_EQ(twin.frame(info, planeMap(type, size, Q, 3.0), Q), "") << size << " " << type;
                }
                const cv::Mat map = planeMap(type, size, Q, 3.0);
                for (const cv::Mat& q : extraQ) {
                    ASSERT_EQ(twin.frame(flight(0.0f), map, q), "") << size << " Q " << q.size();
                    EXPECT_EQ(twin.fast.dis_ori_z, 60.0f);
                }
            }
        }
    }
    for (int type : {CV_8U, CV_32S, CV_64F, CV_32FC2, CV_16SC3}) {
        for (auto direction : {Common::FRONT, Common::DOWN}) {
            brakeref::Twin twin(direction);
            cv::Mat map(kTall, type, cv::Scalar::all(20));
            ASSERT_EQ(twin.frame(flight(0.0f), map, rigQ(kTall)), "") << "type " << type;
            EXPECT_EQ(twin.fast.dis_ori_z, 60.0f);
            EXPECT_FALSE(twin.fast.faultDetectFlagOfTen);
        }
    }
}

}  // namespace
