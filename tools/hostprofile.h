#pragma once
// The host tool's flight profile: a small text script of timed commands.
//
//   # comment to the end of the line; blank lines are ignored
//   <time s> <command> [arguments]      once, <time> seconds after the start
//   every <period s> <command> [args]   at 0, period, 2 x period, ...
//   every <period s> from <time s> <command> [args]   at time, time + period, ...
//
// Commands:
//   sensing on|off                   sensor-switch request (on sends byte 0 = 0)
//   armed <0..255>                   arm state of the basic state record (1, 2: flying)
//   height <m>                       height above take-off
//   pitch <deg>                      pitch angle
//   speed <forward> [<right> [<vertical>]]   m/s; omitted components keep their value
//   version                          full-version request
//   end                              the host stops here
// Times and values are decimal numbers; every numeric value must be finite,
// times and periods >= 0 and periods > 0. The flight records themselves are
// sent at the host's state rate, carrying the state the commands set so far.

#include <string>
#include <vector>

namespace host {

struct ProfileEvent {
    enum class Kind { Sensing, Armed, Height, Pitch, Speed, Version, End };
    double atS = 0.0;     ///< first time, s after the start
    double everyS = 0.0;  ///< repeat period, s; 0: once
    Kind kind = Kind::End;
    bool on = false;        ///< Sensing
    double values[3] = {};  ///< Armed/Height/Pitch: [0]; Speed: up to three
    int valueCount = 0;
    int line = 0;  ///< line number in the profile, from 1
};

struct Profile {
    std::vector<ProfileEvent> events;  ///< in file order
};

/// Parses a profile text. On failure returns false with `error` naming the
/// line and the reason; `profile` is then unspecified.
bool parseProfile(const std::string& text, Profile& profile, std::string& error);

/// The profile used without --profile: sensing on, armed, 2 m high, level,
/// 1.5 m/s forward, a version request at 1 s.
const char* defaultProfileText();

}  // namespace host
