#pragma once
// The debug-stream packet: what a Server sends to the ground-side viewer over
// TCP, one packet per image. Little-endian (see littleendian.h), no gaps:
//   offset 0            u32  PACKET_HEAD
//   offset 4            u32  payload length in bytes (non-negative int32)
//   offset 8            u32  ServerDataType
//   offset 12           length bytes of payload
//   offset 12 + length  u32  PACKET_TAIL
// A packet carries no image size: sender and viewer agree on it beforehand.
// A packet may be cut short when a viewer goes away in the middle of it, so a
// reader finds the next packet by its head marker.

#include <cstddef>
#include <cstdint>

#include "framelayout.h"

inline constexpr uint32_t PACKET_HEAD = 0x11223344;
inline constexpr uint32_t PACKET_TAIL = 0x55667788;

/// The payload of a packet, for images of rows x cols pixels.
enum ServerDataType : uint32_t {
    /// 2 x rows x cols bytes: the left grey image, then the right one, rows
    /// packed, one byte per pixel.
    STEREO_PAIR = 0,
    /// 3 x rows x cols bytes: three-channel 8-bit image of disparity x 16
    /// (saturated, grey in every channel); its first four bytes are replaced
    /// by the obstacle distance (float, metres, little-endian) and each pixel
    /// of the front obstacle area is 255, 0, 0.
    DISPARITY_COLOR = 3,
};

namespace streampacket {

/// TCP ports of the two camera pairs' servers.
inline constexpr int kFrontPort = 8883;
inline constexpr int kDownPort = 8884;

inline constexpr size_t kHeadBytes = 12;  ///< head marker, length, type
inline constexpr size_t kTailBytes = 4;

/// No image the frame reader delivers exceeds a message's image area, so no
/// payload the module sends exceeds three bytes per pixel of it. A larger
/// length word can only come from bytes that are not a packet head.
inline constexpr size_t kMaxPayloadBytes = 3 * framelayout::kImageAreaBytes;

}  // namespace streampacket
