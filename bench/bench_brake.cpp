// The whole distance chain of one frame (Brake::setFlyInfo, setDisparity:
// measurement, blind area, high-altitude mismatch check, filters; update)
// against its baseline in the same run, cv::reprojectImageTo3D alone on the
// same map; the figure to read is the counter "ratio" (chain / reprojection,
// median of per-iteration ratios; the aim is at most 0.5).
//
// Maps: a seeded synthetic disparity map as the matchers deliver it, a plane
// at 2.5 m with noise, one pixel in eight invalid (CV_16S: whole px, -1;
// CV_32F: 1/64 px steps, -1.0). Q from cv::stereoRectify of an ideal rig
// (f = 400 px, baseline 100 mm). Sizes are rows x columns: 640 x 480 and
// 544 x 640 (the two known frame sizes).
//
//   ChainAgainstReproject/type:<0 CV_16S, 1 CV_32F>/rows/cols/camera/case
//        camera 0 front, 1 down; case 0 flying at pitch 0 (7 bands),
//        1 flying at pitch 30 (7 bands), 2 not flying (centre window),
//        3 a nearly empty map with one solid patch: the mismatch check runs
//        its template search and fires.

#include <benchmark/benchmark.h>

#include <time.h>

#include <algorithm>
#include <vector>

#include <opencv2/calib3d.hpp>

#include "brake.h"

namespace {

constexpr double kFocalPx = 400.0;
constexpr double kBaselineMm = 100.0;

cv::Mat rigQ(cv::Size size)
{
    const cv::Mat camera =
        (cv::Mat_<double>(3, 3) << kFocalPx, 0, (size.width - 1) / 2.0, 0, kFocalPx, (size.height - 1) / 2.0, 0, 0, 1);
    const cv::Mat distortion = cv::Mat::zeros(1, 5, CV_64F);
    const cv::Mat translation = (cv::Mat_<double>(3, 1) << -kBaselineMm, 0, 0);
    cv::Mat r1, r2, p1, p2, q;
    cv::stereoRectify(camera, distortion, camera, distortion, size, cv::Mat::eye(3, 3, CV_64F), translation, r1, r2, p1,
                      p2, q, cv::CALIB_ZERO_DISPARITY, 0);
    return q;
}

cv::Mat syntheticMap(int type, int rows, int columns, bool nearlyEmpty)
{
    cv::Mat map(rows, columns, type);
    cv::RNG rng(20240614);
    const double planePx = kFocalPx * kBaselineMm / 2500.0;  // 16 px
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < columns; ++x) {
            const bool invalid = nearlyEmpty ? rng.uniform(0, 100) != 0 : rng.uniform(0, 8) == 0;
            const double px = planePx + rng.gaussian(2.0);
            if (type == CV_16S) {
                map.at<int16_t>(y, x) = invalid ? int16_t(-1) : cv::saturate_cast<int16_t>(px);
            } else {
                map.at<float>(y, x) = invalid ? -1.0f : static_cast<float>(cvRound(px * 64) / 64.0);
            }
        }
    }
    if (nearlyEmpty) {
        // One solid patch that the quarter-scale check sees, inside a searched
        // block of the front bands at pitch 0 and of the down grid.
        map(cv::Rect(200, 280, 40, 40)).setTo(cv::Scalar(type == CV_16S ? 300 : 300.0));
    }
    return map;
}

int mapType(const benchmark::State& state) { return state.range(0) == 0 ? CV_16S : CV_32F; }

double median(std::vector<double> values, double quantile = 0.5)
{
    std::sort(values.begin(), values.end());
    return values[static_cast<size_t>(quantile * static_cast<double>(values.size() - 1))];
}

// CPU time of the calling thread in microseconds: unlike the wall clock, not
// inflated by other processes on a shared machine.
double threadCpuUs()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) * 1e-3;
}

// Each iteration times one chain frame and one reprojection of the same map,
// back to back in thread CPU time, so both see the same machine state; the
// counters are the median times and the median, 10th and 90th percentile of
// the per-iteration ratio.
void ChainAgainstReproject(benchmark::State& state)
{
    const int rows = static_cast<int>(state.range(1));
    const int columns = static_cast<int>(state.range(2));
    const auto camera = static_cast<Common::Direction>(state.range(3));
    const int scenario = static_cast<int>(state.range(4));
    const cv::Mat map = syntheticMap(mapType(state), rows, columns, scenario == 3);
    const cv::Mat q = rigQ(map.size());
    int64_t now = 0;
    Brake brake(camera, Brake::Clock{[&now] { return now += 1000; }, 1e6});
    Common::FlyInfo info;
    info.armOrDisarm = scenario == 2 ? 0 : 1;
    info.pitch = scenario == 1 ? 30.0f : 0.0f;
    info.headSpeed = 2.0f;
    cv::Mat points;
    std::vector<double> chainUs;
    std::vector<double> reprojectUs;
    std::vector<double> ratios;
    for (auto _ : state) {
        const double start = threadCpuUs();
        brake.setFlyInfo(info);
        brake.setDisparity(map, q);
        brake.update();
        benchmark::DoNotOptimize(brake.getDistance());
        const double middle = threadCpuUs();
        cv::reprojectImageTo3D(map, points, q, false, -1);
        benchmark::DoNotOptimize(points.data);
        benchmark::ClobberMemory();
        const double end = threadCpuUs();
        chainUs.push_back(middle - start);
        reprojectUs.push_back(end - middle);
        ratios.push_back(chainUs.back() / reprojectUs.back());
    }
    // Every frame must have measured something, or the figure means nothing.
    if (brake.dis_ori_z >= Brake::kNoObstacle) {
        state.SkipWithError("no obstacle measured");
        return;
    }
    if (scenario == 3 && !brake.faultDetectFlagOfTen) {
        state.SkipWithError("mismatch check did not fire");
        return;
    }
    state.counters["chain_us"] = median(chainUs);
    state.counters["reproject_us"] = median(reprojectUs);
    state.counters["ratio"] = median(ratios);
    state.counters["ratio_p10"] = median(ratios, 0.1);
    state.counters["ratio_p90"] = median(ratios, 0.9);
}

void chainSizes(benchmark::internal::Benchmark* bench)
{
    bench->ArgNames({"type", "rows", "cols", "camera", "case"});
    for (int type : {0, 1}) {
        for (auto size : {std::pair<int, int>{640, 480}, std::pair<int, int>{544, 640}}) {
            for (int camera : {0, 1}) {
                for (int scenario : {0, 1, 2, 3}) {
                    if (camera == 1 && (scenario == 1 || scenario == 2)) {
                        continue;  // the down grid ignores pitch and flying state
                    }
                    bench->Args({type, size.first, size.second, camera, scenario});
                }
            }
        }
    }
    bench->Unit(benchmark::kMicrosecond);
}

}  // namespace

BENCHMARK(ChainAgainstReproject)->Apply(chainSizes);
