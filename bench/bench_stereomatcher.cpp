// Disparity costs on a seeded synthetic pair (noise shifted by 8 px), each
// beside its baseline in the same run:
//   BlockMatchBand / BlockMatchWholeFrame: what restricting BM to the pitch
//     band saves (same matcher, same settings);
//   BlockMatchBand / BlockMatchBandOneStripe: what the parallel stripes save
//     against StereoBM's own single-stripe compute of the same band;
//   BlockMatchBand/.../30 / BlockMatchBand/.../0: the same compute after
//     30 ms asleep, as the pipeline runs it once a frame, against back to back;
//   UnitPair: the stereo unit substitute on one rotated pair;
//   UnitVersusSgbm3Way: the substitute and OpenCV's fastest semi-global mode
//     (StereoSGBM 64 px, 5x5, P1 = 8*25, P2 = 32*25, MODE_SGBM_3WAY) called
//     in turn on the same pair, the synthetic one or (arg 2 = 1) a rendered
//     obstacle scene; counters: the median per-call time ratio
//     (substitute / OpenCV), its 10th and 90th percentiles, and each side's
//     median time in ms;
//   Fixed2Float / CopyFloats: decoding one frame of unit words against a
//     plain copy of as many floats.
// Sizes are rotated (width x height).

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include <opencv2/calib3d.hpp>

#include "dpu.h"
#include "stereomatcher.h"
#ifdef BINO_BENCH_RENDERED_PAIR
#include "scenerender.h"
#endif

