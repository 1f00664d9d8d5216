#include "shmmqueue.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "test_support.h"

using shmmqueue::CMessageQueue;
using shmmqueue::CShmRWlock;
using shmmqueue::MemTrunk;
using testsupport::SysvGuard;

namespace {

constexpr size_t kFrameRequest = 1045312;  // what the frame reader asks for
constexpr size_t kBigRing = 1048576;

// A second attachment of a queue's segment, as another process would see it.
class RawSegment {
public:
    explicit RawSegment(int key)
    {
        int id = shmget(key, 0, 0);
        if (id == -1) {
            throw std::runtime_error("segment missing");
        }
        void* addr = shmat(id, nullptr, 0);
        if (addr == reinterpret_cast<void*>(-1)) {
            throw std::runtime_error("shmat failed");
        }
        m_base = static_cast<unsigned char*>(addr);
        shmid_ds stat{};
        shmctl(id, IPC_STAT, &stat);
        m_bytes = stat.shm_segsz;
    }
    ~RawSegment() { shmdt(m_base); }
    RawSegment(const RawSegment&) = delete;
    RawSegment& operator=(const RawSegment&) = delete;

    MemTrunk& trunk() { return *reinterpret_cast<MemTrunk*>(m_base); }
    unsigned char* ring() { return m_base + shmmqueue::kTrunkSize; }
    unsigned char* bytes() { return m_base; }
    size_t segmentSize() const { return m_bytes; }

private:
    unsigned char* m_base = nullptr;
    size_t m_bytes = 0;
};

std::unique_ptr<CMessageQueue> makeQueue(int key, size_t size,
                                         shmmqueue::eQueueModel model = shmmqueue::SINGLE_READER_SINGLE_WRITER)
{
    testing::internal::CaptureStdout();  // the queue narrates its set-up
    std::unique_ptr<CMessageQueue> queue(CMessageQueue::CreateInstance(key, size, model));
    testing::internal::GetCapturedStdout();
    return queue;
}

std::vector<unsigned char> pattern(size_t length, unsigned seed)
{
    std::vector<unsigned char> data(length);
    uint32_t x = seed * 2654435761u + 1;
    for (auto& byte : data) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        byte = static_cast<unsigned char>(x);
    }
    return data;
}

// Moves both indexes to `offset` by sending and consuming filler messages, so
// the next message starts exactly there.
void advanceTo(CMessageQueue& queue, RawSegment& raw, uint32_t offset)
{
    std::vector<unsigned char> sink(queue.GetQueueLength());
    const uint32_t size = queue.GetQueueLength();
    while (raw.trunk().end != offset) {
        uint32_t end = raw.trunk().end;
        uint32_t distance = (offset - end) & (size - 1);
        // A message occupies 8 + n bytes, n >= 1; stay well clear of the limits.
        size_t step = std::min<size_t>(distance, size / 2);
        if (step < 9) {
            step = distance + size / 2;  // go round once more
            step = std::min<size_t>(step, size / 2);
        }
        std::vector<unsigned char> filler(step - 8, 0xEE);
        ASSERT_EQ(queue.SendMessage(filler.data(), filler.size()), 0);
        ASSERT_EQ(queue.GetMessage(sink.data()), static_cast<int>(filler.size()));
    }
}

}  // namespace

// ------------------------------------------------------------------ rounding

