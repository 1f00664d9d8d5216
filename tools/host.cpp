// host: plays the flight host process. Loads libbinocular.so with dlopen,
// starts it with binocularInit, forwards flight records and requests from a
// profile through binocular_getInfoFromVM, and prints every message the
// module sends back, decoded, after freeing it as its owner must.

#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "binocular/binocular.h"
#include "hostmessage.h"
#include "hostprofile.h"
#include "hostschedule.h"

namespace {

constexpr uint64_t kHandle = 0x42494e4fu;  // "BINO"

volatile sig_atomic_t g_stop = 0;
void requestStop(int) { g_stop = 1; }

uint64_t monotonicUs()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

struct Options {
    std::string library = BINOCULAR_LIBRARY_DEFAULT;
    std::string profileFile;
    double seconds = 0.0;  ///< 0: until the profile's end or a signal
    double stateHz = 10.0;
    bool json = false;
    bool distances = true;
};

const char* const kUsage = R"(Usage: host [options]
Plays the flight host process for libbinocular.so: loads the library with
dlopen, calls binocularInit(callback, handle), forwards flight records and
requests through binocular_getInfoFromVM, and prints every message the module
sends to the callback, decoded. Each outgoing buffer is freed with plain delete
as the record of its type, as the module's interface requires.

  --library PATH   the module to load                       [the built one]
  --profile FILE   flight profile (below)                   [built-in default]
  --seconds S      stop after S seconds          [profile's end, or Ctrl-C]
  --state-hz N     rate of the flight records (basic state, attitude,
                   speed), 0.1..200 per second                          [10]
  --json           one JSON object per line instead of text
  --no-distances   do not print distance reports (still counted)
  --print-profile  print the built-in profile and exit
  --help           this text

The module reads its configuration and the camera queues below
$BINOCULAR_ROOT when that is set (see config/binocular.ini and camsim).

Profile: one command per line; '#' starts a comment.
  <time s> <command> [args]        once, <time> s after the start
  every <period s> <command> [args]  at 0, period, 2 x period, ...
  every <period s> from <time s> <command> [args]
                                   at time, time + period, ...
Commands:
  sensing on|off                   sensor-switch request (host message 5)
  armed N                          arm state 0..255 (1 and 2 mean flying)
  height M                         height above take-off, m
  pitch DEG                        pitch angle, degrees
  speed FWD [RIGHT [VERT]]         speeds, m/s
  version                          full-version request (host message 4)
  end                              stop the host
Height, pitch and speeds are sent in hundredths, rounded.

Output, text: '<seconds> <kind> ...' per message; a distance names the
reporter that sent it ('front' or 'down', from the reporting thread).
Output, --json: {"t":seconds,"mono_us":CLOCK_MONOTONIC us at receipt,
"type":N,"kind":"status"|"version"|"switch"|"distance"|"unknown",...} with
front_hw, front_calib, down_hw, down_calib | major, minor, major2, minor2 |
result | pair, front_cm, down_cm, target_x1000, target_y1000, passable.
The module's own output (stdout and stderr) goes to stderr, so stdout
carries only these lines. A final summary goes to stderr. Exit status: 0, 1 when the library cannot be
loaded or started, 2 on bad arguments or profile.
)";

// ------------------------------------------------------------ output

std::mutex g_outMutex;
std::FILE* g_out = stdout;  ///< the host's own lines; the module's stdout goes to stderr
bool g_json = false;
bool g_printDistances = true;
uint64_t g_startUs = 0;
std::atomic<uint64_t> g_counts[5];  // per outgoing type, [4]: unknown
std::atomic<uint64_t> g_wrongHandle{0};

// The module names its reporter threads; the name tells which pair's
// reporter sent a distance report, which the report itself does not say.
std::string reportingPair()
{
    char name[32] = {};
    if (pthread_getname_np(pthread_self(), name, sizeof name) != 0) {
        return "";
    }
    if (std::strcmp(name, "bino-rep-front") == 0) {
        return "front";
    }
    if (std::strcmp(name, "bino-rep-down") == 0) {
        return "down";
    }
    return "";
}

int64_t onMessage(void* message, uint32_t type, uint64_t handle)
{
    const uint64_t receivedUs = monotonicUs();
    host::Decoded decoded;
    const size_t size = host::outgoingSize(type);
    if (message != nullptr && size > 0) {
        host::decode(type, static_cast<const uint8_t*>(message), size, decoded);
    } else {
        decoded.type = type;
    }
    if (message != nullptr) {
        host::releaseOutgoing(message, type);
    }
    if (handle != kHandle) {
        ++g_wrongHandle;
    }
    ++g_counts[std::min<uint32_t>(type, 4)];
    if (type == BINO_MSG_DISTANCE && !g_printDistances) {
        return 0;
    }
    const double timeS = static_cast<double>(receivedUs - g_startUs) * 1e-6;
    const std::string pair = type == BINO_MSG_DISTANCE ? reportingPair() : "";
    const std::string line =
        g_json ? host::toJson(decoded, timeS, receivedUs, pair) : host::toText(decoded, timeS, pair);
    std::lock_guard<std::mutex> lock(g_outMutex);
    std::fputs(line.c_str(), g_out);
    std::fputc('\n', g_out);
    std::fflush(g_out);
    return 0;
}

void note(const std::string& text)
{
    std::lock_guard<std::mutex> lock(g_outMutex);
    const double timeS = static_cast<double>(monotonicUs() - g_startUs) * 1e-6;
    if (g_json) {
        std::fprintf(g_out, "{\"t\":%.6f,\"kind\":\"sent\",\"what\":\"%s\"}\n", timeS, text.c_str());
    } else {
        std::fprintf(g_out, "%9.3f sent      %s\n", timeS, text.c_str());
    }
    std::fflush(g_out);
}

// ------------------------------------------------------------ arguments

bool parseNumber(const char* text, double& value)
{
    char* end = nullptr;
    value = std::strtod(text, &end);
    return end != text && *end == '\0' && std::isfinite(value);
}

// 0 run, 1 exit 0 (help), 2 exit 2 (error)
int parseArguments(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        if (option == "--help" || option == "-h") {
            std::fputs(kUsage, stdout);
            return 1;
        }
        if (option == "--print-profile") {
            std::fputs(host::defaultProfileText(), stdout);
            return 1;
        }
        if (option == "--json") {
            options.json = true;
            continue;
        }
        if (option == "--no-distances") {
            options.distances = false;
            continue;
        }
        if (option != "--library" && option != "--profile" && option != "--seconds" && option != "--state-hz") {
            std::fprintf(stderr, "host: unknown option %s\nTry 'host --help'.\n", option.c_str());
            return 2;
        }
        const char* argument = value();
        if (argument == nullptr) {
            std::fprintf(stderr, "host: %s needs a value\nTry 'host --help'.\n", option.c_str());
            return 2;
        }
        if (option == "--library") {
            options.library = argument;
        } else if (option == "--profile") {
            options.profileFile = argument;
        } else if (option == "--seconds") {
            if (!parseNumber(argument, options.seconds) || options.seconds <= 0.0) {
                std::fprintf(stderr, "host: --seconds takes a number > 0\n");
                return 2;
            }
        } else if (option == "--state-hz") {
            if (!parseNumber(argument, options.stateHz) || options.stateHz < 0.1 || options.stateHz > 200.0) {
                std::fprintf(stderr, "host: --state-hz takes a number 0.1..200\n");
                return 2;
            }
        }
    }
    return 0;
}

