// Brake through its public interface on maps of known depth: geometry and
// block rules, pitch bands and centre window, the down grid, the blind area,
// the mismatch check, the filters as frame sequences on a clock the test
// moves, and the record. Bit-for-bit agreement with the straightforward
// reading is in test_brake_reference.cpp.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "brake.h"
#include "brake_maps.h"
#include "test_support.h"

namespace {

using namespace brakemaps;
using Lines = std::vector<std::string>;

const int kTypes[] = {CV_16S, CV_32F};
const auto kFront = Common::FRONT;
const auto kDown = Common::DOWN;

cv::Mat identityQ() { return cv::Mat::eye(4, 4, CV_32S); }

// One frame as the pipeline runs it, measured 50 ms after the flight state;
// update() is left to the caller so the frame's values can be read.
void measure(Brake& brake, ManualClock& time, const Common::FlyInfo& info, const cv::Mat& map, const cv::Mat& Q)
{
    brake.setFlyInfo(info);
    time.now += 50;
    if (brake.meetSpeed()) {
        brake.setDisparity(map, Q);
    } else {
        brake.reset();
    }
}

// A fresh brake that has measured one frame.
struct Probe {
    Probe(Common::Direction direction, const Common::FlyInfo& info, const cv::Mat& map, const cv::Mat& Q)
        : brake(direction, time.clock())
    {
        measure(brake, time, info, map, Q);
    }
    bool seen() const { return brake.dis_ori_z < Brake::kNoObstacle; }
    ManualClock time;
    Brake brake;
};

std::vector<cv::Point2f> pointsOf(const cv::Rect& area)
{
    std::vector<cv::Point2f> points;
    for (int y = area.y; y < area.br().y; ++y) {
        for (int x = area.x; x < area.br().x; ++x) {
            points.emplace_back(static_cast<float>(x), static_cast<float>(y));
        }
    }
    return points;
}

// Paints the first `count` pixels of `area` in row-major order.
void paintFirst(cv::Mat& map, const cv::Rect& area, int count, double px)
{
    paint(map, cv::Rect(area.x, area.y, area.width, count / area.width), px);
    paint(map, cv::Rect(area.x, area.y + count / area.width, count % area.width, count % area.width ? 1 : 0), px);
}

// ---------------------------------------------------------------- geometry

TEST(BrakeGeometry, PlaneGivesDepthTimesCosinePitch)
{
    // Whole-pixel disparities, so both map types hold the plane exactly.
    for (const cv::Size size : {kTall, kWide}) {
        for (int type : kTypes) {
            for (double depthM : {1.0, 5.0, 20.0}) {
                const cv::Mat map = planeMap(type, size, rigQ(size), depthM);
                for (float pitch : {0.0f, -20.0f, 30.0f}) {
                    for (const auto& [direction, arm] :
                         {std::pair(kFront, 0u), std::pair(kFront, 1u), std::pair(kDown, 0u), std::pair(kDown, 1u)}) {
                        const Probe p(direction, flight(pitch, 0.0f, arm), map, rigQ(size));
                        const double expected = depthM * std::cos(pitch * M_PI / 180.0);
                        EXPECT_NEAR(p.brake.dis_ori_z, expected, 0.005 * expected)
                            << type << " " << size << " " << depthM << " m, pitch " << pitch << ", " << direction;
                        EXPECT_FALSE(p.brake.getFrountArea().empty());
                    }
                }
            }
        }
    }
}

TEST(BrakeGeometry, NoValidDepthGivesSixtyAndIdentityQReadsDisparityAsMillimetres)
{
    const cv::Mat Q = rigQ(kTall);
    const std::tuple<const char*, cv::Mat, cv::Mat, float> cases[] = {
        {"invalid CV_16S", invalidMap(CV_16S, kTall), Q, 60.0f},
        {"invalid CV_32F", invalidMap(CV_32F, kTall), Q, 60.0f},
        {"zero CV_16S (infinitely far)", cv::Mat::zeros(kTall, CV_16S), Q, 60.0f},
        {"zero CV_32F", cv::Mat::zeros(kTall, CV_32F), Q, 60.0f},
        {"CV_8U map", cv::Mat(kTall, CV_8U, cv::Scalar(20)), Q, 60.0f},
        {"CV_32S map", cv::Mat(kTall, CV_32S, cv::Scalar(20)), Q, 60.0f},
        {"identity Q, CV_16S", cv::Mat(kTall, CV_16S, cv::Scalar(2000)), identityQ(), 2.0f},
        {"identity Q, CV_32F", cv::Mat(kTall, CV_32F, cv::Scalar(2000)), identityQ(), 2.0f},
    };
    for (const auto& [name, map, q, expected] : cases) {
        for (const auto& [direction, arm] :
             {std::pair(kFront, 0u), std::pair(kFront, 2u), std::pair(kDown, 0u), std::pair(kDown, 2u)}) {
            const Probe p(direction, flight(0.0f, 0.0f, arm), map, q);
            EXPECT_FLOAT_EQ(p.brake.dis_ori_z, expected) << name << ", " << direction << ", arm " << arm;
            EXPECT_EQ(p.brake.getFrountArea().empty(), expected == 60.0f) << name;
        }
    }
}

TEST(BrakeGeometry, NearestQualifyingBlockInTheSearchedBandsWins)
{
    // Background 20 m; A at 5 m; nearer B at 3 m with only 1,000 points;
    // nearer still C at 2 m in band 0, which the level camera does not search.
    const cv::Mat Q = rigQ(kTall);
    const cv::Rect a(160, 120, 40, 40);
    for (int type : kTypes) {
        cv::Mat map = planeMap(type, kTall, Q, 20.0);
        paint(map, a, disparityFor(Q, 5.0));
        paint(map, cv::Rect(280, 200, 40, 40), -1);
        paint(map, cv::Rect(280, 200, 40, 25), disparityFor(Q, 3.0));
        paint(map, cv::Rect(200, 0, 40, 40), disparityFor(Q, 2.0));
        const Probe p(kFront, flight(0.0f), map, Q);
        EXPECT_NEAR(p.brake.dis_ori_z, 5.0, 0.025) << type;
        EXPECT_EQ(p.brake.getFrountArea(), pointsOf(a));
        EXPECT_EQ(std::pair(p.brake.targetX, p.brake.targetY), std::pair(179.0f, 139.0f));  // integer means
    }
}

// The largest depth in mm whose uniform 1,600-point block mean, summed and
// divided as each camera does, is not above 1e-6 m.
float depthAtMeanLimit(Common::Direction direction)
{
    const auto taken = [direction](float z) {
        float sum = 0.0f;
        for (int i = 0; i < 1600; ++i) {
            sum += z;
        }
        return (direction == kFront ? static_cast<float>(sum * (0.001 / 1600)) : sum / (1600 * 1000)) > 1e-6;
    };
    float below = 0.00099f;
    float above = 0.00101f;
    for (int step = 0; step < 64 && std::nextafter(below, 1.0f) != above; ++step) {
        const float middle = below + (above - below) / 2;
        (taken(middle) ? above : below) = middle;
    }
    return below;
}

TEST(BrakeGeometry, BlockNeedsMoreThan1066PointsAndAMeanAbove1e6Metres)
{
    // With the identity Q the map holds depth in mm. Front: band 1, column
    // block 2 (searched when level); down: the grid's first block.
    for (auto direction : {kFront, kDown}) {
        const cv::Rect block = direction == kFront ? cv::Rect(80, 40, 40, 40) : cv::Rect(160, 160, 40, 40);
        const float limit = depthAtMeanLimit(direction);
        const std::tuple<int, int, float, bool> cases[] = {
            {CV_16S, 1066, 5000, false},  {CV_16S, 1067, 5000, true},
            {CV_32F, 1066, 5000, false},  {CV_32F, 1067, 5000, true},
            {CV_32F, 1600, limit, false}, {CV_32F, 1600, std::nextafter(limit, 1.0f), true}};
        for (const auto& [type, points, depthMm, seen] : cases) {
            cv::Mat map = invalidMap(type, kTall);
            paintFirst(map, block, points, depthMm);
            const Probe p(direction, flight(0.0f), map, identityQ());
            EXPECT_EQ(p.seen(), seen) << direction << " " << points << " at " << depthMm;
            EXPECT_EQ(p.brake.getFrountArea().size(), seen ? static_cast<size_t>(points) : 0u);
        }
    }
}

// ------------------------------------------------------------------- front

TEST(BrakeFront, SearchesTheBandsOfThePitchCase)
{
    // One obstacle per 40-row band, nearer towards the top in one map and
    // towards the bottom in the other: the band of the chosen block (centre
    // row / 40) is the first searched band in the one and the last in the
    // other. F/3 is F x 0.33333334f; the low boundary is 2F / rowBlocks.
    for (const auto& [size, fov, rowBlocks] : {std::tuple(kTall, 65.0f, 16.0f), std::tuple(kWide, 49.0f, 13.6f)}) {
        const float third = fov * 0.33333334f;
        const float low = 2 * fov / rowBlocks;
        const std::tuple<float, int, int> cases[] = {
            {40.0f, 3, 9},
            {third, 3, 9},
            {std::nextafter(third, 0.0f), 3, 8},
            {low, 3, 8},
            {std::nextafter(low, 0.0f), 2, 8},
            {0.0f, 1, 7},
            {std::nextafter(-third, 0.0f), 1, 7},
            {-third, 0, 6},
            {-40.0f, 0, 6},
            {std::numeric_limits<float>::quiet_NaN(), -1, -1},  // every mean NaN: nothing taken
        };
        for (int type : kTypes) {
            cv::Mat nearTop = invalidMap(type, size);
            cv::Mat nearBottom = nearTop.clone();
            for (int band = 0; band < 10; ++band) {
                paint(nearTop, cv::Rect(200, 40 * band, 40, 40), 30 - 2 * band);
                paint(nearBottom, cv::Rect(200, 40 * band, 40, 40), 12 + 2 * band);
            }
            for (const auto& [pitch, first, last] : cases) {
                int bands[2];
                for (int i : {0, 1}) {
                    const Probe p(kFront, flight(pitch), i == 0 ? nearTop : nearBottom, rigQ(size));
                    bands[i] = p.seen() ? static_cast<int>(p.brake.targetY) / 40 : -1;
                }
                EXPECT_EQ(std::pair(bands[0], bands[1]), std::pair(first, last))
                    << size << " type " << type << " pitch " << pitch;
            }
        }
    }
}

TEST(BrakeFront, NotFlyingOnlyTheWindowAboveLeftOfTheCentreCounts)
{
    // 640 x 480: the window is rows 280..319, columns 200..239, and needs
    // more than 400 points; the centre keeps its crossed initial halves.
    const cv::Mat Q = rigQ(kTall);
    const cv::Rect window(200, 280, 40, 40);
    const cv::Rect band1(80, 40, 40, 40);
    const std::tuple<const char*, cv::Rect, int, uint32_t, bool> cases[] = {
        {"window, disarmed", window, 1600, 0, true},
        {"window, armOrDisarm 3", window, 1600, 3, true},
        {"400 points", window, 400, 0, false},
        {"401 points", window, 401, 0, true},
        {"lower right of the centre", cv::Rect(240, 320, 40, 40), 1600, 0, false},
        {"searched band, not flying", band1, 1600, 0, false},
        {"searched band, armOrDisarm 1", band1, 1600, 1, true},
        {"searched band, armOrDisarm 2", band1, 1600, 2, true},
    };
    for (int type : kTypes) {
        for (const auto& [name, area, points, arm, seen] : cases) {
            cv::Mat map = invalidMap(type, kTall);
            paintFirst(map, area, points, disparityFor(Q, 5.0));
            const Probe p(kFront, flight(0.0f, 0.0f, arm), map, Q);
            EXPECT_EQ(p.seen(), seen) << type << " " << name;
            EXPECT_EQ(p.brake.getFrountArea().size(), seen ? static_cast<size_t>(points) : 0u) << name;
            if (arm == 0 || arm == 3) {
                EXPECT_EQ(std::pair(p.brake.targetX, p.brake.targetY), std::pair(320.0f, 240.0f)) << name;
            }
        }
    }
}

TEST(BrakeFront, FrameSizeSetsTheBlockCountsAndAWideFrameTheViewForGood)
{
    // 400 x 300 (rows x columns): colBlocks 7.5, column blocks 2..5 only;
    // 200 x 160: colBlocks 4, no search at all.
    const cv::Size size(300, 400);
    const cv::Size narrow(160, 200);
    for (int type : kTypes) {
        for (int block : {2, 5, 6}) {
            cv::Mat map = invalidMap(type, size);
            paint(map, cv::Rect(40 * block, 80, 40, 40), disparityFor(rigQ(size), 4.0));
            EXPECT_EQ(Probe(kFront, flight(0.0f), map, rigQ(size)).seen(), block <= 5) << type << " block " << block;
        }
        EXPECT_FALSE(Probe(kFront, flight(0.0f), planeMap(type, narrow, rigQ(narrow), 4.0), rigQ(narrow)).seen());
    }
    // At pitch 20 a 65 degree view searches bands 3..8, a 49 degree one 3..9.
    const cv::Mat tallQ = rigQ(kTall);
    cv::Mat band9 = invalidMap(CV_32F, kTall);
    paint(band9, cv::Rect(200, 360, 40, 40), disparityFor(tallQ, 4.0));
    const std::tuple<cv::Mat, cv::Mat, float, bool> frames[] = {{band9, tallQ, 65.0f, false},
                                                                {invalidMap(CV_16S, kWide), rigQ(kWide), 49.0f, false},
                                                                {band9, tallQ, 49.0f, true},
                                                                {band9, tallQ, 49.0f, true}};
    ManualClock time;
    Brake brake(kFront, time.clock());
    for (const auto& [map, q, fov, seen] : frames) {
        measure(brake, time, flight(20.0f), map, q);
        EXPECT_EQ(brake.fovVertical, fov);
        EXPECT_EQ(brake.dis_ori_z < 60.0f, seen);
        brake.update();
    }
}

// -------------------------------------------------------------------- down

TEST(BrakeDown, FixedGridOfRows4sTo12sAndColumns4sTo8sWhateverPitchAndFlight)
{
    // s = rows / 16. Blocks just inside each edge are measured, with the
    // cosine, at any pitch and flying or not; full blocks just outside are
    // not. The down camera never changes the field of view.
    for (const cv::Size size : {kTall, kWide}) {
        const int s = size.height / 16;
        const std::tuple<cv::Rect, float, uint32_t, bool> cases[] = {
            {cv::Rect(4 * s, 4 * s, s, s), 30.0f, 0, true},   // top left block
            {cv::Rect(4 * s, 11 * s, s, s), 50.0f, 1, true},  // bottom band, outside every front band
            {cv::Rect(7 * s, 6 * s, s, s), -30.0f, 1, true},  // last column block
            {cv::Rect(4 * s, 3 * s, s, s), 0.0f, 1, false},   // above
            {cv::Rect(4 * s, 12 * s, s, s), 0.0f, 1, false},  // below
            {cv::Rect(3 * s, 6 * s, s, s), 0.0f, 1, false},   // left
            {cv::Rect(8 * s, 6 * s, s, s), 0.0f, 1, false},   // right
        };
        for (int type : kTypes) {
            for (const auto& [area, pitch, arm, seen] : cases) {
                cv::Mat map = invalidMap(type, size);
                paint(map, area, disparityFor(rigQ(size), 5.0));
                const Probe p(kDown, flight(pitch, 0.0f, arm), map, rigQ(size));
                const double expected = seen ? 5.0 * std::cos(pitch * M_PI / 180.0) : 60.0;
                EXPECT_NEAR(p.brake.dis_ori_z, expected, 0.005 * expected) << size << " " << type << " " << area;
                EXPECT_EQ(p.brake.getFrountArea(), seen ? pointsOf(area) : std::vector<cv::Point2f>());
                EXPECT_EQ(p.brake.fovVertical, 65.0f);
            }
        }
    }
}

// ----------------------------------------------- blind area, mismatch check

TEST(BrakeBlindArea, CloseObstacleAndSteepBackwardFlightGiveSixty)
{
    const std::tuple<const char*, double, float, float, bool> cases[] = {
        {"0.5 m", 0.5, 0.0f, 0.0f, true},
        {"0.8 m", 0.8, 0.0f, 0.0f, false},
        {"backwards, pitch -10.5", 5.0, -10.5f, -0.5f, true},
        {"backwards, pitch -10", 5.0, -10.0f, -0.5f, false},
        {"forwards, pitch -30", 5.0, -30.0f, 0.5f, false},
        {"hovering, pitch -30", 5.0, -30.0f, 0.0f, false},
    };
    for (const auto& [name, depthM, pitch, headSpeed, forced] : cases) {
        for (auto direction : {kFront, kDown}) {
            const Probe p(direction, flight(pitch, headSpeed), planeMap(CV_32F, kTall, rigQ(kTall), depthM),
                          rigQ(kTall));
            EXPECT_TRUE(p.seen()) << name;
            EXPECT_EQ(p.brake.distance_ori == 60.0f, forced) << name << " " << direction;
        }
    }
}

TEST(BrakeMismatch, SparseMapWithOneSolidPatchIsAMismatch)
{
    // The patch is 10 x 10 at quarter scale, 0.5 % of the map; "empty" may be
    // 0 or invalid (-1 reads 65535 as CV_16S, 0 after saturation as CV_32F).
    // Below 20 columns or rows the quarter-scale map cannot hold the 5 x 5
    // template: no mismatch, and nothing read outside the map.
    const cv::Rect patch(200, 280, 40, 40);
    const std::tuple<const char*, cv::Size, double, cv::Rect, double, int, bool> cases[] = {
        // name, size, background, patch, its value, px between single points of 300 (0: none), mismatch
        {"patch on zero", kTall, 0, patch, 300, 0, true},
        {"patch on invalid", kTall, -1, patch, 300, 0, true},
        {"patch of 65", kTall, 0, patch, 65, 0, true},
        {"patch of 64", kTall, 0, patch, 64, 0, false},
        {"patch of 1025", kTall, 0, patch, 1025, 0, false},
        {"all zero", kTall, 0, cv::Rect(), 0, 0, false},
        {"all invalid", kTall, -1, cv::Rect(), 0, 0, false},
        {"patch too thin for 5 x 5", kTall, 0, cv::Rect(200, 280, 40, 12), 300, 0, false},
        {"scattered points", kTall, 0, cv::Rect(), 0, 10, false},
        {"patch in a map over 7 % non-zero", kTall, 0, patch, 300, 3, false},
        {"80 x 80 map", cv::Size(80, 80), 0, cv::Rect(20, 20, 20, 20), 300, 0, true},
        {"19 columns", cv::Size(19, 100), 0, cv::Rect(0, 0, 8, 8), 300, 0, false},
        {"19 rows", cv::Size(100, 19), 0, cv::Rect(0, 0, 8, 8), 300, 0, false},
    };
    for (int type : kTypes) {
        for (const auto& [name, size, background, area, value, scatterEvery, mismatch] : cases) {
            cv::Mat map(size, type, cv::Scalar(background));
            for (int y = 0; scatterEvery > 0 && y < map.rows; y += scatterEvery) {
                for (int x = 0; x < map.cols; x += scatterEvery) {
                    paint(map, cv::Rect(x, y, 1, 1), 300);
                }
            }
            paint(map, area, value);
            const Probe p(kFront, flight(0.0f), map, rigQ(kTall));
            EXPECT_EQ(p.brake.faultDetectFlagOfTen, mismatch) << type << " " << name;
            EXPECT_EQ(p.brake.getLogline()[17], mismatch ? "1" : "0");
        }
    }
}

// ------------------------------------------------------------------- filters

// The front camera in flight on a clock the test moves: 50 ms from the
// flight state to the measurement, 50 ms to the next frame.
class Flight {
public:
    Flight() : brake(kFront, time.clock()) {}

