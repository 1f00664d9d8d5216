#pragma once
// The module entry's configuration: the module-wide switches and their
// loaders. The switches are plain globals: loadCfg() fills them on the host's
// thread before any module thread starts; afterwards only the thread that
// delivers host messages writes visionSwitch.

/// A front camera pipeline is created ("enableFront" of "common").
extern bool enableFront;
/// A down camera pipeline is created ("enableDown" of "common").
extern bool enableDown;
/// Obstacle sensing on: "visionSwitch" of binocular.ini, overridden by the
/// switch the host last set (/run/visionSwitch.ini, kept until reboot).
extern bool visionSwitch;

/// Reads the three switches of section "common" of binocular.ini, then
/// loadVisionSwitch(). A file that cannot be read is logged and behaves as an
/// empty one. Every value goes through std::stoi: a missing key or a value
/// that is not a decimal integer throws std::invalid_argument (what() "stoi"),
/// one outside int std::out_of_range; switches assigned before keep their
/// new values. The module does not start without its configuration.
void loadCfg();

/// Reads /run/visionSwitch.ini. Returns -1 (logged) when the file or its
/// key "visionSwitch" in "common" is missing; otherwise stores the switch in
/// visionSwitch and returns it as 0 or 1. A value that is not a decimal
/// integer throws as in loadCfg().
int loadVisionSwitch();

/// Writes visionSwitch to /run/visionSwitch.ini as "0" or "1", replacing the
/// file atomically; a failure is logged and not retried.
void saveVisionSwitch();
