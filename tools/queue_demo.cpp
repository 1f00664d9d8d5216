// queue_demo: a camera-like producer process and a consumer process moving
// frame-sized messages through the shared-memory queue, with per-second and
// final throughput, latency and integrity figures.
//
//   queue_demo [--seconds N] [--rate FPS] [--key KEY]
//
// --rate 0 (the default) sends as fast as the ring allows. The queue is the
// frame reader's: 1045312 bytes requested, one reader, one writer.

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "framelayout.h"
#include "shmmqueue.h"

namespace {

constexpr size_t kRingRequest = framelayout::kMessageBytes;  // the frame reader's request
// A whole frame message: header and both image areas filled (1,044,492 bytes).
constexpr size_t kFrameMessage = framelayout::kRightImageOffset + framelayout::kImageAreaBytes;

volatile sig_atomic_t g_stop = 0;

void onSignal(int) { g_stop = 1; }

uint64_t nowNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

// Frame layout used by the demo: [0..8) send time in ns, [8..16) sequence
// number, then a pattern derived from the sequence number, last 8 bytes a
// checksum of everything before.
uint64_t checksum(const unsigned char* data, size_t length)
{
    uint64_t sum = 1469598103934665603ULL;
    for (size_t i = 0; i < length; i += 4096) {  // one byte per page keeps it cheap
        sum = (sum ^ data[i]) * 1099511628211ULL;
    }
    return sum;
}

void fillFrame(std::vector<unsigned char>& frame, uint64_t seq)
{
    const uint64_t stamp = nowNs();
    std::memcpy(frame.data(), &stamp, 8);
    std::memcpy(frame.data() + 8, &seq, 8);
    for (size_t i = 16; i + 8 < frame.size(); i += 4096) {
        frame[i] = static_cast<unsigned char>(seq + i / 4096);
    }
    const uint64_t sum = checksum(frame.data() + 8, frame.size() - 16);
    std::memcpy(frame.data() + frame.size() - 8, &sum, 8);
}

[[noreturn]] void runProducer(shmmqueue::CMessageQueue& queue, double rate)
{
    std::vector<unsigned char> frame(kFrameMessage);
    const uint64_t period = rate > 0 ? static_cast<uint64_t>(1e9 / rate) : 0;
    uint64_t next = nowNs();
    for (uint64_t seq = 0; !g_stop; ++seq) {
        if (period != 0) {
            while (nowNs() < next && !g_stop) {
                usleep(200);
            }
            next += period;
        }
        fillFrame(frame, seq);
        while (queue.SendMessage(frame.data(), frame.size()) == -2 && !g_stop) {
            usleep(100);  // ring full: the consumer is behind
        }
    }
    _exit(0);  // the consumer owns the segment's removal
}

int usage(const char* self)
{
    std::fprintf(stderr, "usage: %s [--seconds N] [--rate FPS] [--key KEY]\n", self);
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    double seconds = 5;
    double rate = 0;
    int key = 0x5D000000 | (static_cast<int>(getpid()) & 0xFFFFF);
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            usage(argv[0]);
            return 0;
        }
        if (i + 1 >= argc) {
            return usage(argv[0]);
        }
        char* endp = nullptr;
        const char* value = argv[++i];
        if (arg == "--seconds") {
            seconds = std::strtod(value, &endp);
        } else if (arg == "--rate") {
            rate = std::strtod(value, &endp);
        } else if (arg == "--key") {
            key = static_cast<int>(std::strtol(value, &endp, 0));
        } else {
            return usage(argv[0]);
        }
        if (endp == value || *endp != '\0' || seconds <= 0 || rate < 0 || key < 0) {
            std::fprintf(stderr, "%s: bad value '%s' for %s\n", argv[0], value, arg.c_str());
            return 2;
        }
    }

    signal(SIGINT, onSignal);
    signal(SIGTERM, onSignal);

    std::unique_ptr<shmmqueue::CMessageQueue> queue(
        shmmqueue::CMessageQueue::CreateInstance(key, kRingRequest, shmmqueue::SINGLE_READER_SINGLE_WRITER));
    if (!queue) {
        std::fprintf(stderr, "queue_demo: could not create the queue\n");
        return 1;
    }
    std::fflush(stdout);
    const pid_t producer = fork();
    if (producer < 0) {
        std::perror("fork");
        return 1;
    }
    if (producer == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);  // never outlive the consumer
        runProducer(*queue, rate);
    }

    std::vector<unsigned char> frame(queue->GetQueueLength());
    const uint64_t start = nowNs();
    const uint64_t stop = start + static_cast<uint64_t>(seconds * 1e9);
    uint64_t tick = start + 1000000000ULL;
    uint64_t expected = 0;
    uint64_t frames = 0, lost = 0, corrupt = 0, tickFrames = 0;
    uint64_t latencySum = 0, latencyMax = 0;
    while (!g_stop && nowNs() < stop) {
        const int n = queue->GetMessage(frame.data());
        const uint64_t now = nowNs();
        if (n > 0) {
            uint64_t stamp, seq, sum;
            std::memcpy(&stamp, frame.data(), 8);
            std::memcpy(&seq, frame.data() + 8, 8);
            std::memcpy(&sum, frame.data() + n - 8, 8);
            if (static_cast<size_t>(n) != kFrameMessage || sum != checksum(frame.data() + 8, kFrameMessage - 16)) {
                ++corrupt;
            }
            lost += seq - expected;
            expected = seq + 1;
            latencySum += now - stamp;
            latencyMax = std::max(latencyMax, now - stamp);
            ++frames;
            ++tickFrames;
        } else {
            usleep(50);
        }
        if (now >= tick) {
            std::printf("%6.1f s  %6llu frames/s  %8.1f MB/s  latency avg %.1f us max %.1f us\n", (now - start) / 1e9,
                        static_cast<unsigned long long>(tickFrames), tickFrames * kFrameMessage / 1e6,
                        frames ? latencySum / 1e3 / frames : 0.0, latencyMax / 1e3);
            std::fflush(stdout);
            tickFrames = 0;
            tick += 1000000000ULL;
        }
    }
    kill(producer, SIGTERM);
    waitpid(producer, nullptr, 0);

    const double elapsed = (nowNs() - start) / 1e9;
    std::printf(
        "summary: %llu frames of %zu bytes in %.2f s = %.1f frames/s, %.1f MB/s; "
        "latency avg %.1f us, max %.1f us; lost %llu, corrupt %llu\n",
        static_cast<unsigned long long>(frames), kFrameMessage, elapsed, frames / elapsed,
        frames * kFrameMessage / elapsed / 1e6, frames ? latencySum / 1e3 / frames : 0.0, latencyMax / 1e3,
        static_cast<unsigned long long>(lost), static_cast<unsigned long long>(corrupt));
    queue.reset();  // removes the segment
    return corrupt == 0 && lost == 0 && frames > 0 ? 0 : 1;
}
