#pragma once
// The inscribed circle computed literally: one cv::pointPolygonTest per pixel
// into a CV_32F image, then cv::minMaxLoc. TargetRegion::inscribedCircle must
// give exactly the same value and centre.

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <vector>

#include "target_region.h"

namespace reference {

inline Region perPixelMaximum(const std::vector<cv::Point>& outline, cv::Size frame)
{
    cv::Mat distances(frame, CV_32F);
    for (int y = 0; y < frame.height; ++y) {
        for (int x = 0; x < frame.width; ++x) {
            distances.at<float>(y, x) = static_cast<float>(cv::pointPolygonTest(outline, cv::Point2f(x, y), true));
        }
    }
    Region region;
    cv::minMaxLoc(distances, nullptr, &region.value, nullptr, &region.centre);
    return region;
}

}  // namespace reference