namespace {

struct SyntheticPair {
    cv::Mat left;
    cv::Mat right;
};

SyntheticPair syntheticPair(cv::Size size)
{
    SyntheticPair pair{cv::Mat(size, CV_8UC1), cv::Mat(size, CV_8UC1)};
    cv::RNG rng(20240501);
    rng.fill(pair.left, cv::RNG::UNIFORM, 0, 256);
    rng.fill(pair.right, cv::RNG::UNIFORM, 0, 256);
    constexpr int kShiftPx = 8;
    pair.left.colRange(kShiftPx, size.width).copyTo(pair.right.colRange(0, size.width - kShiftPx));
    return pair;
}

cv::Size sizeOf(const benchmark::State& state)
{
    return cv::Size(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
}

// Arg 2: milliseconds asleep before each compute (not timed).
void BlockMatchBand(benchmark::State& state)
{
    SyntheticPair pair = syntheticPair(sizeOf(state));
    StereoMatcher matcher(Common::FRONT, StereoMatcher::BM, pair.left.size());
    matcher.setPitch(0.0f);
    const std::chrono::milliseconds idle(state.range(2));
    cv::Mat disparity;
    for (auto _ : state) {
        if (idle.count() > 0) {
            state.PauseTiming();
            std::this_thread::sleep_for(idle);
            state.ResumeTiming();
        }
        matcher.compute(pair.left, pair.right, disparity, 0);
        benchmark::DoNotOptimize(disparity.data);
    }
}

void BlockMatchBandOneStripe(benchmark::State& state)
{
    SyntheticPair pair = syntheticPair(sizeOf(state));
    StereoMatcher matcher(Common::FRONT, StereoMatcher::BM, pair.left.size());
    const cv::Rect band = matcher.decideROI(0.0f, pair.left.rows, pair.left.cols);
    cv::Mat raw(pair.left.size(), CV_16S, cv::Scalar(0));
    cv::Mat rawBand = raw(band);
    cv::Mat disparity;
    for (auto _ : state) {
        matcher.bm->compute(pair.left(band), pair.right(band), rawBand);
        raw.convertTo(disparity, CV_16S, 1.0 / 16);
        benchmark::DoNotOptimize(disparity.data);
    }
}

void BlockMatchWholeFrame(benchmark::State& state)
{
    SyntheticPair pair = syntheticPair(sizeOf(state));
    StereoMatcher matcher(Common::FRONT, StereoMatcher::BM, pair.left.size());
    cv::Mat raw;
    cv::Mat disparity;
    for (auto _ : state) {
        matcher.bm->compute(pair.left, pair.right, raw);
        raw.convertTo(disparity, CV_16S, 1.0 / 16);
        benchmark::DoNotOptimize(disparity.data);
    }
}

void UnitPair(benchmark::State& state)
{
    SyntheticPair pair = syntheticPair(sizeOf(state));
    if (dpu_init(pair.left.cols, pair.left.rows) != DPU_OK) {
        state.SkipWithError("dpu_init refused the size");
        return;
    }
    std::vector<unsigned short> words(pair.left.total());
    for (auto _ : state) {
        dpu_compute_grp1(pair.left.data, pair.right.data, words.data());
        benchmark::DoNotOptimize(words.data());
    }
}

// The rendered scene of the accuracy tests: a textured obstacle plane at 5 m
// (16 px) before a background at 40 m (2 px).
bool renderedPair(cv::Size size, SyntheticPair& pair)
{
#ifdef BINO_BENCH_RENDERED_PAIR
    scene::Rig rig;
    rig.size = size;
    scene::renderPair(rig, scene::SceneLayout{}, pair.left, pair.right);
    return true;
#else
    (void)size;
    (void)pair;
    return false;
#endif
}

double quantile(std::vector<double> values, double q)
{
    const auto at = values.begin() + static_cast<std::ptrdiff_t>(q * static_cast<double>(values.size() - 1) + 0.5);
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

// Each iteration times one substitute call and one OpenCV call back to back,
// so both see the same load; the ratio of each pair of calls is one sample.
void UnitVersusSgbm3Way(benchmark::State& state)
{
    SyntheticPair pair = syntheticPair(sizeOf(state));
    if (state.range(2) == 1 && !renderedPair(sizeOf(state), pair)) {
        state.SkipWithError("built without the scene renderer");
        return;
    }
    if (dpu_init(pair.left.cols, pair.left.rows) != DPU_OK) {
        state.SkipWithError("dpu_init refused the size");
        return;
    }
    constexpr int kBlockSize = 5;
    auto sgbm = cv::StereoSGBM::create(0, 64, kBlockSize);
    sgbm->setP1(8 * kBlockSize * kBlockSize);
    sgbm->setP2(32 * kBlockSize * kBlockSize);
    sgbm->setMode(cv::StereoSGBM::MODE_SGBM_3WAY);
    std::vector<unsigned short> words(pair.left.total());
    cv::Mat disparity;
    std::vector<double> ratios;
    std::vector<double> unitMs;
    std::vector<double> sgbmMs;
    // First calls allocate working memory (and OpenCV starts its threads).
    dpu_compute_grp0(pair.left.data, pair.right.data, words.data());
    sgbm->compute(pair.left, pair.right, disparity);
    using Clock = std::chrono::steady_clock;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        dpu_compute_grp0(pair.left.data, pair.right.data, words.data());
        benchmark::DoNotOptimize(words.data());
        const Clock::time_point unitDone = Clock::now();
        sgbm->compute(pair.left, pair.right, disparity);
        benchmark::DoNotOptimize(disparity.data);
        const Clock::time_point sgbmDone = Clock::now();
        unitMs.push_back(std::chrono::duration<double, std::milli>(unitDone - start).count());
        sgbmMs.push_back(std::chrono::duration<double, std::milli>(sgbmDone - unitDone).count());
        ratios.push_back(unitMs.back() / sgbmMs.back());
    }
    state.counters["ratio"] = quantile(ratios, 0.5);
    state.counters["ratio_p10"] = quantile(ratios, 0.1);
    state.counters["ratio_p90"] = quantile(ratios, 0.9);
    state.counters["unit_ms"] = quantile(unitMs, 0.5);
    state.counters["sgbm3way_ms"] = quantile(sgbmMs, 0.5);
}

// Unit words as a frame holds them: mostly valid disparities, one in eight
// flagged invalid.
void fillWords(uint16_t* words, size_t count)
{
    cv::RNG rng(7);
    for (size_t i = 0; i < count; ++i) {
        const uint16_t magnitude = static_cast<uint16_t>(rng.uniform(0, 64 * 48));
        words[i] = rng.uniform(0, 8) == 0 ? static_cast<uint16_t>(0x8000 | magnitude) : magnitude;
    }
}

void Fixed2Float(benchmark::State& state)
{
    const cv::Size size = sizeOf(state);
    // The down camera: a front unit matcher would dump its first frame.
    StereoMatcher matcher(Common::DOWN, StereoMatcher::DPU, size);
    fillWords(matcher.hwDisparity.get(), size.area());
    cv::Mat disparity;
    for (auto _ : state) {
        matcher.fixed2float(disparity);
        benchmark::DoNotOptimize(disparity.data);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * size.area());
}

void CopyFloats(benchmark::State& state)
{
    const size_t count = static_cast<size_t>(sizeOf(state).area());
    std::vector<float> source(count, 1.5f);
    std::vector<float> target(count);
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), count * sizeof(float));
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * count));
}

void rotatedSizes(benchmark::internal::Benchmark* bench)
{
    bench->Args({480, 640})->Args({600, 800})->Unit(benchmark::kMillisecond);
}

}  // namespace

BENCHMARK(BlockMatchBand)
    ->ArgsProduct({{480}, {640}, {0, 30}})
    ->ArgsProduct({{600}, {800}, {0, 30}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BlockMatchBandOneStripe)->Apply(rotatedSizes);
BENCHMARK(BlockMatchWholeFrame)->Apply(rotatedSizes);
BENCHMARK(UnitPair)->Apply(rotatedSizes);
// 30 interleaved pairs of calls per pair kind: enough for a stable median.
BENCHMARK(UnitVersusSgbm3Way)
    ->Args({480, 640, 0})
    ->Args({480, 640, 1})
    ->ArgNames({"width", "height", "rendered"})
    ->Iterations(30)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(Fixed2Float)->Apply(rotatedSizes)->Unit(benchmark::kMicrosecond);
BENCHMARK(CopyFloats)->Apply(rotatedSizes)->Unit(benchmark::kMicrosecond);
