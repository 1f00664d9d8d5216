#include "shmmqueue.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "test_support.h"

using shmmqueue::CMessageQueue;
using shmmqueue::CShmRWlock;
using Bytes = std::vector<unsigned char>;
using testsupport::SysvGuard;

namespace {

constexpr size_t kFrameRequest = 1045312;  // what the frame reader asks for
constexpr size_t kBigRing = 1048576;

// A second attachment of a queue's segment, as the camera process sees it.
class RawSegment {
public:
    explicit RawSegment(int key) : m_id(shmget(key, 0, 0))
    {
        void* addr = m_id == -1 ? reinterpret_cast<void*>(-1) : shmat(m_id, nullptr, 0);
        if (addr == reinterpret_cast<void*>(-1)) {
            throw std::runtime_error("segment missing");
        }
        m_base = static_cast<unsigned char*>(addr);
    }
    ~RawSegment() { shmdt(m_base); }
    RawSegment(const RawSegment&) = delete;
    RawSegment& operator=(const RawSegment&) = delete;

    shmmqueue::MemTrunk& trunk() { return *reinterpret_cast<shmmqueue::MemTrunk*>(m_base); }
    unsigned char* bytes() { return m_base; }
    unsigned char* ring() { return m_base + shmmqueue::kTrunkSize; }
    size_t segmentSize() const
    {
        shmid_ds stat{};
        shmctl(m_id, IPC_STAT, &stat);
        return stat.shm_segsz;
    }

private:
    int m_id;
    unsigned char* m_base = nullptr;
};

// Runs `body` with the queue's stdout narration captured and returns it.
template <typename Body>
std::string narration(Body&& body)
{
    testing::internal::CaptureStdout();
    body();
    return testing::internal::GetCapturedStdout();
}

std::unique_ptr<CMessageQueue> makeQueue(int key, size_t size,
                                         shmmqueue::eQueueModel model = shmmqueue::SINGLE_READER_SINGLE_WRITER)
{
    std::unique_ptr<CMessageQueue> queue;
    narration([&] { queue.reset(CMessageQueue::CreateInstance(key, size, model)); });
    return queue;
}

Bytes pattern(size_t length, unsigned seed)
{
    Bytes data(length);
    uint32_t x = seed * 2654435761u + 1;
    for (auto& byte : data) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        byte = static_cast<unsigned char>(x);
    }
    return data;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST(QueueRounding, HighestBitAndPowerOfTwoRounding)
{
    EXPECT_EQ(CMessageQueue::Fls(0), 0);
    EXPECT_EQ(CMessageQueue::Fls(1), 1);
    EXPECT_EQ(CMessageQueue::Fls(3), 2);
    EXPECT_EQ(CMessageQueue::Fls(4), 3);
    EXPECT_EQ(CMessageQueue::Fls(0x7FFFFFFFUL), 31);
    EXPECT_EQ(CMessageQueue::Fls(0x100000000UL), 33);
    EXPECT_FALSE(CMessageQueue::IsPowerOfTwo(0));
    EXPECT_TRUE(CMessageQueue::IsPowerOfTwo(kBigRing));
    EXPECT_FALSE(CMessageQueue::IsPowerOfTwo(kFrameRequest));
    EXPECT_EQ(CMessageQueue::RoundupPowofTwo(kFrameRequest), kBigRing);
    EXPECT_EQ(CMessageQueue::RoundupPowofTwo(kBigRing + 1), 2 * kBigRing);
    EXPECT_EQ(CMessageQueue::RoundupPowofTwo(1), 1u);
    EXPECT_EQ(CMessageQueue::RoundupPowofTwo(1UL << 30), 1UL << 30);
    // Beyond 2^30 the capacity cannot be represented: 0, not garbage.
    EXPECT_EQ(CMessageQueue::RoundupPowofTwo((1UL << 30) + 1), 0u);
    EXPECT_EQ(CMessageQueue::RoundupPowofTwo(0), 0u);
}

TEST(QueueSegment, FrameRequestMakesPaddedHeaderAndRoundedRing)
{
    const int key = testsupport::uniqueKey();
    SysvGuard guard{key};
    EXPECT_EQ(CMessageQueue::CreateInstance(key, 0, shmmqueue::SINGLE_READER_SINGLE_WRITER), nullptr);
    EXPECT_EQ(CMessageQueue::CreateInstance(key, (1UL << 31) + 5, shmmqueue::SINGLE_READER_SINGLE_WRITER), nullptr);

    std::unique_ptr<CMessageQueue> queue;
    std::string said = narration(
        [&] { queue.reset(CMessageQueue::CreateInstance(key, kFrameRequest, shmmqueue::MULTI_READER_MULTI_WRITER)); });
    ASSERT_NE(queue, nullptr);
    EXPECT_TRUE(contains(said, "Try to malloc share memory of 1048960 bytes... \n")) << said;
    EXPECT_TRUE(contains(said, "Successfully alloced share memory block,[key= " + std::to_string(key)));
    EXPECT_TRUE(contains(said, ", size 1048576, begin 0, end 0, queue module 3 \n")) << said;

    RawSegment raw(key);
    EXPECT_EQ(raw.segmentSize(), 1048960u);
    EXPECT_EQ(queue->GetQueueLength(), kBigRing);
    EXPECT_EQ(queue->GetFreeSize(), kBigRing - 8);
    // Byte offsets as the camera process reads them.
    int32_t shmKey, shmId;
    uint32_t size;
    std::memcpy(&shmKey, raw.bytes() + 136, 4);
    std::memcpy(&size, raw.bytes() + 204, 4);
    std::memcpy(&shmId, raw.bytes() + 272, 4);
    EXPECT_EQ(shmKey, key);
    EXPECT_EQ(size, kBigRing);
    EXPECT_EQ(shmId, shmget(key, 0, 0));
    EXPECT_EQ(raw.bytes()[340], 3);
    for (size_t offset : {4, 72, 140, 208, 276, 341}) {
        EXPECT_EQ(raw.bytes()[offset], 0) << "padding at " << offset;
    }
    // A message lands at segment offset 384, length first; `end` (offset 68) follows it.
    unsigned char payload[3] = {7, 8, 9};
    ASSERT_EQ(queue->SendMessage(payload, 3), 0);
    uint64_t prefix;
    uint32_t end;
    std::memcpy(&prefix, raw.bytes() + 384, 8);
    std::memcpy(&end, raw.bytes() + 68, 4);
    EXPECT_EQ(prefix, 3u);
    EXPECT_EQ(raw.bytes()[392], 7);
    EXPECT_EQ(end, 11u);
    // The locked model owns semaphore sets at key + 1 and key + 2; the
    // unlocked one creates none.
    EXPECT_NE(semget(key + 1, 0, 0), -1);
    EXPECT_NE(semget(key + 2, 0, 0), -1);
    const int plainKey = testsupport::uniqueKey(1);
    SysvGuard plainGuard{plainKey};
    auto plain = makeQueue(plainKey, 4096);
    EXPECT_FALSE(plain->IsBeginLock() || plain->IsEndLock());
    EXPECT_EQ(semget(plainKey + 1, 0, 0), -1);
    EXPECT_EQ(semget(plainKey + 2, 0, 0), -1);

    // Destroying the object removes the segment for everybody.
    said = narration([&] { queue.reset(); });
    EXPECT_EQ(shmget(key, 0, 0), -1);
    EXPECT_TRUE(contains(said, "Remove shared memory [key= "));
}

TEST(QueueSegment, ExistingSegmentOfOtherSizeIsReplacedAndSameSizeAttached)
{
    const int key = testsupport::uniqueKey();
    SysvGuard guard{key};
    ASSERT_NE(shmget(key, 1000, IPC_CREAT | IPC_EXCL | 0666), -1);
    std::unique_ptr<CMessageQueue> queue;
    std::string said = narration(
        [&] { queue.reset(CMessageQueue::CreateInstance(key, 4096, shmmqueue::SINGLE_READER_SINGLE_WRITER)); });
    ASSERT_NE(queue, nullptr);
    EXPECT_TRUE(contains(said, "Same shm seg [key= " + std::to_string(key) + "] exist, now try to attach it... \n"));
    EXPECT_TRUE(contains(said, "failed,maybe the size of share memory changed,")) << said;
    EXPECT_TRUE(contains(said, "First remove the exist share memory"));
    EXPECT_EQ(RawSegment(key).segmentSize(), 4096u + 384u);

    shmmqueue::enShmModule module = shmmqueue::SHM_CREATED;
    int shmId = -1;
    unsigned char* second = nullptr;
    said = narration([&] { second = CMessageQueue::CreateShareMem(key, 4096 + 384, module, shmId); });
    EXPECT_EQ(module, shmmqueue::SHM_ATTACHED);
    EXPECT_EQ(shmId, shmget(key, 0, 0));
    EXPECT_TRUE(contains(said, "Attach to share memory [key= " + std::to_string(key)));
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
    EXPECT_EQ(consumer->GetMessage(out), -3);
    EXPECT_EQ(producer->GetMessage(out), -3);
    ASSERT_EQ(producer->SendMessage(payload, 10), 0);  // one ring, two objects
    EXPECT_EQ(consumer->GetMessage(out), 10);

    // The first destructor removes the segment; the second only reports.
    std::string said = narration([&] {
        consumer.reset();
        producer.reset();
    });
    EXPECT_TRUE(contains(said, "Error, touch to shm")) << said;
}

TEST(QueueSegment, FatalSetupPathsEndTheProcessWithTheirStatus)
{
    const int key = testsupport::uniqueKey(1);
    SysvGuard guard{key};
    shmmqueue::enShmModule module;
    int id;
    auto negative = testsupport::runInChild([&] { CMessageQueue::CreateShareMem(-5, 4096, module, id); });
    EXPECT_TRUE(negative.exited);
    EXPECT_EQ(negative.exitCode, 255);
    EXPECT_TRUE(contains(negative.output, "[src/shmmqueue.cpp:")) << negative.output;
    EXPECT_TRUE(contains(negative.output, "CreateShareMem failed. [key -5]errno:")) << negative.output;

    auto zeroSize = testsupport::runInChild([&] { CMessageQueue::CreateShareMem(key, 0, module, id); });
    EXPECT_EQ(zeroSize.exitCode, 255);
    EXPECT_TRUE(contains(zeroSize.output, "Alloc share memory failed, [iKey:" + std::to_string(key) + "] , size:0 ,"))
        << zeroSize.output;
    EXPECT_EQ(shmget(key, 0, 0), -1);  // nothing left behind

    std::string said = narration([&] {
        EXPECT_EQ(CMessageQueue::DestroyShareMem(nullptr, -1), -1);
        EXPECT_EQ(CMessageQueue::DestroyShareMem(nullptr, key), -1);
    });
    EXPECT_TRUE(contains(said, "Error in ftok"));
    EXPECT_TRUE(contains(said, "Touch to share memory [key = " + std::to_string(key) + "]... \n"));
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

    static constexpr uint32_t kSize = 256;
    const int key = testsupport::uniqueKey();
    SysvGuard guard{key};
    std::unique_ptr<CMessageQueue> queue;
    std::unique_ptr<RawSegment> raw;
    unsigned char out[kSize] = {};
};

TEST_F(QueueRing, PrefixOrPayloadAcrossTheEndReadsBackIntact)
{
    // start: where the prefix begins; the payload wraps after (kSize - start - 8) bytes.
    for (uint32_t start : {kSize - 1, kSize - 3, kSize - 8, kSize - 20}) {
        SCOPED_TRACE(start);
        emptyAt(start);
        Bytes message = pattern(40, start);
        ASSERT_EQ(queue->SendMessage(message.data(), message.size()), 0);
        EXPECT_EQ(raw->ring()[start], 40) << "the prefix starts at the old end, byte by byte";
        EXPECT_EQ(raw->trunk().end, (start + 8 + 40) % kSize);
        ASSERT_EQ(queue->ReadHeadMessage(out), 40);
        EXPECT_EQ(raw->trunk().begin, start) << "peeking never moves begin";
        std::memset(out, 0, sizeof out);
        ASSERT_EQ(queue->GetMessage(out), 40);
        EXPECT_EQ(Bytes(out, out + 40), message);
        EXPECT_EQ(queue->GetDataSize(), 0u);
    }
    emptyAt(kSize - 20);
    Bytes message = pattern(100, 3);
    ASSERT_EQ(queue->SendMessage(message.data(), message.size()), 0);
    EXPECT_EQ(std::memcmp(raw->ring(), message.data() + 12, 88), 0) << "second piece at ring offset 0";
    ASSERT_EQ(queue->DeleteHeadMessage(), 100);
    EXPECT_EQ(queue->GetMessage(out), -3);
}

TEST_F(QueueRing, FreeSpaceBoundaryIsExactAndFullRingWritesNothing)
{
    emptyAt(200);  // the boundary case also wraps
    Bytes first = pattern(50, 1);
    ASSERT_EQ(queue->SendMessage(first.data(), first.size()), 0);
    const unsigned int freeSize = queue->GetFreeSize();
    ASSERT_EQ(freeSize, kSize - 8 - 58);

    Bytes before(raw->ring(), raw->ring() + kSize);
    Bytes tooBig = pattern(freeSize - 7, 2);
    EXPECT_EQ(queue->SendMessage(tooBig.data(), tooBig.size()), -2);
    EXPECT_EQ(Bytes(raw->ring(), raw->ring() + kSize), before);
    EXPECT_EQ(raw->trunk().end, 258u % kSize);

    Bytes exact = pattern(freeSize - 8, 3);
    ASSERT_EQ(queue->SendMessage(exact.data(), exact.size()), 0);
    EXPECT_EQ(queue->GetFreeSize(), 0u);
    EXPECT_NE(raw->trunk().end, raw->trunk().begin) << "a full ring never looks empty";
    EXPECT_EQ(queue->SendMessage(first.data(), 1), -2);
    ASSERT_EQ(queue->GetMessage(out), 50);
    EXPECT_EQ(Bytes(out, out + 50), first);
    ASSERT_EQ(queue->GetMessage(out), static_cast<int>(exact.size()));
    EXPECT_EQ(Bytes(out, out + exact.size()), exact);
}

TEST_F(QueueRing, BadArgumentsAndEmptyRing)
{
    unsigned char byte = 0;
    EXPECT_EQ(queue->SendMessage(nullptr, 4), -1);
    EXPECT_EQ(queue->SendMessage(&byte, 0), -1);
    EXPECT_EQ(queue->SendMessage(&byte, SIZE_MAX), -2) << "length + 8 must not wrap";
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
        std::string said = narration([&] {
            EXPECT_EQ(queue->ReadHeadMessage(out), -4);
            EXPECT_EQ(raw->trunk().begin, kSize - 4) << "peek must only report";
            EXPECT_EQ(queue->GetMessage(out), -4);
        });
        EXPECT_TRUE(contains(said, "ReadHeadMessage data len illegal,nTempMaxLength " + std::to_string(used) + " \n"))
            << said;
        EXPECT_TRUE(contains(said, "Mem trunk address 0x"));
        EXPECT_EQ(raw->trunk().begin, raw->trunk().end);
    }
}

