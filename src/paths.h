#pragma once
// Every absolute path the module touches is compiled in here and reached
// through resolve(). When BINOCULAR_ROOT is set (tests, the demo, a bench rig)
// it is put in front of the path, so a whole run can live in a scratch folder;
// unset or empty, the fixed path is used exactly as written.

#include <string>

namespace paths {

inline constexpr const char* kConfigFile = "/home/tarnwick/component/vision_cmp/binocular.ini";
inline constexpr const char* kVisionSwitchFile = "/run/visionSwitch.ini";
inline constexpr const char* kZlogCountFile = "/home/tarnwick/scripts/zlog_count.cfg";
inline constexpr const char* kFrontCalibDir = "/home/linaro/calib/frontBino/";
inline constexpr const char* kDownCalibDir = "/home/linaro/calib/downBino/";
inline constexpr const char* kFrontLogDir = "/data/log/frontBino/";
inline constexpr const char* kDownLogDir = "/data/log/downBino/";

/// Name of the environment variable that relocates every fixed path.
inline constexpr const char* kRootVariable = "BINOCULAR_ROOT";

/// fixedPath with $BINOCULAR_ROOT in front when that variable is set and not
/// empty. A trailing '/' of the root is not doubled.
std::string resolve(const std::string& fixedPath);

}  // namespace paths
