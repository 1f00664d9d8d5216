#include "stoppablethread.h"

#include <stdexcept>
#include <utility>

StoppableThread::~StoppableThread() { stop(); }

void StoppableThread::start(std::function<void()> body, std::function<void()> wake)
{
    if (thread.joinable()) {
        throw std::logic_error("StoppableThread started twice");
    }
    wakeAction = std::move(wake);
    thread = std::thread(std::move(body));
}

void StoppableThread::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopRequested = true;
    }
    signal.notify_all();
    if (!thread.joinable()) {
        return;
    }
    if (wakeAction) {
        wakeAction();
    }
    thread.join();
}

bool StoppableThread::stopping() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return stopRequested;
}

bool StoppableThread::sleepFor(std::chrono::microseconds duration)
{
    std::unique_lock<std::mutex> lock(mutex);
    return !signal.wait_for(lock, duration, [this] { return stopRequested; });
}
