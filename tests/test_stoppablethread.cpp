// A stop request ends a sleeping or blocked body at once and joins it.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>

#include "stoppablethread.h"
#include "unnamedsemaphore.h"

namespace {

using Clock = std::chrono::steady_clock;

TEST(StoppableThread, StopEndsASleepingOrBlockedBodyPromptly)
{
    // Given a body that sleeps for an hour and one blocked on a semaphore
    // that only the wake action posts,
    StoppableThread sleeper;
    std::atomic<int> sleeps{0};
    sleeper.start([&] {
        while (sleeper.sleepFor(std::chrono::hours(1))) {
            ++sleeps;
        }
    });
    StoppableThread waiter;
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

    // when both are stopped,
    const auto begin = Clock::now();
    sleeper.stop();
    waiter.stop();

    // then both have returned within well under the sleep, without a wake-up
    // counted as a completed sleep.
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5));
    EXPECT_EQ(sleeps.load(), 0);
    EXPECT_TRUE(waiterLeft.load());
    EXPECT_TRUE(waiter.stopping());
    EXPECT_FALSE(waiter.sleepFor(std::chrono::hours(1)));
    waiter.stop();  // idempotent
}

TEST(StoppableThread, NeverStartedStopsAtOnceAndStartsOnlyOnce)
{
    StoppableThread idle;
    idle.stop();
    EXPECT_TRUE(idle.stopping());

    StoppableThread once;
    once.start([] {});
    EXPECT_THROW(once.start([] {}), std::logic_error);
}

}  // namespace
