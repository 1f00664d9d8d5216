#pragma once
// The camera side of the frame message: what the camera process puts into
// the shared-memory queue for one stereo frame.

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "common.h"
#include "framelayout.h"

namespace camsim {

/// The image as the camera of `direction` delivers it, given the upright
/// (rotated, matcher's) image: the inverse of the reader's rotation, so front
/// images are turned counter-clockwise and down images clockwise.
cv::Mat toSensorOrientation(Common::Direction direction, const cv::Mat& upright);

/// Fills `message` with one frame message of framelayout::kMessageBytes:
/// headerWidth/headerHeight at offsets 4 and 8, the two CV_8UC1 sensor
/// images (each at most framelayout::kImageAreaBytes) in their image areas,
/// and each timestamp over the first 8 bytes of its image area. All integers
/// little-endian; unused bytes zero.
void encodeFrameMessage(const cv::Mat& sensorLeft, const cv::Mat& sensorRight, uint64_t leftTimestamp,
                        uint64_t rightTimestamp, uint32_t headerWidth, uint32_t headerHeight,
                        std::vector<unsigned char>& message);

/// Writes the two timestamps into an encoded message (over the first 8
/// bytes of each image area), so a message prepared ahead of time can be
/// stamped at the moment it is sent. Throws std::invalid_argument for a
/// message shorter than framelayout::kMessageBytes.
void stampFrameMessage(uint64_t leftTimestamp, uint64_t rightTimestamp, std::vector<unsigned char>& message);

}  // namespace camsim
