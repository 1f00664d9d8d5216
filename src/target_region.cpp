#include "target_region.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>

namespace {

constexpr double kFreeBeyondMm = 3000.0;
constexpr float kMissingAboveMm = 100000.0f;
/// 3x3 erosions of the free mask: keeps the circle 10 px away from obstacles.
constexpr int kErosions = 10;
/// An outer outline is a candidate of the rectangle search only above this radius.
constexpr int kMinRectRadiusPx = 5;
constexpr int kBlockPixels = TargetRegion::kBlockPx * TargetRegion::kBlockPx;
constexpr double kPerBlockPixel = 0.000625;  // 1 / 1600
/// Turns (2 x distance in mm) x (radius in px) / (width in px) into the
/// circle's width in mm through the camera's field of view.
constexpr double kFieldOfViewScale = 2.237160944224742;
constexpr float kPassableWidthMm = 200.0f;
/// Full scale of angle_x and angle_y across the image width.
constexpr double kAngleXScale = 40.0;
constexpr double kAngleYScale = 30.0;

/// Side of the tiles inscribedCircle bounds at once, in px.
constexpr int kTilePx = 16;
/// Covers the rounding of a probe's distance and reach (a few double ulps of
/// values below 1e6 px), so a tile's bound never falls below a true value.
constexpr double kBoundSlackPx = 1e-6;

Region noRegion(cv::Size frame)
{
    Region region;
    region.centre = cv::Point(frame.width / 2, frame.height / 2);
    return region;
}

/// The largest value seen and the first pixel in row-major order holding it,
/// whatever order the pixels are visited in.
struct Maximum {
    float value = -std::numeric_limits<float>::infinity();
    cv::Point at{INT_MAX, INT_MAX};

    void consider(cv::Point p, float v)
    {
        const bool earlier = p.y < at.y || (p.y == at.y && p.x < at.x);
        if (v > value || (v == value && earlier)) {
            value = v;
            at = p;
        }
    }
};

float signedDistance(const std::vector<cv::Point>& outline, cv::Point p)
{
    return static_cast<float>(cv::pointPolygonTest(outline, cv::Point2f(p), true));
}

}  // namespace

Region TargetRegion::inscribedCircle(const std::vector<cv::Point>& outline, cv::Size frame)
{
    if (outline.empty() || frame.empty()) {
        return noRegion(frame);
    }
    // A pixel outside the outline's bounding box is outside the outline, at
    // least 1 px from it, so its value is negative, while the outline's
    // vertices (pixels of the frame) give 0: the maximum lies inside the box,
    // and row-major order inside the box is row-major order in the frame.
    const cv::Rect whole(cv::Point(0, 0), frame);
    const cv::Rect box = cv::boundingRect(outline);
    const cv::Rect area = (box & whole) == box ? box : whole;

    // The signed distance moves by at most the distance between two points
    // (its magnitude is the distance to the outline's segments and its sign
    // flips only across them), so no pixel of a tile exceeds the value at the
    // tile's probe pixel plus the probe's reach to the tile's farthest pixel.
    // A tile whose bound, rounded to float as every value is, lies below the
    // best value found holds neither the maximum nor a tie with it. Tiles are
    // visited from the highest bound down, so the first such tile ends the search.
    struct Tile {
        cv::Rect rect;
        double bound;
    };
    std::vector<Tile> tiles;
    Maximum best;
    for (int y = area.y; y < area.br().y; y += kTilePx) {
        for (int x = area.x; x < area.br().x; x += kTilePx) {
            const cv::Rect rect(x, y, std::min(kTilePx, area.br().x - x), std::min(kTilePx, area.br().y - y));
            const cv::Point probe(x + (rect.width - 1) / 2, y + (rect.height - 1) / 2);
            const double distance = cv::pointPolygonTest(outline, cv::Point2f(probe), true);
            best.consider(probe, static_cast<float>(distance));
            const double reach = std::hypot(rect.br().x - 1 - probe.x, rect.br().y - 1 - probe.y);
            tiles.push_back({rect, distance + reach + kBoundSlackPx});
        }
    }
    std::sort(tiles.begin(), tiles.end(), [](const Tile& a, const Tile& b) { return a.bound > b.bound; });
    for (const Tile& tile : tiles) {
        if (static_cast<float>(tile.bound) < best.value) {
            break;
        }
        for (int y = tile.rect.y; y < tile.rect.br().y; ++y) {
            for (int x = tile.rect.x; x < tile.rect.br().x; ++x) {
                best.consider(cv::Point(x, y), signedDistance(outline, cv::Point(x, y)));
            }
        }
    }
    Region region;
    region.value = best.value;
    region.centre = best.at;
    return region;
}

