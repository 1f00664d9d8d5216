#pragma once
// Test-only: the straightforward reading of Brake's per-frame chain, held bit
// for bit against the production chain: the whole map reprojected with
// cv::reprojectImageTo3D, every block searched pixel by pixel, the mismatch
// check always by template search.

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
    /// update()). Returns what differs bit for bit (distances, front area,
    /// centre, view, frame size, timing, mismatch flags), empty if nothing.
    std::string frame(const Common::FlyInfo& info, const cv::Mat& disparity, const cv::Mat& Q);

    brakemaps::ManualClock time;
    Brake fast;
    Brake reference;

private:
    // The last reprojection, reused while the same buffers come back (so
    // maps must not change in place between frames).
    cv::Mat lastMap, lastQ, lastPoints;
};

}  // namespace brakeref