TEST(QueueRounding, HighestBitAndPowerOfTwoRounding)
{
    EXPECT_EQ(CMessageQueue::Fls(0), 0);
    EXPECT_EQ(CMessageQueue::Fls(1), 1);
    EXPECT_EQ(CMessageQueue::Fls(2), 2);
    EXPECT_EQ(CMessageQueue::Fls(3), 2);
    EXPECT_EQ(CMessageQueue::Fls(4), 3);
    EXPECT_EQ(CMessageQueue::Fls(kFrameRequest - 1), 20);
    EXPECT_EQ(CMessageQueue::Fls(0x7FFFFFFFUL), 31);
    EXPECT_EQ(CMessageQueue::Fls(0x100000000UL), 33);

    EXPECT_FALSE(CMessageQueue::IsPowerOfTwo(0));
    EXPECT_TRUE(CMessageQueue::IsPowerOfTwo(1));
    EXPECT_TRUE(CMessageQueue::IsPowerOfTwo(kBigRing));
    EXPECT_FALSE(CMessageQueue::IsPowerOfTwo(kFrameRequest));

    EXPECT_EQ(CMessageQueue::RoundupPowofTwo(kFrameRequest), kBigRing);
    EXPECT_EQ(CMessageQueue::RoundupPowofTwo(kBigRing + 1), 2 * kBigRing);
    EXPECT_EQ(CMessageQueue::RoundupPowofTwo(1), 1u);
    EXPECT_EQ(CMessageQueue::RoundupPowofTwo(3), 4u);
    EXPECT_EQ(CMessageQueue::RoundupPowofTwo(1UL << 30), 1UL << 30);
    // Capacities beyond 2^30 cannot be represented; the caller gets 0, not garbage.
    EXPECT_EQ(CMessageQueue::RoundupPowofTwo((1UL << 30) + 1), 0u);
    EXPECT_EQ(CMessageQueue::RoundupPowofTwo(0), 0u);
}

// ------------------------------------------------------------------ segments

TEST(QueueSegment, FrameRequestMakesPaddedHeaderAndRoundedRing)
{
    const int key = testsupport::uniqueKey();
    SysvGuard guard{key};
    EXPECT_EQ(CMessageQueue::CreateInstance(key, 0, shmmqueue::SINGLE_READER_SINGLE_WRITER), nullptr);
    EXPECT_EQ(CMessageQueue::CreateInstance(key, (1UL << 31) + 5, shmmqueue::SINGLE_READER_SINGLE_WRITER), nullptr);

    testing::internal::CaptureStdout();
    std::unique_ptr<CMessageQueue> queue(
        CMessageQueue::CreateInstance(key, kFrameRequest, shmmqueue::MULTI_READER_MULTI_WRITER));
    std::string said = testing::internal::GetCapturedStdout();
    ASSERT_NE(queue, nullptr);
    EXPECT_NE(said.find("Try to malloc share memory of 1048960 bytes... \n"), std::string::npos) << said;
    EXPECT_NE(said.find("Successfully alloced share memory block,[key= " + std::to_string(key)), std::string::npos);
    EXPECT_NE(said.find(", size 1048576, begin 0, end 0, queue module 3 \n"), std::string::npos) << said;

    RawSegment raw(key);
    EXPECT_EQ(raw.segmentSize(), 1048960u);
    EXPECT_EQ(queue->GetQueueLength(), kBigRing);
    EXPECT_EQ(queue->GetFreeSize(), kBigRing - 8);

    // Byte offsets as the camera process reads them.
    int32_t shmKey;
    uint32_t size;
    int32_t shmId;
    std::memcpy(&shmKey, raw.bytes() + 136, 4);
    std::memcpy(&size, raw.bytes() + 204, 4);
    std::memcpy(&shmId, raw.bytes() + 272, 4);
    EXPECT_EQ(shmKey, key);
    EXPECT_EQ(size, kBigRing);
    EXPECT_EQ(shmId, shmget(key, 0, 0));
    EXPECT_EQ(raw.bytes()[340], 3);
    for (size_t offset : {size_t{4}, size_t{72}, size_t{140}, size_t{208}, size_t{276}, size_t{341}}) {
        EXPECT_EQ(raw.bytes()[offset], 0) << "padding at " << offset;
    }

    // A message lands at ring offset 0 = segment offset 384, length first.
    unsigned char payload[3] = {7, 8, 9};
    ASSERT_EQ(queue->SendMessage(payload, 3), 0);
    uint64_t prefix;
    std::memcpy(&prefix, raw.bytes() + 384, 8);
    EXPECT_EQ(prefix, 3u);
    EXPECT_EQ(raw.bytes()[392], 7);
    uint32_t end;
    std::memcpy(&end, raw.bytes() + 68, 4);
    EXPECT_EQ(end, 11u);

    // The locked models own their semaphore sets at key + 1 and key + 2.
    EXPECT_NE(semget(key + 1, 0, 0), -1);
    EXPECT_NE(semget(key + 2, 0, 0), -1);

    // Destroying the object removes the segment for everybody.
    testing::internal::CaptureStdout();
    queue.reset();
    said = testing::internal::GetCapturedStdout();
    EXPECT_EQ(shmget(key, 0, 0), -1);
    EXPECT_NE(said.find("Remove shared memory [key= "), std::string::npos);
}

