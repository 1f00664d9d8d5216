// The frame reader's per-frame work (rotate, optional remap, clip at 240,
// queue copy) on a message already in its buffer, against the baseline of
// copying the two images once, for a grid of camera sizes. With remap on the
// poller only copies, and getImageBlock rectifies the whole frame. Read the
// ratio of BM_PollerFrame to BM_CopyTwoImages at the same size.
//
// Args: configured width, configured height; remap off (0) or on (1).

#include <benchmark/benchmark.h>

#include <opencv2/calib3d.hpp>

#include "framelayout.h"
#include "framemessage.h"
#include "imagereader.h"
#include "scenerender.h"

namespace {

// A rendered scene as the camera delivers it, for a camera of width x height.
struct SensorPair {
    cv::Mat left;
    cv::Mat right;
};

SensorPair sensorPair(int width, int height)
{
    scene::Rig rig;
    rig.size = cv::Size(height, width);
    cv::Mat left;
    cv::Mat right;
    scene::renderPair(rig, scene::SceneLayout(), left, right);
    return {camsim::toSensorOrientation(Common::FRONT, left), camsim::toSensorOrientation(Common::FRONT, right)};
}

void BM_CopyTwoImages(benchmark::State& state)
{
    const SensorPair pair = sensorPair(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    for (auto _ : state) {
        cv::Mat left = pair.left.clone();
        cv::Mat right = pair.right.clone();
        benchmark::DoNotOptimize(left.data);
        benchmark::DoNotOptimize(right.data);
    }
}

void BM_PollerFrame(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    // No source: no thread and no queue; the benchmark plays the poller.
    ImageReader reader(Common::FRONT, ImageReader::NONE, width, height);
    const SensorPair pair = sensorPair(width, height);
    camsim::encodeFrameMessage(pair.left, pair.right, 1, 1, static_cast<uint32_t>(width), static_cast<uint32_t>(height),
                               reader.frameBuffer);
    reader.frameBuffer.resize(framelayout::kMessageBytes);

    // A slightly distorted rig, so remap interpolates every pixel.
    const cv::Size used = reader.getUsedSize();
    const cv::Mat camera = (cv::Mat_<double>(3, 3) << 400, 0, used.width / 2.0, 0, 400, used.height / 2.0, 0, 0, 1);
    const cv::Mat distortion = (cv::Mat_<double>(1, 5) << -0.05, 0.01, 0, 0, 0);
    cv::Mat R1, R2, P1, P2, Q;
    cv::stereoRectify(camera, distortion, camera, distortion, used, cv::Mat::eye(3, 3, CV_64F),
                      cv::Mat(cv::Vec3d(-100, 0, 0)), R1, R2, P1, P2, Q, cv::CALIB_ZERO_DISPARITY, 0);
    cv::initUndistortRectifyMap(camera, distortion, R1, P1, used, CV_16SC2, reader.leftMap1, reader.leftMap2);
    cv::initUndistortRectifyMap(camera, distortion, R2, P2, used, CV_16SC2, reader.rightMap1, reader.rightMap2);
    reader.enableRemap(state.range(2) != 0);

    ImageReader::QueueData frame;
    for (auto _ : state) {
        reader.processMessage(framelayout::kMessageBytes);
        // The consumer's take keeps the queue from filling up; it is a
        // semaphore step and a move.
        reader.getImageBlock(frame.left, frame.right, frame.leftTimestamp, frame.rightTimestamp);
        benchmark::DoNotOptimize(frame.left.data);
    }
}

void sizes(benchmark::internal::Benchmark* bench)
{
    for (auto [width, height] : {std::pair{320, 240}, std::pair{640, 480}, std::pair{720, 720}}) {
        bench->Args({width, height});
    }
}

void sizesAndRemap(benchmark::internal::Benchmark* bench)
{
    for (auto [width, height] : {std::pair{320, 240}, std::pair{640, 480}, std::pair{720, 720}}) {
        bench->Args({width, height, 0});
        bench->Args({width, height, 1});
    }
}

BENCHMARK(BM_CopyTwoImages)->Apply(sizes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PollerFrame)->Apply(sizesAndRemap)->Unit(benchmark::kMicrosecond);

}  // namespace
