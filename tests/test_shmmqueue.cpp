#include "shmmqueue.h"

#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <tuple>
#include <vector>

#include "test_support.h"

using shmmqueue::CMessageQueue;
using Bytes = std::vector<unsigned char>;
using testsupport::SysvGuard;

namespace {

constexpr size_t kFrameRequest = 1045312;  // what the frame reader asks for: a ring of 2^20

// A second attachment of a queue's segment, as the camera process sees it.
struct RawSegment {
    explicit RawSegment(int key) : base(static_cast<unsigned char*>(shmat(shmget(key, 0, 0), nullptr, 0))) {}
    ~RawSegment() { shmdt(base); }

    shmmqueue::MemTrunk& trunk() { return *reinterpret_cast<shmmqueue::MemTrunk*>(base); }
    unsigned char* ring() { return base + shmmqueue::kTrunkSize; }
    unsigned char* const base;
};

// Runs `body` with the queue's stdout narration swallowed.
template <typename Body>
void quietly(Body&& body)
{
    testing::internal::CaptureStdout();
    body();
    testing::internal::GetCapturedStdout();
}

std::unique_ptr<CMessageQueue> makeQueue(int key, size_t size,
                                         shmmqueue::eQueueModel model = shmmqueue::SINGLE_READER_SINGLE_WRITER)
{
    std::unique_ptr<CMessageQueue> queue;
    quietly([&] { queue.reset(CMessageQueue::CreateInstance(key, size, model)); });
    return queue;
}

Bytes pattern(size_t length, unsigned seed)
{
    std::mt19937 random(seed);
    Bytes data(length);
    std::generate(data.begin(), data.end(), [&random] { return static_cast<unsigned char>(random()); });
    return data;
}

// Message `seq` of a writer: the tag {writer, seq}, then a slice of a fixed
// random pool whose length (8 or more) and offset follow from the tag alone,
// so a reader checks every byte without a table.
Bytes traffic(uint32_t writer, uint32_t seq, size_t maxLength)
{
    static const Bytes pool = pattern(512 * 1024, 42);
    uint64_t x = (uint64_t{writer} << 32 | seq) * 0x9E3779B97F4A7C15ULL;
    x = (x ^ x >> 29) * 0xBF58476D1CE4E5B9ULL;
    const size_t n = 8 + (x >> 16) % (maxLength - 7), offset = (x >> 40) % (pool.size() - n);
    Bytes data(pool.begin() + offset, pool.begin() + offset + n);
    const uint32_t tag[2] = {writer, seq};
    std::memcpy(data.data(), tag, sizeof tag);
    return data;
}

}  // namespace

// The header and the first message sit at the byte offsets the camera process
// uses; a request is rounded up to a power of two.
TEST(QueueSegment, FrameRequestMakesPaddedHeaderAndRoundedRing)
{
    const int key = testsupport::uniqueKey();
    SysvGuard guard{key};
    auto queue = makeQueue(key, kFrameRequest, shmmqueue::MULTI_READER_MULTI_WRITER);
    ASSERT_NE(queue, nullptr);
    RawSegment raw(key);
    EXPECT_EQ(queue->GetFreeSize(), (1u << 20) - 8);
    EXPECT_EQ(std::make_tuple(raw.trunk().shmKey, raw.trunk().size, raw.trunk().shmId, raw.trunk().queueModel),
              std::make_tuple(key, uint32_t{1u << 20}, shmget(key, 0, 0), 3));
    EXPECT_EQ(Bytes({raw.base[4], raw.base[72], raw.base[140], raw.base[208], raw.base[276], raw.base[341]}),
              Bytes(6, 0))
        << "padding";
    // A message lands right after the header, length first; `end` follows it.
    unsigned char payload[3] = {7, 8, 9};
    ASSERT_EQ(queue->SendMessage(payload, 3), 0);
    EXPECT_EQ(Bytes(raw.base + 384, raw.base + 395), Bytes({3, 0, 0, 0, 0, 0, 0, 0, 7, 8, 9}));
    EXPECT_EQ(raw.trunk().end, 11u);
    EXPECT_TRUE(semget(key + 1, 0, 0) != -1 && semget(key + 2, 0, 0) != -1) << "the locked model's semaphores";
    quietly([&] { queue.reset(); });
    EXPECT_EQ(shmget(key, 0, 0), -1) << "destroying the object removes the segment";
}

