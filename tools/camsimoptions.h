#pragma once
// Command line of camsim, the camera simulator.

#include <cstdint>
#include <string>
#include <vector>

#include "common.h"

namespace camsim {

enum class SourceKind {
    Scene,      ///< synthetic rectified scene with known depth
    ImagePair,  ///< two image files, resized
    Replay,     ///< raw recorded planes of the rotated size
};

struct Options {
    Common::Direction direction = Common::FRONT;
    double fps = 20.0;    ///< frames per second
    uint64_t frames = 0;  ///< frames to send; 0: until SIGINT/SIGTERM
    int width = 640;      ///< sensor image width, pixels (the module's configured width)
    int height = 480;     ///< sensor image height, pixels
    bool writeCalibration = true;
    bool calibrationOnly = false;  ///< write the calibration files and exit

    SourceKind source = SourceKind::Scene;
    double focalPx = 400.0;
    double baselineMm = 100.0;
    double distanceM = 5.0;  ///< obstacle distance at start; 0: no obstacle
    double backgroundM = 40.0;
    double speedMps = 0.0;      ///< approach speed of the obstacle, m/s
    double minDistanceM = 0.5;  ///< the obstacle stops approaching here
    double stepM = 0.0;         ///< a moving obstacle's distance is rounded to this step, m; 0: exact
    bool bounce = false;        ///< at minDistanceM the obstacle turns back, and again at distanceM
    uint32_t seed = 1;
    std::string leftFile;  ///< image pair, or raw recording with Replay
    std::string rightFile;
    std::string truthFile;  ///< per sent frame: "<stamp us>\t<obstacle m>"; empty: none

    // Faults put into the stream on purpose.
    bool overrideHeader = false;
    uint32_t headerWidth = 0;  ///< written instead of width when overrideHeader
    uint32_t headerHeight = 0;
    uint64_t darkPeriod = 0;  ///< in every darkPeriod frames the last darkLength are dark
    uint64_t darkLength = 0;
    uint64_t pausePeriod = 0;  ///< after every pausePeriod frames, pauseMs without frames
    uint64_t pauseMs = 0;
};

enum class ParseResult { Run, Help, Error };

/// Parses the arguments after the program name. On Error, `error` says which
/// argument is wrong and why; options are then unspecified.
ParseResult parseOptions(const std::vector<std::string>& args, Options& options, std::string& error);

/// The --help text.
std::string usage();

}  // namespace camsim
