#pragma once
// Types shared by every camera pipeline: which camera pair an object serves and
// the flight state handed from the host-message layer to the pipelines.

#include <cstdint>
#include <string>

namespace Common {

/// The camera pair an object serves. The numeric values are part of the
/// configuration and host interfaces.
enum Direction : int {
    FRONT = 0,
    DOWN = 1,
};

/// "front" for FRONT, "down" for DOWN, empty for anything else. Names the
/// configuration section, the log prefix and the file names of a pair.
std::string binoString(Direction direction);

/// "[BINOLIB] [" + binoString(direction) + "]": the first word of every log
/// line of a camera object ("[BINOLIB] [front]").
std::string logPrefix(Direction direction);

/// Names the calling thread for top, perf and gdb ("bino-work-front"); Linux
/// keeps the first 15 characters.
void nameThisThread(const std::string& name);

/// Flight state as the pipelines see it. Angles and speeds are the host's
/// hundredths already scaled by 0.01.
struct FlyInfo {
    bool visionSwitch = false;   ///< obstacle sensing enabled by the pilot
    float pitch = 0.0f;          ///< degrees, as the flight controller reports it
    float headSpeed = 0.0f;      ///< m/s, along the nose
    float rightSpeed = 0.0f;     ///< m/s, to the right
    float verticalSpeed = 0.0f;  ///< m/s
    float height = 0.0f;         ///< m above take-off
    uint32_t armOrDisarm = 0;    ///< 1 and 2 mean flying
};

}  // namespace Common
