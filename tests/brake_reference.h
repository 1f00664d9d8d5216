#pragma once
// Test-only: the straightforward reading of Brake's per-frame chain, against
// which the tests hold the production chain bit for bit. The whole map is
// reprojected with cv::reprojectImageTo3D and every block is searched pixel
// by pixel; the mismatch check always runs the template search.

#include <string>

#include <opencv2/core.hpp>

#include "brake.h"
#include "brake_maps.h"

namespace brakeref {

/// Two brakes of one camera on one clock: `fast` runs Brake::setDisparity,
/// `reference` the straightforward reading.
class Twin {
public:
    explicit Twin(Common::Direction direction);
    Twin(const Twin&) = delete;
    Twin& operator=(const Twin&) = delete;

    /// One pipeline frame on both (flight state, measurement or reset(),
    /// update()). Returns what differs, bit for bit: the raw distance, front
    /// area, centre, field of view, frame size, timing, mismatch flags and the
    /// filtered distances; empty when nothing does.
    std::string frame(const Common::FlyInfo& info, const cv::Mat& disparity, const cv::Mat& Q);

    brakemaps::ManualClock time;
    Brake fast;
    Brake reference;

private:
    // The reference's reprojection of the last map and Q, reused while both
    // stay the same bit for bit: the tests run many frames on one map.
    cv::Mat lastMap, lastQ, lastPoints;
};

}  // namespace brakeref