TEST(QueueSegment, UnlockedModelCreatesNoSemaphores)
{
    const int key = testsupport::uniqueKey();
    SysvGuard guard{key};
    auto queue = makeQueue(key, 4096);
    ASSERT_NE(queue, nullptr);
    EXPECT_FALSE(queue->IsBeginLock());
    EXPECT_FALSE(queue->IsEndLock());
    EXPECT_EQ(semget(key + 1, 0, 0), -1);
    EXPECT_EQ(semget(key + 2, 0, 0), -1);
}

TEST(QueueSegment, ExistingSegmentOfOtherSizeIsReplaced)
{
    const int key = testsupport::uniqueKey();
    SysvGuard guard{key};
    ASSERT_NE(shmget(key, 1000, IPC_CREAT | IPC_EXCL | 0666), -1);

    testing::internal::CaptureStdout();
    std::unique_ptr<CMessageQueue> queue(CMessageQueue::CreateInstance(key, 4096, shmmqueue::SINGLE_READER_SINGLE_WRITER));
    std::string said = testing::internal::GetCapturedStdout();
    ASSERT_NE(queue, nullptr);
    EXPECT_NE(said.find("Same shm seg [key= " + std::to_string(key) + "] exist, now try to attach it... \n"),
              std::string::npos);
    EXPECT_NE(said.find("failed,maybe the size of share memory changed,"), std::string::npos) << said;
    EXPECT_NE(said.find("First remove the exist share memory"), std::string::npos);
    RawSegment raw(key);
    EXPECT_EQ(raw.segmentSize(), 4096u + 384u);

    // Same size again: attached, not recreated.
    shmmqueue::enShmModule module = shmmqueue::SHM_CREATED;
    int shmId = -1;
    testing::internal::CaptureStdout();
    unsigned char* second = CMessageQueue::CreateShareMem(key, 4096 + 384, module, shmId);
    said = testing::internal::GetCapturedStdout();
    EXPECT_EQ(module, shmmqueue::SHM_ATTACHED);
    EXPECT_EQ(shmId, shmget(key, 0, 0));
    EXPECT_NE(said.find("Attach to share memory [key= " + std::to_string(key)), std::string::npos);
    shmdt(second);
}

TEST(QueueSegment, SecondConstructionDiscardsQueuedMessages)
{
    const int key = testsupport::uniqueKey();
    SysvGuard guard{key};
    auto producer = makeQueue(key, 4096);
    unsigned char payload[100] = {1};
    ASSERT_EQ(producer->SendMessage(payload, sizeof payload), 0);
    ASSERT_EQ(producer->SendMessage(payload, sizeof payload), 0);
    ASSERT_EQ(producer->GetDataSize(), 216u);

    auto consumer = makeQueue(key, 4096);  // attaches the same segment
    unsigned char out[4096];
    EXPECT_EQ(consumer->GetDataSize(), 0u);
    EXPECT_EQ(consumer->GetMessage(out), -3);
    EXPECT_EQ(producer->GetMessage(out), -3);

    // Both objects now share one ring.
    ASSERT_EQ(producer->SendMessage(payload, 10), 0);
    EXPECT_EQ(consumer->GetMessage(out), 10);

    testing::internal::CaptureStdout();
    consumer.reset();  // removes the segment; the producer's destructor then only reports
    producer.reset();
    std::string said = testing::internal::GetCapturedStdout();
    EXPECT_NE(said.find("Error, touch to shm"), std::string::npos) << said;
}