    // A frame of a plane at depthM (0: clear sky; below 0: a mismatch map,
    // empty but for one solid patch); returns the raw distance.
    float frame(double depthM, const Common::FlyInfo& info = flight(0.0f))
    {
        cv::Mat map = depthM > 0 ? planeMap(CV_32F, kTall, Q, depthM) : invalidMap(CV_32F, kTall);
        if (depthM < 0) {
            map.setTo(0);
            map(cv::Rect(200, 280, 40, 40)).setTo(300.0);
        }
        measure(brake, time, info, map, Q);
        EXPECT_EQ(brake.faultDetectFlagOfTen, depthM < 0);
        // The dormant fault rejection passes its input through on every frame.
        EXPECT_EQ(std::memcmp(&brake.disRejectFaultDetect, &brake.distanceFiltered_outlier, sizeof(float)), 0);
        const float raw = brake.distance_ori;
        brake.update();
        time.now += 50;
        return raw;
    }

    float out() const { return brake.distanceFiltered_outlier; }

    ManualClock time;
    Brake brake;
    const cv::Mat Q = rigQ(kTall);
};

// The smoothing of a change of at most 3 m, in single precision.
float smoothed(float previous, float measured)
{
    const float e = measured - previous;
    const float g = std::exp(-0.5f * ((e * 0.16666667f) * (e * 0.16666667f)));
    return std::fabs(previous + e * 0.39904344f * g);
}

// The distance moved on at 2 m/s in the 50 ms from flight state to measurement.
float movedOn(float distance) { return static_cast<float>(distance - 2.0f * 50.0f * 0.001); }

TEST(BrakeFilters, OutlierFilterThroughOneFlight)
{
    enum Expect { kSixty, kSuppressed, kHeld, kTaken, kSmoothed };
    const std::tuple<const char*, double, int, Expect> script[] = {
        // what, depth (m), frames, expected outlier output
        {"start-up: five measured frames report 60", 5.0, 5, kSixty},
        {"then the measurement", 5.0, 1, kTaken},
        {"a single clear frame holds it", 0.0, 1, kHeld},
        {"a change of 1 m is smoothed", 6.0, 1, kSmoothed},
        {"fifteen clear frames hold it", 0.0, 15, kHeld},
        {"the sixteenth releases it", 0.0, 1, kSixty},
        {"a new obstacle after clear sky is suppressed", 8.0, 3, kSuppressed},
        {"an interrupted run starts over", 0.0, 1, kSixty},
        {"suppressed five times", 8.0, 5, kSuppressed},
        {"reported on the sixth consecutive frame", 8.0, 1, kTaken},
        {"2 m: smoothed", 10.0, 1, kSmoothed},
        {"over 3 m: taken at once", 14.0, 1, kTaken},
        {"2 m back: smoothed", 12.0, 1, kSmoothed},
        {"over 3 m back: taken", 6.0, 1, kTaken},
        {"a mismatch frame holds like a clear one", -1.0, 1, kHeld},
        {"the next starts from 60: 0.5 m is a jump, not smoothed", 6.5, 1, kTaken},
        {"the one after starts from 60 too: a new obstacle", 6.5, 5, kSuppressed},
        {"reported on the sixth frame", 6.5, 1, kTaken},
    };
    Flight f;
    float previous = f.out();
    int countmax = 0;
    for (const auto& [what, depthM, frames, expect] : script) {
        for (int i = 1; i <= frames; ++i) {
            const float raw = f.frame(depthM);
            countmax = expect == kSuppressed ? countmax + 1 : 0;
            const float expected[] = {60.0f, 60.0f, previous, raw, smoothed(previous, raw)};
            EXPECT_EQ(f.out(), expected[expect]) << what << ", frame " << i;
            EXPECT_EQ(f.brake.getDistance(), f.out()) << what;
            EXPECT_EQ(f.brake.getLogline()[8], std::to_string(countmax)) << what << ", frame " << i;
            previous = f.out();
        }
    }
    // reset() sets every stage output and both history values to 60 and
    // keeps the raw distance and the filter state: tracking goes on, so the
    // next obstacle frame is a jump from 60, taken at once.
    const float raw = f.brake.dis_ori_z;
    f.brake.reset();
    const Brake& b = f.brake;
    EXPECT_EQ((std::vector<float>{b.distance_ori, b.lastDistanceOri, b.distanceFiltered_poseoutlier, b.lastPoseOutlier,
                                  b.distanceFiltered_outlier, b.disRejectFaultDetect, b.getDistance()}),
              std::vector<float>(7, 60.0f));
    EXPECT_EQ(b.dis_ori_z, raw);
    const float next = f.frame(6.5);
    EXPECT_EQ(f.out(), next);
}

TEST(BrakeFilters, DeadReckoningOnlyForwardAndUntilPitchIsBackAt25)
{
    Flight f;
    for (int i = 0; i < 6; ++i) {
        f.frame(15.0, flight(0.0f, 2.0f));
    }
    Common::FlyInfo sideways = flight(30.0f, 0.1f);
    sideways.rightSpeed = 2.0f;
    f.frame(15.0, sideways);
    EXPECT_FALSE(f.brake.missedPredictActive);
    EXPECT_EQ(f.brake.getDistance(), f.brake.disRejectFaultDetect);

    f.frame(15.0, flight(30.0f, 2.0f));
    EXPECT_TRUE(f.brake.missedPredictActive && !f.brake.missedPredictIdle);
    EXPECT_EQ(f.brake.getDistance(), movedOn(f.brake.disRejectFaultDetect));
    for (double depthM : {14.0, 40.0, 0.0, 25.5}) {
        const float before = f.brake.getDistance();
        f.frame(depthM, flight(26.0f, 2.0f));
        EXPECT_EQ(f.brake.getDistance(), movedOn(before)) << depthM << " m ignored";
    }
    f.frame(14.0, flight(25.0f, 2.0f));
    EXPECT_TRUE(!f.brake.missedPredictActive && f.brake.missedPredictIdle);
    EXPECT_EQ(f.brake.getDistance(), f.brake.disRejectFaultDetect);
}

TEST(BrakeFilters, FarDistanceAtSteepOrFastRisingPitchIsMovedOnFromTheLastOne)
{
    // Tracking 30 m at 2 m/s, a 55 m frame (beyond 45 m) becomes the previous
    // raw distance moved on when the pitch is above 25 degrees or positive
    // and rising faster than 50 degrees/s; otherwise it is a jump.
    const std::tuple<const char*, float, float, bool> cases[] = {
        {"pitch 26", 26.0f, 26.0f, true},
        {"rising fast", 0.0f, 10.0f, true},  // 10 degrees in 50 ms: 200 degrees/s
        {"rising slowly", 10.0f, 11.0f, false},
        {"level", 0.0f, 0.0f, false},
        {"falling fast", 0.0f, -20.0f, false},
    };
    for (const auto& [name, pitchBefore, pitch, corrected] : cases) {
        Flight f;
        for (int i = 0; i < 7; ++i) {
            f.frame(30.0, flight(pitchBefore, 2.0f));
        }
        const float last = f.brake.distance_ori;
        const float previous = f.out();
        const float raw = f.frame(55.0, flight(pitch, 2.0f));
        EXPECT_EQ(f.out(), corrected ? smoothed(previous, movedOn(last)) : raw) << name;
    }
}

TEST(BrakeFlightState, PitchRateNeedsMoreThan20Milliseconds)
{
    ManualClock time;
    Brake brake(kFront, time.clock());
    for (const auto& [pitch, ms, rate] : {std::tuple(4.0f, 20, 0.0f), std::tuple(-1.0f, 25, 200.0f)}) {
        brake.setFlyInfo(flight(pitch));
        time.now += ms;
        brake.setDisparity(invalidMap(CV_16S, kTall), rigQ(kTall));
        EXPECT_EQ(brake.timeuse, static_cast<float>(ms));
        EXPECT_FLOAT_EQ(brake.pitch_rate, rate);  // |-1 - 4| degrees in 25 ms
        brake.update();
    }
}

TEST(BrakeFlightState, MeetSpeedStopsOnlyBeyondOneMetrePerSecondBackwards)
{
    Brake brake(kFront);
    EXPECT_FALSE(brake.meetSpeed());
    for (float speed : {0.0f, 5.0f, std::nextafter(-1.0f, 0.0f), -1.0f, -1.5f}) {
        brake.setFlyInfo(flight(0.0f, speed));
        EXPECT_EQ(brake.meetSpeed(), speed > -1.0f) << speed;
    }
}

TEST(BrakeFlightState, SmallDistanceFlagOnTheThirdQualifyingUpdate)
{
    // setFlyInfo judges the previous frame's distance (5 m here, 60 m after
    // reset) and |headSpeed| <= 3 m/s.
    Flight f;
    for (int i = 0; i < 6; ++i) {
        f.frame(5.0, flight(0.0f, 1.0f));
    }
    ASSERT_LE(f.brake.getDistance(), 6.0f);
    const std::pair<float, bool> updates[] = {{3.0f, false}, {-3.0f, false}, {2.0f, true},  {1.0f, true},
                                              {3.5f, false}, {0.0f, false},  {0.0f, false}, {0.0f, true}};
    for (const auto& [headSpeed, flag] : updates) {
        f.brake.setFlyInfo(flight(0.0f, headSpeed));
        EXPECT_EQ(f.brake.smallDistanceFlag, flag) << headSpeed;
        EXPECT_EQ(f.brake.getLogline()[16], flag ? "1" : "0");
    }
    f.brake.reset();
    f.brake.setFlyInfo(flight(0.0f, 0.0f));
    EXPECT_FALSE(f.brake.smallDistanceFlag);
}

TEST(BrakeFlightState, FlightDirectionCodes)
{
    const std::tuple<float, float, float, Brake::FlyDirect> cases[] = {
        {0.0f, 0.0f, 0.0f, Brake::FORWARD},  // hovering
        {2.0f, 0.1f, 0.1f, Brake::FORWARD},
        {-2.0f, 0.1f, 0.1f, Brake::BACKWARD},
        {0.39f, 2.0f, 0.0f, Brake::SIDEWAYS_POSITIVE},
        {0.0f, -2.0f, 0.0f, Brake::SIDEWAYS_NEGATIVE},
        {0.0f, 0.0f, 1.0f, Brake::VERTICAL_POSITIVE},
        {0.0f, 0.0f, -1.0f, Brake::VERTICAL_NEGATIVE},
        {1.0f, 1.0f, 0.0f, Brake::MIXED},
        {0.3f, 0.5f, 0.5f, Brake::FORWARD},  // no dominant axis, slow forward
        {1.2f, 0.3f, 0.45f, Brake::MIXED},   // c not below 0.4
        {1.2f, 0.4f, 0.0f, Brake::MIXED},    // 0.4f is above the double 0.4: b is not below it
        {0.4f, 0.0f, 0.0f, Brake::FORWARD},  // and a = 0.4f is above it
    };
    for (const auto& [x, y, z, expected] : cases) {
        EXPECT_EQ(Brake::analysisFlyDirect(x, y, z), expected) << x << " " << y << " " << z;
    }
}

// ------------------------------------------------------------------- record

TEST(BrakeRecord, HeaderNames23ColumnsEachEndedByATab)
{
    EXPECT_EQ(Brake(kDown).getLogHeader(),
              "pitch\theadSpeed\trightSpeed\tverticalSpeed\theight\tarmOrDisarm\ttimeuse\tpitch_rate\tcountmax\t"
              "dis_ori_z\tdistance_ori\tdistanceFiltered_poseoutlier\tdistanceFiltered_outlier\t"
              "disRejectFaultDetect\tdistanceFiltered_app\tmeetSpeedFlag\tsmallDistanceFlag\t"
              "faultDetectFlagOfTen\tangle_x\tangle_y\tis_passable\ttimestampL\ttimestampR\t\n");
}

TEST(BrakeRecord, LineHas21ColumnsInFloatOrIntForm)
{
    // The first measured frame: 5 m x cos(12.5 degrees) raw, 60 filtered.
    Common::FlyInfo info = flight(-12.5f, 0.25f, 2);
    info.rightSpeed = -1.5f;
    info.verticalSpeed = 0.125f;
    info.height = 42.0f;
    Probe p(kFront, info, planeMap(CV_16S, kTall, rigQ(kTall), 5.0), rigQ(kTall));
    p.brake.getTargetRegionFromBrake(cv::Vec3f(1.5f, -2.25f, 1.0f));
    EXPECT_EQ(p.brake.getLogline(),
              (Lines{"-12.500000", "0.250000", "-1.500000", "0.125000", "42.000000", "2",         "50.000000",
                     "250.000000", "0",        "4.881498",  "4.881498", "60.000000", "60.000000", "60.000000",
                     "60.000000",  "1",        "0",         "0",        "1.500000",  "-2.250000", "1.000000"}));
}

TEST(BrakeRecord, FreshBrakeWithAnUnmeasuredFirstFrameShowsSixties)
{
    // Backwards at 2 m/s: not measured. timeuse, pitch_rate and countmax
    // were never set, the stage outputs are 60, no avoidance target.
    Probe p(kFront, flight(3.0f, -2.0f), cv::Mat(), cv::Mat());
    p.brake.getTargetRegionFromBrake(cv::Vec3f(0, 0, 0));
    EXPECT_EQ(p.brake.getLogline(),
              (Lines{"3.000000",  "-2.000000", "0.000000",  "0.000000",  "0.000000",  "1",         "0.000000",
                     "0.000000",  "0",         "60.000000", "60.000000", "60.000000", "60.000000", "60.000000",
                     "60.000000", "0",         "0",         "0",         "0.000000",  "0.000000",  "0.000000"}));
    EXPECT_TRUE(p.brake.getFrountArea().empty());
}

TEST(BrakeRecord, ConstructionLogsTheStartLine)
{
    testsupport::LogCapture log;
    Brake front(kFront);
    Brake down(kDown);
    const auto records = log.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].message, "[BINOLIB] [front] Brake: start ");
    EXPECT_EQ(records[1].message, "[BINOLIB] [down] Brake: start ");
    EXPECT_EQ(records[0].level, binolog::INFO);
    EXPECT_EQ(records[0].file, "src/brake.cpp");
}

TEST(BrakeHorizontalWindow, FarOffCentreBlockGivesTheLastDistanceLessSixtyCentimetres)
{
    // offset = trunc(targetX - 240) x dis_ori_z / 505, against 3 m.
    Brake brake(kFront);
    brake.imageWidth = 480;
    brake.lastDistanceOri = 7.0f;
    const float shortened = static_cast<float>(7.0f - 0.6);
    for (const auto& [disOriZ, targetX, expected] : {std::tuple(5.0f, 240.0f + 304.0f, shortened),  // 3.0099
                                                     std::tuple(5.0f, 240.0f + 303.0f, 5.0f),       // 2.9999
                                                     std::tuple(5.0f, 240.0f - 304.9f, shortened),  // trunc: -304
                                                     std::tuple(12.0f, 0.0f, 12.0f)}) {  // 10 m and beyond: unchanged
        brake.dis_ori_z = disOriZ;
        brake.targetX = targetX;
        brake.dealHorizontalWindow();
        EXPECT_EQ(brake.distance_ori, expected) << targetX;
    }
}

}  // namespace
