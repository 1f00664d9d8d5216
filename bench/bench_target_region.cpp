// getTargetPt on a 480 x 640 (width x height) point image against the same
// steps with the circle search computed literally: one cv::pointPolygonTest
// per pixel of the frame (target_region_reference.h), same result. Read the ratio of
// the two times for each scene:
//   0 opening: a wall at 1.5 m with a free disc of radius 120 px in the middle;
//   1 obstacle: open space with a near box in the middle, so the largest
//     outline is the frame's own and its bounding box is the whole frame.
// Depths carry seeded noise of +-50 mm.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

#include "target_region.h"
#include "target_region_reference.h"

namespace {

const cv::Size kFrame(480, 640);

// getTargetPt with the circle search written out literally.
cv::Vec3f perPixelTargetPt(const cv::Mat& points, bool& passable)
{
    cv::Mat xyz[3];
    cv::split(points, xyz);
    const int w = xyz[2].cols;
    const int h = xyz[2].rows;
    cv::Mat free;
    cv::threshold(xyz[2], free, 3000.0, 255.0, cv::THRESH_BINARY);
    free.convertTo(free, CV_8U, 1, 0);
    cv::erode(free, free, cv::Mat(), cv::Point(-1, -1), 10, cv::BORDER_CONSTANT, cv::morphologyDefaultBorderValue());
    cv::blur(free, free, cv::Size(3, 3));
    std::vector<std::vector<cv::Point>> outlines;
    cv::findContours(free, outlines, cv::RETR_TREE, cv::CHAIN_APPROX_SIMPLE);
    std::stable_sort(outlines.begin(), outlines.end(),
                     [](const auto& a, const auto& b) { return cv::contourArea(a) > cv::contourArea(b); });
    Region region{0.0, {w / 2, h / 2}, {}};
    if (!outlines.empty()) {
        region = reference::perPixelMaximum(outlines[0], free.size());
    }
    const float d = TargetRegion::getMinDistance(xyz[2]);
    passable = TargetRegion::isExistAvailableArea(region, d, w);
    return {float((region.centre.x - w / 2) * (1.0 / w) * 40.0), float((region.centre.y - h / 2) * (1.0 / w) * 30.0),
            d};
}

cv::Mat scene(int which)
{
    const bool opening = which == 0;
    cv::Mat depth(kFrame, CV_32FC1, cv::Scalar(opening ? 1500 : 5000));
    if (opening) {
        cv::circle(depth, {240, 320}, 120, 5000, cv::FILLED);
    } else {
        depth(cv::Rect(160, 220, 160, 200)).setTo(1200);
    }
    cv::Mat noise(kFrame, CV_32FC1);
    cv::RNG(20261123).fill(noise, cv::RNG::UNIFORM, -50, 50);
    depth += noise;
    cv::Mat points;
    cv::merge(std::vector<cv::Mat>{cv::Mat::zeros(kFrame, CV_32FC1), cv::Mat::zeros(kFrame, CV_32FC1), depth}, points);
    return points;
}

void TargetPt(benchmark::State& state)
{
    const cv::Mat points = scene(static_cast<int>(state.range(0)));
    bool passable = false;
    for (auto _ : state) {
        benchmark::DoNotOptimize(TargetRegion::getTargetPt(points, passable));
    }
}

void TargetPtPerPixel(benchmark::State& state)
{
    const cv::Mat points = scene(static_cast<int>(state.range(0)));
    bool passable = false;
    for (auto _ : state) {
        benchmark::DoNotOptimize(perPixelTargetPt(points, passable));
    }
}

BENCHMARK(TargetPt)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(TargetPtPerPixel)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