TEST(QueueSegment, FatalSetupPathsEndTheProcessWithTheirStatus)
{
    const int key = testsupport::uniqueKey(1);
    SysvGuard guard{key};

    auto negative = testsupport::runInChild([] {
        shmmqueue::enShmModule module;
        int id;
        CMessageQueue::CreateShareMem(-5, 4096, module, id);
    });
    EXPECT_TRUE(negative.exited);
    EXPECT_EQ(negative.exitCode, 255);
    EXPECT_NE(negative.output.find("CreateShareMem failed. [key -5]errno:"), std::string::npos) << negative.output;
    EXPECT_NE(negative.output.find("[src/shmmqueue.cpp:"), std::string::npos) << negative.output;

    auto zeroSize = testsupport::runInChild([key] {
        shmmqueue::enShmModule module;
        int id;
        CMessageQueue::CreateShareMem(key, 0, module, id);
    });
    EXPECT_EQ(zeroSize.exitCode, 255);
    EXPECT_NE(zeroSize.output.find("Alloc share memory failed, [iKey:" + std::to_string(key) + "] , size:0 , error:"),
              std::string::npos)
        << zeroSize.output;
    EXPECT_EQ(shmget(key, 0, 0), -1);  // nothing left behind

    testing::internal::CaptureStdout();
    EXPECT_EQ(CMessageQueue::DestroyShareMem(nullptr, -1), -1);
    EXPECT_EQ(CMessageQueue::DestroyShareMem(nullptr, key), -1);
    std::string said = testing::internal::GetCapturedStdout();
    EXPECT_NE(said.find("Error in ftok"), std::string::npos);
    EXPECT_NE(said.find("Touch to share memory [key = " + std::to_string(key) + "]... \n"), std::string::npos);
}

// -------------------------------------------------------------- ring framing

class QueueRing : public testing::Test {
protected:
    void SetUp() override
    {
        queue = makeQueue(key, kSize);
        ASSERT_NE(queue, nullptr);
        raw = std::make_unique<RawSegment>(key);
    }

    static constexpr size_t kSize = 256;
    const int key = testsupport::uniqueKey();
    SysvGuard guard{key};
    std::unique_ptr<CMessageQueue> queue;
    std::unique_ptr<RawSegment> raw;
    unsigned char out[kSize] = {};
};

TEST_F(QueueRing, LengthPrefixStraddlingTheEndReadsBackIntact)
{
    for (uint32_t start : {kSize - 1, kSize - 3, kSize - 7}) {
        advanceTo(*queue, *raw, static_cast<uint32_t>(start));
        auto message = pattern(40, start);
        ASSERT_EQ(queue->SendMessage(message.data(), message.size()), 0);
        // Prefix bytes wrap one at a time: the first lands at the old end.
        EXPECT_EQ(raw->ring()[start], 40);
        EXPECT_EQ(raw->trunk().end, (start + 8 + 40) % kSize);
        ASSERT_EQ(queue->ReadHeadMessage(out), 40);
        EXPECT_EQ(raw->trunk().begin, start);  // peeking never moves begin
        std::memset(out, 0, sizeof out);
        ASSERT_EQ(queue->GetMessage(out), 40);
        EXPECT_EQ(std::vector<unsigned char>(out, out + 40), message);
        EXPECT_EQ(queue->GetDataSize(), 0u);
    }
}

TEST_F(QueueRing, PayloadSplitAcrossTheEndReadsBackIntact)
{
    advanceTo(*queue, *raw, kSize - 20);  // prefix fits, payload wraps after 12 bytes
    auto message = pattern(100, 3);
    ASSERT_EQ(queue->SendMessage(message.data(), message.size()), 0);
    EXPECT_EQ(raw->trunk().end, 100u - 12u);
    EXPECT_EQ(std::memcmp(raw->ring(), message.data() + 12, 88), 0);
    ASSERT_EQ(queue->DeleteHeadMessage(), 100);
    EXPECT_EQ(queue->GetMessage(out), -3);

    advanceTo(*queue, *raw, kSize - 20);
    ASSERT_EQ(queue->SendMessage(message.data(), message.size()), 0);
    ASSERT_EQ(queue->GetMessage(out), 100);
    EXPECT_EQ(std::vector<unsigned char>(out, out + 100), message);
}