TEST_F(QueueRing, PrefixLongerThanTheBytesBehindItEmptiesTheRing)
{
    Bytes message = pattern(30, 9);
    ASSERT_EQ(queue->SendMessage(message.data(), message.size()), 0);
    const uint64_t lie = 31;  // one byte more than is there
    std::memcpy(raw->ring(), &lie, sizeof lie);
    std::string said = narration([&] {
        EXPECT_EQ(queue->ReadHeadMessage(out), -4);
        EXPECT_EQ(raw->trunk().begin, 0u);
        EXPECT_EQ(queue->DeleteHeadMessage(), -4);
    });
    EXPECT_TRUE(contains(said, "ReadHeadMessage usOutLength illegal,usOutLength: 31,nTempMaxLength 38 \n")) << said;
    EXPECT_EQ(raw->trunk().begin, raw->trunk().end);

    // A prefix no producer could have written (more than capacity - 16) in a
    // nearly full ring is rejected, so a capacity - 16 output buffer suffices.
    raw->trunk().begin = 0;
    raw->trunk().end = kSize - 1;
    const uint64_t almostAll = kSize - 9;
    std::memcpy(raw->ring(), &almostAll, sizeof almostAll);
    narration([&] { EXPECT_EQ(queue->GetMessage(out), -4); });
    EXPECT_EQ(raw->trunk().begin, kSize - 1);
}

