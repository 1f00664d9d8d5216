// Brake's chain against the straightforward reading (brake_reference), bit for
// bit, on a fixed table: each map kind below at each frame size, both map
// types and both cameras, through flights that visit every pitch case. One
// Twin per type and camera runs the whole table as one sequence, so the
// filters carry their history from frame to frame, and the 49 degree view,
// once a 544 x 640 frame was measured, applies to the tall frames after it.
// The kinds put obstacles on the rules' edges (band limits, point counts of a
// block and of the centre window, the down grid's border), so a rule that
// moves in the chain alone shows here. Random maps and matrices are
// fuzz/fuzz_brake.cpp's.

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <vector>

#include "brake_maps.h"
#include "brake_reference.h"

namespace {

using namespace brakemaps;

enum Kind { kWall, kLadderUp, kLadderDown, kFrontCounts, kDownGrid, kNoise, kMismatch, kNothing, kUnreadable, kKinds };

void set(cv::Mat& map, int y, int x, double px)
{
    if (map.depth() == CV_16S) {
        map.at<int16_t>(y, x) = cv::saturate_cast<int16_t>(px);
    } else {
        map.at<float>(y, x) = static_cast<float>(px);
    }
}

// The first `count` pixels of `area` in row-major order, clipped to the map.
void fill(cv::Mat& map, const cv::Rect& area, double px, int count = std::numeric_limits<int>::max())
{
    for (int y = area.y; y < area.br().y; ++y) {
        for (int x = area.x; x < area.br().x && count > 0; ++x, --count) {
            if (y >= 0 && y < map.rows && x >= 0 && x < map.cols) {
                set(map, y, x, px);
            }
        }
    }
}

cv::Mat scene(Kind kind, int type, cv::Size size, cv::RNG& rng)
{
    const cv::Mat Q = rigQ(size.area() > 0 ? size : cv::Size(10, 10));
    const auto px = [&Q](double m) { return disparityFor(Q, m); };
    cv::Mat map = invalidMap(type, size);
    const int s = size.height / 16;  // the down grid's block
    const cv::Rect window(size.width / 2 - 40, size.height / 2 - 40, 40, 40);
    switch (kind) {
        case kWall:  // a matcher's map: 1/64 px steps (whole px for CV_16S), 2 % holes
            for (int y = 0; y < size.height; ++y) {
                for (int x = 0; x < size.width; ++x) {
                    const double d = std::round((px(7.0) + rng.gaussian(0.3)) * 64) / 64;
                    set(map, y, x, rng.uniform(0.0, 1.0) < 0.02 ? -1.0 : type == CV_16S ? std::round(d) : d);
                }
            }
            break;
        case kLadderUp:  // one block per band, nearer towards the top: the first searched band wins
        case kLadderDown:
            for (int band = 0; band < 16; ++band) {
                fill(map, cv::Rect(200, 40 * band, 40, 40), px(kind == kLadderUp ? 2 + 0.5 * band : 10 - 0.5 * band));
            }
            break;
        case kFrontCounts:  // 1,066 points at 3 m lose to 1,067 at 4 m; the window's 400 (16S) or 401 points
            fill(map, cv::Rect(cv::Point(), size), px(20.0));
            fill(map, cv::Rect(80, 160, 80, 40), -1.0);
            fill(map, cv::Rect(80, 160, 40, 40), px(3.0), 1066);
            fill(map, cv::Rect(120, 160, 40, 40), px(4.0), 1067);
            fill(map, window, -1.0);
            fill(map, window, px(2.5), type == CV_16S ? 400 : 401);
            break;
        case kDownGrid:  // nearer blocks just outside the grid; inside, a block of too few points
            for (const cv::Point& outside : {cv::Point(4, 3), cv::Point(4, 12), cv::Point(3, 6), cv::Point(8, 6)}) {
                fill(map, cv::Rect(outside * s, cv::Size(s, s)), px(1.0));
            }
            fill(map, cv::Rect(4 * s, 4 * s, s, s), px(4.0));
            fill(map, cv::Rect(7 * s, 11 * s, s, s), px(3.0));
            fill(map, cv::Rect(5 * s, 5 * s, s, s), px(2.0), s * s / 3 * 2);
            fill(map, cv::Rect(6 * s, 5 * s, s, s), px(2.5), s * s / 3 * 2 + 1);
            break;
        case kNoise: {  // the whole value range and the floats no matcher should send, in a view with a stride
            cv::Mat whole(size + cv::Size(7, 3), type);
            if (type == CV_16S) {
                rng.fill(whole, cv::RNG::UNIFORM, -32768, 32768);
            } else {
                rng.fill(whole, cv::RNG::UNIFORM, -2.0, 400.0);
                const float oddFloats[] = {NAN, INFINITY, -INFINITY, FLT_MAX, -FLT_MAX, -0.0f, FLT_TRUE_MIN, 1e30f};
                for (int i = 0; i < whole.rows * whole.cols / 10; ++i) {
                    whole.at<float>(rng.uniform(0, whole.rows), rng.uniform(0, whole.cols)) =
                        oddFloats[rng.uniform(0, 8)];
                }
            }
            map = whole(cv::Rect(cv::Point(5, 2), size));
            break;
        }
        case kMismatch:  // one solid patch in an empty map (0, or -1 read as 65535)
            map.setTo(type == CV_16S ? -1 : 0);
            fill(map, window, 300.0);
            break;
        case kNothing:
            break;
        default:  // neither CV_16SC1 nor CV_32FC1
            map = cv::Mat(size, type == CV_16S ? CV_8U : CV_32FC2, cv::Scalar::all(20));
    }
    return map;
}

struct Flight {
    float pitch;
    float headSpeed;
    uint32_t arm;
};

// Level, steep, backward flight into the blind area, the window of a camera
// not flying, a pitch no flight controller should send, too fast backwards.
const std::vector<Flight> kFlights = {{0.0f, 1.5f, 1}, {26.0f, 2.0f, 1}, {-10.5f, -0.5f, 1}, {5.0f, 0.0f, 0},
                                      {5.0f, 0.0f, 3}, {NAN, 1.5f, 2},   {0.0f, -1.5f, 1}};

// Each pitch case and its boundaries for both views: F/3 is F x 0.33333334f,
// the low boundary 2F / rowBlocks for the tall and the wide frame.
std::vector<Flight> bandFlights()
{
    std::vector<Flight> result = {{40.0f, 1.5f, 1}};
    for (float boundary : {65.0f * 0.33333334f, 49.0f * 0.33333334f, 2 * 65.0f / 16.0f, 2 * 49.0f / 13.6f}) {
        for (float pitch : {boundary, std::nextafter(boundary, 0.0f), -boundary, std::nextafter(-boundary, 0.0f)}) {
            result.push_back({pitch, 1.5f, 1});
        }
    }
    return result;
}

TEST(BrakeReference, TableOfMapsSizesAndPitchesAgreesBitForBit)
{
    // Each frame size under the rig's Q, then the tall frame under the 49
    // degree view and under the uncalibrated identity. The front camera
    // meets the ladders at every band boundary.
    std::vector<std::pair<cv::Size, cv::Mat>> views;
    for (const cv::Size size : {kTall, {300, 400}, {161, 203}, {19, 23}, {0, 0}, kWide, kTall}) {
        views.emplace_back(size, rigQ(size.area() > 0 ? size : cv::Size(10, 10)));
    }
    views.emplace_back(kTall, cv::Mat::eye(4, 4, CV_32S));
    const std::vector<Flight> bands = bandFlights();
    int frames = 0;
    int measured = 0;
    for (int type : {CV_16S, CV_32F}) {
        cv::RNG rng(7);
        brakeref::Twin front(Common::FRONT);
        brakeref::Twin down(Common::DOWN);
        for (const auto& [size, Q] : views) {
            for (int kind = 0; kind < kKinds; ++kind) {
                const cv::Mat map = scene(static_cast<Kind>(kind), type, size, rng);
                for (brakeref::Twin* twin : {&front, &down}) {
                    const bool ladder = twin == &front && (kind == kLadderUp || kind == kLadderDown);
                    for (const Flight& f : ladder ? bands : kFlights) {
                        ASSERT_EQ(twin->frame(flight(f.pitch, f.headSpeed, f.arm), map, Q), "")
                            << Common::binoString(twin->fast.direction) << ", type " << type << " " << size
                            << ", Q depth " << Q.depth() << ", kind " << kind << ", pitch " << f.pitch << ", arm "
                            << f.arm;
                        ++frames;
                        measured += twin->fast.dis_ori_z < Brake::kNoObstacle ? 1 : 0;
                    }
                }
            }
        }
    }
    // The table is meant to be measured often, not only to yield 60.
    EXPECT_GT(measured, frames / 3) << measured << " of " << frames;
}

}  // namespace
