#pragma once
// Per-frame stage times of a camera pipeline, for the latency benchmark.
// Off unless the environment variable BINOCULAR_STAGE_TRACE names a
// directory; then each pipeline appends one line per processed frame to
// "<directory>/<pair>.stages":
//   <frame stamp> <polled> <queued> <got> <rectified> <matched> <chained>
//   <posted> <recorded> <streamed>
// the camera's left timestamp, then CLOCK_MONOTONIC microseconds (the
// camera's clock) when the poller took the message from the queue, when it
// had queued the frame, and when the worker had the frame, had rectified
// the part the matcher reads, had the disparity, had the distance chain's
// result, had posted the reporter, had written the record and images, and had
// streamed to the viewer. Thread-bound: the pipeline's worker only.

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

class StageTrace {
public:
    enum Stage { POLLED, QUEUED, GOT, RECTIFIED, MATCHED, CHAINED, POSTED, RECORDED, STREAMED, STAGES };

    static constexpr const char* kVariable = "BINOCULAR_STAGE_TRACE";

    /// Opens "<$BINOCULAR_STAGE_TRACE>/<pair>.stages" for appending when the
    /// variable is set and not empty; otherwise, or when the file cannot be
    /// opened, every call does nothing.
    explicit StageTrace(const std::string& pair);
    ~StageTrace();
    StageTrace(const StageTrace&) = delete;
    StageTrace& operator=(const StageTrace&) = delete;

    bool enabled() const { return m_file != nullptr; }
    /// Starts a frame: forgets the previous frame's times.
    void begin(unsigned long long frameStamp);
    /// Notes that `stage` is done now.
    void mark(Stage stage);
    /// Notes that `stage` was done at `timeUs` (nowUs()'s clock), for stages
    /// another thread timed.
    void set(Stage stage, uint64_t timeUs);
    /// Writes the frame's line (stages not marked read 0) and flushes it.
    void end();

    static uint64_t nowUs();

private:
    std::FILE* m_file = nullptr;
    unsigned long long m_stamp = 0;
    std::array<uint64_t, STAGES> m_times{};
};
