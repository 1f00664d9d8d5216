#pragma once
// Search for a passable free area in a depth image, for an avoidance step
// that steers around an obstacle instead of only braking. Not called during
// flight yet: the pipeline's avoidance worker is idle.
//
// Thread-safe: TargetRegion holds no state; every operation works only on its
// arguments.
//
// Units: depth (the Z of cv::reprojectImageTo3D) in mm, a Z above 100000 mm
// counting as missing; positions and radii in px of the depth image; angles in
// the same scaled units as the record line's angle_x and angle_y.

#include <opencv2/core.hpp>

#include <vector>

/// One candidate free area.
struct Region {
    double value = 0.0;  ///< px, radius of the largest circle inside the area's outline
    cv::Point centre;    ///< px (x = column, y = row), centre of that circle
    cv::Rect box;        ///< px, square around the circle; zero when not filled
};

class TargetRegion {
public:
    /// Side of the square blocks over which depth is averaged, in px.
    static constexpr int kBlockPx = 40;
    /// Distance returned when no block has enough depth, in mm.
    static constexpr float kNoDistanceMm = 1e6f;

    /// From a CV_32FC3 point image (X, Y, Z in mm; W columns, H rows): the
    /// direction of the centre of the largest circle that fits in the largest
    /// area farther than 3 m, after eroding that area by 10 px, as
    /// (angle_x, angle_y, nearest block mean in mm). Both angles are divided
    /// by W, the vertical one too. `passable` tells whether that circle is
    /// wide enough to fly through (isExistAvailableArea). Without any free
    /// area the angles are 0 and `passable` is false; an empty image gives
    /// (0, 0, kNoDistanceMm). Throws cv::Exception for any other type.
    static cv::Vec3f getTargetPt(const cv::Mat& points, bool& passable);

    /// For a CV_8UC1 mask (non-zero = free): the largest circle inside the
    /// outline of largest area among all outlines (outer ones and holes) of
    /// the mask after a 3x3 box blur, with a zero box. Ties in area go to the
    /// first outline cv::findContours reports. Without any outline: value 0
    /// at the frame centre (W/2, H/2).
    static Region getTargetCircleRegion(const cv::Mat& mask);

    /// For a CV_8UC1 mask (non-zero = free), closed with a 10x10 square whose
    /// anchor (5, 5) is off centre, which moves every area 1 px right and
    /// down (the caller's mask is left unchanged): among the outer outlines whose
    /// largest inner circle has a radius of more than 5 px, the one with the
    /// largest radius, value truncated to whole px and box (cx - r, cy - r,
    /// 2r, 2r), which is not clipped to the frame. Ties go to the first outline
    /// cv::findContours reports. Without any: value 0 at the frame centre.
    static Region getTargetRectRegion(const cv::Mat& mask);

    /// Smallest mean of the kBlockPx x kBlockPx blocks tiling a CV_32FC1 depth
    /// image from its top-left corner, in mm; kNoDistanceMm when no block is
    /// valid. Blocks that would reach past the right or lower edge are
    /// skipped, so every mean is over 1,600 pixels and a cut-off block can
    /// never look nearer than it is; a NaN mean never wins.
    static float getMinDistance(const cv::Mat& depth);

    /// Mean depth in mm of the block whose top-left pixel is (row, col),
    /// missing values included; kNoDistanceMm when the block is not valid.
    static float getSinegleAreaDis(const cv::Mat& depth, int row, int col);

    /// Whether the block at (row, col) lies wholly inside the CV_32FC1 depth
    /// image and at most 533 of its 1,600 pixels (3 x count < 1600) are
    /// missing.
    static bool isValid(const cv::Mat& depth, int row, int col);

    /// Whether a free circle of radius region.value px, seen at distance_mm
    /// in an image `width` px wide, is wider than 200 mm: the float value of
    /// ((d + d) x 2.237160944224742) x value / width compared with 200. False
    /// for a width of 0 or less.
    static bool isExistAvailableArea(const Region& region, float distance_mm, int width);

    /// The maximum of cv::pointPolygonTest(outline, p, true) over every pixel p
    /// of a frame of the given size, stored as float, and the first pixel in
    /// row-major order holding it: exactly what filling a CV_32F image with
    /// those values and taking cv::minMaxLoc gives, without evaluating pixels
    /// that provably cannot hold the maximum. An empty outline or frame gives
    /// value 0 at the frame centre.
    static Region inscribedCircle(const std::vector<cv::Point>& outline, cv::Size frame);
};
