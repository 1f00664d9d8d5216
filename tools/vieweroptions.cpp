#include "vieweroptions.h"

#include <cerrno>
#include <cstdlib>

namespace viewer {
namespace {

bool parseCount(const std::string& text, uint64_t& value)
{
    if (text.empty() || text[0] < '0' || text[0] > '9') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    value = std::strtoull(text.c_str(), &end, 10);
    return errno == 0 && *end == '\0';
}

// "COLSxROWS" with a frame that fits the module's image area.
bool parseSize(const std::string& text, int& cols, int& rows)
{
    const size_t x = text.find('x');
    uint64_t c = 0;
    uint64_t r = 0;
    if (x == std::string::npos || !parseCount(text.substr(0, x), c) || !parseCount(text.substr(x + 1), r) || c == 0 ||
        r == 0 || c > framelayout::kImageAreaBytes || r > framelayout::kImageAreaBytes ||
        c * r > framelayout::kImageAreaBytes) {
        return false;
    }
    cols = static_cast<int>(c);
    rows = static_cast<int>(r);
    return true;
}

// Stores the value of `option`; an empty result means accepted.
std::string apply(const std::string& option, const std::string& value, Options& options)
{
    uint64_t number = 0;
    if (option == "--host") {
        if (value.empty()) {
            return "expects a host name or IPv4 address";
        }
        options.host = value;
    } else if (option == "--port") {
        if (!parseCount(value, number) || number == 0 || number > 65535) {
            return "expects a TCP port, 1..65535";
        }
        options.port = static_cast<int>(number);
    } else if (option == "--size") {
        if (!parseSize(value, options.cols, options.rows)) {
            return "expects COLSxROWS, e.g. 480x640, at most " + std::to_string(framelayout::kImageAreaBytes) +
                   " pixels";
        }
    } else if (option == "--snapshot") {
        if (value.empty()) {
            return "expects a directory";
        }
        options.snapshotDir = value;
    } else if (option == "--every" || option == "--frames") {
        if (!parseCount(value, number) || number == 0) {
            return "expects a whole number >= 1";
        }
        (option == "--every" ? options.snapshotEvery : options.frames) = number;
    } else {
        return "is not an option";
    }
    return {};
}

}  // namespace

ParseResult parseOptions(const std::vector<std::string>& args, Options& options, std::string& error)
{
    for (size_t i = 0; i < args.size(); ++i) {
        std::string option = args[i];
        if (option == "--help" || option == "-h") {
            return ParseResult::Help;
        }
        if (option == "--no-window") {
            options.window = false;
            continue;
        }
        std::string value;
        const size_t equals = option.find('=');
        if (option.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = option.substr(equals + 1);
            option = option.substr(0, equals);
        } else if (i + 1 < args.size()) {
            value = args[++i];
        } else {
            error = option + " needs a value";
            return ParseResult::Error;
        }
        const std::string problem = apply(option, value, options);
        if (!problem.empty()) {
            error = option + " " + problem + " (got '" + value + "')";
            return ParseResult::Error;
        }
    }
    if (options.snapshotEvery > 0 && options.snapshotDir.empty()) {
        error = "--every needs --snapshot DIR";
        return ParseResult::Error;
    }
    return ParseResult::Run;
}

std::string usage()
{
    return R"(Usage: viewer [options]
Shows the debug stream of one camera pair of the obstacle-sensing module: the
left and right images and the disparity with the front obstacle area and the
distance. Prints the distance and the frame rate once a second. Connects again
whenever the module restarts, until Ctrl-C, q or Esc in the window, or --frames.

  --host H            module computer, name or IPv4 address       [127.0.0.1]
  --port N            8883 front pair, 8884 down pair              [8883]
  --size COLSxROWS    image size as the module streams it: the camera's
                      configured size turned by 90 degrees         [480x640]
                      (a packet does not carry it; a wrong size is reported)
  --snapshot DIR      write PNG files of a frame into DIR (made if missing):
                      frameNNNNNN-left.png, -right.png (grey), -disparity.png
                      (as received: disparity x 16, area in blue, the
                      distance's bytes in the first pixels), -view.png (the
                      window's picture); NNNNNN counts frames from 1
  --every N           with --snapshot: every N-th frame      [only the first]
  --frames N          exit after N frames                   [run until stopped]
  --no-window         no window even if a display is available ($DISPLAY)

A frame is a stereo-pair packet followed by a disparity packet. Garbage and
packets cut short are skipped; the status line counts the skipped bytes.
Exit status: 0 when stopped or after --frames, 2 on bad arguments.
)";
}

}  // namespace viewer
