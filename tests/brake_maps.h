#pragma once
// Test-only: the rig, disparity maps and clock that the Brake tests build
// their frames from.

#include <algorithm>
#include <cstdint>
#include <limits>

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>

#include "brake.h"

namespace brakemaps {

/// The camera simulator's ideal rig: f = 400 px, baseline 100 mm, principal
/// point at the image centre.
constexpr double kFocalPx = 400.0;
constexpr double kBaselineMm = 100.0;

/// The two known frame sizes (columns x rows).
const cv::Size kTall(480, 640);
const cv::Size kWide(640, 544);

/// Q as the frame reader computes it for the rig (cv::stereoRectify, zero
/// disparity at infinity, alpha 0): depth in mm = 40,000 / disparity in px.
inline cv::Mat rigQ(cv::Size size)
{
    const cv::Mat camera =
        (cv::Mat_<double>(3, 3) << kFocalPx, 0, (size.width - 1) / 2.0, 0, kFocalPx, (size.height - 1) / 2.0, 0, 0, 1);
    const cv::Mat noDistortion = cv::Mat::zeros(1, 5, CV_64F);
    cv::Mat r1, r2, p1, p2, q;
    cv::stereoRectify(camera, noDistortion, camera, noDistortion, size, cv::Mat::eye(3, 3, CV_64F),
                      cv::Mat(cv::Vec3d(-kBaselineMm, 0, 0)), r1, r2, p1, p2, q, cv::CALIB_ZERO_DISPARITY, 0);
    return q;
}

/// The disparity in px at which a Q of rigQ puts a point at depthM.
inline double disparityFor(const cv::Mat& Q, double depthM)
{
    return Q.at<double>(2, 3) / (Q.at<double>(3, 2) * depthM * 1000.0);
}

/// A map of `type` (CV_16S or CV_32F) with every pixel invalid (-1).
inline cv::Mat invalidMap(int type, cv::Size size) { return cv::Mat(size, type, cv::Scalar(-1)); }

/// Sets the first `count` pixels of `area` (clipped to the map), row by row,
/// to `disparityPx` (rounded for CV_16S).
inline void fill(cv::Mat& map, cv::Rect area, double disparityPx, int count = std::numeric_limits<int>::max())
{
    area &= cv::Rect(cv::Point(), map.size());
    const int rows = std::min(area.height, count / std::max(area.width, 1));
    map(cv::Rect(area.x, area.y, area.width, rows)).setTo(disparityPx);
    if (rows < area.height) {
        map(cv::Rect(area.x, area.y + rows, count - rows * area.width, 1)).setTo(disparityPx);
    }
}

/// A map whose every pixel sees a plane at depthM.
inline cv::Mat planeMap(int type, cv::Size size, const cv::Mat& Q, double depthM)
{
    return cv::Mat(size, type, cv::Scalar(type == CV_16S ? cvRound(disparityFor(Q, depthM)) : disparityFor(Q, depthM)));
}

/// A clock for Brake that moves only when told: 1 tick = 1 ms.
struct ManualClock {
    int64_t now = 1000;
    static constexpr double kTicksPerSecond = 1000.0;
    Brake::Clock clock()
    {
        return Brake::Clock{[this] { return now; }, kTicksPerSecond};
    }
};

/// Flight state, flying (armOrDisarm 1) unless told otherwise.
inline Common::FlyInfo flight(float pitch, float headSpeed = 0.0f, uint32_t armOrDisarm = 1)
{
    Common::FlyInfo info;
    info.pitch = pitch;
    info.headSpeed = headSpeed;
    info.armOrDisarm = armOrDisarm;
    return info;
}

}  // namespace brakemaps
