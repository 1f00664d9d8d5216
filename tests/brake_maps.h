#pragma once
// Test-only: the rig, the disparity maps and the clock the Brake tests build
// their frames from.

#include <cstdint>

#include <opencv2/core.hpp>

#include "brake.h"

namespace brakemaps {

/// The camera simulator's ideal rig (tools/rigcalibration): f = 400 px,
/// baseline 100 mm, principal point at the image centre.
constexpr double kFocalPx = 400.0;
constexpr double kBaselineMm = 100.0;

/// The two known frame sizes (width x height = columns x rows).
const cv::Size kTall(480, 640);
const cv::Size kWide(640, 544);

/// Q as the frame reader computes it for the rig (cv::stereoRectify, zero
/// disparity at infinity, alpha 0): depth in mm = 40,000 / disparity px.
cv::Mat rigQ(cv::Size size);

/// The disparity in px at which `Q` (of rigQ) puts a point at `depthM`.
double disparityFor(const cv::Mat& Q, double depthM);

/// A map of `type` (CV_16S or CV_32F) with every pixel invalid (-1, -1.0).
cv::Mat invalidMap(int type, cv::Size size);

/// Sets `area` of `map` to `disparityPx` (rounded for CV_16S).
void paint(cv::Mat& map, const cv::Rect& area, double disparityPx);

/// A map whose every pixel sees a plane at `depthM`.
cv::Mat planeMap(int type, cv::Size size, const cv::Mat& Q, double depthM);

/// A clock for Brake that moves only when told: 1 tick = 1 ms.
struct ManualClock {
    int64_t now = 1000;
    static constexpr double kTicksPerSecond = 1000.0;
    Brake::Clock clock()
    {
        return Brake::Clock{[this] { return now; }, kTicksPerSecond};
    }
};

/// Flight state: armed and flying (armOrDisarm 1) unless `armOrDisarm` says
/// otherwise.
Common::FlyInfo flight(float pitch, float headSpeed = 0.0f, uint32_t armOrDisarm = 1);

}  // namespace brakemaps
