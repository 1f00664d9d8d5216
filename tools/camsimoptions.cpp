#include "camsimoptions.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>

#include "framelayout.h"

namespace camsim {
namespace {

constexpr double kMaxFps = 200.0;  // the module reads at most one frame per 5 ms

bool parseDouble(const std::string& text, double& value)
{
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    value = std::strtod(text.c_str(), &end);
    return errno == 0 && *end == '\0' && std::isfinite(value);
}

bool parseUnsigned(const std::string& text, uint64_t& value)
{
    if (text.empty() || text[0] < '0' || text[0] > '9') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    unsigned long long parsed = std::strtoull(text.c_str(), &end, 10);
    value = parsed;
    return errno == 0 && *end == '\0';
}

bool parseSize(const std::string& text, uint32_t& width, uint32_t& height)
{
    size_t x = text.find('x');
    uint64_t w = 0;
    uint64_t h = 0;
    if (x == std::string::npos || !parseUnsigned(text.substr(0, x), w) || !parseUnsigned(text.substr(x + 1), h) ||
        w > std::numeric_limits<uint32_t>::max() || h > std::numeric_limits<uint32_t>::max()) {
        return false;
    }
    width = static_cast<uint32_t>(w);
    height = static_cast<uint32_t>(h);
    return true;
}

// Checks the options against each other once all are read.
bool validate(const Options& options, bool pairGiven, bool replayGiven, std::string& error)
{
    if (pairGiven && replayGiven) {
        error = "--left/--right and --yuv-left/--yuv-right are alternative sources";
    } else if (options.leftFile.empty() != options.rightFile.empty()) {
        error = pairGiven ? "--left and --right go together" : "--yuv-left and --yuv-right go together";
    } else if (static_cast<uint64_t>(options.width) * static_cast<uint64_t>(options.height) >
               framelayout::kImageAreaBytes) {
        error = "--width x --height exceeds the " + std::to_string(framelayout::kImageAreaBytes) +
                " bytes of a message's image area";
    } else if (options.distanceM > 0.0 && options.distanceM >= options.backgroundM) {
        error = "--distance must be nearer than --background";
    } else if (options.bounce && !(options.speedMps > 0.0 && options.distanceM > options.minDistanceM)) {
        error = "--bounce needs --speed > 0 and --distance beyond --min-distance";
    } else if (options.darkLength > options.darkPeriod) {
        error = "--dark-length must not exceed --dark-period";
    } else if ((options.pausePeriod == 0) != (options.pauseMs == 0)) {
        error = "--pause-period and --pause-ms go together";
    } else {
        return true;
    }
    return false;
}

}  // namespace

ParseResult parseOptions(const std::vector<std::string>& args, Options& options, std::string& error)
{
    bool pairGiven = false;
    bool replayGiven = false;

    // Each option taking a value stores it and returns an empty text, or
    // returns what is wrong with the value.
    using Setter = std::function<std::string(const std::string&)>;
    auto positive = [](double& target) {
        return [&target](const std::string& text) -> std::string {
            double value = 0;
            if (!parseDouble(text, value) || value <= 0.0) {
                return "expects a number > 0";
            }
            target = value;
            return {};
        };
    };
    auto nonNegative = [](double& target) {
        return [&target](const std::string& text) -> std::string {
            double value = 0;
            if (!parseDouble(text, value) || value < 0.0) {
                return "expects a number >= 0";
            }
            target = value;
            return {};
        };
    };
    auto count = [](uint64_t& target, uint64_t minimum) {
        return [&target, minimum](const std::string& text) -> std::string {
            uint64_t value = 0;
            if (!parseUnsigned(text, value) || value < minimum) {
                return "expects a whole number >= " + std::to_string(minimum);
            }
            target = value;
            return {};
        };
    };
    auto pixels = [](int& target) {
        return [&target](const std::string& text) -> std::string {
            uint64_t value = 0;
            if (!parseUnsigned(text, value) || value == 0 || value > 65535) {
                return "expects a whole number of pixels, 1..65535";
            }
            target = static_cast<int>(value);
            return {};
        };
    };
    auto file = [](std::string& target, bool& given) {
        return [&target, &given](const std::string& text) -> std::string {
            if (text.empty()) {
                return "expects a file name";
            }
            target = text;
            given = true;
            return {};
        };
    };
    uint64_t seed = options.seed;

    const std::map<std::string, Setter> valued = {
        {"--direction",
         [&](const std::string& text) -> std::string {
             if (text == "front") {
                 options.direction = Common::FRONT;
             } else if (text == "down") {
                 options.direction = Common::DOWN;
             } else {
                 return "expects front or down";
             }
             return {};
         }},
        {"--fps",
         [&](const std::string& text) -> std::string {
             double value = 0;
             if (!parseDouble(text, value) || value <= 0.0 || value > kMaxFps) {
                 return "expects a rate in frames per second, > 0 and <= 200";
             }
             options.fps = value;
             return {};
         }},
        {"--frames", count(options.frames, 1)},
        {"--width", pixels(options.width)},
        {"--height", pixels(options.height)},
        {"--focal", positive(options.focalPx)},
        {"--baseline", positive(options.baselineMm)},
        {"--distance", nonNegative(options.distanceM)},
        {"--background", positive(options.backgroundM)},
        {"--speed", nonNegative(options.speedMps)},
        {"--min-distance", positive(options.minDistanceM)},
        {"--step", nonNegative(options.stepM)},
        {"--seed", count(seed, 0)},
        {"--truth",
         [&](const std::string& text) -> std::string {
             if (text.empty()) {
                 return "expects a file name";
             }
             options.truthFile = text;
             return {};
         }},
        {"--left", file(options.leftFile, pairGiven)},
        {"--right", file(options.rightFile, pairGiven)},
        {"--yuv-left", file(options.leftFile, replayGiven)},
        {"--yuv-right", file(options.rightFile, replayGiven)},
        {"--header-size",
         [&](const std::string& text) -> std::string {
             if (!parseSize(text, options.headerWidth, options.headerHeight)) {
                 return "expects WIDTHxHEIGHT, e.g. 320x240";
             }
             options.overrideHeader = true;
             return {};
         }},
        {"--dark-period", count(options.darkPeriod, 1)},
        {"--dark-length", count(options.darkLength, 1)},
        {"--pause-period", count(options.pausePeriod, 1)},
        {"--pause-ms", count(options.pauseMs, 1)},
    };

    for (size_t i = 0; i < args.size(); ++i) {
        std::string option = args[i];
        std::string value;
        bool hasValue = false;
        size_t equals = option.find('=');
        if (option.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = option.substr(equals + 1);
            option = option.substr(0, equals);
            hasValue = true;
        }
        if (option == "--help" || option == "-h") {
            return ParseResult::Help;
        }
        if (option == "--no-calib" || option == "--calib-only" || option == "--bounce") {
            if (hasValue) {
                error = option + " takes no value";
                return ParseResult::Error;
            }
            if (option == "--no-calib") {
                options.writeCalibration = false;
            } else if (option == "--bounce") {
                options.bounce = true;
            } else {
                options.calibrationOnly = true;
            }
            continue;
        }
        auto setter = valued.find(option);
        if (setter == valued.end()) {
            error = "unknown option '" + args[i] + "'";
            return ParseResult::Error;
        }
        if (!hasValue) {
            if (i + 1 >= args.size()) {
                error = option + " needs a value";
                return ParseResult::Error;
            }
            value = args[++i];
        }
        std::string problem = setter->second(value);
        if (!problem.empty()) {
            error = option + " " + problem + " (got '" + value + "')";
            return ParseResult::Error;
        }
    }

    if (seed > std::numeric_limits<uint32_t>::max()) {
        error = "--seed expects a value below 2^32";
        return ParseResult::Error;
    }
    options.seed = static_cast<uint32_t>(seed);
    options.source = pairGiven ? SourceKind::ImagePair : replayGiven ? SourceKind::Replay : SourceKind::Scene;
    return validate(options, pairGiven, replayGiven, error) ? ParseResult::Run : ParseResult::Error;
}

std::string usage()
{
    return R"(Usage: camsim [options]
Plays the camera process: writes stereo frame messages into the shared-memory
queue of one camera pair and the pair's calibration files into its calibration
folder (under $BINOCULAR_ROOT when set).

  --direction front|down  queue key 9990 (front) or 9991 (down)       [front]
  --fps N                 frames per second, at most 200               [20]
  --frames N              stop after N frames                 [until SIGINT/SIGTERM]
  --width N, --height N   sensor image size in pixels; the module rotates
                          frames to height x width                     [640, 480]
  --no-calib              do not write the calibration files
  --calib-only            write the calibration files and exit

Synthetic scene (the default source): a textured background plane and a
fronto-parallel textured obstacle with exact disparity f*B/Z.
  --focal PX              rectified focal length, pixels               [400]
  --baseline MM           baseline, mm                                 [100]
  --distance M            obstacle distance at start, m; 0: none      [5]
  --background M          background distance, m                       [40]
  --speed M/S             obstacle approach speed                      [0]
  --min-distance M        the obstacle stops approaching here          [0.5]
  --step M                round a moving obstacle's distance to M and keep
                          each rendered pair for reuse: cheap frames at a
                          high rate (the truth is the rounded distance) [0: exact]
  --bounce                the obstacle turns back at --min-distance and again
                          at --distance, over and over, at --speed
  --seed N                texture seed                                 [1]

Image pair:   --left FILE --right FILE
  Upright images as the module sees them after rotation, any size (resized).
Replay:       --yuv-left FILE --yuv-right FILE
  Raw recordings: 8-bit planes of the rotated size (height x width), one after
  another; replay starts over at the end.

Truth:        --truth FILE
  Appends one line per frame put into the queue: "<stamp>\t<distance>", the
  frame's timestamp (CLOCK_MONOTONIC, us, as in the message) and the nearest
  surface of the synthetic scene in m: the obstacle, or the background when
  there is none (-1 for the other sources).

Faults on purpose:
  --header-size WxH       write WxH as the message's image size
  --dark-period N --dark-length K
                          of every N frames the last K are dark (mean < 55)
  --pause-period N --pause-ms MS
                          after every N frames send nothing for MS ms

Queue lifetime: camsim attaches the pair's queue as the camera process does
(which empties it, after waiting up to 1 s for the module to drain it) and
leaves the segment in place when it exits, so a running module keeps its
queue and picks up the next camsim run. Remove it with 'ipcrm -M 9990'.
The module reads the calibration files when it starts: run camsim (or
'camsim --calib-only') before starting the module.
Prints one line per second; exits 0 on SIGINT/SIGTERM or after --frames,
2 on bad arguments, 1 when a source or the calibration cannot be written.
)";
}

}  // namespace camsim