// A segment of another size is replaced; one of the same size is shared, and
// constructing a queue over it discards what it held.
TEST(QueueSegment, ExistingSegmentIsReplacedOrAttachedAndEmptied)
{
    const int key = testsupport::uniqueKey();
    SysvGuard guard{key};
    ASSERT_NE(shmget(key, 1000, IPC_CREAT | IPC_EXCL | 0666), -1);
    auto producer = makeQueue(key, 4096);
    unsigned char payload[100] = {1}, out[4096];
    ASSERT_EQ(producer->SendMessage(payload, sizeof payload), 0);
    auto consumer = makeQueue(key, 4096);
    EXPECT_EQ(producer->GetMessage(out), -3);
    ASSERT_EQ(producer->SendMessage(payload, 10), 0);  // one ring, two objects
    EXPECT_EQ(consumer->GetMessage(out), 10);
    quietly([&] { consumer.reset(), producer.reset(); });  // the second finds the segment gone: only reports
}

// A 256-byte ring seen through both the queue and a raw attachment.
class QueueRing : public testing::Test {
protected:
    void SetUp() override
    {
        queue = makeQueue(key, kSize);
        ASSERT_NE(queue, nullptr);
        raw = std::make_unique<RawSegment>(key);
    }
    // An empty ring whose next message starts at `offset`.
    void emptyAt(uint32_t offset) { raw->trunk().begin = raw->trunk().end = offset; }
    // `length` ring bytes from `from` on, across the end as the queue wraps.
    Bytes ringBytes(uint32_t from, size_t length)
    {
        Bytes bytes(length);
        for (size_t i = 0; i < length; ++i) {
            bytes[i] = raw->ring()[(from + i) % kSize];
        }
        return bytes;
    }

    static constexpr uint32_t kSize = 256;
    const int key = testsupport::uniqueKey();
    SysvGuard guard{key};
    std::unique_ptr<CMessageQueue> queue;
    std::unique_ptr<RawSegment> raw;
    unsigned char out[kSize] = {};
};

// Whether the length prefix or the payload crosses the end of the ring, a
// message lies at the old end, length first, and reads back intact. One byte
// too big for the free space writes nothing; a message that fits exactly fills
// the ring, which then still reads back both messages.
TEST_F(QueueRing, MessagesAcrossTheEndAndAtTheFreeSpaceBoundary)
{
    for (uint32_t start : {kSize - 3, kSize - 20}) {  // the prefix wraps; the payload wraps
        SCOPED_TRACE(start);
        emptyAt(start);
        Bytes first = pattern(40, start);
        ASSERT_EQ(queue->SendMessage(first.data(), first.size()), 0);
        EXPECT_EQ(ringBytes(start, 8), Bytes({40, 0, 0, 0, 0, 0, 0, 0}));
        EXPECT_EQ(ringBytes(start + 8, 40), first);
        const unsigned int freeSize = kSize - 8 - 48;
        ASSERT_EQ(queue->GetFreeSize(), freeSize);
        const Bytes before(raw->ring(), raw->ring() + kSize);
        Bytes tooBig = pattern(freeSize - 7, 2);
        EXPECT_EQ(queue->SendMessage(tooBig.data(), tooBig.size()), -2);
        EXPECT_EQ(queue->SendMessage(tooBig.data(), SIZE_MAX), -2) << "length + 8 must not wrap";
        EXPECT_EQ(Bytes(raw->ring(), raw->ring() + kSize), before);
        EXPECT_EQ(raw->trunk().end, (start + 48) % kSize);
        Bytes exact = pattern(freeSize - 8, 3);
        ASSERT_EQ(queue->SendMessage(exact.data(), exact.size()), 0);
        EXPECT_EQ(queue->GetFreeSize(), 0u);
        EXPECT_EQ(queue->SendMessage(first.data(), 1), -2);
        for (const Bytes* message : {&first, &exact}) {
            ASSERT_EQ(queue->GetMessage(out), static_cast<int>(message->size()));
            EXPECT_EQ(Bytes(out, out + message->size()), *message);
        }
        EXPECT_EQ(queue->GetMessage(out), -3);
    }
}

