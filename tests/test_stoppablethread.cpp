// A stop request ends a sleeping or blocked body and joins it. A stop that
// failed to wake a body would hang the test until ctest's timeout.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>

#include "stoppablethread.h"
#include "unnamedsemaphore.h"

TEST(StoppableThread, StopWakesSleepingAndBlockedBodies)
{
    StoppableThread sleeper;
    std::atomic<int> sleeps{0};
    sleeper.start([&] {
        while (sleeper.sleepFor(std::chrono::hours(1))) {
            ++sleeps;
        }
    });
    StoppableThread waiter;  // blocked on a semaphore only the wake action posts
    UnnamedSemaphore semaphore;
    std::atomic<bool> waiterLeft{false};
    waiter.start(
        [&] {
            while (!waiter.stopping()) {
                semaphore.wait();
            }
            waiterLeft = true;
        },
        [&] { semaphore.post(); });
    sleeper.stop();
    waiter.stop();
    EXPECT_EQ(sleeps.load(), 0) << "a wake-up is no completed sleep";
    EXPECT_TRUE(waiterLeft.load());
    EXPECT_FALSE(waiter.sleepFor(std::chrono::hours(1)));
    waiter.stop();  // idempotent

    StoppableThread idle;  // never started
    idle.stop();
    EXPECT_TRUE(idle.stopping());
    StoppableThread once;
    once.start([] {});
    EXPECT_THROW(once.start([] {}), std::logic_error);
}
