// camsim: plays the camera process for one stereo pair. See usage() in
// camsimoptions.cpp for the options and for how it shares the queue with a
// running module.

#include <signal.h>
#include <sys/shm.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "camsimoptions.h"
#include "framelayout.h"
#include "framemessage.h"
#include "framesource.h"
#include "rigcalibration.h"
#include "shmmqueue.h"

namespace {

volatile sig_atomic_t g_stop = 0;

// The queue object is never deleted: its destructor removes the segment,
// which would leave a running module polling a segment nobody writes to.
// Held here so leak checkers see it as reachable.
shmmqueue::CMessageQueue* g_queue = nullptr;

void requestStop(int) { g_stop = 1; }

void installSignalHandlers()
{
    struct sigaction action = {};
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

uint64_t monotonicMicroseconds()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

// Sleeps until `deadline` in short steps so a signal ends the wait promptly.
void sleepUntil(std::chrono::steady_clock::time_point deadline)
{
    constexpr auto kStep = std::chrono::milliseconds(20);
    while (!g_stop) {
        auto now = std::chrono::steady_clock::now();
        if (now >= deadline) {
            return;
        }
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(deadline - now, kStep));
    }
}

// Attaching resets the ring's indexes. Doing that while the module is halfway
// through reading a message would misalign its next read, so wait (at most
// `limit`) until an existing ring is empty: the module drains it within one
// 5 ms poll, and with no module running the content is stale anyway.
void waitForEmptyRing(int key, std::chrono::milliseconds limit)
{
    int shmId = shmget(key, 0, 0);
    if (shmId == -1) {
        return;
    }
    void* address = shmat(shmId, nullptr, SHM_RDONLY);
    if (address == reinterpret_cast<void*>(-1)) {
        return;
    }
    const auto* trunk = static_cast<const shmmqueue::MemTrunk*>(address);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!g_stop && std::chrono::steady_clock::now() < deadline &&
           __atomic_load_n(&trunk->begin, __ATOMIC_ACQUIRE) != __atomic_load_n(&trunk->end, __ATOMIC_ACQUIRE)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    shmdt(address);
}

// The nearest surface of the frame just rendered, m: the obstacle, or the
// background plane when the scene has none; -1 when the source cannot tell.
double nearestM(const camsim::Options& options, const camsim::FrameSource& source)
{
    const double obstacle = source.distanceM();
    if (options.source == camsim::SourceKind::Scene && obstacle == 0.0) {
        return options.backgroundM;
    }
    return obstacle;
}

bool inRun(uint64_t frame, uint64_t period, uint64_t length) { return period > 0 && frame % period >= period - length; }

}  // namespace

