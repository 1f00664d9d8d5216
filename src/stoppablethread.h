#pragma once
// A worker thread that a test or tool can stop. Production threads run until
// the process ends; their owners are never destroyed, so stop() is never
// called there. A body that waits uses sleepFor() instead of usleep so a stop
// request ends the wait at once; a body blocked elsewhere (a semaphore,
// accept, recv) is woken by the wake action its owner hands to start().
//
// Thread-safety: start() and stop() belong to the owning thread; stopping()
// and sleepFor() are for the body's thread (stopping() may be read anywhere).

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

class StoppableThread {
public:
    StoppableThread() = default;
    /// Stops and joins the thread if it still runs.
    ~StoppableThread();

    StoppableThread(const StoppableThread&) = delete;
    StoppableThread& operator=(const StoppableThread&) = delete;

    /// Runs `body` on a new thread. `wake` (optional) is called by stop()
    /// after the request is set, from the stopping thread, to unblock a body
    /// that waits outside sleepFor(). Starting twice is a programming error
    /// and throws std::logic_error.
    void start(std::function<void()> body, std::function<void()> wake = {});

    /// Asks the body to finish, wakes it, and waits until it has returned.
    /// Idempotent; a never-started thread returns at once.
    void stop();

    /// True once stop() has been called.
    bool stopping() const;

    /// Sleeps for `duration` or until stop() is called; false once stopping.
    bool sleepFor(std::chrono::microseconds duration);

private:
    mutable std::mutex mutex;
    std::condition_variable signal;
    bool stopRequested = false;  ///< guarded by mutex
    std::function<void()> wakeAction;
    std::thread thread;
};