// ------------------------------------------------------------ the schedule

struct Module {
    decltype(&binocularInit) init = nullptr;
    decltype(&binocular_getInfoFromVM) getInfo = nullptr;
};

class Flight {
public:
    Flight(const Module& module, std::vector<host::ProfileEvent> events)
        : m_module(module), m_schedule(std::move(events))
    {
    }

    /// Runs every event due at `elapsedS` or before. Returns false when an
    /// end command ran.
    bool runDue(double elapsedS)
    {
        bool running = true;
        for (const host::ProfileEvent& event : m_schedule.takeDue(elapsedS)) {
            running = apply(event) && running;
        }
        return running;
    }

    void sendState()
    {
        m_module.getInfo(host::newBasicState(m_state), HOST_MSG_BASIC_STATE);
        m_module.getInfo(host::newAttitude(m_state), HOST_MSG_ATTITUDE);
        m_module.getInfo(host::newSpeed(m_state), HOST_MSG_SPEED);
    }

private:
    bool apply(const host::ProfileEvent& event)
    {
        using Kind = host::ProfileEvent::Kind;
        char text[128];
        switch (event.kind) {
            case Kind::Sensing:
                m_state.sensing = event.on;
                m_module.getInfo(host::newSensorSwitch(event.on), HOST_MSG_SENSOR_SWITCH);
                std::snprintf(text, sizeof text, "sensor switch: sensing %s", event.on ? "on" : "off");
                break;
            case Kind::Version:
                m_module.getInfo(host::newVersionRequest(), HOST_MSG_VERSION_REQUEST);
                std::snprintf(text, sizeof text, "version request");
                break;
            case Kind::Armed:
                m_state.armState = static_cast<uint8_t>(event.values[0]);
                std::snprintf(text, sizeof text, "armed %u", m_state.armState);
                break;
            case Kind::Height:
                m_state.heightM = event.values[0];
                std::snprintf(text, sizeof text, "height %.2f m", m_state.heightM);
                break;
            case Kind::Pitch:
                m_state.pitchDeg = event.values[0];
                std::snprintf(text, sizeof text, "pitch %.2f deg", m_state.pitchDeg);
                break;
            case Kind::Speed: {
                double* targets[] = {&m_state.headSpeedMps, &m_state.rightSpeedMps, &m_state.verticalSpeedMps};
                for (int i = 0; i < event.valueCount; ++i) {
                    *targets[i] = event.values[i];
                }
                std::snprintf(text, sizeof text, "speed %.2f %.2f %.2f m/s", m_state.headSpeedMps,
                              m_state.rightSpeedMps, m_state.verticalSpeedMps);
                break;
            }
            case Kind::End:
                note("end of profile");
                return false;
        }
        note(text);
        // State changes reach the module at once, not only at the next tick.
        if (event.kind != Kind::Sensing && event.kind != Kind::Version) {
            sendState();
        }
        return true;
    }

