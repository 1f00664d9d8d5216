#pragma once
// What the viewer makes of debug-stream packets for images of a known size:
// the latest stereo pair, the latest disparity packet and its distance, the
// window's picture and snapshot files.
//
// Thread-bound.

#include <cstdint>
#include <string>

#include <opencv2/core.hpp>

#include "packetparser.h"

class StreamView {
public:
    enum class Taken {
        Pair,       ///< a stereo pair was stored
        Frame,      ///< a disparity packet completed a frame (a pair came before it)
        Disparity,  ///< a disparity packet without a pair before it
        WrongSize,  ///< the payload does not fit the image size; nothing stored
        Ignored,    ///< a type the viewer does not show
    };

    /// `imageSize`: cols x rows of every streamed image, pixels.
    explicit StreamView(cv::Size imageSize);

    Taken take(const PacketParser::Packet& packet);

    /// A new connection: its first disparity packet must not complete a
    /// frame with a pair from the previous connection.
    void dropPair() { m_pairPending = false; }

    /// left | right | disparity in a colour map with the obstacle area in
    /// white and the distance written on it: CV_8UC3, 3 cols x rows.
    cv::Mat render() const;

    /// Writes <directory>/frameNNNNNN-{left,right,disparity,view}.png for
    /// the current frame count, making the directory if needed. False with
    /// `error` set if a file could not be written.
    bool writeSnapshot(const std::string& directory, std::string& error) const;

    cv::Mat left;            ///< CV_8UC1, latest pair
    cv::Mat right;           ///< CV_8UC1
    cv::Mat disparity;       ///< CV_8UC3, latest disparity packet as received
    float distanceM = 0.0f;  ///< from the latest disparity packet, metres
    uint64_t frames = 0;     ///< frames completed so far

private:
    cv::Size m_size;
    bool m_pairPending = false;  ///< a pair arrived since the last disparity packet
};