// Indexes a faulty peer pushed out of range are taken modulo the ring and
// written back inside it: a message is still read from, and written to, the
// offsets the low bits name, and nothing else in the ring changes.
TEST_F(QueueRing, IndexesPushedOutOfRangeStayInsideTheRing)
{
    const uint32_t highBits[] = {0xFFFFFF00u, 0x7FFFFF00u, 0x100u, 0x80000000u};
    for (uint32_t junk : highBits) {
        SCOPED_TRACE(junk);
        emptyAt(100);
        Bytes queued = pattern(20, 5);
        ASSERT_EQ(queue->SendMessage(queued.data(), queued.size()), 0);  // ring 100..127
        raw->trunk().begin = junk | 100u;
        raw->trunk().end = junk | 128u;

        Bytes before(raw->ring(), raw->ring() + kSize);
        Bytes next = pattern(10, 6);
        ASSERT_EQ(queue->SendMessage(next.data(), next.size()), 0);
        EXPECT_EQ(raw->trunk().end, 146u);
        EXPECT_EQ(raw->ring()[128], 10) << "prefix at the masked end";
        EXPECT_EQ(std::memcmp(raw->ring() + 136, next.data(), next.size()), 0);
        EXPECT_EQ(std::memcmp(raw->ring(), before.data(), 128), 0) << "nothing written before the end";
        EXPECT_EQ(std::memcmp(raw->ring() + 146, before.data() + 146, kSize - 146), 0) << "nor after it";

        ASSERT_EQ(queue->GetMessage(out), 20);
        EXPECT_EQ(Bytes(out, out + 20), queued);
        EXPECT_EQ(raw->trunk().begin, 128u);
        ASSERT_EQ(queue->GetMessage(out), 10);
        EXPECT_EQ(Bytes(out, out + 10), next);
        EXPECT_EQ(queue->GetMessage(out), -3);
    }
}

