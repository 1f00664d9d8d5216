#include "shmmqueue.h"

#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <memory>
#include <random>
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
struct RawSegment {
    explicit RawSegment(int key) : id(shmget(key, 0, 0)), base(static_cast<unsigned char*>(shmat(id, nullptr, 0)))
    {
        if (base == reinterpret_cast<void*>(-1)) {
            throw std::runtime_error("segment missing");
        }
    }
    ~RawSegment() { shmdt(base); }
    RawSegment(const RawSegment&) = delete;
    RawSegment& operator=(const RawSegment&) = delete;

    shmmqueue::MemTrunk& trunk() { return *reinterpret_cast<shmmqueue::MemTrunk*>(base); }
    unsigned char* ring() { return base + shmmqueue::kTrunkSize; }
    // The native-order value at a byte offset of the segment.
    template <typename T>
    T at(size_t offset) const
    {
        T value;
        std::memcpy(&value, base + offset, sizeof value);
        return value;
    }
    size_t segmentSize() const
    {
        shmid_ds stat{};
        shmctl(id, IPC_STAT, &stat);
        return stat.shm_segsz;
    }

    const int id;
    unsigned char* const base;
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
    std::mt19937 random(seed);
    Bytes data(length);
    std::generate(data.begin(), data.end(), [&random] { return static_cast<unsigned char>(random()); });
    return data;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Forked helpers of one test. Each ends itself by SIGALRM after two minutes at
// the latest, and none outlives the test.
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
            alarm(120);
            _exit(body());
        }
        m_pids.push_back(pid);
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

// Message `seq` of a writer: a slice of a fixed random pool whose length and
// offset follow from (writer, seq) alone, so a reader checks every byte
// without the producer sending a table. It starts with the tag {writer, seq},
// cut to the message's length.
Bytes traffic(uint32_t writer, uint32_t seq, size_t minLength, size_t maxLength)
{
    static const Bytes pool = pattern(512 * 1024, 42);
    uint64_t x = (uint64_t{writer} << 32 | seq) * 0x9E3779B97F4A7C15ULL;
    x = (x ^ x >> 29) * 0xBF58476D1CE4E5B9ULL;
    const size_t n = minLength + (x >> 16) % (maxLength - minLength + 1);
    const size_t offset = (x >> 40) % (pool.size() - n);
    Bytes data(pool.begin() + offset, pool.begin() + offset + n);
    const uint32_t tag[2] = {writer, seq};
    std::memcpy(data.data(), tag, std::min(n, sizeof tag));
    return data;
}

}  // namespace

// A request that is no power of two is rounded up to one; none can exceed
// 2^30 bytes (the ring's 32-bit indexes).
TEST(QueueSegment, FrameRequestMakesPaddedHeaderAndRoundedRing)
{
    const int key = testsupport::uniqueKey();
    SysvGuard guard{key};
    EXPECT_EQ(CMessageQueue::CreateInstance(key, 0, shmmqueue::SINGLE_READER_SINGLE_WRITER), nullptr);
    for (size_t tooBig : {(1UL << 30) + 1, (1UL << 31) + 5, 1UL << 32}) {
        EXPECT_EQ(CMessageQueue::CreateInstance(key, tooBig, shmmqueue::SINGLE_READER_SINGLE_WRITER), nullptr);
    }

    auto queue = makeQueue(key, kFrameRequest, shmmqueue::MULTI_READER_MULTI_WRITER);
    ASSERT_NE(queue, nullptr);

    // Byte offsets as the camera process reads them.
    RawSegment raw(key);
    EXPECT_EQ(raw.segmentSize(), 1048960u);
    EXPECT_EQ(queue->GetQueueLength(), kBigRing);
    EXPECT_EQ(queue->GetFreeSize(), kBigRing - 8);
    EXPECT_EQ(raw.at<int32_t>(136), key);
    EXPECT_EQ(raw.at<uint32_t>(204), kBigRing);
    EXPECT_EQ(raw.at<int32_t>(272), shmget(key, 0, 0));
    EXPECT_EQ(raw.base[340], 3);
    for (size_t offset : {4, 72, 140, 208, 276, 341}) {
        EXPECT_EQ(raw.base[offset], 0) << "padding at " << offset;
    }
    // A message lands at segment offset 384, length first; `end` (offset 68) follows it.
    unsigned char payload[3] = {7, 8, 9};
    ASSERT_EQ(queue->SendMessage(payload, 3), 0);
    EXPECT_EQ(raw.at<uint64_t>(384), 3u);
    EXPECT_EQ(raw.base[392], 7);
    EXPECT_EQ(raw.at<uint32_t>(68), 11u);
    ASSERT_EQ(queue->DeleteHeadMessage(), 3);

    // The locked model owns semaphore sets at key + 1 and key + 2.
    EXPECT_NE(semget(key + 1, 0, 0), -1);
    EXPECT_NE(semget(key + 2, 0, 0), -1);

    // Destroying the object removes the segment for everybody.
    narration([&] { queue.reset(); });
    EXPECT_EQ(shmget(key, 0, 0), -1);
}

