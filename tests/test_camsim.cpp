// The camera simulator as the module sees it: the program feeding a running
// frame reader through the fixed-key queue. Everything else camsim does is
// exercised by test_module and the demo test.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/shm.h>

#include <chrono>
#include <memory>
#include <vector>

#include "framelayout.h"
#include "imagereader.h"
#include "scenerender.h"
#include "test_support.h"

namespace {

uint64_t monotonicMicroseconds()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count());
}

// In both directions camsim's frame messages reach a running reader as the
// rendered scene, upright, with monotonic camera-clock stamps (equal for the
// two images) that overwrite the first 8 bytes of each image; SIGTERM ends
// the program with 0 and leaves the segment to the reader.
TEST(CamsimProcess, FeedsARunningReaderTheRenderedScene)
{
    testsupport::ScratchRoot root;
    testsupport::SysvGuard guard{framelayout::kFrontQueueKey, framelayout::kDownQueueKey};
    cv::Mat upright[2];
    scene::renderPair(scene::Rig(), scene::SceneLayout(), upright[0], upright[1]);
    for (Common::Direction direction : {Common::FRONT, Common::DOWN}) {
        const std::string label = "--direction " + Common::binoString(direction);
        SCOPED_TRACE(label);
        ImageReader reader(direction, ImageReader::SHM, 640, 480);
        const uint64_t before = monotonicMicroseconds();
        testsupport::Program camsim(CAMSIM_PATH, label + " --fps 50", "camsim.out");
        std::vector<ImageReader::QueueData> frames;
        const bool enough = testsupport::waitUntil(
            [&] {
                while (reader.frameReady->value() > 0) {
                    frames.emplace_back();
                    ImageReader::QueueData& f = frames.back();
                    reader.getImageBlock(f.left, f.right, f.leftTimestamp, f.rightTimestamp);
                }
                return frames.size() >= 4;
            },
            30.0);
        const uint64_t after = monotonicMicroseconds();
        ASSERT_TRUE(enough) << testsupport::readFile("camsim.out");
        camsim.signal(SIGTERM);
        EXPECT_EQ(camsim.status(), 0);
        EXPECT_NE(shmget(direction == Common::FRONT ? 9990 : 9991, 0, 0), -1);

        uint64_t previous = before;
        for (const ImageReader::QueueData& frame : frames) {
            EXPECT_GT(frame.leftTimestamp, previous);
            EXPECT_LE(frame.leftTimestamp, after);
            EXPECT_EQ(frame.rightTimestamp, frame.leftTimestamp);
            previous = frame.leftTimestamp;
            // The stamp covers the sensor image's first 8 bytes: after the
            // turn, within the top 8 rows (front) or the bottom 8 rows (down).
            const cv::Rect unstamped(0, direction == Common::FRONT ? 8 : 0, 480, 632);
            EXPECT_EQ(cv::countNonZero(frame.left(unstamped) != upright[0](unstamped)), 0);
            EXPECT_EQ(cv::countNonZero(frame.right(unstamped) != upright[1](unstamped)), 0);
        }
    }
}

}  // namespace
