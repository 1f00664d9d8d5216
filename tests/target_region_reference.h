#pragma once
// The region searches computed the slow, literal way: one cv::pointPolygonTest
// per pixel into a CV_32F image, cv::minMaxLoc, outlines and regions ordered by
// a stable sort. TargetRegion must agree with it exactly.

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
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

inline Region none(cv::Size frame) { return Region{0.0, {frame.width / 2, frame.height / 2}, {}}; }

inline Region circleRegion(const cv::Mat& mask)
{
    cv::Mat blurred;
    cv::blur(mask, blurred, cv::Size(3, 3));
    std::vector<std::vector<cv::Point>> outlines;
    cv::findContours(blurred, outlines, cv::RETR_TREE, cv::CHAIN_APPROX_SIMPLE);
    std::stable_sort(outlines.begin(), outlines.end(),
                     [](const auto& a, const auto& b) { return cv::contourArea(a) > cv::contourArea(b); });
    return outlines.empty() ? none(mask.size()) : perPixelMaximum(outlines[0], mask.size());
}

inline Region rectRegion(const cv::Mat& mask)
{
    cv::Mat closed = mask.clone();
    cv::morphologyEx(closed, closed, cv::MORPH_CLOSE, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(10, 10)),
                     cv::Point(-1, -1), 1, cv::BORDER_CONSTANT);
    std::vector<std::vector<cv::Point>> outlines;
    cv::findContours(closed, outlines, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);
    std::vector<Region> regions;
    for (const auto& outline : outlines) {
        const Region m = perPixelMaximum(outline, mask.size());
        const int r = static_cast<int>(std::abs(m.value));
        if (r > 5) {
            regions.push_back({double(r), m.centre, {m.centre.x - r, m.centre.y - r, 2 * r, 2 * r}});
        }
    }
    std::stable_sort(regions.begin(), regions.end(),
                     [](const Region& a, const Region& b) { return a.value > b.value; });
    return regions.empty() ? none(mask.size()) : regions[0];
}

inline cv::Vec3f targetPt(const cv::Mat& points, bool& passable)
{
    cv::Mat xyz[3];
    cv::split(points, xyz);
    const int w = xyz[2].cols;
    const int h = xyz[2].rows;
    cv::Mat free;
    cv::threshold(xyz[2], free, 3000.0, 255.0, cv::THRESH_BINARY);
    free.convertTo(free, CV_8U, 1, 0);
    cv::erode(free, free, cv::Mat(), cv::Point(-1, -1), 10, cv::BORDER_CONSTANT, cv::morphologyDefaultBorderValue());
    const Region region = circleRegion(free);
    const float d = TargetRegion::getMinDistance(xyz[2]);
    passable = TargetRegion::isExistAvailableArea(region, d, w);
    return {float((region.centre.x - w / 2) * (1.0 / w) * 40.0), float((region.centre.y - h / 2) * (1.0 / w) * 30.0),
            d};
}

}  // namespace reference