TEST(QueueRingLarge, LargestMessageIntoAnEmptyMegabyteRing)
{
    const int key = testsupport::uniqueKey();
    SysvGuard guard{key};
    auto queue = makeQueue(key, kBigRing);
    Bytes message = pattern(kBigRing - 16 + 1, 5);
    EXPECT_EQ(queue->SendMessage(message.data(), message.size()), -2);
    EXPECT_EQ(queue->GetDataSize(), 0u);
    EXPECT_EQ(queue->SendMessage(message.data(), kBigRing - 16), 0);
    Bytes out(kBigRing);
    ASSERT_EQ(queue->GetMessage(out.data()), static_cast<int>(kBigRing - 16));
    EXPECT_EQ(std::memcmp(out.data(), message.data(), kBigRing - 16), 0);
}

TEST(QueueLock, TryLocksFailWhileAnotherProcessHoldsTheWriteLock)
{
    const int key = testsupport::uniqueKey(2);
    SysvGuard guard{key};
    CShmRWlock lock(key);
    int ready[2], release[2];
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
    waitpid(child, nullptr, 0);
    EXPECT_TRUE(lock.TryWlock());
    EXPECT_EQ(lock.UnWlock(), 0);

    // Readers share; a writer waits for them.
    EXPECT_TRUE(lock.TryRlock());
    EXPECT_TRUE(lock.TryRlock());
    EXPECT_FALSE(lock.trylock());
    EXPECT_EQ(lock.UnRlock(), 0);
    EXPECT_EQ(lock.UnRlock(), 0);
    EXPECT_TRUE(lock.trylock());
    EXPECT_EQ(lock.Unlock(), 0);
    for (int fd : {ready[0], ready[1], release[0], release[1]}) {
        close(fd);
    }
}

