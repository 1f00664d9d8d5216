// Brake on maps of known depth: a plane's distance, the blind area, the mismatch
// check, the filters as frame sequences on a clock the test moves, the record.
// fuzz_brake and test_brake_reference.cpp hold the measured block bit for bit.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "brake.h"
#include "brake_maps.h"

namespace {

using namespace brakemaps;

const auto kFront = Common::FRONT;
const auto kDown = Common::DOWN;

// One camera on a clock the test moves (50 ms from the flight state to the
// measurement, 50 ms on to the next frame), built with one frame measured or none.
class Camera {
public:
    explicit Camera(Common::Direction direction = kFront) : brake(direction, time.clock()) {}
    Camera(Common::Direction direction, const Common::FlyInfo& info, const cv::Mat& map, const cv::Mat& Q)
        : Camera(direction)
    {
        measure(info, map, Q);
    }

    // One frame as the pipeline runs it; update() is left to the caller.
    void measure(const Common::FlyInfo& info, const cv::Mat& map, const cv::Mat& Q)
    {
        brake.setFlyInfo(info);
        time.now += 50;
        brake.meetSpeed() ? brake.setDisparity(map, Q) : brake.reset();
    }

    // `count` frames of a plane at depthM (0: clear sky; below 0: a mismatch
    // map, empty but one solid patch); returns the last raw distance.
    float frame(double depthM, const Common::FlyInfo& info = flight(0.0f), int count = 1)
    {
        cv::Mat map = depthM > 0 ? planeMap(CV_32F, kTall, rig, depthM) : invalidMap(CV_32F, kTall);
        if (depthM < 0) {
            map.setTo(0);
            fill(map, cv::Rect(200, 280, 40, 40), 300.0);
        }
        float raw = 0;
        for (int i = 0; i < count; ++i) {
            measure(info, map, rig);
            EXPECT_EQ(brake.faultDetectFlagOfTen, depthM < 0);
            EXPECT_EQ(std::memcmp(&brake.disRejectFaultDetect, &brake.distanceFiltered_outlier, sizeof(float)), 0)
                << "the dormant fault rejection passes its input through";
            raw = brake.distance_ori;
            brake.update();
            time.now += 50;
        }
        return raw;
    }
    float out() const { return brake.distanceFiltered_outlier; }
    ManualClock time;
    Brake brake;
    const cv::Mat rig = rigQ(kTall);
};

TEST(BrakeGeometry, PlaneGivesDepthTimesCosinePitchAndNoValidDepthSixty)
{
    // Whole-pixel disparities: both map types hold the plane exactly. At each
    // pitch, each camera, flying or not; no valid depth reads 60.
    std::vector<std::tuple<std::string, cv::Mat, cv::Mat, double>> cases;  // name, map, Q, depth (0: none, 60)
    for (int type : {CV_16S, CV_32F}) {
        for (const cv::Size size : {kTall, kWide}) {
            for (double depthM : {1.0, 20.0}) {
                cases.emplace_back("plane", planeMap(type, size, rigQ(size), depthM), rigQ(size), depthM);
            }
        }
        cases.emplace_back("invalid", invalidMap(type, kTall), rigQ(kTall), 0);
    }
    for (const auto& [name, map, Q, depthM] : cases) {
        for (float pitch : {0.0f, -20.0f, 30.0f}) {
            for (const auto& [direction, arm] : {std::pair(kFront, 0u), std::pair(kFront, 1u), std::pair(kDown, 2u)}) {
                const Camera p(direction, flight(pitch, 0.0f, arm), map, Q);
                const double expected = depthM > 0 ? depthM * std::cos(pitch * M_PI / 180.0) : 60.0;
                EXPECT_NEAR(p.brake.dis_ori_z, expected, 0.005 * expected)
                    << name << " " << map.size << " " << map.type() << " " << pitch << " " << direction << " " << arm;
                EXPECT_EQ(p.brake.getFrountArea().empty(), depthM == 0) << name;
            }
        }
    }
}

TEST(BrakeBlindArea, CloseObstacleAndSteepBackwardFlightGiveSixty)
{
    const std::tuple<const char*, double, float, float, bool> cases[] = {
        {"0.5 m", 0.5, 0.0f, 0.0f, true},
        {"0.8 m", 0.8, 0.0f, 0.0f, false},
        {"backwards, pitch -10.5", 5.0, -10.5f, -0.5f, true},
        {"backwards, pitch -10", 5.0, -10.0f, -0.5f, false},
    };
    for (const auto& [name, depthM, pitch, headSpeed, forced] : cases) {
        for (auto direction : {kFront, kDown}) {
            const Camera p(direction, flight(pitch, headSpeed), planeMap(CV_32F, kTall, rigQ(kTall), depthM),
                           rigQ(kTall));
            EXPECT_LT(p.brake.dis_ori_z, Brake::kNoObstacle) << name;
            EXPECT_EQ(p.brake.distance_ori == 60.0f, forced) << name << " " << direction;
        }
    }
}

// One solid patch on an empty map (0, or -1: 65535 as CV_16S) is a mismatch; a
// patch of disparity 64 or less, or on a map over 7 % non-zero, is not.
TEST(BrakeMismatch, SparseMapWithOneSolidPatchIsAMismatch)
{
    const cv::Rect patch(200, 280, 40, 40);  // 10 x 10 at quarter scale: 0.5 % of the map
    const std::tuple<double, cv::Rect, double, bool> cases[] = {
        {-1, patch, 300, true}, {0, patch, 64, false}, {0, cv::Rect(0, 0, 480, 48), 300, false}};
    for (const auto& [background, area, value, mismatch] : cases) {
        cv::Mat map(kTall, CV_16S, cv::Scalar(background));
        fill(map, area, value);
        EXPECT_EQ(Camera(kFront, flight(0.0f), map, rigQ(kTall)).brake.faultDetectFlagOfTen, mismatch) << value;
    }
}

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
        {"start-up: five measured frames report 60", 5.0, 5, kSixty},
        {"then the measurement", 5.0, 1, kTaken},
        {"a change of 1 m is smoothed", 6.0, 1, kSmoothed},
        {"fifteen clear frames hold it", 0.0, 15, kHeld},
        {"the sixteenth releases it", 0.0, 1, kSixty},
        {"a new obstacle after clear sky is suppressed five times", 8.0, 5, kSuppressed},
        {"reported on the sixth consecutive frame", 8.0, 1, kTaken},
        {"over 3 m: taken at once", 14.0, 1, kTaken},
        {"a mismatch frame holds like a clear one", -1.0, 1, kHeld},
        {"the next starts from 60: 0.5 m is a jump, not smoothed", 6.5, 1, kTaken},
        {"the one after starts from 60 too: a new obstacle", 6.5, 5, kSuppressed},
        {"reported on the sixth frame", 6.5, 1, kTaken},
    };
    Camera f;
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
    // reset() sets every stage output and history value to 60: the next obstacle is a jump from 60, taken.
    f.brake.reset();
    const Brake& b = f.brake;
    EXPECT_EQ((std::vector<float>{b.distance_ori, b.lastDistanceOri, b.distanceFiltered_poseoutlier, b.lastPoseOutlier,
                                  b.distanceFiltered_outlier, b.disRejectFaultDetect, b.getDistance()}),
              std::vector<float>(7, 60.0f));
    const float next = f.frame(6.5);
    EXPECT_EQ(f.out(), next);
}