TEST_F(QueueRing, FreeSpaceBoundaryIsExactAndFullRingWritesNothing)
{
    advanceTo(*queue, *raw, 200);  // the boundary case also wraps
    auto first = pattern(50, 1);
    ASSERT_EQ(queue->SendMessage(first.data(), first.size()), 0);
    const unsigned int freeSize = queue->GetFreeSize();
    ASSERT_EQ(freeSize, kSize - 8 - 58);

    std::vector<unsigned char> before(raw->ring(), raw->ring() + kSize);
    auto tooBig = pattern(freeSize - 7, 2);
    EXPECT_EQ(queue->SendMessage(tooBig.data(), tooBig.size()), -2);
    EXPECT_EQ(std::vector<unsigned char>(raw->ring(), raw->ring() + kSize), before);
    EXPECT_EQ(raw->trunk().end, 258u % kSize);

    auto exact = pattern(freeSize - 8, 3);
    ASSERT_EQ(queue->SendMessage(exact.data(), exact.size()), 0);
    EXPECT_EQ(queue->GetFreeSize(), 0u);
    EXPECT_NE(raw->trunk().end, raw->trunk().begin);  // a full ring never looks empty
    unsigned char one = 1;
    EXPECT_EQ(queue->SendMessage(&one, 1), -2);

    ASSERT_EQ(queue->GetMessage(out), 50);
    EXPECT_EQ(std::vector<unsigned char>(out, out + 50), first);
    ASSERT_EQ(queue->GetMessage(out), static_cast<int>(exact.size()));
    EXPECT_EQ(std::vector<unsigned char>(out, out + exact.size()), exact);
}

TEST_F(QueueRing, BadArgumentsAndEmptyRing)
{
    unsigned char byte = 0;
    EXPECT_EQ(queue->SendMessage(nullptr, 4), -1);
    EXPECT_EQ(queue->SendMessage(&byte, 0), -1);
    EXPECT_EQ(queue->SendMessage(&byte, SIZE_MAX), -2);  // no wrap-around of length + 8
    EXPECT_EQ(queue->GetMessage(nullptr), -1);
    EXPECT_EQ(queue->ReadHeadMessage(nullptr), -1);
    EXPECT_EQ(queue->GetMessage(out), -3);
    EXPECT_EQ(queue->ReadHeadMessage(out), -3);
    EXPECT_EQ(queue->DeleteHeadMessage(), -3);
}

TEST_F(QueueRing, TooFewBytesInUseEmptiesTheRing)
{
    for (uint32_t used = 1; used <= 8; ++used) {
        raw->trunk().begin = kSize - 4;  // also across the end
        raw->trunk().end = (kSize - 4 + used) % kSize;

        testing::internal::CaptureStdout();
        EXPECT_EQ(queue->ReadHeadMessage(out), -4);
        EXPECT_EQ(raw->trunk().begin, kSize - 4) << "peek must only report";
        EXPECT_EQ(queue->GetMessage(out), -4);
        std::string said = testing::internal::GetCapturedStdout();
        EXPECT_NE(said.find("ReadHeadMessage data len illegal,nTempMaxLength " + std::to_string(used) + " \n"),
                  std::string::npos)
            << said;
        EXPECT_NE(said.find("Mem trunk address 0x"), std::string::npos);
        EXPECT_EQ(raw->trunk().begin, raw->trunk().end);
    }
}

TEST_F(QueueRing, PrefixLongerThanTheBytesBehindItEmptiesTheRing)
{
    auto message = pattern(30, 9);
    ASSERT_EQ(queue->SendMessage(message.data(), message.size()), 0);
    const uint64_t lie = 31;  // one byte more than is there
    std::memcpy(raw->ring(), &lie, sizeof lie);

    testing::internal::CaptureStdout();
    EXPECT_EQ(queue->ReadHeadMessage(out), -4);
    EXPECT_EQ(raw->trunk().begin, 0u);
    EXPECT_EQ(queue->DeleteHeadMessage(), -4);
    std::string said = testing::internal::GetCapturedStdout();
    EXPECT_NE(said.find("ReadHeadMessage usOutLength illegal,usOutLength: 31,nTempMaxLength 38 \n"), std::string::npos)
        << said;
    EXPECT_EQ(raw->trunk().begin, raw->trunk().end);

    // A prefix no producer could have written (more than capacity - 16) in a
    // nearly full ring: rejected, so a capacity - 16 output buffer is enough.
    raw->trunk().begin = 0;
    raw->trunk().end = kSize - 1;
    const uint64_t almostAll = kSize - 9;
    std::memcpy(raw->ring(), &almostAll, sizeof almostAll);
    testing::internal::CaptureStdout();
    EXPECT_EQ(queue->GetMessage(out), -4);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(raw->trunk().begin, kSize - 1);

    // A huge prefix, and indexes a faulty peer pushed out of range, stay inside the ring.
    ASSERT_EQ(queue->SendMessage(message.data(), message.size()), 0);
    const uint64_t huge = ~0ULL;
    std::memcpy(raw->ring() + raw->trunk().begin, &huge, sizeof huge);
    testing::internal::CaptureStdout();
    EXPECT_EQ(queue->GetMessage(out), -4);
    raw->trunk().begin = 0xFFFFFF00u;
    raw->trunk().end = 0x7FFFFFF0u;
    queue->GetMessage(out);
    testing::internal::GetCapturedStdout();
}