    Module m_module;
    host::ProfileSchedule m_schedule;
    host::FlightState m_state;
};

bool readFile(const std::string& path, std::string& text)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream content;
    content << in.rdbuf();
    text = content.str();
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    switch (parseArguments(argc, argv, options)) {
        case 1:
            return 0;
        case 2:
            return 2;
        default:
            break;
    }
    std::string profileText = host::defaultProfileText();
    if (!options.profileFile.empty() && !readFile(options.profileFile, profileText)) {
        std::fprintf(stderr, "host: cannot read profile %s\n", options.profileFile.c_str());
        return 2;
    }
    host::Profile profile;
    std::string error;
    if (!host::parseProfile(profileText, profile, error)) {
        std::fprintf(stderr, "host: profile %s: %s\n",
                     options.profileFile.empty() ? "(built-in)" : options.profileFile.c_str(), error.c_str());
        return 2;
    }

    // Signals only set the flag; the main loop notices within one tick.
    struct sigaction action = {};
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    // The module prints on stdout too (its shared-memory queue): give it
    // stderr, keeping stdout for the host's own lines alone.
    std::fflush(stdout);
    const int ownOut = dup(STDOUT_FILENO);
    if (ownOut == -1 || dup2(STDERR_FILENO, STDOUT_FILENO) == -1 || (g_out = fdopen(ownOut, "w")) == nullptr) {
        std::fprintf(stderr, "host: cannot set up the output\n");
        return 1;
    }

    void* library = dlopen(options.library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "host: cannot load %s: %s\n", options.library.c_str(), dlerror());
        return 1;
    }
    Module module;
    module.init = reinterpret_cast<decltype(module.init)>(dlsym(library, "binocularInit"));
    module.getInfo = reinterpret_cast<decltype(module.getInfo)>(dlsym(library, "binocular_getInfoFromVM"));
    if (module.init == nullptr || module.getInfo == nullptr) {
        std::fprintf(stderr, "host: %s lacks the module's entry points\n", options.library.c_str());
        return 1;
    }

    g_json = options.json;
    g_printDistances = options.distances;
    g_startUs = monotonicUs();
    try {
        module.init(onMessage, kHandle);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "host: binocularInit failed: %s\n", failure.what());
        return 1;
    }

    Flight flight(module, profile.events);
    const auto statePeriod = std::chrono::duration<double>(1.0 / options.stateHz);
    auto nextState = std::chrono::steady_clock::now();
    const auto start = std::chrono::steady_clock::now();
    constexpr auto kTick = std::chrono::milliseconds(5);
    while (!g_stop) {
        const auto now = std::chrono::steady_clock::now();
        const double elapsedS = std::chrono::duration<double>(now - start).count();
        if (options.seconds > 0.0 && elapsedS >= options.seconds) {
            break;
        }
        if (!flight.runDue(elapsedS)) {
            break;
        }
        if (now >= nextState) {
            flight.sendState();
            nextState += std::chrono::duration_cast<std::chrono::steady_clock::duration>(statePeriod);
            if (nextState < now) {
                nextState = now;
            }
        }
        std::this_thread::sleep_for(kTick);
    }

    {
        std::lock_guard<std::mutex> lock(g_outMutex);
        std::fprintf(
            stderr,
            "host: received %llu status, %llu version, %llu switch, %llu distance, %llu unknown "
            "message(s)%s\n",
            static_cast<unsigned long long>(g_counts[0].load()), static_cast<unsigned long long>(g_counts[1].load()),
            static_cast<unsigned long long>(g_counts[2].load()), static_cast<unsigned long long>(g_counts[3].load()),
            static_cast<unsigned long long>(g_counts[4].load()),
            g_wrongHandle.load() > 0 ? "; some carried a wrong handle" : "");
        std::fflush(g_out);
        std::fflush(stdout);
        std::fflush(stderr);
        // The module has no shutdown and its threads never stop: leave
        // without running destructors under their feet.
        _exit(g_wrongHandle.load() > 0 || g_counts[4].load() > 0 ? 1 : 0);
    }
}