TEST(BrakeFilters, DeadReckoningOnlyForwardAndUntilPitchIsBackAt25)
{
    Camera f;
    f.frame(15.0, flight(0.0f, 2.0f), 6);
    Common::FlyInfo sideways = flight(30.0f, 0.1f);
    sideways.rightSpeed = 2.0f;
    f.frame(15.0, sideways);
    EXPECT_TRUE(!f.brake.missedPredictActive && f.brake.getDistance() == f.brake.disRejectFaultDetect);

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
    // Tracking 30 m at 2 m/s, a 55 m frame (beyond 45 m) becomes the last raw
    // distance moved on at a pitch above 25 or positive and rising over 50/s.
    const std::tuple<const char*, float, float, bool> cases[] = {
        {"pitch 26", 26.0f, 26.0f, true},
        {"rising fast", 0.0f, 10.0f, true},  // 10 degrees in 50 ms: 200 degrees/s
        {"rising slowly", 10.0f, 11.0f, false},
    };
    for (const auto& [name, pitchBefore, pitch, corrected] : cases) {
        Camera f;
        f.frame(30.0, flight(pitchBefore, 2.0f), 7);
        const float last = f.brake.distance_ori, previous = f.out();
        const float raw = f.frame(55.0, flight(pitch, 2.0f));
        EXPECT_EQ(f.out(), corrected ? smoothed(previous, movedOn(last)) : raw) << name;
    }
}

TEST(BrakeFlightState, MeetSpeedStopsBeyond1MetrePerSecondBackwards)
{
    Brake brake(kFront);
    EXPECT_FALSE(brake.meetSpeed());  // no flight state yet
    for (float speed : {0.0f, std::nextafter(-1.0f, 0.0f), -1.0f}) {
        brake.setFlyInfo(flight(0.0f, speed));
        EXPECT_EQ(brake.meetSpeed(), speed > -1.0f) << speed;
    }
}

TEST(BrakeRecord, HeaderNames23ColumnsAndTheLineHas21InFloatOrIntForm)
{
    EXPECT_EQ(Brake(kDown).getLogHeader(),
              "pitch\theadSpeed\trightSpeed\tverticalSpeed\theight\tarmOrDisarm\ttimeuse\tpitch_rate\tcountmax\t"
              "dis_ori_z\tdistance_ori\tdistanceFiltered_poseoutlier\tdistanceFiltered_outlier\t"
              "disRejectFaultDetect\tdistanceFiltered_app\tmeetSpeedFlag\tsmallDistanceFlag\t"
              "faultDetectFlagOfTen\tangle_x\tangle_y\tis_passable\ttimestampL\ttimestampR\t\n");
    // A first frame measured: 5 m x cos(12.5 degrees) raw, 60 filtered.
    Common::FlyInfo info = flight(-12.5f, 0.25f, 2);
    info.rightSpeed = -1.5f;
    info.verticalSpeed = 0.125f;
    info.height = 42.0f;
    Camera p(kFront, info, planeMap(CV_16S, kTall, rigQ(kTall), 5.0), rigQ(kTall));
    p.brake.getTargetRegionFromBrake({1.5f, -2.25f, 1.0f});
    EXPECT_EQ(p.brake.getLogline(),
              (std::vector<std::string>{"-12.500000", "0.250000",   "-1.500000", "0.125000", "42.000000", "2",
                                        "50.000000",  "250.000000", "0",         "4.881498", "4.881498",  "60.000000",
                                        "60.000000",  "60.000000",  "60.000000", "1",        "0",         "0",
                                        "1.500000",   "-2.250000",  "1.000000"}));
}

}  // namespace
