// Brake through its public interface: the geometry of the front and down
// measurements on maps with known depth, the band and window rules, the blind
// area, the high-altitude mismatch check, the filters as frame sequences on a
// clock the test moves, and the record. The bit-for-bit comparison with the
// straightforward reading is in test_brake_reference.cpp.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <regex>
#include <string>
#include <vector>

#include "brake.h"
#include "brake_maps.h"
#include "test_support.h"

namespace {

using namespace brakemaps;

const int kTypes[] = {CV_16S, CV_32F};

const char* typeName(int type) { return type == CV_16S ? "CV_16S" : "CV_32F"; }

// Runs one frame on `brake` as the pipeline does: flight state, then the
// measurement 50 ms later when meetSpeed(), else reset(); update() is left
// to the caller so the frame's values can be inspected.
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

std::vector<cv::Point2f> pointsOf(const cv::Rect& area)
{
    std::vector<cv::Point2f> points;
    for (int y = area.y; y < area.y + area.height; ++y) {
        for (int x = area.x; x < area.x + area.width; ++x) {
            points.emplace_back(static_cast<float>(x), static_cast<float>(y));
        }
    }
    return points;
}

// A map with `valid` points of a plane at depthM in `block` (the first ones
// in row-major order) and nothing else.
cv::Mat partialBlock(int type, cv::Size size, const cv::Mat& Q, const cv::Rect& block, int valid, double depthM)
{
    cv::Mat map = invalidMap(type, size);
    for (int i = 0; i < valid; ++i) {
        paint(map, cv::Rect(block.x + i % block.width, block.y + i / block.width, 1, 1), disparityFor(Q, depthM));
    }
    return map;
}

// ---------------------------------------------------------------- geometry

TEST(BrakeGeometry, PlaneAtKnownDepthGivesDepthTimesCosinePitch)
{
    // Given a plane filling the frame at a depth with a whole-pixel disparity
    // (so both map types hold it exactly), when each camera measures it at
    // several pitches, then dis_ori_z = Z cos(pitch) within 0.5 %.
    for (const cv::Size size : {kTall, kWide}) {
        const cv::Mat Q = rigQ(size);
        for (int type : kTypes) {
            for (double depthM : {1.0, 2.0, 5.0, 8.0, 20.0}) {
                const cv::Mat map = planeMap(type, size, Q, depthM);
                for (float pitch : {0.0f, 10.0f, -20.0f, 30.0f}) {
                    for (auto direction : {Common::FRONT, Common::DOWN}) {
                        for (uint32_t arm : {0u, 1u}) {
                            SCOPED_TRACE(::testing::Message()
                                         << typeName(type) << " " << size << " " << depthM << " m, pitch " << pitch
                                         << ", " << Common::binoString(direction) << ", arm " << arm);
                            ManualClock time;
                            Brake brake(direction, time.clock());
                            measure(brake, time, flight(pitch, 0.0f, arm), map, Q);
                            const double expected = depthM * std::cos(pitch * M_PI / 180.0);
                            EXPECT_NEAR(brake.dis_ori_z, expected, 0.005 * expected);
                            EXPECT_FALSE(brake.getFrountArea().empty());
                        }
                    }
                }
            }
        }
    }
}

TEST(BrakeGeometry, NoValidDepthGivesSixtyAndNoArea)
{
    // Invalid pixels (-1), zero disparity (depth at infinity) and a map type
    // the chain does not read hold no point.
    const cv::Mat Q = rigQ(kTall);
    std::vector<cv::Mat> maps = {invalidMap(CV_16S, kTall),
                                 invalidMap(CV_32F, kTall),
                                 cv::Mat::zeros(kTall, CV_16S),
                                 cv::Mat::zeros(kTall, CV_32F),
                                 cv::Mat(kTall, CV_8U, cv::Scalar(20)),
                                 cv::Mat(kTall, CV_32S, cv::Scalar(20))};
    for (const cv::Mat& map : maps) {
        for (auto direction : {Common::FRONT, Common::DOWN}) {
            for (uint32_t arm : {0u, 2u}) {
                SCOPED_TRACE(::testing::Message()
                             << "type " << map.type() << ", " << Common::binoString(direction) << ", arm " << arm);
                ManualClock time;
                Brake brake(direction, time.clock());
                measure(brake, time, flight(0.0f, 0.0f, arm), map, Q);
                EXPECT_EQ(brake.dis_ori_z, 60.0f);
                EXPECT_TRUE(brake.getFrountArea().empty());
            }
        }
    }
}

TEST(BrakeGeometry, UncalibratedIdentityQMeasuresDisparityAsMillimetres)
{
    // The reader's CV_32S identity Q: Z = d, so 2000 px read as 2 m.
    const cv::Mat identity = cv::Mat::eye(4, 4, CV_32S);
    for (int type : kTypes) {
        for (auto direction : {Common::FRONT, Common::DOWN}) {
            ManualClock time;
            Brake brake(direction, time.clock());
            measure(brake, time, flight(0.0f), cv::Mat(kTall, type, cv::Scalar(2000)), identity);
            EXPECT_FLOAT_EQ(brake.dis_ori_z, 2.0f) << typeName(type);
        }
    }
}

TEST(BrakeGeometry, NearestQualifyingBlockWins)
{
    // Given a background at 20 m, block A at 5 m, a nearer block B at 3 m
    // with only 1,000 points, and an even nearer block C at 2 m in a band the
    // level front camera does not search, the front camera reports A with
    // A's points and centre.
    const cv::Mat Q = rigQ(kTall);
    const cv::Rect a(160, 120, 40, 40);  // band 3, column block 4
    const cv::Rect b(280, 200, 40, 40);  // band 5, column block 7
    const cv::Rect c(200, 0, 40, 40);    // band 0
    for (int type : kTypes) {
        cv::Mat map = planeMap(type, kTall, Q, 20.0);
        paint(map, a, disparityFor(Q, 5.0));
        paint(map, b, -1);
        paint(map, cv::Rect(b.x, b.y, 40, 25), disparityFor(Q, 3.0));  // 1,000 points
        paint(map, c, disparityFor(Q, 2.0));
        ManualClock time;
        Brake brake(Common::FRONT, time.clock());
        measure(brake, time, flight(0.0f), map, Q);
        EXPECT_NEAR(brake.dis_ori_z, 5.0, 0.025) << typeName(type);
        EXPECT_EQ(brake.getFrountArea(), pointsOf(a));
        EXPECT_EQ(brake.targetX, 179.0f);  // (160 + ... + 199) / 40, integer division
        EXPECT_EQ(brake.targetY, 139.0f);
    }
}

TEST(BrakeGeometry, BlockQualifiesAbove1066Points)
{
    // 1,066 valid points of 1,600 are not more than two thirds; 1,067 are.
    // Front: band 1, column block 2 (searched at pitch 0). Down (s = 40): the
    // grid's first block, rows and columns 160..199.
    const cv::Mat Q = rigQ(kTall);
    struct Case {
        Common::Direction direction;
        cv::Rect block;
    };
    for (const Case& c :
         {Case{Common::FRONT, cv::Rect(80, 40, 40, 40)}, Case{Common::DOWN, cv::Rect(160, 160, 40, 40)}}) {
        for (int type : kTypes) {
            for (int valid : {1066, 1067}) {
                ManualClock time;
                Brake brake(c.direction, time.clock());
                measure(brake, time, flight(0.0f), partialBlock(type, kTall, Q, c.block, valid, 5.0), Q);
                SCOPED_TRACE(::testing::Message()
                             << Common::binoString(c.direction) << " " << typeName(type) << " " << valid);
                if (valid == 1066) {
                    EXPECT_EQ(brake.dis_ori_z, 60.0f);
                    EXPECT_TRUE(brake.getFrountArea().empty());
                } else {
                    EXPECT_NEAR(brake.dis_ori_z, 5.0, 0.025);
                    EXPECT_EQ(brake.getFrountArea().size(), 1067u);
                }
            }
        }
    }
}

// The largest depth (mm) of a uniform 1,600-point block whose mean, as the
// camera computes it, is not above 1e-6 m; the next float up is above.
float depthAtMeanLimit(Common::Direction direction)
{
    auto mean = [direction](float z) {
        float sum = 0.0f;
        for (int i = 0; i < 1600; ++i) {
            sum += z * std::cos(0.0f * 0.017453292519943295);
        }
        return direction == Common::FRONT ? static_cast<float>(sum * (0.001 / 1600)) : sum / (1600 * 1000);
    };
    // The mean grows monotonically with z: bisect over the positive floats,
    // whose bit patterns are ordered like their values.
    auto bits = [](float value) {
        uint32_t pattern;
        std::memcpy(&pattern, &value, sizeof pattern);
        return pattern;
    };
    auto value = [](uint32_t pattern) {
        float z;
        std::memcpy(&z, &pattern, sizeof z);
        return z;
    };
    uint32_t below = bits(0.00099f);  // mean <= 1e-6
    uint32_t above = bits(0.00101f);  // mean > 1e-6
    while (above - below > 1) {
        const uint32_t middle = below + (above - below) / 2;
        (mean(value(middle)) <= 1e-6 ? below : above) = middle;
    }
    return value(below);
}

TEST(BrakeGeometry, BlockMeanAtOneMicrometreIsNotTaken)
{
    // With the identity Q a CV_32F map holds depth directly (mm). A block
    // whose mean is the float at 1e-6 m (just below the double 1e-6) is not an
    // obstacle; a mean one float above is.
    const cv::Mat identity = cv::Mat::eye(4, 4, CV_32S);
    for (auto direction : {Common::FRONT, Common::DOWN}) {
        const float limit = depthAtMeanLimit(direction);
        for (float z : {limit, std::nextafter(limit, 1.0f)}) {
            cv::Mat map = invalidMap(CV_32F, kTall);
            map(direction == Common::FRONT ? cv::Rect(80, 40, 40, 40) : cv::Rect(160, 160, 40, 40)).setTo(z);
            ManualClock time;
            Brake brake(direction, time.clock());
            measure(brake, time, flight(0.0f), map, identity);
            if (z == limit) {
                EXPECT_EQ(brake.dis_ori_z, 60.0f) << Common::binoString(direction);
            } else {
                EXPECT_GT(brake.dis_ori_z, 1e-6) << Common::binoString(direction);
                EXPECT_LT(brake.dis_ori_z, 1.001e-6) << Common::binoString(direction);
            }
        }
    }
}

// ------------------------------------------------------------------- front

struct BandCase {
    const char* name;
    float pitch;
    int first;
    int last;
};

// F = 65: F/3 = 21.666668 (F x 0.33333334f); 2F/rowBlocks = 8.125 (640 rows).
// F = 49: F/3 = 16.333334; 2F/rowBlocks = 7.2058825 (544 rows).
std::vector<BandCase> bandCases(float fov, float rowBlocks)
{
    const float third = fov * 0.33333334f;
    const float low = 2 * fov / rowBlocks;
    const float nan = std::numeric_limits<float>::quiet_NaN();
    return {
        {"steep up", 40.0f, 3, 9},
        {"at F/3", third, 3, 9},
        {"below F/3", std::nextafter(third, 0.0f), 3, 8},
        {"at 2F/rowBlocks", low, 3, 8},
        {"below 2F/rowBlocks", std::nextafter(low, 0.0f), 2, 8},
        {"slightly up", 1.0f, 2, 8},
        {"level", 0.0f, 1, 7},
        {"slightly down", -1.0f, 1, 7},
        {"above -F/3", std::nextafter(-third, 0.0f), 1, 7},
        {"at -F/3", -third, 0, 6},
        {"steep down", -40.0f, 0, 6},
        {"NaN: cos(NaN) makes every mean NaN, never nearer", nan, 1, 0},
    };
}

TEST(BrakeFront, SearchesTheBandsOfThePitchCase)
{
    // Given an obstacle in one 40-row band only (column block 5), a flying
    // front camera sees it exactly when the band is among those of its pitch.
    struct Frame {
        cv::Size size;
        float fov;
        float rowBlocks;
    };
    for (const Frame& frame : {Frame{kTall, 65.0f, 16.0f}, Frame{kWide, 49.0f, 13.6f}}) {
        const cv::Mat Q = rigQ(frame.size);
        for (int type : kTypes) {
            for (const BandCase& c : bandCases(frame.fov, frame.rowBlocks)) {
                for (int band = 0; band < 10; ++band) {
                    cv::Mat map = invalidMap(type, frame.size);
                    paint(map, cv::Rect(200, 40 * band, 40, 40), disparityFor(Q, 4.0));
                    ManualClock time;
                    Brake brake(Common::FRONT, time.clock());
                    measure(brake, time, flight(c.pitch), map, Q);
                    const bool searched = band >= c.first && band <= c.last;
                    EXPECT_EQ(brake.dis_ori_z < 60.0f, searched)
                        << frame.size << " " << typeName(type) << " " << c.name << ", band " << band;
                }
            }
        }
    }
}

TEST(BrakeFront, NotFlyingOnlyTheWindowAboveLeftOfTheCentreCounts)
{
    // 640 x 480: the window is rows 280..319, columns 200..239. It needs more
    // than 400 points. Anything elsewhere, also in the lower right quarter
    // around the centre and in the searched bands, is not seen.
    const cv::Mat Q = rigQ(kTall);
    const cv::Rect window(200, 280, 40, 40);
    struct Case {
        const char* name;
        cv::Rect area;
        uint32_t arm;
        bool seen;
    };
    const Case cases[] = {
        {"window, disarmed", window, 0, true},
        {"window, armOrDisarm 3", window, 3, true},
        {"lower right of centre", cv::Rect(240, 320, 40, 40), 0, false},
        {"searched band, not flying", cv::Rect(80, 40, 40, 40), 0, false},
        {"searched band, flying 1", cv::Rect(80, 40, 40, 40), 1, true},
        {"searched band, flying 2", cv::Rect(80, 40, 40, 40), 2, true},
        {"400 points", cv::Rect(200, 280, 40, 10), 0, false},
        {"401 points", cv::Rect(200, 280, 40, 10), 0, true},
    };
    for (int type : kTypes) {
        for (const Case& c : cases) {
            cv::Mat map = invalidMap(type, kTall);
            paint(map, c.area, disparityFor(Q, 5.0));
            if (std::string(c.name) == "401 points") {
                paint(map, cv::Rect(200, 290, 1, 1), disparityFor(Q, 5.0));
            }
            ManualClock time;
            Brake brake(Common::FRONT, time.clock());
            measure(brake, time, flight(0.0f, 0.0f, c.arm), map, Q);
            EXPECT_EQ(brake.dis_ori_z < 60.0f, c.seen) << typeName(type) << " " << c.name;
            EXPECT_EQ(brake.getFrountArea().empty(), !c.seen) << typeName(type) << " " << c.name;
            // The centre keeps its crossed initial halves unless a block is chosen.
            if (c.arm == 0 || c.arm == 3) {
                EXPECT_EQ(brake.targetX, 320.0f);
                EXPECT_EQ(brake.targetY, 240.0f);
            }
        }
    }
}

TEST(BrakeFront, WideFrameSwitchesTheFieldOfViewForGood)
{
    // At pitch 20, F = 65 searches bands 3..8; once a 544 x 640 frame has been
    // measured F = 49 and the same 640 x 480 frame is searched in bands 3..9.
    const cv::Mat tallQ = rigQ(kTall);
    cv::Mat band9 = invalidMap(CV_32F, kTall);
    paint(band9, cv::Rect(200, 360, 40, 40), disparityFor(tallQ, 4.0));
    ManualClock time;
    Brake brake(Common::FRONT, time.clock());
    measure(brake, time, flight(20.0f), band9, tallQ);
    EXPECT_EQ(brake.fovVertical, 65.0f);
    EXPECT_EQ(brake.dis_ori_z, 60.0f);
    brake.update();
    measure(brake, time, flight(20.0f), invalidMap(CV_16S, kWide), rigQ(kWide));
    EXPECT_EQ(brake.fovVertical, 49.0f);
    brake.update();
    for (int i = 0; i < 2; ++i) {
        measure(brake, time, flight(20.0f), band9, tallQ);
        EXPECT_EQ(brake.fovVertical, 49.0f);
        EXPECT_LT(brake.dis_ori_z, 60.0f);
        brake.update();
    }
}

TEST(BrakeFront, OtherFrameSizesUseTheirOwnBlockCounts)
{
    // 400 x 300 (rows x columns): colBlocks 7.5, so column blocks 2..5 only;
    // a block at column block 6 is not searched. 200 x 160: colBlocks 4, no
    // search at all.
    const cv::Size size(300, 400);
    const cv::Mat Q = rigQ(size);
    for (int type : kTypes) {
        for (int block : {2, 5, 6}) {
            cv::Mat map = invalidMap(type, size);
            paint(map, cv::Rect(40 * block, 80, 40, 40), disparityFor(Q, 4.0));
            ManualClock time;
            Brake brake(Common::FRONT, time.clock());
            measure(brake, time, flight(0.0f), map, Q);
            EXPECT_EQ(brake.dis_ori_z < 60.0f, block <= 5) << typeName(type) << " block " << block;
        }
        ManualClock time;
        Brake brake(Common::FRONT, time.clock());
        measure(brake, time, flight(0.0f), planeMap(type, cv::Size(160, 200), rigQ(cv::Size(160, 200)), 4.0),
                rigQ(cv::Size(160, 200)));
        EXPECT_EQ(brake.dis_ori_z, 60.0f);
    }
}

// -------------------------------------------------------------------- down

TEST(BrakeDown, FixedGridIgnoresPitchAndFlyingState)
{
    // An obstacle filling grid block (band 2, column block 1) is measured
    // whatever the pitch and flying state; the cosine still applies.
    for (const cv::Size size : {kTall, kWide}) {
        const cv::Mat Q = rigQ(size);
        const int s = size.height / 16;
        for (int type : kTypes) {
            cv::Mat map = invalidMap(type, size);
            paint(map, cv::Rect(5 * s, 6 * s, s, s), disparityFor(Q, 5.0));
            for (float pitch : {0.0f, 30.0f, -30.0f, 50.0f}) {
                for (uint32_t arm : {0u, 1u}) {
                    ManualClock time;
                    Brake brake(Common::DOWN, time.clock());
                    measure(brake, time, flight(pitch, 0.0f, arm), map, Q);
                    const double expected = 5.0 * std::cos(pitch * M_PI / 180.0);
                    EXPECT_NEAR(brake.dis_ori_z, expected, 0.005 * expected)
                        << size << " " << typeName(type) << " pitch " << pitch << " arm " << arm;
                    EXPECT_EQ(brake.getFrountArea(), pointsOf(cv::Rect(5 * s, 6 * s, s, s)));
                    EXPECT_EQ(brake.fovVertical, 65.0f);  // the down camera never changes it
                }
            }
        }
    }
}

TEST(BrakeDown, ObstacleOutsideTheGridIsNotMeasured)
{
    // The grid covers rows 4s..12s-1 and columns 4s..8s-1; a full block just
    // outside each edge is not seen, the block just inside is.
    for (const cv::Size size : {kTall, kWide}) {
        const cv::Mat Q = rigQ(size);
        const int s = size.height / 16;
        struct Case {
            cv::Rect area;
            bool seen;
        };
        const Case cases[] = {
            {cv::Rect(4 * s, 3 * s, s, s), false},   // above
            {cv::Rect(4 * s, 4 * s, s, s), true},    // top left block
            {cv::Rect(4 * s, 12 * s, s, s), false},  // below
            {cv::Rect(4 * s, 11 * s, s, s), true},   // bottom band
            {cv::Rect(3 * s, 6 * s, s, s), false},   // left
            {cv::Rect(8 * s, 6 * s, s, s), false},   // right
            {cv::Rect(7 * s, 6 * s, s, s), true},    // last column block
        };
        for (int type : kTypes) {
            for (const Case& c : cases) {
                cv::Mat map = invalidMap(type, size);
                paint(map, c.area, disparityFor(Q, 3.0));
                ManualClock time;
                Brake brake(Common::DOWN, time.clock());
                measure(brake, time, flight(0.0f), map, Q);
                EXPECT_EQ(brake.dis_ori_z < 60.0f, c.seen) << size << " " << typeName(type) << " " << c.area;
            }
        }
    }
}

// ------------------------------------------------ blind area and direction

TEST(BrakeBlindArea, CloseObstacleAndSteepBackwardFlightGiveSixty)
{
    const cv::Mat Q = rigQ(kTall);
    struct Case {
        const char* name;
        double depthM;
        float pitch;
        float headSpeed;
        bool forced;
    };
    const Case cases[] = {
        {"0.5 m", 0.5, 0.0f, 0.0f, true},
        {"0.8 m", 0.8, 0.0f, 0.0f, false},
        {"backwards, pitch -10.5", 5.0, -10.5f, -0.5f, true},
        {"backwards, pitch -10", 5.0, -10.0f, -0.5f, false},
        {"forwards, pitch -30", 5.0, -30.0f, 0.5f, false},
        {"hovering, pitch -30", 5.0, -30.0f, 0.0f, false},
    };
    for (const Case& c : cases) {
        for (auto direction : {Common::FRONT, Common::DOWN}) {
            ManualClock time;
            Brake brake(direction, time.clock());
            measure(brake, time, flight(c.pitch, c.headSpeed), planeMap(CV_32F, kTall, Q, c.depthM), Q);
            EXPECT_LT(brake.dis_ori_z, 60.0f) << c.name;
            EXPECT_EQ(brake.distance_ori == 60.0f, c.forced) << c.name << " " << Common::binoString(direction);
        }
    }
}

// ------------------------------------------------------------ mismatch check

TEST(BrakeMismatch, SparseMapWithOneSolidPatchIsAMismatch)
{
    // Quarter scale of 640 x 480 is 160 x 120. A 40 x 40 patch of raw 300
    // (10 x 10 at quarter scale, 0.5 % of the map) in an otherwise empty map
    // is a mismatch, whether "empty" is 0 or invalid (-1 reads 65535 as
    // CV_16S, and 0 after saturation as CV_32F). An all-zero map, scattered
    // points without a solid patch, a patch too thin for 5 x 5 at quarter
    // scale, values beyond 1,024, and a patch in a map with more than 7 %
    // non-zero are not.
    const cv::Mat Q = rigQ(kTall);
    struct Case {
        const char* name;
        double background;
        double patchValue;
        cv::Rect patch;
        int scatterEvery;  // px between single pixels of 300; 0 = none
        bool mismatch;
    };
    const Case cases[] = {
        {"patch on zero", 0, 300, cv::Rect(200, 280, 40, 40), 0, true},
        {"patch on invalid", -1, 300, cv::Rect(200, 280, 40, 40), 0, true},
        {"patch of 65", 0, 65, cv::Rect(200, 280, 40, 40), 0, true},
        {"patch of 64", 0, 64, cv::Rect(200, 280, 40, 40), 0, false},
        {"patch of 1025", 0, 1025, cv::Rect(200, 280, 40, 40), 0, false},
        {"all zero", 0, 0, cv::Rect(), 0, false},
        {"all invalid", -1, 0, cv::Rect(), 0, false},
        {"thin patch", 0, 300, cv::Rect(200, 280, 40, 12), 0, false},
        {"scattered", 0, 0, cv::Rect(), 10, false},
        {"patch in a dense map", 0, 300, cv::Rect(200, 280, 40, 40), 3, false},
    };
    for (int type : kTypes) {
        for (const Case& c : cases) {
            cv::Mat map(kTall, type, cv::Scalar(c.background));
            if (c.scatterEvery > 0) {
                for (int y = 0; y < map.rows; y += c.scatterEvery) {
                    for (int x = 0; x < map.cols; x += c.scatterEvery) {
                        paint(map, cv::Rect(x, y, 1, 1), 300);
                    }
                }
            }
            if (!c.patch.empty()) {
                paint(map, c.patch, c.patchValue);
            }
            ManualClock time;
            Brake brake(Common::FRONT, time.clock());
            measure(brake, time, flight(0.0f), map, Q);
            EXPECT_EQ(brake.faultDetectFlagOfTen, c.mismatch) << typeName(type) << " " << c.name;
            EXPECT_EQ(brake.mismatchFlag, c.mismatch) << typeName(type) << " " << c.name;
            EXPECT_EQ(brake.getLogline()[17], c.mismatch ? "1" : "0");
        }
    }
}

TEST(BrakeMismatch, MapTooSmallForThePatchIsNoMismatch)
{
    // Below 20 columns or rows the quarter-scale map is smaller than the
    // 5 x 5 patch: no mismatch, nothing read outside the map. An 80 x 80 map
    // with a 20 x 20 patch (5 x 5 of 20 x 20 at quarter scale) is checked like
    // any other.
    for (int type : kTypes) {
        for (const cv::Size size : {cv::Size(19, 100), cv::Size(100, 19), cv::Size(3, 3), cv::Size(0, 0)}) {
            cv::Mat map(size, type, cv::Scalar(0));
            paint(map, cv::Rect(0, 0, std::min(size.width, 8), std::min(size.height, 8)), 300);
            ManualClock time;
            Brake brake(Common::DOWN, time.clock());
            measure(brake, time, flight(0.0f), map, rigQ(kTall));
            EXPECT_FALSE(brake.faultDetectFlagOfTen) << size;
        }
        cv::Mat small(80, 80, type, cv::Scalar(0));
        paint(small, cv::Rect(20, 20, 20, 20), 300);
        Brake brake(Common::DOWN);
        brake.dealHighAltitudeMismatch(small);
        EXPECT_TRUE(brake.faultDetectFlagOfTen) << typeName(type);
    }
}

// ------------------------------------------------------------------- filters

// A flight on the front camera with a clock the test moves: 50 ms from the
// flight state to the measurement, 50 ms to the next frame.
class Flight {
public:
    Flight() : brake(Common::FRONT, time.clock()), Q(rigQ(kTall)) {}

