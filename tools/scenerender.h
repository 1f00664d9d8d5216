#pragma once
// Synthetic rectified stereo pairs with known depth, for the camera simulator
// and for accuracy tests of the disparity and distance code.
//
// A scene is a far textured background plane and, optionally, one
// fronto-parallel textured obstacle plane in front of it. Each plane carries
// its own continuous, band-limited texture, defined in left-image pixel
// coordinates and evaluated at the exact (sub-pixel) position every pixel
// sees, so a left pixel at x on a plane at depth Z appears in the right image
// at x - disparityPx(Z) with no rounding anywhere.

#include <cstdint>
#include <memory>

#include <opencv2/core.hpp>

namespace scene {

/// A rectified pair of identical cameras.
struct Rig {
    double focalPx = 400.0;     ///< focal length of both rectified cameras, pixels
    double baselineMm = 100.0;  ///< baseline, mm
    cv::Size size{480, 640};    ///< rotated (matcher's) image size: width 480, height 640
};

struct SceneLayout {
    double backgroundM = 40.0;  ///< distance of the far textured background plane, m
    double obstacleM = 5.0;     ///< distance of the fronto-parallel obstacle plane, m; <= 0: no obstacle
    cv::Rect obstacleRect;      ///< extent in the LEFT rotated image, pixels; empty: centred, half size
    uint32_t seed = 1;          ///< texture seed
};

/// f * B / Z with B in metres: the disparity of a plane at distanceM, pixels.
double disparityPx(const Rig& rig, double distanceM);

/// Renders a rectified pair in the rotated (matcher's) frame as CV_8UC1 images
/// of rig.size. Pixel values stay within 25..235 (mid-grey, never clipped by
/// the reader's 240 limit). The same rig, layout and seed always give the same
/// images. The obstacle hides the background in both views; background
/// uncovered in one view only (occlusion) is rendered from the background's
/// texture, as a real camera would see it.
void renderPair(const Rig& rig, const SceneLayout& layout, cv::Mat& left, cv::Mat& right);

struct Texture;

/// Renders the pairs of one rig and layout for any obstacle distance (the
/// layout's obstacleM is not used). What does not depend on the distance (the
/// background in both views, the obstacle in the left one) is rendered once,
/// so a pair costs one obstacle-sized sample of the right view and two
/// copies. Each pair is the one renderPair gives for that distance, byte for
/// byte, in fresh matrices.
class PairRenderer {
public:
    PairRenderer(const Rig& rig, const SceneLayout& layout);
    void render(double obstacleM, cv::Mat& left, cv::Mat& right) const;

private:
    Rig m_rig;
    cv::Rect m_rect;
    std::shared_ptr<const Texture> m_obstacle;
    cv::Mat m_leftBare;
    cv::Mat m_leftCovered;
    cv::Mat m_rightBare;
};

/// The obstacle rectangle renderPair uses for layout (the centred default when
/// layout.obstacleRect is empty), clipped to the image.
cv::Rect obstacleExtent(const Rig& rig, const SceneLayout& layout);

}  // namespace scene
