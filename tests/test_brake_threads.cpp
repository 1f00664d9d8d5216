// Brake::getDistance read from another thread while the worker measures, as
// the pipeline's reporter does: every value read is one the chain produced,
// and the ThreadSanitizer build sees no race.

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "brake.h"
#include "brake_maps.h"

namespace {

using namespace brakemaps;

TEST(BrakeThreads, DistanceIsReadWhileTheWorkerMeasures)
{
    const cv::Mat Q = rigQ(kTall);
    const cv::Mat maps[] = {planeMap(CV_32F, kTall, Q, 4.0), planeMap(CV_32F, kTall, Q, 9.0),
                            invalidMap(CV_32F, kTall)};
    ManualClock time;
    Brake brake(Common::FRONT, time.clock());
    std::atomic<bool> done{false};
    std::vector<float> seen;
    std::thread reporter([&] {
        while (!done.load(std::memory_order_acquire)) {
            seen.push_back(brake.getDistance());
            std::this_thread::yield();
        }
    });
    std::set<float> produced = {brake.getDistance()};
    for (int frame = 0; frame < 100; ++frame) {
        brake.setFlyInfo(flight(0.0f, 1.0f));
        time.now += 50;
        brake.setDisparity(maps[frame / 10 % 3], Q);
        produced.insert(brake.getDistance());
        brake.update();
    }
    done.store(true, std::memory_order_release);
    reporter.join();
    ASSERT_FALSE(seen.empty());
    for (float value : seen) {
        ASSERT_EQ(produced.count(value), 1u) << value;
    }
    EXPECT_GT(produced.size(), 2u);
}

}  // namespace
