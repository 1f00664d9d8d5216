// One frame message through the shared-memory ring (SendMessage + GetMessage)
// against the two plain memcpy calls that moving the same bytes in and out of
// any buffer costs. Read the ratio of the two times.

#include <benchmark/benchmark.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <vector>

#include "framelayout.h"
#include "imagereader.h"
#include "shmmqueue.h"

namespace {

// A whole frame message: header and both image areas filled (1,044,492 bytes).
constexpr size_t kFrameMessage = framelayout::kRightImageOffset + framelayout::kImageAreaBytes;
constexpr size_t kRingRequest = framelayout::kMessageBytes;  // the frame reader's request

std::vector<unsigned char> frameBytes()
{
    std::vector<unsigned char> data(kFrameMessage);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<unsigned char>(i * 131 + (i >> 9));
    }
    return data;
}

void BM_TwoMemcpy(benchmark::State& state)
{
    auto source = frameBytes();
    std::vector<unsigned char> middle(kFrameMessage);
    std::vector<unsigned char> out(kFrameMessage);
    for (auto _ : state) {
        std::memcpy(middle.data(), source.data(), kFrameMessage);
        benchmark::ClobberMemory();
        std::memcpy(out.data(), middle.data(), kFrameMessage);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFrameMessage));
}

void BM_QueueSendGet(benchmark::State& state)
{
    const int key = 0x5C000000 | (static_cast<int>(getpid()) & 0xFFFFF) << 2;
    std::unique_ptr<shmmqueue::CMessageQueue> queue(
        shmmqueue::CMessageQueue::CreateInstance(key, kRingRequest, shmmqueue::SINGLE_READER_SINGLE_WRITER));
    auto source = frameBytes();
    std::vector<unsigned char> out(queue->GetQueueLength());
    for (auto _ : state) {
        if (queue->SendMessage(source.data(), kFrameMessage) != 0 || queue->GetMessage(out.data()) < 0) {
            state.SkipWithError("queue refused a frame");
            break;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFrameMessage));
}

}  // namespace

BENCHMARK(BM_TwoMemcpy)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_QueueSendGet)->Unit(benchmark::kMicrosecond);