int main(int argc, char** argv)
{
    camsim::Options options;
    std::string error;
    switch (camsim::parseOptions(std::vector<std::string>(argv + 1, argv + argc), options, error)) {
        case camsim::ParseResult::Help:
            std::fputs(camsim::usage().c_str(), stdout);
            return 0;
        case camsim::ParseResult::Error:
            std::fprintf(stderr, "camsim: %s\nTry 'camsim --help'.\n", error.c_str());
            return 2;
        case camsim::ParseResult::Run:
            break;
    }
    const char* label = options.direction == Common::FRONT ? "front" : "down";

    if (options.writeCalibration || options.calibrationOnly) {
        const std::string folder = camsim::calibrationDirectory(options.direction);
        if (!camsim::writeRigCalibration(folder, camsim::rigOf(options), error)) {
            std::fprintf(stderr, "camsim: %s\n", error.c_str());
            return 1;
        }
        std::printf("[camsim %s] calibration written to %s\n", label, folder.c_str());
        if (options.calibrationOnly) {
            return 0;
        }
    }
    std::unique_ptr<camsim::FrameSource> source = camsim::makeSource(options, error);
    if (!source) {
        std::fprintf(stderr, "camsim: %s\n", error.c_str());
        return 1;
    }

    // Truth lines are flushed one by one so a reader sees each frame at once.
    std::FILE* truth = nullptr;
    if (!options.truthFile.empty()) {
        truth = std::fopen(options.truthFile.c_str(), "a");
        if (truth == nullptr) {
            std::fprintf(stderr, "camsim: cannot write %s\n", options.truthFile.c_str());
            return 1;
        }
    }

    installSignalHandlers();
    const int key = options.direction == Common::FRONT ? framelayout::kFrontQueueKey : framelayout::kDownQueueKey;
    waitForEmptyRing(key, std::chrono::seconds(1));
    if (g_stop) {
        return 0;
    }
    g_queue = shmmqueue::CMessageQueue::CreateInstance(key, framelayout::kMessageBytes,
                                                       shmmqueue::SINGLE_READER_SINGLE_WRITER);
    std::fflush(stdout);

    using Clock = std::chrono::steady_clock;
    const auto period = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / options.fps));
    const auto start = Clock::now();
    auto due = start;
    auto lastReport = start;
    uint64_t sent = 0;
    uint64_t dropped = 0;
    uint64_t sentAtReport = 0;
    std::vector<unsigned char> message;
    cv::Mat left;
    cv::Mat right;

    for (uint64_t frame = 0; !g_stop && (options.frames == 0 || frame < options.frames); ++frame) {
        if (options.pausePeriod > 0 && frame > 0 && frame % options.pausePeriod == 0) {
            due += std::chrono::milliseconds(options.pauseMs);
        }
        // The pair is prepared before its send time, so slow rendering
        // delays the schedule rather than the timestamp.
        if (!source->next(std::chrono::duration<double>(due - start).count(), left, right)) {
            break;
        }
        cv::Mat sensorLeft = camsim::toSensorOrientation(options.direction, left);
        cv::Mat sensorRight = camsim::toSensorOrientation(options.direction, right);
        if (inRun(frame, options.darkPeriod, options.darkLength)) {
            sensorLeft.convertTo(sensorLeft, -1, 0.2);
            sensorRight.convertTo(sensorRight, -1, 0.2);
        }
        // Encoded ahead too: at the send time only the stamp is written, so
        // the stamp is the moment the frame goes into the queue.
        camsim::encodeFrameMessage(sensorLeft, sensorRight, 0, 0,
                                   options.overrideHeader ? options.headerWidth : options.width,
                                   options.overrideHeader ? options.headerHeight : options.height, message);
        sleepUntil(due);
        if (g_stop) {
            break;
        }
        const uint64_t stamp = monotonicMicroseconds();
        camsim::stampFrameMessage(stamp, stamp, message);
        // A full ring means the module is not keeping up: the frame is lost,
        // as with the real camera.
        if (g_queue->SendMessage(message.data(), message.size()) == 0) {
            ++sent;
            if (truth != nullptr) {
                std::fprintf(truth, "%llu\t%.4f\n", static_cast<unsigned long long>(stamp), nearestM(options, *source));
                std::fflush(truth);
            }
        } else {
            ++dropped;
        }
        // A frame more than a period late moves the schedule on instead of
        // causing a burst the module could not take.
        const auto sentAt = Clock::now();
        due += period;
        if (due < sentAt) {
            due = sentAt + period;
        }

        const auto now = Clock::now();
        if (now - lastReport >= std::chrono::seconds(1)) {
            const double seconds = std::chrono::duration<double>(now - lastReport).count();
            char distance[32] = "none";
            if (source->distanceM() > 0.0) {
                std::snprintf(distance, sizeof distance, "%.2f m", source->distanceM());
            }
            std::printf("[camsim %s] frames sent %llu (dropped %llu), %.1f frames/s, obstacle %s\n", label,
                        static_cast<unsigned long long>(sent), static_cast<unsigned long long>(dropped),
                        static_cast<double>(sent - sentAtReport) / seconds, distance);
            std::fflush(stdout);
            sentAtReport = sent;
            lastReport = now;
        }
    }
    if (truth != nullptr) {
        std::fclose(truth);
    }
    std::printf("[camsim %s] stopped after %llu frames sent (dropped %llu)\n", label,
                static_cast<unsigned long long>(sent), static_cast<unsigned long long>(dropped));
    return 0;
}