Region TargetRegion::getTargetCircleRegion(const cv::Mat& mask)
{
    if (mask.empty()) {
        return noRegion(mask.size());
    }
    cv::Mat blurred;
    cv::blur(mask, blurred, cv::Size(3, 3));
    std::vector<std::vector<cv::Point>> outlines;
    cv::findContours(blurred, outlines, cv::RETR_TREE, cv::CHAIN_APPROX_SIMPLE);
    if (outlines.empty()) {
        return noRegion(mask.size());
    }
    // The first of the largest, as a stable sort by descending area would put it first.
    std::vector<double> areas;
    areas.reserve(outlines.size());
    for (const auto& outline : outlines) {
        areas.push_back(cv::contourArea(outline));
    }
    const auto largest = std::max_element(areas.begin(), areas.end()) - areas.begin();
    return inscribedCircle(outlines[largest], mask.size());
}

Region TargetRegion::getTargetRectRegion(const cv::Mat& mask)
{
    Region best = noRegion(mask.size());
    if (mask.empty()) {
        return best;
    }
    cv::Mat closed;
    cv::morphologyEx(mask, closed, cv::MORPH_CLOSE, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(10, 10)),
                     cv::Point(-1, -1), 1, cv::BORDER_CONSTANT);
    std::vector<std::vector<cv::Point>> outlines;
    cv::findContours(closed, outlines, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);
    for (const auto& outline : outlines) {
        const Region circle = inscribedCircle(outline, mask.size());
        const int radius = static_cast<int>(std::abs(circle.value));
        // best.value is 0 or an earlier candidate's radius: a tie keeps the earlier one.
        if (radius <= kMinRectRadiusPx || radius <= best.value) {
            continue;
        }
        best.value = radius;
        best.centre = circle.centre;
        best.box = cv::Rect(circle.centre.x - radius, circle.centre.y - radius, 2 * radius, 2 * radius);
    }
    return best;
}

cv::Vec3f TargetRegion::getTargetPt(const cv::Mat& points, bool& passable)
{
    passable = false;
    if (points.empty()) {
        return {0.0f, 0.0f, kNoDistanceMm};
    }
    CV_Assert(points.type() == CV_32FC3);
    cv::Mat depth;
    cv::extractChannel(points, depth, 2);
    const int width = depth.cols;
    const int height = depth.rows;

    cv::Mat free;
    cv::threshold(depth, free, kFreeBeyondMm, 255.0, cv::THRESH_BINARY);
    free.convertTo(free, CV_8U, 1, 0);
    // The constant border takes the largest value, so the frame edge itself
    // does not erode the free area.
    cv::erode(free, free, cv::Mat(), cv::Point(-1, -1), kErosions, cv::BORDER_CONSTANT,
              cv::morphologyDefaultBorderValue());

    const Region region = getTargetCircleRegion(free);
    const float distance_mm = getMinDistance(depth);
    passable = isExistAvailableArea(region, distance_mm, width);
    // Both angles are scaled by the width, the vertical one too.
    const double perColumn = 1.0 / width;
    return {static_cast<float>((region.centre.x - width / 2) * perColumn * kAngleXScale),
            static_cast<float>((region.centre.y - height / 2) * perColumn * kAngleYScale), distance_mm};
}

float TargetRegion::getMinDistance(const cv::Mat& depth)
{
    float nearest_mm = kNoDistanceMm;
    for (int row = 0; row <= depth.rows - kBlockPx; row += kBlockPx) {
        for (int col = 0; col <= depth.cols - kBlockPx; col += kBlockPx) {
            const float mean_mm = getSinegleAreaDis(depth, row, col);
            if (mean_mm < nearest_mm) {
                nearest_mm = mean_mm;
            }
        }
    }
    return nearest_mm;
}

float TargetRegion::getSinegleAreaDis(const cv::Mat& depth, int row, int col)
{
    if (!isValid(depth, row, col)) {
        return kNoDistanceMm;
    }
    double sum_mm = 0.0;
    for (int r = row; r < row + kBlockPx; ++r) {
        const float* z = depth.ptr<float>(r) + col;
        for (int c = 0; c < kBlockPx; ++c) {
            sum_mm += z[c];
        }
    }
    return static_cast<float>(sum_mm * kPerBlockPixel);
}

bool TargetRegion::isValid(const cv::Mat& depth, int row, int col)
{
    if (row < 0 || col < 0 || row > depth.rows - kBlockPx || col > depth.cols - kBlockPx) {
        return false;
    }
    CV_Assert(depth.type() == CV_32FC1);
    int missing = 0;
    for (int r = row; r < row + kBlockPx; ++r) {
        const float* z = depth.ptr<float>(r) + col;
        for (int c = 0; c < kBlockPx; ++c) {
            missing += z[c] > kMissingAboveMm;
        }
    }
    return 3 * missing < kBlockPixels;
}

bool TargetRegion::isExistAvailableArea(const Region& region, float distance_mm, int width)
{
    if (width <= 0) {
        return false;
    }
    const float span_mm = static_cast<float>(((distance_mm + distance_mm) * kFieldOfViewScale) * region.value / width);
    return span_mm > kPassableWidthMm;
}