// Fewer than 9 bytes in use, or a prefix longer than the bytes behind it or
// than any producer could send (so a capacity - 16 buffer always suffices):
// peeking leaves the ring alone; taking empties it.
TEST_F(QueueRing, CorruptRingIsReportedAndEmptied)
{
    const struct {
        uint32_t begin, end;
        uint64_t prefix;
    } cases[] = {{0, 38, 31}, {0, kSize - 1, kSize - 9}, {kSize - 4, 4, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.begin << ".." << c.end);
        raw->trunk().begin = c.begin;
        raw->trunk().end = c.end;
        for (uint32_t i = 0; i < 8; ++i) {
            raw->ring()[(c.begin + i) % kSize] = static_cast<unsigned char>(c.prefix >> (8 * i));
        }
        EXPECT_EQ(queue->ReadHeadMessage(out), -4);
        EXPECT_EQ(raw->trunk().begin, c.begin) << "peek must only report";
        EXPECT_EQ(queue->GetMessage(out), -4);
        EXPECT_EQ(raw->trunk().begin, c.end);
    }
}

// Writer processes send `each` messages apiece, retrying while the ring is full,
// while this process takes them: each arrives once, byte-exact, in its writer's
// order. The frame path's lock-free model; the write-locked one, three writers.
TEST(QueueProcesses, EveryMessageArrivesOnceInOrderIntact)
{
    const struct {
        shmmqueue::eQueueModel model;
        size_t ring;
        uint32_t writers, each;
        size_t maxLength;
    } loads[] = {{shmmqueue::SINGLE_READER_SINGLE_WRITER, kFrameRequest, 1, 5000, 200 * 1024},
                 {shmmqueue::MULTI_READER_MULTI_WRITER, 128 * 1024, 3, 2000, 32 * 1024}};
    for (const auto& load : loads) {
        SCOPED_TRACE(static_cast<int>(load.model));
        const int key = testsupport::uniqueKey(3 + load.model);
        SysvGuard guard{key};
        auto queue = makeQueue(key, load.ring, load.model);
        std::vector<pid_t> writers;
        for (uint32_t writer = 0; writer < load.writers; ++writer) {
            writers.push_back(fork());
            if (writers.back() == 0) {  // _exit: the queue's destructor would remove the segment
                alarm(120);
                int rc = 0;
                for (uint32_t seq = 0; seq < load.each && rc == 0; ++seq) {
                    Bytes data = traffic(writer, seq, load.maxLength);
                    while ((rc = queue->SendMessage(data.data(), data.size())) == -2) {
                        sched_yield();  // ring full
                    }
                }
                _exit(rc == 0 ? 0 : 10);
            }
        }
        std::vector<uint32_t> next(load.writers, 0);  // the sequence number each writer owes next
        Bytes out(load.ring);
        uint32_t received = 0, wrong = 0;
        const auto progress = [&] {
            for (int n; (n = queue->GetMessage(out.data())) != -3; ++received) {
                uint32_t tag[2] = {UINT32_MAX, 0};
                std::memcpy(tag, out.data(), n >= 8 ? sizeof tag : 0);
                const bool known = tag[0] < load.writers && tag[1] == next[tag[0]];
                const Bytes expected = known ? traffic(tag[0], next[tag[0]]++, load.maxLength) : Bytes();
                wrong += !known || n != static_cast<int>(expected.size()) ||
                         std::memcmp(out.data(), expected.data(), expected.size()) != 0;
            }
            return received >= load.writers * load.each;
        };
        EXPECT_TRUE(testsupport::waitUntil(progress, 120.0));
        int status = 0;
        for (pid_t pid : writers) {
            EXPECT_TRUE(waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0);
        }
        EXPECT_EQ(std::make_tuple(received, wrong), std::make_tuple(load.writers * load.each, 0u));
        EXPECT_EQ(queue->GetMessage(out.data()), -3);
    }
}
