// Brake's chain against the straightforward reading (brake_reference), bit for
// bit, on maps with obstacles on the rules' edges (band limits, point counts of
// a block and of the centre window, the down grid's border) at each frame size,
// both types and cameras, through flights that visit every pitch case. One Twin
// per type and camera runs the table as one sequence, so the filters carry
// their history and the 49 degree view, once a 544 x 640 frame was measured,
// applies to the tall frames after it; then the uncalibrated identity Q. Random
// maps, bit patterns, sizes and matrices are fuzz/fuzz_brake.cpp's.

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "brake_maps.h"
#include "brake_reference.h"

namespace {

using namespace brakemaps;

enum Kind { kWall, kLadderUp, kLadderDown, kFrontCounts, kDownGrid, kMismatch };

cv::Mat scene(Kind kind, int type, cv::Size size, cv::RNG& rng)
{
    const auto px = [Q = rigQ(size)](double m) { return disparityFor(Q, m); };
    cv::Mat map = invalidMap(type, size);
    const int s = size.height / 16;  // the down grid's block
    const cv::Rect window(size.width / 2 - 40, size.height / 2 - 40, 40, 40);
    switch (kind) {
        case kWall: {  // a matcher's map: 1/64 px steps (whole px for CV_16S), 2 % holes
            cv::Mat_<double> wall(size);
            for (double& d : wall) {
                d = rng.uniform(0.0, 1.0) < 0.02 ? -1.0 : std::round((px(7.0) + rng.gaussian(0.3)) * 64) / 64;
            }
            wall.convertTo(map, type);
            break;
        }
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
        case kMismatch:  // one solid patch in an empty map (0, or -1 read as 65535)
            map.setTo(type == CV_16S ? -1 : 0);
            fill(map, window, 300.0);
    }
    return map;
}

// Level, steep, backward into the blind area, the window of a camera not
// flying, a pitch no flight controller should send, too fast backwards.
const std::vector<Common::FlyInfo> kFlights = {flight(0.0f, 1.5f),    flight(26.0f, 2.0f),   flight(-10.5f, -0.5f),
                                               flight(5.0f, 0.0f, 0), flight(5.0f, 0.0f, 3), flight(NAN, 1.5f, 2),
                                               flight(0.0f, -1.5f)};

// Each pitch case and its boundaries for both views: F/3 is F x 0.33333334f,
// the low boundary 2F / rowBlocks for the tall and the wide frame.
std::vector<Common::FlyInfo> bandFlights()
{
    std::vector<Common::FlyInfo> result = {flight(40.0f, 1.5f)};
    for (float boundary : {65.0f * 0.33333334f, 49.0f * 0.33333334f, 2 * 65.0f / 16.0f, 2 * 49.0f / 13.6f}) {
        for (float pitch : {boundary, std::nextafter(boundary, 0.0f), -boundary, std::nextafter(-boundary, 0.0f)}) {
            result.push_back(flight(pitch, 1.5f));
        }
    }
    return result;
}

TEST(BrakeReference, TableOfMapsSizesAndPitchesAgreesBitForBit)
{
    std::vector<std::pair<cv::Size, cv::Mat>> views;
    for (const cv::Size size : {kTall, {300, 400}, {161, 203}, kWide, kTall}) {
        views.emplace_back(size, rigQ(size));
    }
    views.emplace_back(kTall, cv::Mat::eye(4, 4, CV_32S));
    const std::vector<Common::FlyInfo> bands = bandFlights();
    int frames = 0, measured = 0;
    for (int type : {CV_16S, CV_32F}) {
        cv::RNG rng(7);
        brakeref::Twin front(Common::FRONT), down(Common::DOWN);
        for (const auto& [size, Q] : views) {
            for (int kind = kWall; kind <= kMismatch; ++kind) {
                const cv::Mat map = scene(static_cast<Kind>(kind), type, size, rng);
                for (brakeref::Twin* twin : {&front, &down}) {
                    const bool ladder = twin == &front && (kind == kLadderUp || kind == kLadderDown);  // all bands
                    for (const Common::FlyInfo& f : ladder ? bands : kFlights) {
                        ASSERT_EQ(twin->frame(f, map, Q), "")
                            << Common::binoString(twin->fast.direction) << ", type " << type << " " << size
                            << ", Q depth " << Q.depth() << ", kind " << kind << ", pitch " << f.pitch << ", arm "
                            << f.armOrDisarm;
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