    // One frame at `depthM` (0: clear sky); returns the measured raw distance.
    float frame(double depthM, float pitch = 0.0f, float headSpeed = 0.0f)
    {
        return frameWith(depthM > 0 ? planeMap(CV_32F, kTall, Q, depthM) : invalidMap(CV_32F, kTall), pitch, headSpeed);
    }

    float frameWith(const cv::Mat& map, float pitch = 0.0f, float headSpeed = 0.0f)
    {
        measure(brake, time, flight(pitch, headSpeed), map, Q);
        // The dormant fault rejection passes its input through on every frame.
        EXPECT_EQ(std::memcmp(&brake.disRejectFaultDetect, &brake.distanceFiltered_outlier, sizeof(float)), 0);
        const float raw = brake.distance_ori;
        brake.update();
        time.now += 50;
        return raw;
    }

    // Past the five start-up frames, tracking clear sky.
    void start()
    {
        for (int i = 0; i < 6; ++i) {
            frame(0);
        }
        ASSERT_TRUE(brake.outlierTracking);
    }

    float out() const { return brake.distanceFiltered_outlier; }

    ManualClock time;
    Brake brake;
    cv::Mat Q;
};

// The smoothing of a change of at most 3 m, in single precision.
float smoothed(float previous, float measured)
{
    const float e = measured - previous;
    const float g = std::exp(-0.5f * ((e * 0.16666667f) * (e * 0.16666667f)));
    return std::fabs(previous + e * 0.39904344f * g);
}

TEST(BrakeFilters, FirstFiveMeasuredFramesReportSixty)
{
    Flight f;
    for (int i = 1; i <= 5; ++i) {
        f.frame(5.0);
        EXPECT_EQ(f.out(), 60.0f) << "frame " << i;
        EXPECT_EQ(f.brake.getDistance(), 60.0f);
        EXPECT_EQ(f.brake.distanceFiltered_poseoutlier, 60.0f);  // outlier writes its result back
    }
    const float raw = f.frame(5.0);
    EXPECT_EQ(f.out(), raw);
    EXPECT_EQ(f.brake.getDistance(), raw);
}

TEST(BrakeFilters, NewObstacleAfterClearSkyIsReportedOnTheSixthFrame)
{
    Flight f;
    f.start();
    for (int i = 1; i <= 5; ++i) {
        f.frame(8.0);
        EXPECT_EQ(f.out(), 60.0f) << "frame " << i;
        EXPECT_EQ(f.brake.countmax, i);
        EXPECT_EQ(f.brake.getLogline()[8], std::to_string(i));
    }
    const float raw = f.frame(8.0);
    EXPECT_EQ(f.out(), raw);
    EXPECT_EQ(f.brake.countmax, 0);
    // An interrupted run starts over.
    Flight g;
    g.start();
    for (int i = 0; i < 3; ++i) {
        g.frame(8.0);
    }
    g.frame(0);
    EXPECT_EQ(g.brake.countmax, 0);
    g.frame(8.0);
    EXPECT_EQ(g.out(), 60.0f);
    EXPECT_EQ(g.brake.countmax, 1);
}

TEST(BrakeFilters, ClearFramesHoldTheLastDistanceFifteenTimes)
{
    Flight f;
    f.frame(5.0);
    for (int i = 0; i < 5; ++i) {
        f.frame(5.0);
    }
    const float held = f.out();
    ASSERT_LT(held, 60.0f);
    // One clear frame between two obstacle frames changes nothing visible.
    f.frame(0);
    EXPECT_EQ(f.out(), held);
    f.frame(5.0);
    EXPECT_EQ(f.out(), smoothed(held, f.brake.distance_ori));
    const float last = f.out();
    for (int i = 1; i <= 15; ++i) {
        f.frame(0);
        EXPECT_EQ(f.out(), last) << "clear frame " << i;
    }
    f.frame(0);
    EXPECT_EQ(f.out(), 60.0f) << "clear frame 16";
}

TEST(BrakeFilters, SmallChangesAreSmoothedLargeOnesTakenAtOnce)
{
    Flight f;
    for (int i = 0; i < 6; ++i) {
        f.frame(10.0);
    }
    float previous = f.out();
    struct Step {
        double depthM;
        bool smoothedStep;
    };
    for (const Step& step :
         {Step{12.0, true}, Step{12.5, true}, Step{16.0, false}, Step{13.5, true}, Step{9.0, false}, Step{6.0, true}}) {
        const float raw = f.frame(step.depthM);
        const float expected = step.smoothedStep ? smoothed(previous, raw) : raw;
        EXPECT_EQ(f.out(), expected) << step.depthM << " m after " << previous;
        EXPECT_EQ(std::fabs(raw - previous) <= 3.0f, step.smoothedStep);
        previous = f.out();
    }
}

TEST(BrakeFilters, MismatchFrameMakesTheNextTwoStartFromSixty)
{
    // While tracking 5 m, a mismatch frame (sparse map with a solid patch)
    // holds 5 m. The next frame starts from 60, so its 5.5 m is a jump taken
    // as it is, not smoothed from 5 m, and the reference becomes 60. The
    // frame after starts from 60 too: with the reference at 60 its obstacle
    // is new again, suppressed for five frames and reported on the sixth.
    Flight f;
    for (int i = 0; i < 6; ++i) {
        f.frame(5.0);
    }
    const float tracked = f.out();
    cv::Mat mismatch(kTall, CV_32F, cv::Scalar(0));
    mismatch(cv::Rect(200, 280, 40, 40)).setTo(300.0);
    f.frameWith(mismatch);
    EXPECT_TRUE(f.brake.faultDetectFlagOfTen);
    EXPECT_EQ(f.out(), tracked);
    const float raw = f.frame(5.5);
    EXPECT_EQ(f.out(), raw);
    EXPECT_NE(f.out(), smoothed(tracked, raw));
    for (int i = 1; i <= 5; ++i) {
        f.frame(5.5);
        EXPECT_EQ(f.out(), 60.0f) << "frame " << i + 1 << " after the mismatch";
        EXPECT_EQ(f.brake.countmax, i);
    }
    EXPECT_EQ(f.out(), 60.0f);
    f.frame(5.5);
    EXPECT_EQ(f.out(), raw);
    // Without the mismatch frame the same 5.5 m would have been smoothed.
    Flight g;
    for (int i = 0; i < 6; ++i) {
        g.frame(5.0);
    }
    g.frame(0);
    g.frame(5.5);
    EXPECT_EQ(g.out(), smoothed(tracked, raw));
}

TEST(BrakeFilters, DeadReckoningIgnoresMeasurementsUntilPitchIsBackAt25)
{
    // Forward at 2 m/s, 50 ms from flight state to measurement: each frame
    // moves the prediction on by 2 x 50 x 0.001 m.
    Flight f;
    for (int i = 0; i < 6; ++i) {
        f.frame(15.0, 0.0f, 2.0f);
    }
    EXPECT_FALSE(f.brake.missedPredictActive);
    const float raw = f.frame(15.0, 30.0f, 2.0f);
    EXPECT_TRUE(f.brake.missedPredictActive);
    EXPECT_FALSE(f.brake.missedPredictIdle);
    float expected = static_cast<float>(f.brake.disRejectFaultDetect - 2.0f * 50.0f * 0.001);
    EXPECT_EQ(f.brake.getDistance(), expected);
    EXPECT_NE(f.brake.getDistance(), raw);
    for (double depthM : {14.0, 40.0, 0.0, 25.5}) {
        const float before = f.brake.getDistance();
        f.frame(depthM, 26.0f, 2.0f);
        expected = static_cast<float>(before - 2.0f * 50.0f * 0.001);
        EXPECT_EQ(f.brake.getDistance(), expected) << depthM << " m ignored";
    }
    f.frame(14.0, 25.0f, 2.0f);
    EXPECT_FALSE(f.brake.missedPredictActive);
    EXPECT_TRUE(f.brake.missedPredictIdle);
    EXPECT_EQ(f.brake.getDistance(), f.brake.disRejectFaultDetect);
}

TEST(BrakeFilters, NotFlyingForwardNeverPredicts)
{
    // Sideways (rightSpeed dominant) at pitch 30 with 15 m: no dead reckoning.
    Flight f;
    for (int i = 0; i < 6; ++i) {
        f.frame(15.0);
    }
    Common::FlyInfo info = flight(30.0f, 0.1f);
    info.rightSpeed = 2.0f;
    measure(f.brake, f.time, info, planeMap(CV_32F, kTall, f.Q, 15.0), f.Q);
    EXPECT_FALSE(f.brake.missedPredictActive);
    EXPECT_EQ(f.brake.getDistance(), f.brake.disRejectFaultDetect);
}

TEST(BrakeFilters, FarDistanceAtSteepOrFastRisingPitchIsMovedOnFromTheLastOne)
{
    // Tracking 30 m at 2 m/s, a 55 m frame (beyond 45 m) is replaced by the
    // previous raw distance moved on by 2 m/s x 50 ms when the pitch is above
    // 25 degrees or positive and rising faster than 50 degrees/s; the filter
    // then smooths towards that value. Otherwise the 55 m is a jump taken as
    // it is.
    struct Case {
        const char* name;
        float pitchBefore;
        float pitch;
        bool corrected;
    };
    const Case cases[] = {
        {"pitch 26", 26.0f, 26.0f, true},
        {"rising fast", 0.0f, 10.0f, true},  // 10 degrees in 50 ms: 200 degrees/s
        {"rising slowly", 10.0f, 11.0f, false},
        {"level", 0.0f, 0.0f, false},
        {"falling fast", 0.0f, -20.0f, false},
    };
    for (const Case& c : cases) {
        Flight f;
        for (int i = 0; i < 7; ++i) {
            f.frame(30.0, c.pitchBefore, 2.0f);
        }
        const float last = f.brake.distance_ori;
        const float previous = f.out();
        const float raw = f.frame(55.0, c.pitch, 2.0f);
        const float expected = c.corrected ? smoothed(previous, static_cast<float>(last - 2.0f * 50.0f * 0.001)) : raw;
        EXPECT_EQ(f.out(), expected) << c.name;
    }
}

TEST(BrakeFilters, PitchRateNeedsMoreThan20Milliseconds)
{
    ManualClock time;
    Brake brake(Common::FRONT, time.clock());
    const cv::Mat Q = rigQ(kTall);
    brake.setFlyInfo(flight(4.0f));
    time.now += 20;
    brake.setDisparity(invalidMap(CV_16S, kTall), Q);
    EXPECT_EQ(brake.timeuse, 20.0f);
    EXPECT_EQ(brake.pitch_rate, 0.0f);
    brake.update();
    brake.setFlyInfo(flight(-1.0f));
    EXPECT_EQ(brake.pitchDelta, -5.0f);
    time.now += 25;
    brake.setDisparity(invalidMap(CV_16S, kTall), Q);
    EXPECT_EQ(brake.timeuse, 25.0f);
    EXPECT_FLOAT_EQ(brake.pitch_rate, 200.0f);
    EXPECT_EQ(brake.frameTick, time.now);
}

TEST(BrakeFilters, MeetSpeedStopsOnlyBeyondOneMetrePerSecondBackwards)
{
    Brake brake(Common::FRONT);
    EXPECT_FALSE(brake.meetSpeed());  // nothing known yet
    for (float speed : {0.0f, 5.0f, -0.99f, std::nextafter(-1.0f, 0.0f)}) {
        brake.setFlyInfo(flight(0.0f, speed));
        EXPECT_TRUE(brake.meetSpeed()) << speed;
    }
    for (float speed : {-1.0f, -1.5f}) {
        brake.setFlyInfo(flight(0.0f, speed));
        EXPECT_FALSE(brake.meetSpeed()) << speed;
    }
}

TEST(BrakeFilters, SmallDistanceFlagOnTheThirdQualifyingUpdate)
{
    Flight f;
    for (int i = 0; i < 6; ++i) {
        f.frame(5.0, 0.0f, 1.0f);  // the sixth reports 5 m
    }
    ASSERT_LE(f.brake.getDistance(), 6.0f);
    // setFlyInfo sees the previous frame's distance.
    f.brake.setFlyInfo(flight(0.0f, 3.0f));
    EXPECT_EQ(f.brake.smallDisCount, 1);
    EXPECT_FALSE(f.brake.smallDistanceFlag);
    f.brake.setFlyInfo(flight(0.0f, -3.0f));
    EXPECT_FALSE(f.brake.smallDistanceFlag);
    f.brake.setFlyInfo(flight(0.0f, 2.0f));
    EXPECT_TRUE(f.brake.smallDistanceFlag);
    EXPECT_EQ(f.brake.getLogline()[16], "1");
    f.brake.setFlyInfo(flight(0.0f, 1.0f));
    EXPECT_TRUE(f.brake.smallDistanceFlag);
    f.brake.setFlyInfo(flight(0.0f, 3.5f));  // too fast
    EXPECT_FALSE(f.brake.smallDistanceFlag);
    EXPECT_EQ(f.brake.smallDisCount, 0);
    for (int i = 0; i < 3; ++i) {
        f.brake.setFlyInfo(flight(0.0f, 0.0f));
    }
    EXPECT_TRUE(f.brake.smallDistanceFlag);
    f.brake.reset();  // 60 m is too far
    f.brake.setFlyInfo(flight(0.0f, 0.0f));
    EXPECT_FALSE(f.brake.smallDistanceFlag);
}

TEST(BrakeFilters, FaultRejectionPassesItsInputThroughOnEverySequence)
{
    // Random flights over random distances: the dormant stage never differs
    // from its input (Flight checks it on every frame).
    cv::RNG rng(14);
    Flight f;
    for (int i = 0; i < 200; ++i) {
        const double depth = rng.uniform(0, 4) == 0 ? 0.0 : rng.uniform(0.5, 70.0);
        f.frame(depth, static_cast<float>(rng.uniform(-40.0, 40.0)), static_cast<float>(rng.uniform(-0.9, 6.0)));
    }
    EXPECT_EQ(f.brake.faultCount, 0);
}

TEST(BrakeFilters, ResetSetsTheStageOutputsToSixtyAndKeepsTheRest)
{
    Flight f;
    for (int i = 0; i < 7; ++i) {
        f.frame(5.0);
    }
    f.frame(0);
    const float raw = f.brake.dis_ori_z;
    const int hold = f.brake.holdCount;
    f.brake.reset();
    for (float value :
         {f.brake.distance_ori, f.brake.lastDistanceOri, f.brake.distanceFiltered_poseoutlier, f.brake.lastPoseOutlier,
          f.brake.distanceFiltered_outlier, f.brake.disRejectFaultDetect, f.brake.getDistance()}) {
        EXPECT_EQ(value, 60.0f);
    }
    EXPECT_EQ(f.brake.dis_ori_z, raw);
    EXPECT_EQ(f.brake.holdCount, hold);
    EXPECT_TRUE(f.brake.outlierTracking);
}

TEST(BrakeFilters, FlightDirectionCodes)
{
    struct Case {
        float x, y, z;
        Brake::FlyDirect expected;
    };
    const Case cases[] = {
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
    for (const Case& c : cases) {
        EXPECT_EQ(Brake::analysisFlyDirect(c.x, c.y, c.z), c.expected) << c.x << " " << c.y << " " << c.z;
    }
}

// ------------------------------------------------------------------- record

TEST(BrakeRecord, HeaderNames23ColumnsEachEndedByATab)
{
    Brake brake(Common::DOWN);
    const std::string header = brake.getLogHeader();
    EXPECT_EQ(header,
              "pitch\theadSpeed\trightSpeed\tverticalSpeed\theight\tarmOrDisarm\ttimeuse\tpitch_rate\tcountmax\t"
              "dis_ori_z\tdistance_ori\tdistanceFiltered_poseoutlier\tdistanceFiltered_outlier\t"
              "disRejectFaultDetect\tdistanceFiltered_app\tmeetSpeedFlag\tsmallDistanceFlag\t"
              "faultDetectFlagOfTen\tangle_x\tangle_y\tis_passable\ttimestampL\ttimestampR\t\n");
    EXPECT_EQ(std::count(header.begin(), header.end(), '\t'), 23);
    EXPECT_EQ(std::count(header.begin(), header.end(), '\n'), 1);
}

TEST(BrakeRecord, LineHas21ColumnsInFloatOrIntForm)
{
    const std::regex floatForm("-?[0-9]+\\.[0-9]{6}");
    const std::regex intForm("-?[0-9]+");
    const std::vector<int> intColumns = {6, 9, 16, 17, 18};
    ManualClock time;
    Brake brake(Common::FRONT, time.clock());
    Common::FlyInfo info = flight(-12.5f, 0.25f, 2);
    info.rightSpeed = -1.5f;
    info.verticalSpeed = 0.125f;
    info.height = 42.0f;
    measure(brake, time, info, planeMap(CV_16S, kTall, rigQ(kTall), 5.0), rigQ(kTall));
    brake.getTargetRegionFromBrake(cv::Vec3f(1.5f, -2.25f, 1.0f));
    const std::vector<std::string> line = brake.getLogline();
    ASSERT_EQ(line.size(), 21u);
    for (size_t i = 0; i < line.size(); ++i) {
        const bool isInt = std::find(intColumns.begin(), intColumns.end(), static_cast<int>(i + 1)) != intColumns.end();
        EXPECT_TRUE(std::regex_match(line[i], isInt ? intForm : floatForm)) << "column " << i + 1 << ": " << line[i];
    }
    const std::vector<std::string> expected = {"-12.500000", "0.250000",  "-1.500000",  "0.125000", "42.000000",
                                               "2",          "50.000000", "250.000000", "0"};
    EXPECT_EQ(std::vector<std::string>(line.begin(), line.begin() + 9), expected);
    EXPECT_EQ(line[15], "1");
    EXPECT_EQ(line[18], "1.500000");
    EXPECT_EQ(line[19], "-2.250000");
    EXPECT_EQ(line[20], "1.000000");
}

TEST(BrakeRecord, FreshBrakeWithAnUnmeasuredFirstFrameShowsSixties)
{
    ManualClock time;
    Brake brake(Common::FRONT, time.clock());
    measure(brake, time, flight(3.0f, -2.0f), cv::Mat(), cv::Mat());
    ASSERT_FALSE(brake.meetSpeed());
    brake.getTargetRegionFromBrake(cv::Vec3f(0, 0, 0));
    const std::vector<std::string> line = brake.getLogline();
    ASSERT_EQ(line.size(), 21u);
    for (int column = 10; column <= 15; ++column) {
        EXPECT_EQ(line[column - 1], "60.000000") << "column " << column;
    }
    EXPECT_EQ(line[6], "0.000000");   // timeuse: never measured
    EXPECT_EQ(line[7], "0.000000");   // pitch_rate
    EXPECT_EQ(line[8], "0");          // countmax
    EXPECT_EQ(line[15], "0");         // meetSpeedFlag
    EXPECT_EQ(line[17], "0");         // faultDetectFlagOfTen
    EXPECT_EQ(line[18], "0.000000");  // angle_x
    EXPECT_TRUE(brake.getFrountArea().empty());
    EXPECT_EQ(brake.targetX, 0.0f);
    EXPECT_EQ(brake.imageWidth, 0);
}

TEST(BrakeRecord, ConstructionLogsTheStartLine)
{
    testsupport::LogCapture log;
    Brake front(Common::FRONT);
    Brake down(Common::DOWN);
    const auto records = log.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].message, "[BINOLIB] [front] Brake: start ");
    EXPECT_EQ(records[1].message, "[BINOLIB] [down] Brake: start ");
    EXPECT_EQ(records[0].level, binolog::INFO);
    EXPECT_EQ(records[0].file, "src/brake.cpp");
    EXPECT_EQ(front.logPrefix, "[BINOLIB] [front]");
}

// ------------------------------------------------------------ horizontal window

TEST(BrakeHorizontalWindow, FarOffCentreBlockGivesTheLastDistanceLessSixtyCentimetres)
{
    Brake brake(Common::FRONT);
    brake.imageWidth = 480;
    brake.lastDistanceOri = 7.0f;
    struct Case {
        float disOriZ;
        float targetX;
        float expected;
    };
    // offset = trunc(targetX - 240) x dis_ori_z / 505.
    const Case cases[] = {
        {5.0f, 240.0f + 304.0f, static_cast<float>(7.0f - 0.6)},  // 304 x 5 / 505 = 3.0099
        {5.0f, 240.0f + 303.0f, 5.0f},                            // 2.9999
        {5.0f, 240.0f - 304.9f, static_cast<float>(7.0f - 0.6)},  // trunc(-304.9) = -304
        {12.0f, 0.0f, 12.0f},                                     // 10 m and beyond: unchanged
    };
    for (const Case& c : cases) {
        brake.dis_ori_z = c.disOriZ;
        brake.targetX = c.targetX;
        brake.dealHorizontalWindow();
        EXPECT_EQ(brake.distance_ori, c.expected) << c.targetX;
    }
}

}  // namespace