TEST(QueueLock, HolderThatDiesReleasesTheLock)
{
    const int key = testsupport::uniqueKey(2);
    SysvGuard guard{key};
    CShmRWlock lock(key);
    auto killed = testsupport::runInChild([key] {
        CShmRWlock(key).Wlock();
        raise(SIGKILL);
    });
    EXPECT_EQ(killed.signal, SIGKILL);
    EXPECT_TRUE(lock.TryWlock()) << "SEM_UNDO must release a dead writer's lock";
    lock.UnWlock();
    auto quitter = testsupport::runInChild([key] {
        CShmRWlock(key).Rlock();
        _exit(3);
    });
    EXPECT_EQ(quitter.exitCode, 3);
    EXPECT_TRUE(lock.TryWlock()) << "and a reader's that exits without releasing";
    lock.UnWlock();

    CShmRWlock none;  // never opened
    EXPECT_EQ(none.Wlock(), -1);
    EXPECT_THROW(none.TryWlock(), std::runtime_error);
}

// ------------------------------------------------------- separate processes

namespace {

// Message contents both sides derive from (writer, seq) alone, so the
// consumer checks every byte without the producer sending a checksum table.
// Messages of 8 bytes or more start with the tag {writer, seq}.
class Traffic {
public:
    Traffic(size_t minLength, size_t maxLength) : m_pool(pattern(512 * 1024, 42)), m_min(minLength), m_max(maxLength) {}
    Bytes make(uint32_t writer, uint32_t seq) const
    {
        const size_t n = m_min + mix(writer, seq) % (m_max - m_min + 1);
        const size_t offset = mix(seq, writer) % (m_pool.size() - n);
        Bytes data(m_pool.begin() + offset, m_pool.begin() + offset + n);
        const uint32_t tag[2] = {writer, seq};
        std::memcpy(data.data(), tag, std::min(n, sizeof tag));
        return data;
    }
    bool check(const unsigned char* data, int n, uint32_t writer, uint32_t seq) const
    {
        const Bytes expected = make(writer, seq);
        return n == static_cast<int>(expected.size()) && std::memcmp(data, expected.data(), expected.size()) == 0;
    }

private:
    static size_t mix(uint32_t a, uint32_t b)
    {
        uint64_t x = (uint64_t{a} << 32 | b) * 0x9E3779B97F4A7C15ULL;
        x ^= x >> 29;
        return static_cast<size_t>(x * 0xBF58476D1CE4E5B9ULL >> 16);
    }

