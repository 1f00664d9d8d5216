#include "brake_maps.h"

#include <opencv2/calib3d.hpp>

namespace brakemaps {

cv::Mat rigQ(cv::Size size)
{
    const cv::Mat camera =
        (cv::Mat_<double>(3, 3) << kFocalPx, 0, (size.width - 1) / 2.0, 0, kFocalPx, (size.height - 1) / 2.0, 0, 0, 1);
    const cv::Mat distortion = cv::Mat::zeros(1, 5, CV_64F);
    const cv::Mat translation = (cv::Mat_<double>(3, 1) << -kBaselineMm, 0, 0);
    cv::Mat r1, r2, p1, p2, q;
    cv::stereoRectify(camera, distortion, camera, distortion, size, cv::Mat::eye(3, 3, CV_64F), translation, r1, r2, p1,
                      p2, q, cv::CALIB_ZERO_DISPARITY, 0);
    return q;
}

double disparityFor(const cv::Mat& Q, double depthM)
{
    return Q.at<double>(2, 3) / (Q.at<double>(3, 2) * depthM * 1000.0);
}

cv::Mat invalidMap(int type, cv::Size size) { return cv::Mat(size, type, cv::Scalar(-1)); }

void paint(cv::Mat& map, const cv::Rect& area, double disparityPx)
{
    map(area).setTo(cv::Scalar(map.depth() == CV_16S ? cvRound(disparityPx) : disparityPx));
}

cv::Mat planeMap(int type, cv::Size size, const cv::Mat& Q, double depthM)
{
    cv::Mat map = invalidMap(type, size);
    paint(map, cv::Rect(cv::Point(), size), disparityFor(Q, depthM));
    return map;
}

Common::FlyInfo flight(float pitch, float headSpeed, uint32_t armOrDisarm)
{
    Common::FlyInfo info;
    info.pitch = pitch;
    info.headSpeed = headSpeed;
    info.armOrDisarm = armOrDisarm;
    return info;
}

}  // namespace brakemaps
