#pragma once
// The frame message: one shared-memory queue payload per stereo frame, as the
// camera process writes it and the frame reader reads it in place.
// Little-endian (see littleendian.h):
//   offset 4       u32  image width, pixels
//   offset 8       u32  image height, pixels
//   offset 12      width*height bytes, left image (8-bit grey, rows packed)
//   offset 522252  width*height bytes, right image
// Each image area holds 522240 bytes whatever the image size, so width*height
// must not exceed it. The first 8 bytes of each image area are also that
// image's u64 timestamp (camera clock); they stay part of the image.

#include <cstddef>

namespace framelayout {

/// System V keys of the two cameras' queues.
inline constexpr int kFrontQueueKey = 9990;
inline constexpr int kDownQueueKey = 9991;

inline constexpr size_t kWidthOffset = 4;
inline constexpr size_t kHeightOffset = 8;
inline constexpr size_t kLeftImageOffset = 12;
inline constexpr size_t kImageAreaBytes = 522240;
inline constexpr size_t kRightImageOffset = kLeftImageOffset + kImageAreaBytes;
/// Room for one message: the reader's receive buffer and its queue request.
/// A message with both image areas whole is 1044492 bytes.
inline constexpr size_t kMessageBytes = 1045312;

static_assert(kRightImageOffset == 522252, "right image area");
static_assert(kRightImageOffset + kImageAreaBytes <= kMessageBytes, "both image areas fit");

}  // namespace framelayout