    Bytes m_pool;
    size_t m_min;
    size_t m_max;
};

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
    // Runs body in a child that ends with _exit(body()), never running the
    // queue's destructor, which would remove the segment.
    template <typename Body>
    void fork(Body&& body)
    {
        std::fflush(stdout);
        const pid_t pid = ::fork();
        if (pid == 0) {
            _exit(body());
        }
        m_pids.push_back(pid);
    }
    void writers(CMessageQueue& queue, const Traffic& traffic, uint32_t count, uint32_t each)
    {
        for (uint32_t w = 0; w < count; ++w) {
            fork([&, w] {
                for (uint32_t seq = 0; seq < each; ++seq) {
                    Bytes data = traffic.make(w, seq);
                    int rc;
                    while ((rc = queue.SendMessage(data.data(), data.size())) == -2) {
                        sched_yield();  // ring full
                    }
                    if (rc != 0) {
                        return 10;
                    }
                }
                return 0;
            });
        }
    }
    // True when every child exited with status 0.
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

// Consumes writers * each messages; counts those out of their writer's order
// or not byte-exact, and those still missing after a minute. With one writer
// short messages carry no tag and their sequence number is implied.
uint32_t consumeInOrder(CMessageQueue& queue, const Traffic& traffic, uint32_t writers, uint32_t each)
{
    std::vector<uint32_t> next(writers, 0);
    Bytes out(queue.GetQueueLength());
    uint32_t bad = 0;
    const time_t giveUp = time(nullptr) + 60;
    for (uint32_t received = 0; received < writers * each;) {
        const int n = queue.GetMessage(out.data());
        if (n == -3) {
            if (time(nullptr) > giveUp) {
                return bad + writers * each - received;
            }
            sched_yield();
            continue;
        }
        uint32_t tag[2] = {0, next[0]};
        if (writers > 1 && n >= 8) {
            std::memcpy(tag, out.data(), sizeof tag);
        }
        if (n < 0 || tag[0] >= writers || tag[1] != next[tag[0]] || !traffic.check(out.data(), n, tag[0], tag[1])) {
            ++bad;
        } else {
            ++next[tag[0]];
        }
        ++received;
    }
    return bad;
}

}  // namespace

