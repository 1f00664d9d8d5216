#pragma once
// Command line of viewer, the ground-side debug-stream viewer.

#include <cstdint>
#include <string>
#include <vector>

#include "streampacket.h"

namespace viewer {

struct Options {
    std::string host = "127.0.0.1";
    int port = streampacket::kFrontPort;
    int cols = 480;              ///< image width, pixels: the module's configured height
    int rows = 640;              ///< image height, pixels: the module's configured width
    std::string snapshotDir;     ///< empty: no PNG files
    uint64_t snapshotEvery = 0;  ///< write every N-th frame; 0: only the first
    uint64_t frames = 0;         ///< exit after this many frames; 0: run until stopped
    bool window = true;          ///< show a window if a display is available
};

enum class ParseResult { Run, Help, Error };

/// Parses the arguments after the program name. On Error, `error` says which
/// argument is wrong and why; options are then unspecified.
ParseResult parseOptions(const std::vector<std::string>& args, Options& options, std::string& error);

/// The --help text.
std::string usage();

}  // namespace viewer