// A segment of another size is replaced; one of the same size is attached, and
// constructing a queue over it discards what it held.
TEST(QueueSegment, ExistingSegmentIsReplacedOrAttachedAndEmptied)
{
    const int key = testsupport::uniqueKey();
    SysvGuard guard{key};
    ASSERT_NE(shmget(key, 1000, IPC_CREAT | IPC_EXCL | 0666), -1);
    auto producer = makeQueue(key, 4096);
    ASSERT_NE(producer, nullptr);
    EXPECT_EQ(RawSegment(key).segmentSize(), 4096u + 384u);
    // The unlocked model creates no semaphore sets.
    EXPECT_FALSE(producer->IsBeginLock() || producer->IsEndLock());
    EXPECT_EQ(semget(key + 1, 0, 0), -1);
    EXPECT_EQ(semget(key + 2, 0, 0), -1);

    shmmqueue::enShmModule module = shmmqueue::SHM_CREATED;
    int shmId = -1;
    narration([&] { shmdt(CMessageQueue::CreateShareMem(key, 4096 + 384, module, shmId)); });
    EXPECT_EQ(module, shmmqueue::SHM_ATTACHED);
    EXPECT_EQ(shmId, shmget(key, 0, 0));

    unsigned char payload[100] = {1};
    ASSERT_EQ(producer->SendMessage(payload, sizeof payload), 0);
    ASSERT_EQ(producer->GetDataSize(), 108u);
    auto consumer = makeQueue(key, 4096);
    unsigned char out[4096];
    EXPECT_EQ(consumer->GetMessage(out), -3);
    EXPECT_EQ(producer->GetMessage(out), -3);
    ASSERT_EQ(producer->SendMessage(payload, 10), 0);  // one ring, two objects
    EXPECT_EQ(consumer->GetMessage(out), 10);
    narration([&] {
        consumer.reset();
        producer.reset();  // the segment is already gone: only reports
    });
}

