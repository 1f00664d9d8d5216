#pragma once
// Test-only: the straightforward reading of Brake's per-frame chain (front
// and down measurement), against which the tests hold the production code bit
// for bit: the whole map is reprojected with cv::reprojectImageTo3D and the
// blocks are searched pixel by pixel as the rules read; the mismatch check
// builds its full histogram and always runs the template search.

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "brake.h"
#include "brake_maps.h"

namespace brakeref {

/// What a measurement leaves in Brake.
struct Measurement {
    float disOriZ = Brake::kNoObstacle;
    std::vector<cv::Point2f> frontArea;
    float targetX = 0.0f;  ///< front only; unchanged for down
    float targetY = 0.0f;
    float fovVertical = 0.0f;
};

/// The point image of a map as the chain sees it: cv::reprojectImageTo3D,
/// or no point at all for a map other than CV_16SC1 / CV_32FC1 or a Q the
/// function refuses.
cv::Mat reproject(const cv::Mat& disparity, const cv::Mat& Q);

/// getDistance_front, read literally. `before` supplies the flight state, the
/// field of view and the centre values left by earlier frames.
Measurement measureFront(const Brake& before, const cv::Mat& disparity, const cv::Mat& Q);
/// getDistance_down, read literally.
Measurement measureDown(const Brake& before, const cv::Mat& disparity, const cv::Mat& Q);
/// dealHighAltitudeMismatch's result, read literally.
bool highAltitudeMismatch(const cv::Mat& disparity);

/// setDisparity step by step, with the measurement and the mismatch
/// check above in place of Brake's own; `frameTick` is what the brake's
/// clock reads at step 6.
void setDisparity(Brake& brake, const cv::Mat& disparity, const cv::Mat& Q, int64_t frameTick, double ticksPerSecond);

/// Two brakes of one camera on one clock: `fast` runs Brake::setDisparity,
/// `reference` the straightforward reading above.
class Twin {
public:
    explicit Twin(Common::Direction direction);
    Twin(const Twin&) = delete;
    Twin& operator=(const Twin&) = delete;

    /// One pipeline frame on both (flight state, then the measurement or
    /// reset(), the avoidance target, the record, update()). Returns what
    /// differs between the two, bit for bit: every record column, the front
    /// area, the centre, the field of view and every filter member; empty
    /// when nothing does.
    std::string frame(const Common::FlyInfo& info, const cv::Mat& disparity, const cv::Mat& Q);

    brakemaps::ManualClock time;
    Brake fast;
    Brake reference;
};

}  // namespace brakeref