TEST(QueueProcesses, ProducerProcessDeliversEveryMessageOnceInOrderIntact)
{
    const int key = testsupport::uniqueKey(3);
    SysvGuard guard{key};
    auto queue = makeQueue(key, kFrameRequest);
    const Traffic traffic(1, 200 * 1024);
    Children children;
    children.writers(*queue, traffic, 1, 20000);
    EXPECT_EQ(consumeInOrder(*queue, traffic, 1, 20000), 0u);
    Bytes out(kBigRing);
    EXPECT_EQ(queue->GetMessage(out.data()), -3);
    EXPECT_TRUE(children.allExitedCleanly());
}

TEST(QueueProcesses, SeveralWriterProcessesWithTheWriteEndLocked)
{
    const int key = testsupport::uniqueKey(4);
    SysvGuard guard{key};
    auto queue = makeQueue(key, 256 * 1024, shmmqueue::SINGLE_READER_MULTI_WRITER);
    const Traffic traffic(8, 32 * 1024);
    Children children;
    children.writers(*queue, traffic, 3, 3000);
    EXPECT_EQ(consumeInOrder(*queue, traffic, 3, 3000), 0u);
    EXPECT_TRUE(children.allExitedCleanly());
}

TEST(QueueProcesses, SeveralReadersAndWritersWithBothEndsLocked)
{
    const int key = testsupport::uniqueKey(5);
    SysvGuard guard{key};
    auto queue = makeQueue(key, 128 * 1024, shmmqueue::MULTI_READER_MULTI_WRITER);
    const Traffic traffic(8, 64 * 1024);
    constexpr uint32_t kWriters = 2, kEach = 4000;

    // Shared between the reader processes: how often each message arrived.
    struct Tally {
        uint32_t seen[kWriters][kEach];
        uint32_t total;
        uint32_t bad;
    };
    void* mem = mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mem, MAP_FAILED);
    auto* tally = new (mem) Tally{};

    Children children;
    for (int reader = 0; reader < 2; ++reader) {
        children.fork([&] {
            Bytes out(128 * 1024);
            std::vector<int64_t> last(kWriters, -1);  // each reader sees every writer in order
            const time_t giveUp = time(nullptr) + 120;
            while (__atomic_load_n(&tally->total, __ATOMIC_ACQUIRE) < kWriters * kEach && time(nullptr) < giveUp) {
                const int n = queue->GetMessage(out.data());
                if (n == -3) {
                    sched_yield();
                    continue;
                }
                uint32_t tag[2] = {kWriters, 0};
                if (n >= 8) {
                    std::memcpy(tag, out.data(), sizeof tag);
                }
                if (tag[0] >= kWriters || tag[1] >= kEach || tag[1] <= last[tag[0]] ||
                    !traffic.check(out.data(), n, tag[0], tag[1])) {
                    __atomic_fetch_add(&tally->bad, 1, __ATOMIC_RELAXED);
                } else {
                    last[tag[0]] = tag[1];
                    __atomic_fetch_add(&tally->seen[tag[0]][tag[1]], 1, __ATOMIC_RELAXED);
                }
                __atomic_fetch_add(&tally->total, 1, __ATOMIC_RELEASE);
            }
            return 0;
        });
    }
    children.writers(*queue, traffic, kWriters, kEach);
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