TEST(QueueRingLarge, LargestMessageIntoAnEmptyMegabyteRing)
{
    const int key = testsupport::uniqueKey();
    SysvGuard guard{key};
    auto queue = makeQueue(key, kBigRing);
    auto message = pattern(kBigRing - 16 + 1, 5);
    EXPECT_EQ(queue->SendMessage(message.data(), message.size()), -2);
    EXPECT_EQ(queue->GetDataSize(), 0u);
    EXPECT_EQ(queue->SendMessage(message.data(), kBigRing - 16), 0);
    std::vector<unsigned char> out(kBigRing);
    ASSERT_EQ(queue->GetMessage(out.data()), static_cast<int>(kBigRing - 16));
    EXPECT_EQ(std::memcmp(out.data(), message.data(), kBigRing - 16), 0);
}

// -------------------------------------------------------------------- locks

TEST(QueueLock, TryWlockFailsWhileAnotherProcessHoldsTheLock)
{
    const int key = testsupport::uniqueKey(2);
    SysvGuard guard{key};
    CShmRWlock lock(key);
    int ready[2];
    int release[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(release), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        CShmRWlock mine(key);  // opens the existing set without resetting it
        mine.Wlock();
        char c = 'x';
        (void)!write(ready[1], &c, 1);
        (void)!read(release[0], &c, 1);
        mine.UnWlock();
        _exit(0);
    }
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    EXPECT_FALSE(lock.TryWlock());
    EXPECT_FALSE(lock.TryRlock());
    (void)!write(release[1], &c, 1);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(lock.TryWlock());
    EXPECT_EQ(lock.UnWlock(), 0);

    // Readers share; a writer waits for them.
    EXPECT_TRUE(lock.TryRlock());
    EXPECT_TRUE(lock.TryRlock());
    EXPECT_FALSE(lock.TryWlock());
    EXPECT_EQ(lock.UnRlock(), 0);
    EXPECT_EQ(lock.UnRlock(), 0);
    EXPECT_TRUE(lock.trylock());
    EXPECT_EQ(lock.Unlock(), 0);
    EXPECT_EQ(lock.Getkey(), key);
    for (int fd : {ready[0], ready[1], release[0], release[1]}) {
        close(fd);
    }
}

TEST(QueueLock, HolderThatDiesReleasesTheLock)
{
    const int key = testsupport::uniqueKey(2);
    SysvGuard guard{key};
    CShmRWlock lock(key);
    auto crashed = testsupport::runInChild([key] {
        CShmRWlock mine(key);
        mine.Wlock();
        raise(SIGKILL);
    });
    EXPECT_EQ(crashed.signal, SIGKILL);
    EXPECT_TRUE(lock.TryWlock()) << "SEM_UNDO must release a dead holder's lock";
    lock.UnWlock();

    auto quitter = testsupport::runInChild([key] {
        CShmRWlock mine(key);
        mine.Rlock();
        _exit(3);
    });
    EXPECT_EQ(quitter.exitCode, 3);
    EXPECT_TRUE(lock.TryWlock());
    lock.UnWlock();
}

TEST(QueueLock, UnopenedLockReportsErrors)
{
    CShmRWlock none;
    EXPECT_EQ(none.getid(), -1);
    EXPECT_EQ(none.Getkey(), -1);
    EXPECT_THROW(none.TryWlock(), std::runtime_error);
    EXPECT_THROW(none.TryRlock(), std::runtime_error);
    EXPECT_EQ(none.Wlock(), -1);
    try {
        none.TryWlock();
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()).rfind("semop error : ", 0), 0u);
    }
}

// ------------------------------------------------------- separate processes

