#include "shmmqueue.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

// Reports go to stdout and are flushed at once, so they interleave correctly
// with the host's own output and survive an exit() that follows.
#define SHMQ_REPORT(...)          \
    do {                          \
        std::printf(__VA_ARGS__); \
        std::fflush(stdout);      \
    } while (0)

namespace shmmqueue {
namespace {

// Largest ring capacity. `size` is printed as a signed 32-bit value and index
// sums must not overflow 32 bits, so rings stay at or below 2^30 bytes.
constexpr unsigned long kMaxCapacity = 1UL << 30;

union semun {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

// The two shared indexes are plain 32-bit words in the segment. The consumer
// publishes `begin` and the producer `end` with a release store after the
// bytes they cover; the other side reads them with an acquire load. On x86
// this costs nothing; on AArch64 it keeps the payload visible before its index.
uint32_t loadIndex(const uint32_t& index) { return __atomic_load_n(&index, __ATOMIC_ACQUIRE); }

void storeIndex(uint32_t& index, uint32_t value) { __atomic_store_n(&index, value, __ATOMIC_RELEASE); }

int semopRetry(int semId, sembuf* ops, size_t count)
{
    int result;
    do {
        result = semop(semId, ops, count);
    } while (result == -1 && errno == EINTR);
    return result;
}

bool semopTry(int semId, sembuf* ops, size_t count)
{
    if (semop(semId, ops, count) == 0) {
        return true;
    }
    if (errno == EAGAIN) {
        return false;
    }
    throw std::runtime_error(std::string("semop error : ") + std::strerror(errno));
}

// Scoped hold of one end's lock; a null lock (unlocked model) holds nothing.
class EndGuard {
public:
    EndGuard(const CShmRWlock* lock, bool shared) : m_lock(lock), m_shared(shared)
    {
        if (m_lock != nullptr) {
            m_shared ? m_lock->Rlock() : m_lock->Wlock();
        }
    }
    ~EndGuard()
    {
        if (m_lock != nullptr) {
            m_shared ? m_lock->UnRlock() : m_lock->UnWlock();
        }
    }
    EndGuard(const EndGuard&) = delete;
    EndGuard& operator=(const EndGuard&) = delete;

private:
    const CShmRWlock* m_lock;
    bool m_shared;
};

}  // namespace

// ---------------------------------------------------------------- CShmRWlock

CShmRWlock::CShmRWlock() : semId(-1), key(-1) {}

CShmRWlock::CShmRWlock(int lockKey) : semId(-1), key(-1) { init(lockKey); }

int CShmRWlock::init(int lockKey)
{
    int id = semget(lockKey, 2, IPC_CREAT | IPC_EXCL | 0666);
    if (id != -1) {
        unsigned short zeros[2] = {0, 0};
        semun arg{};
        arg.array = zeros;
        if (semctl(id, 0, SETALL, arg) == -1) {
            throw std::runtime_error(std::string("semctlt error: ") + std::strerror(errno));
        }
    } else if (errno != EEXIST) {
        throw std::runtime_error(std::string("sem has exist error: ") + std::strerror(errno));
    } else {
        id = semget(lockKey, 2, 0666);
        if (id == -1) {
            throw std::runtime_error(std::string("semget error : ") + std::strerror(errno));
        }
    }
    semId = id;
    key = lockKey;
    return 0;
}

int CShmRWlock::Rlock() const
{
    sembuf ops[2] = {{0, 0, SEM_UNDO}, {1, 1, SEM_UNDO}};
    return semopRetry(semId, ops, 2);
}

int CShmRWlock::UnRlock() const
{
    sembuf ops[1] = {{1, -1, SEM_UNDO}};
    return semopRetry(semId, ops, 1);
}

int CShmRWlock::Wlock() const
{
    sembuf ops[3] = {{0, 0, SEM_UNDO}, {1, 0, SEM_UNDO}, {0, 1, SEM_UNDO}};
    return semopRetry(semId, ops, 3);
}

int CShmRWlock::UnWlock() const
{
    sembuf ops[1] = {{0, -1, SEM_UNDO}};
    return semopRetry(semId, ops, 1);
}

bool CShmRWlock::TryRlock() const
{
    sembuf ops[2] = {{0, 0, SEM_UNDO | IPC_NOWAIT}, {1, 1, SEM_UNDO | IPC_NOWAIT}};
    return semopTry(semId, ops, 2);
}

bool CShmRWlock::TryWlock() const
{
    sembuf ops[3] = {{0, 0, SEM_UNDO | IPC_NOWAIT}, {1, 0, SEM_UNDO | IPC_NOWAIT}, {0, 1, SEM_UNDO | IPC_NOWAIT}};
    return semopTry(semId, ops, 3);
}

// ------------------------------------------------------------- CMessageQueue

bool CMessageQueue::IsPowerOfTwo(unsigned long size) { return size != 0 && (size & (size - 1)) == 0; }

int CMessageQueue::Fls(unsigned long size)
{
    return size == 0 ? 0 : static_cast<int>(sizeof(unsigned long) * 8) - __builtin_clzl(size);
}

unsigned long CMessageQueue::RoundupPowofTwo(unsigned long size)
{
    const int bits = Fls(size - 1);
    return bits <= 30 ? 1UL << bits : 0;
}

CMessageQueue* CMessageQueue::CreateInstance(int shmKey, size_t queueSize, eQueueModel model)
{
    if (queueSize == 0) {
        return nullptr;
    }
    if (!IsPowerOfTwo(queueSize)) {
        queueSize = RoundupPowofTwo(queueSize);
    }
    if (queueSize == 0 || queueSize > kMaxCapacity) {
        return nullptr;
    }
    enShmModule module = SHM_CREATED;
    int shmId = -1;
    unsigned char* addr = CreateShareMem(shmKey, static_cast<long>(queueSize + kTrunkSize), module, shmId);
    CMessageQueue* queue = new CMessageQueue(addr, model, shmKey, shmId, queueSize);
    queue->PrintTrunk();
    return queue;
}

CMessageQueue::CMessageQueue(unsigned char* shmAddr, eQueueModel model, int shmKey, int shmId, size_t size)
{
    if (shmAddr == nullptr) {
        return;
    }
    m_pShm = shmAddr;
    m_stMemTrunk = reinterpret_cast<MemTrunk*>(shmAddr);
    m_pQueueAddr = shmAddr + kTrunkSize;
    m_nMask = static_cast<uint32_t>(size - 1);

    std::memset(shmAddr, 0, kTrunkSize);
    m_stMemTrunk->shmKey = shmKey;
    m_stMemTrunk->size = static_cast<uint32_t>(size);
    m_stMemTrunk->shmId = shmId;
    m_stMemTrunk->queueModel = model;
    // Emptying the ring: release, so a peer that reads these indexes also
    // sees the header fields written above.
    storeIndex(m_stMemTrunk->begin, 0);
    storeIndex(m_stMemTrunk->end, 0);
    InitLock();
}

CMessageQueue::~CMessageQueue()
{
    if (m_stMemTrunk != nullptr) {
        DestroyShareMem(m_pShm, m_stMemTrunk->shmKey);
    }
}

bool CMessageQueue::IsBeginLock()
{
    return m_stMemTrunk != nullptr && (m_stMemTrunk->queueModel == MULTI_READER_SINGLE_WRITER ||
                                       m_stMemTrunk->queueModel == MULTI_READER_MULTI_WRITER);
}

bool CMessageQueue::IsEndLock()
{
    return m_stMemTrunk != nullptr && (m_stMemTrunk->queueModel == SINGLE_READER_MULTI_WRITER ||
                                       m_stMemTrunk->queueModel == MULTI_READER_MULTI_WRITER);
}

void CMessageQueue::InitLock()
{
    if (IsBeginLock()) {
        m_pBeginLock = std::make_unique<CShmRWlock>(m_stMemTrunk->shmKey + 1);
    }
    if (IsEndLock()) {
        m_pEndLock = std::make_unique<CShmRWlock>(m_stMemTrunk->shmKey + 2);
    }
}

unsigned int CMessageQueue::GetDataSize()
{
    // Both acquire: the consumer's load of `end` pairs with the producer's
    // release store, so the bytes up to `end` are visible before they are
    // read; the producer's load of `begin` pairs with the consumer's release
    // store, so the consumer's reads of a freed message are complete before
    // the producer overwrites it (on AArch64 a load may otherwise be
    // satisfied after a later store to the same bytes became visible).
    uint32_t begin = loadIndex(m_stMemTrunk->begin) & m_nMask;
    uint32_t end = loadIndex(m_stMemTrunk->end) & m_nMask;
    return end >= begin ? end - begin : end + (m_nMask + 1) - begin;
}

unsigned int CMessageQueue::GetQueueLength() { return m_stMemTrunk->size; }

unsigned int CMessageQueue::GetFreeSize()
{
    return (m_nMask + 1) - static_cast<uint32_t>(kLengthPrefixSize) - GetDataSize();
}

void CMessageQueue::PrintTrunk()
{
    SHMQ_REPORT("Mem trunk address 0x%p,shmkey %d ,shmid %d, size %d, begin %d, end %d, queue module %d \n",
                static_cast<void*>(m_stMemTrunk), m_stMemTrunk->shmKey, m_stMemTrunk->shmId,
                static_cast<int>(m_stMemTrunk->size), static_cast<int>(loadIndex(m_stMemTrunk->begin)),
                static_cast<int>(loadIndex(m_stMemTrunk->end)), static_cast<int>(m_stMemTrunk->queueModel));
}

int CMessageQueue::SendMessage(unsigned char* data, size_t length)
{
    if (data == nullptr || length == 0) {
        return -1;
    }
    EndGuard guard(IsEndLock() ? m_pEndLock.get() : nullptr, false);

    const uint32_t capacity = m_nMask + 1;
    const uint32_t freeSize = GetFreeSize();
    // freeSize can only exceed capacity - 8 when a peer corrupted the header;
    // the capacity bound keeps the copy inside the ring even then.
    if (freeSize < kLengthPrefixSize || length > freeSize - kLengthPrefixSize ||
        length > capacity - 2 * kLengthPrefixSize) {
        return -2;
    }

    // `end` is only written by this side (one writer, or under the end lock,
    // whose semop is a full barrier), so this load sees our own last store.
    const uint32_t end = loadIndex(m_stMemTrunk->end) & m_nMask;
    unsigned char prefix[kLengthPrefixSize];
    std::memcpy(prefix, &length, sizeof prefix);
    for (uint32_t i = 0; i < kLengthPrefixSize; ++i) {
        m_pQueueAddr[(end + i) & m_nMask] = prefix[i];
    }
    const uint32_t at = (end + static_cast<uint32_t>(kLengthPrefixSize)) & m_nMask;
    const size_t first = std::min<size_t>(length, capacity - at);
    std::memcpy(m_pQueueAddr + at, data, first);
    if (first < length) {
        std::memcpy(m_pQueueAddr, data + first, length - first);
    }
    // Release: the prefix and payload stores above become visible to a
    // reader no later than the `end` that covers them. A camera process
    // writing into this ring must publish `end` the same way.
    storeIndex(m_stMemTrunk->end, (at + static_cast<uint32_t>(length)) & m_nMask);
    return 0;
}

size_t CMessageQueue::PeekLength(uint32_t at) const
{
    unsigned char prefix[kLengthPrefixSize];
    for (uint32_t i = 0; i < kLengthPrefixSize; ++i) {
        prefix[i] = m_pQueueAddr[(at + i) & m_nMask];
    }
    size_t length;
    std::memcpy(&length, prefix, sizeof length);
    return length;
}

void CMessageQueue::CopyOut(uint32_t at, unsigned char* out, size_t length) const
{
    const size_t first = std::min<size_t>(length, (m_nMask + 1) - at);
    std::memcpy(out, m_pQueueAddr + at, first);
    if (first < length) {
        std::memcpy(out + first, m_pQueueAddr, length - first);
    }
}

int CMessageQueue::ReadHead(unsigned char* out, HeadMode mode)
{
    if (mode != HeadMode::Drop && out == nullptr) {
        return -1;
    }
    const bool peek = mode == HeadMode::Peek;
    EndGuard guard(IsBeginLock() ? m_pBeginLock.get() : nullptr, peek);

    const uint32_t used = GetDataSize();
    if (used == 0) {
        return -3;
    }
    if (used < kLengthPrefixSize + 1) {
        SHMQ_REPORT("[%s:%d] ReadHeadMessage data len illegal,nTempMaxLength %d \n", __FILE__, __LINE__,
                    static_cast<int>(used));
        PrintTrunk();
        if (!peek) {
            // Dropping everything up to the acquired `end`: nothing is read
            // after this release store.
            storeIndex(m_stMemTrunk->begin, loadIndex(m_stMemTrunk->end) & m_nMask);
        }
        return -4;
    }
    // Our own index (one reader, or under the begin lock). The bytes read
    // below lie before the `end` acquired in GetDataSize, so they are visible.
    const uint32_t begin = loadIndex(m_stMemTrunk->begin) & m_nMask;
    const size_t length = PeekLength(begin);
    // Beyond the bytes behind the prefix, or beyond what SendMessage ever
    // accepts (so a caller's buffer of capacity - 16 bytes always suffices).
    if (used - kLengthPrefixSize < length || length > (m_nMask + 1) - 2 * kLengthPrefixSize) {
        SHMQ_REPORT("[%s:%d] ReadHeadMessage usOutLength illegal,usOutLength: %d,nTempMaxLength %d \n", __FILE__,
                    __LINE__, static_cast<int>(length), static_cast<int>(used));
        PrintTrunk();
        if (!peek) {
            storeIndex(m_stMemTrunk->begin, loadIndex(m_stMemTrunk->end) & m_nMask);
        }
        return -4;
    }
    const uint32_t at = (begin + static_cast<uint32_t>(kLengthPrefixSize)) & m_nMask;
    if (mode != HeadMode::Drop) {
        CopyOut(at, out, length);
    }
    if (!peek) {
        // Release: the copy out above is complete before the producer can
        // see the space as free and overwrite it.
        storeIndex(m_stMemTrunk->begin, (at + static_cast<uint32_t>(length)) & m_nMask);
    }
    return static_cast<int>(length);
}

int CMessageQueue::GetMessage(unsigned char* out) { return ReadHead(out, HeadMode::Remove); }

int CMessageQueue::ReadHeadMessage(unsigned char* out) { return ReadHead(out, HeadMode::Peek); }

int CMessageQueue::DeleteHeadMessage() { return ReadHead(nullptr, HeadMode::Drop); }

// ------------------------------------------------------- segment management

unsigned char* CMessageQueue::CreateShareMem(int key, long size, enShmModule& module, int& shmId)
{
    if (key < 0) {
        SHMQ_REPORT("[%s:%d] CreateShareMem failed. [key %d]errno:%s \n", __FILE__, __LINE__, key,
                    std::strerror(errno));
        std::exit(-1);
    }
    SHMQ_REPORT("Try to malloc share memory of %d bytes... \n", static_cast<int>(size));

    shmId = shmget(key, static_cast<size_t>(size), IPC_CREAT | IPC_EXCL | 0666);
    if (shmId != -1) {
        module = SHM_CREATED;
    } else if (errno != EEXIST) {
        SHMQ_REPORT("[%s:%d] Alloc share memory failed, [iKey:%d] , size:%d , error:%s \n", __FILE__, __LINE__, key,
                    static_cast<int>(size), std::strerror(errno));
        std::exit(-1);
    } else {
        SHMQ_REPORT("Same shm seg [key= %d] exist, now try to attach it... \n", key);
        shmId = shmget(key, static_cast<size_t>(size), IPC_CREAT | 0666);
        if (shmId != -1) {
            module = SHM_ATTACHED;
            SHMQ_REPORT("Attach to share memory [key= %d,shmId %d] succeed.\n", key, shmId);
        } else {
            // The segment exists with another size: replace it.
            SHMQ_REPORT(
                "Attach to share memory [key= %d,shmId %d] failed,maybe the size of share memory changed,%s "
                ".now try to touch it again \n",
                key, shmId, std::strerror(errno));
            shmId = shmget(key, 0, 0666);
            if (shmId == -1) {
                SHMQ_REPORT("[%s:%d] Fatel error, touch to shm [key= %d,shmId %d] failed, %s.\n", __FILE__, __LINE__,
                            key, shmId, std::strerror(errno));
                std::exit(-1);
            }
            SHMQ_REPORT("First remove the exist share memory [key= %d,shmId %d] \n", key, shmId);
            if (shmctl(shmId, IPC_RMID, nullptr) == -1) {
                SHMQ_REPORT("[%s:%d] Remove share memory [key= %d,shmId %d] failed, %s \n", __FILE__, __LINE__, key,
                            shmId, std::strerror(errno));
                std::exit(-1);
            }
            shmId = shmget(key, static_cast<size_t>(size), IPC_CREAT | IPC_EXCL | 0666);
            if (shmId == -1) {
                SHMQ_REPORT("[%s:%d] Fatal error, alloc share memory [key= %d,shmId %d] failed, %s \n", __FILE__,
                            __LINE__, key, shmId, std::strerror(errno));
                std::exit(-1);
            }
        }
    }

    SHMQ_REPORT("Successfully alloced share memory block,[key= %d,shmId %d] size = %d \n", key, shmId,
                static_cast<int>(size));
    void* addr = shmat(shmId, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        SHMQ_REPORT("[%s:%d] create share memory failed, shmat failed, [key= %d,shmId %d], error = %s. \n", __FILE__,
                    __LINE__, key, shmId, std::strerror(errno));
        std::exit(0);
    }
    return static_cast<unsigned char*>(addr);
}

int CMessageQueue::DestroyShareMem(const void* shmAddr, int key)
{
    if (key < 0) {
        SHMQ_REPORT("[%s:%d] Error in ftok, %s. \n", __FILE__, __LINE__, std::strerror(errno));
        return -1;
    }
    SHMQ_REPORT("Touch to share memory [key = %d]... \n", key);
    int shmId = shmget(key, 0, 0666);
    if (shmId == -1) {
        SHMQ_REPORT("[%s:%d] Error, touch to shm [key= %d,shmId %d] failed, %s \n", __FILE__, __LINE__, key, shmId,
                    std::strerror(errno));
        return -1;
    }
    SHMQ_REPORT("Now disconnect the exist share memory [key= %d,shmId %d] \n", key, shmId);
    if (shmdt(shmAddr) == -1) {
        SHMQ_REPORT("[%s:%d] Disconnect share memory [key= %d,shmId %d] failed, %s \n", __FILE__, __LINE__, key, shmId,
                    std::strerror(errno));
    } else {
        SHMQ_REPORT("Disconnect the exist share memory [key= %d,shmId %d] succeed \n", key, shmId);
    }
    SHMQ_REPORT("Now remove the exist share memory [key= %d,shmId %d] \n", key, shmId);
    if (shmctl(shmId, IPC_RMID, nullptr) == -1) {
        SHMQ_REPORT("[%s:%d] Remove share memory [key= %d,shmId %d] failed, %s \n", __FILE__, __LINE__, key, shmId,
                    std::strerror(errno));
        return -1;
    }
    // The id comes first here, the key second.
    SHMQ_REPORT("Remove shared memory [key= %d,shmId %d] succeed. \n", shmId, key);
    return 0;
}

}  // namespace shmmqueue