TEST(QueueSegment, FatalSetupPathsEndTheProcessWithTheirStatus)
{
    const int key = testsupport::uniqueKey(1);
    SysvGuard guard{key};
    shmmqueue::enShmModule module;
    int id;
    EXPECT_EQ(testsupport::runInChild([&] { CMessageQueue::CreateShareMem(-5, 4096, module, id); }).exitCode, 255);
    auto zeroSize = testsupport::runInChild([&] { CMessageQueue::CreateShareMem(key, 0, module, id); });
    EXPECT_EQ(zeroSize.exitCode, 255) << zeroSize.output;
    EXPECT_EQ(shmget(key, 0, 0), -1);  // nothing left behind
    narration([&] {
        EXPECT_EQ(CMessageQueue::DestroyShareMem(nullptr, -1), -1);
        EXPECT_EQ(CMessageQueue::DestroyShareMem(nullptr, key), -1);
    });
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

TEST_F(QueueRing, PrefixOrPayloadAcrossTheEndReadsBackIntact)
{
    // start: where the prefix begins; the payload wraps after (kSize - start - 8) bytes.
    for (uint32_t start : {kSize - 1, kSize - 3, kSize - 8, kSize - 20}) {
        SCOPED_TRACE(start);
        emptyAt(start);
        Bytes message = pattern(40, start);
        ASSERT_EQ(queue->SendMessage(message.data(), message.size()), 0);
        EXPECT_EQ(ringBytes(start, 8), Bytes({40, 0, 0, 0, 0, 0, 0, 0})) << "the prefix starts at the old end";
        EXPECT_EQ(ringBytes(start + 8, 40), message);
        EXPECT_EQ(raw->trunk().end, (start + 8 + 40) % kSize);
        ASSERT_EQ(queue->ReadHeadMessage(out), 40);
        EXPECT_EQ(Bytes(out, out + 40), message);
        EXPECT_EQ(raw->trunk().begin, start) << "peeking never moves begin";
        std::memset(out, 0, sizeof out);
        ASSERT_EQ(queue->GetMessage(out), 40);
        EXPECT_EQ(Bytes(out, out + 40), message);
        EXPECT_EQ(queue->GetDataSize(), 0u);
    }
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

// Fewer than 9 bytes in use, or a prefix longer than the bytes behind it or
// than any producer could send (so a capacity - 16 buffer always suffices):
// peeking reports and leaves the ring alone; taking or dropping reports and
// empties it.
TEST_F(QueueRing, CorruptRingIsReportedAndEmptied)
{
    struct Corruption {
        uint32_t begin, end;
        uint64_t prefix;
        std::string said;
    };
    std::vector<Corruption> cases = {
        {0, 38, 31, "ReadHeadMessage usOutLength illegal,usOutLength: 31,nTempMaxLength 38 \n"},
        {0, kSize - 1, kSize - 9, "usOutLength: 247,nTempMaxLength 255 \n"}};
    for (uint32_t used = 1; used <= 8; ++used) {  // also across the end
        cases.push_back({kSize - 4, (kSize - 4 + used) % kSize, 1,
                         "ReadHeadMessage data len illegal,nTempMaxLength " + std::to_string(used) + " \n"});
    }
    for (const Corruption& c : cases) {
        for (bool drop : {false, true}) {
            SCOPED_TRACE(c.said + (drop ? " dropped" : " taken"));
            raw->trunk().begin = c.begin;
            raw->trunk().end = c.end;
            for (uint32_t i = 0; i < 8; ++i) {
                raw->ring()[(c.begin + i) % kSize] = static_cast<unsigned char>(c.prefix >> (8 * i));
            }
            std::string said = narration([&] {
                EXPECT_EQ(queue->ReadHeadMessage(out), -4);
                EXPECT_EQ(raw->trunk().begin, c.begin) << "peek must only report";
                EXPECT_EQ(drop ? queue->DeleteHeadMessage() : queue->GetMessage(out), -4);
            });
            EXPECT_TRUE(contains(said, c.said)) << said;
            EXPECT_EQ(raw->trunk().begin, c.end);
        }
    }
}

// Indexes a faulty peer pushed out of range are taken modulo the ring and
// written back inside it: a message is still read from, and written to, the
// offsets the low bits name, and nothing else in the ring changes.
TEST_F(QueueRing, IndexesPushedOutOfRangeStayInsideTheRing)
{
    for (uint32_t junk : {0xFFFFFF00u, 0x7FFFFF00u, 0x100u, 0x80000000u}) {
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
        EXPECT_EQ(ringBytes(128, 8), Bytes({10, 0, 0, 0, 0, 0, 0, 0})) << "prefix at the masked end";
        EXPECT_EQ(ringBytes(136, 10), next);
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

// Another process's write lock keeps both try-locks out until its holder dies:
// SEM_UNDO releases what a killed writer or an exiting reader held.
TEST(QueueLock, HeldAcrossProcessesAndReleasedByAHolderThatDies)
{
    const int key = testsupport::uniqueKey(2);
    SysvGuard guard{key};
    CShmRWlock lock(key);
    // Readers share; a writer waits for them.
    EXPECT_TRUE(lock.TryRlock());
    EXPECT_TRUE(lock.TryRlock());
    EXPECT_FALSE(lock.trylock());
    EXPECT_EQ(lock.UnRlock(), 0);
    EXPECT_EQ(lock.UnRlock(), 0);
    EXPECT_TRUE(lock.trylock());
    EXPECT_EQ(lock.Unlock(), 0);

    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    {
        Children holder;
        holder.fork([&] {
            CShmRWlock(key).Wlock();  // opens the existing set without resetting it
            (void)!write(ready[1], "x", 1);
            pause();
            return 0;
        });
        close(ready[1]);  // a holder that dies early ends the read below
        char c;
        ASSERT_EQ(read(ready[0], &c, 1), 1);
        EXPECT_FALSE(lock.TryWlock());
        EXPECT_FALSE(lock.TryRlock());
    }  // the holder is killed here
    close(ready[0]);
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

// Writer processes each send `each` messages, retrying while the ring is full;
// reader processes take them until all have arrived. In every model each
// message arrives exactly once and byte-exact, and each reader sees every
// writer's messages in the order they were sent. With one writer the short
// messages carry no tag: their sequence number is implied.
TEST(QueueProcesses, EveryMessageArrivesOnceInOrderIntact)
{
    struct Load {
        shmmqueue::eQueueModel model;
        size_t ring;
        uint32_t writers, readers, each;
        size_t minLength, maxLength;
    };
    const Load loads[] = {{shmmqueue::SINGLE_READER_SINGLE_WRITER, kFrameRequest, 1, 1, 20000, 1, 200 * 1024},
                          {shmmqueue::SINGLE_READER_MULTI_WRITER, 256 * 1024, 3, 1, 3000, 8, 32 * 1024},
                          {shmmqueue::MULTI_READER_MULTI_WRITER, 128 * 1024, 2, 2, 4000, 8, 64 * 1024}};
    for (const Load& load : loads) {
        SCOPED_TRACE(static_cast<int>(load.model));
        const int key = testsupport::uniqueKey(3 + load.model);
        SysvGuard guard{key};
        auto queue = makeQueue(key, load.ring, load.model);
        const uint32_t total = load.writers * load.each;
        // Shared with the readers: [0] messages taken, [1] those out of order
        // or not byte-exact, then how often each (writer, seq) arrived.
        const size_t tallyBytes = (2 + total) * sizeof(uint32_t);
        void* mem = mmap(nullptr, tallyBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(mem, MAP_FAILED);
        uint32_t* tally = static_cast<uint32_t*>(mem);

        Children children;
        for (uint32_t reader = 0; reader < load.readers; ++reader) {
            children.fork([&] {
                Bytes out(load.ring);
                std::vector<int64_t> last(load.writers, -1);
                while (__atomic_load_n(&tally[0], __ATOMIC_ACQUIRE) < total) {
                    const int n = queue->GetMessage(out.data());
                    if (n == -3) {
                        sched_yield();
                        continue;
                    }
                    uint32_t tag[2] = {0, static_cast<uint32_t>(last[0] + 1)};
                    if (load.writers > 1 && n >= 8) {
                        std::memcpy(tag, out.data(), sizeof tag);
                    }
                    bool good = n > 0 && tag[0] < load.writers && tag[1] < load.each && tag[1] > last[tag[0]];
                    if (good) {
                        const Bytes expected = traffic(tag[0], tag[1], load.minLength, load.maxLength);
                        good = n == static_cast<int>(expected.size()) && !std::memcmp(out.data(), expected.data(), n);
                    }
                    if (!good) {
                        __atomic_fetch_add(&tally[1], 1, __ATOMIC_RELAXED);
                    } else {
                        last[tag[0]] = tag[1];
                        __atomic_fetch_add(&tally[2 + tag[0] * load.each + tag[1]], 1, __ATOMIC_RELAXED);
                    }
                    __atomic_fetch_add(&tally[0], 1, __ATOMIC_RELEASE);
                }
                return 0;
            });
        }
        for (uint32_t writer = 0; writer < load.writers; ++writer) {
            children.fork([&, writer] {
                for (uint32_t seq = 0; seq < load.each; ++seq) {
                    Bytes data = traffic(writer, seq, load.minLength, load.maxLength);
                    int rc;
                    while ((rc = queue->SendMessage(data.data(), data.size())) == -2) {
                        sched_yield();  // ring full
                    }
                    if (rc != 0) {
                        return 10;
                    }
                }
                return 0;
            });
        }
        EXPECT_TRUE(children.allExitedCleanly());
        EXPECT_EQ(tally[0], total);
        EXPECT_EQ(tally[1], 0u);
        EXPECT_TRUE(std::all_of(tally + 2, tally + 2 + total, [](uint32_t n) { return n == 1; }))
            << "each message exactly once";
        Bytes out(load.ring);
        EXPECT_EQ(queue->GetMessage(out.data()), -3);
        munmap(mem, tallyBytes);
    }
}