namespace {

// Message contents both sides can derive from (writer, seq) alone, so the
// consumer checks every byte without the producer sending a checksum table.
class Traffic {
public:
    explicit Traffic(size_t maxLength, size_t minLength = 1) : m_pool(pattern(512 * 1024, 42)), m_min(minLength),
                                                               m_max(maxLength) {}

    size_t length(uint32_t writer, uint32_t seq) const
    {
        return m_min + mix(writer, seq) % (m_max - m_min + 1);
    }

    // The payload: a slice of the pool, its first bytes replaced by the tag.
    std::vector<unsigned char> make(uint32_t writer, uint32_t seq) const
    {
        size_t n = length(writer, seq);
        size_t offset = mix(seq, writer) % (m_pool.size() - n);
        std::vector<unsigned char> data(m_pool.begin() + offset, m_pool.begin() + offset + n);
        uint32_t tag[2] = {writer, seq};
        std::memcpy(data.data(), tag, std::min(n, sizeof tag));
        return data;
    }

    bool check(const unsigned char* data, size_t n, uint32_t writer, uint32_t seq) const
    {
        return n == length(writer, seq) && std::memcmp(data, make(writer, seq).data(), n) == 0;
    }

    // Tag of a message of at least 8 bytes.
    static void tag(const unsigned char* data, uint32_t& writer, uint32_t& seq)
    {
        std::memcpy(&writer, data, 4);
        std::memcpy(&seq, data + 4, 4);
    }

private:
    static size_t mix(uint32_t a, uint32_t b)
    {
        uint64_t x = (uint64_t{a} << 32 | b) * 0x9E3779B97F4A7C15ULL;
        x ^= x >> 29;
        return static_cast<size_t>(x * 0xBF58476D1CE4E5B9ULL >> 16);
    }

    std::vector<unsigned char> m_pool;
    size_t m_min;
    size_t m_max;
};

// Runs in a forked writer: sends `count` messages, retrying while the ring is full.
void produce(CMessageQueue& queue, const Traffic& traffic, uint32_t writer, uint32_t count)
{
    for (uint32_t seq = 0; seq < count; ++seq) {
        auto data = traffic.make(writer, seq);
        int rc;
        while ((rc = queue.SendMessage(data.data(), data.size())) == -2) {
            sched_yield();
        }
        if (rc != 0) {
            _exit(10);
        }
    }
}

pid_t forkWriter(CMessageQueue& queue, const Traffic& traffic, uint32_t writer, uint32_t count)
{
    std::fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        produce(queue, traffic, writer, count);
        _exit(0);  // never run the queue's destructor here: it would remove the segment
    }
    return pid;
}

// Forked helpers of one test. Whatever happens to the test, none outlives it.
class Children {
public:
    ~Children()
    {
        for (pid_t pid : m_pids) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    void add(pid_t pid) { m_pids.push_back(pid); }

    // Waits for every child; true when all of them exited with status 0.
    bool allExitedCleanly()
    {
        bool ok = true;
        for (pid_t pid : m_pids) {
            int status = 0;
            waitpid(pid, &status, 0);
            ok = ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
        m_pids.clear();
        return ok;
    }

private:
    std::vector<pid_t> m_pids;
};

}  // namespace

TEST(QueueProcesses, ProducerProcessDeliversEveryMessageOnceInOrderIntact)
{
    const int key = testsupport::uniqueKey(3);
    SysvGuard guard{key};
    auto queue = makeQueue(key, kFrameRequest);
    const Traffic traffic(200 * 1024);
    constexpr uint32_t kCount = 20000;

    Children children;
    children.add(forkWriter(*queue, traffic, 0, kCount));
    std::vector<unsigned char> out(kBigRing);
    uint32_t received = 0;
    uint32_t bad = 0;
    while (received < kCount) {
        int n = queue->GetMessage(out.data());
        if (n == -3) {
            sched_yield();
            continue;
        }
        ASSERT_GT(n, 0) << "ring reported " << n << " at message " << received;
        if (!traffic.check(out.data(), static_cast<size_t>(n), 0, received)) {
            ++bad;
        }
        ++received;
    }
    EXPECT_EQ(bad, 0u);
    EXPECT_EQ(queue->GetMessage(out.data()), -3);
    EXPECT_TRUE(children.allExitedCleanly());
}

TEST(QueueProcesses, SeveralWriterProcessesWithTheWriteEndLocked)
{
    const int key = testsupport::uniqueKey(4);
    SysvGuard guard{key};
    auto queue = makeQueue(key, 256 * 1024, shmmqueue::SINGLE_READER_MULTI_WRITER);
    const Traffic traffic(32 * 1024, 8);
    constexpr uint32_t kWriters = 3;
    constexpr uint32_t kEach = 3000;

    Children writers;
    for (uint32_t w = 0; w < kWriters; ++w) {
        writers.add(forkWriter(*queue, traffic, w, kEach));
    }
    std::vector<uint32_t> next(kWriters, 0);
    std::vector<unsigned char> out(256 * 1024);
    uint32_t bad = 0;
    for (uint32_t received = 0; received < kWriters * kEach;) {
        int n = queue->GetMessage(out.data());
        if (n == -3) {
            sched_yield();
            continue;
        }
        ASSERT_GE(n, 8);
        uint32_t writer;
        uint32_t seq;
        Traffic::tag(out.data(), writer, seq);
        ASSERT_LT(writer, kWriters);
        // Each writer's messages arrive in its own order, none lost or doubled.
        if (seq != next[writer] || !traffic.check(out.data(), static_cast<size_t>(n), writer, seq)) {
            ++bad;
        }
        next[writer] = seq + 1;
        ++received;
    }
    EXPECT_EQ(bad, 0u);
    EXPECT_TRUE(writers.allExitedCleanly());
}

TEST(QueueProcesses, SeveralReadersAndWritersWithBothEndsLocked)
{
    const int key = testsupport::uniqueKey(5);
    SysvGuard guard{key};
    auto queue = makeQueue(key, 128 * 1024, shmmqueue::MULTI_READER_MULTI_WRITER);
    const Traffic traffic(16 * 1024, 8);
    constexpr uint32_t kWriters = 2;
    constexpr uint32_t kReaders = 2;
    constexpr uint32_t kEach = 2000;

    // Shared tallies: how often each (writer, seq) was received, and by whom in order.
    struct Tally {
        uint32_t seen[kWriters][kEach];
        uint32_t total;
        uint32_t bad;
    };
    void* mem = mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mem, MAP_FAILED);
    auto* tally = new (mem) Tally{};

    Children children;
    for (uint32_t r = 0; r < kReaders; ++r) {
        std::fflush(stdout);
        pid_t pid = fork();
        if (pid == 0) {
            std::vector<unsigned char> out(128 * 1024);
            std::vector<int64_t> last(kWriters, -1);
            const time_t giveUp = time(nullptr) + 120;
            while (__atomic_load_n(&tally->total, __ATOMIC_ACQUIRE) < kWriters * kEach) {
                if (time(nullptr) > giveUp) {
                    _exit(11);
                }
                int n = queue->GetMessage(out.data());
                if (n == -3) {
                    sched_yield();
                    continue;
                }
                uint32_t writer = 0;
                uint32_t seq = 0;
                if (n >= 8) {
                    Traffic::tag(out.data(), writer, seq);
                }
                if (n < 8 || writer >= kWriters || seq >= kEach ||
                    !traffic.check(out.data(), static_cast<size_t>(n), writer, seq) || seq <= last[writer]) {
                    __atomic_fetch_add(&tally->bad, 1, __ATOMIC_RELAXED);
                } else {
                    last[writer] = seq;
                    __atomic_fetch_add(&tally->seen[writer][seq], 1, __ATOMIC_RELAXED);
                }
                __atomic_fetch_add(&tally->total, 1, __ATOMIC_RELEASE);
            }
            _exit(0);
        }
        children.add(pid);
    }
    for (uint32_t w = 0; w < kWriters; ++w) {
        children.add(forkWriter(*queue, traffic, w, kEach));
    }
    EXPECT_TRUE(children.allExitedCleanly());
    EXPECT_EQ(tally->bad, 0u);
    EXPECT_EQ(tally->total, kWriters * kEach);
    uint32_t notOnce = 0;
    for (auto& writer : tally->seen) {
        for (uint32_t count : writer) {
            notOnce += count != 1;
        }
    }
    EXPECT_EQ(notOnce, 0u);
    munmap(mem, sizeof(Tally));
}
