#pragma once
// A ring of length-prefixed messages in one System V shared-memory segment,
// shared with the camera process, plus the semaphore-based reader/writer lock
// that guards its ends in the multi-reader or multi-writer models.
//
// Segment layout (native byte order): a 384-byte MemTrunk header, then the
// ring of `size` bytes (a power of two). Each message is an 8-byte payload
// length followed by the payload; both may wrap around the ring's end. The
// ring is empty when begin == end, and 8 bytes are always held back so a full
// ring never looks empty.
//
// Every report of this file goes to standard output, not to the module log.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>

namespace shmmqueue {

enum eQueueModel : unsigned char {
    SINGLE_READER_SINGLE_WRITER = 0,  ///< no locks: one consumer moves begin, one producer moves end
    SINGLE_READER_MULTI_WRITER = 1,   ///< write end locked (semaphore set at key + 2)
    MULTI_READER_SINGLE_WRITER = 2,   ///< read end locked (semaphore set at key + 1)
    MULTI_READER_MULTI_WRITER = 3,    ///< both ends locked
};

enum enShmModule : unsigned char {
    SHM_CREATED = 0,   ///< a new segment was made
    SHM_ATTACHED = 1,  ///< an existing segment of the same size was attached
};

/// Shared header of the segment. Each field sits on its own 64-byte stretch so
/// the read index and the write index never share a cache line.
struct MemTrunk {
    uint32_t begin;  ///< ring offset of the oldest message's length prefix
    uint8_t pad0[64];
    uint32_t end;  ///< ring offset where the next message will be written
    uint8_t pad1[64];
    int32_t shmKey;  ///< System V key of the segment
    uint8_t pad2[64];
    uint32_t size;  ///< ring capacity in bytes, a power of two
    uint8_t pad3[64];
    int32_t shmId;  ///< shmget identifier of the segment
    uint8_t pad4[64];
    uint8_t queueModel;  ///< eQueueModel
    uint8_t pad5[43];
};

inline constexpr size_t kTrunkSize = 384;       ///< bytes of header before the ring
inline constexpr size_t kLengthPrefixSize = 8;  ///< bytes of the length prefix (native size_t)

static_assert(sizeof(MemTrunk) == kTrunkSize, "MemTrunk must be 384 bytes");
// The camera process lays out the same header: every field at its fixed offset.
static_assert(std::is_standard_layout<MemTrunk>::value, "MemTrunk offsets must be well defined");
static_assert(offsetof(MemTrunk, begin) == 0, "begin at 0");
static_assert(offsetof(MemTrunk, end) == 68, "end at 68");
static_assert(offsetof(MemTrunk, shmKey) == 136, "shmKey at 136");
static_assert(offsetof(MemTrunk, size) == 204, "size at 204");
static_assert(offsetof(MemTrunk, shmId) == 272, "shmId at 272");
static_assert(offsetof(MemTrunk, queueModel) == 340, "queueModel at 340");
static_assert(sizeof(size_t) == kLengthPrefixSize, "the length prefix is a 64-bit size_t");

/// Reader/writer lock on a System V set of two semaphores: semaphore 0 counts
/// the writer holding it (0 or 1), semaphore 1 the readers. Every operation
/// uses SEM_UNDO, so a holder that dies releases what it held. The semaphore
/// set outlives the object: it belongs to every process using the key.
class CShmRWlock {
public:
    CShmRWlock();
    explicit CShmRWlock(int key);

    /// Opens the set of `key`, creating it with both counts at 0 when it does
    /// not exist yet. Throws std::runtime_error on failure.
    int init(int key);

    /// Blocking operations; retried on EINTR. Return the semop result (0 or -1).
    int Rlock() const;
    int UnRlock() const;
    int Wlock() const;
    int UnWlock() const;

    /// Non-blocking; false when the lock is held elsewhere. Throw
    /// std::runtime_error on any error other than EAGAIN.
    bool TryRlock() const;
    bool TryWlock() const;

    int Lock() const { return Wlock(); }
    int Unlock() const { return UnWlock(); }
    bool trylock() const { return TryWlock(); }

    int Getkey() const { return key; }
    int getid() const { return semId; }

private:
    int semId;
    int key;
};

/// The message ring. An object holds no message data; it maps the shared
/// header and ring and, in the locked models, owns its two lock handles.
///
/// Thread-safety: in SINGLE_READER_SINGLE_WRITER one thread (or process) may
/// read while another writes; every other combination needs a locked model.
class CMessageQueue {
public:
    /// Creates or attaches the segment of `shmKey` holding a ring of
    /// `queueSize` bytes rounded up to a power of two, and lays an empty queue
    /// over it. Null when queueSize is 0 or the capacity would exceed 2^30.
    /// Shared-memory failures end the process after printing why.
    static CMessageQueue* CreateInstance(int shmKey, size_t queueSize, eQueueModel model);

    /// Lays an empty queue of `size` ring bytes (a power of two) over the
    /// segment at shmAddr; a null shmAddr makes an object without a queue.
    /// Any queued content is discarded: producer and consumer both start from
    /// an empty ring.
    CMessageQueue(unsigned char* shmAddr, eQueueModel model, int shmKey, int shmId, size_t size);

    /// Detaches and removes the segment for every process, then releases the
    /// lock handles (not the semaphore sets).
    ~CMessageQueue();

    CMessageQueue(const CMessageQueue&) = delete;
    CMessageQueue& operator=(const CMessageQueue&) = delete;

    /// Appends one message. 0 on success; -1 null data or zero length; -2 not
    /// enough free space (nothing is written).
    int SendMessage(unsigned char* data, size_t length);

    /// Removes the oldest message and copies its payload to out, which must
    /// hold the largest payload a producer can send (GetQueueLength() - 16).
    /// Returns the payload length; -1 null out, -3 empty, -4 corrupt ring (the
    /// whole content is discarded). A prefix claiming more than
    /// GetQueueLength() - 16 bytes counts as corrupt, so that buffer size is
    /// enough whatever a peer wrote.
    int GetMessage(unsigned char* out);

    /// As GetMessage but leaves the message (and a corrupt ring) in place.
    int ReadHeadMessage(unsigned char* out);

    /// As GetMessage without copying the payload.
    int DeleteHeadMessage();

    /// Bytes in use, length prefixes included.
    unsigned int GetDataSize();
    /// Ring capacity from the shared header.
    unsigned int GetQueueLength();
    /// Bytes a SendMessage may still use for prefix and payload.
    unsigned int GetFreeSize();

    void PrintTrunk();
    bool IsBeginLock();
    bool IsEndLock();
    void InitLock();

    static unsigned char* CreateShareMem(int key, long size, enShmModule& module, int& shmId);
    static int DestroyShareMem(const void* shmAddr, int key);

    static bool IsPowerOfTwo(unsigned long size);
    /// 1-based position of the highest set bit, 0 for 0. Exact for values
    /// below 2^32 (the capacity rounding needs less than 2^31).
    static int Fls(unsigned long size);
    /// The smallest power of two >= size, or 0 when that exceeds 2^30.
    static unsigned long RoundupPowofTwo(unsigned long size);

private:
    enum class HeadMode { Remove, Peek, Drop };
    int ReadHead(unsigned char* out, HeadMode mode);
    size_t PeekLength(uint32_t at) const;
    void CopyOut(uint32_t at, unsigned char* out, size_t length) const;

    MemTrunk* m_stMemTrunk = nullptr;
    std::unique_ptr<CShmRWlock> m_pBeginLock;
    std::unique_ptr<CShmRWlock> m_pEndLock;
    unsigned char* m_pQueueAddr = nullptr;
    void* m_pShm = nullptr;
    // Capacity mask of the ring this process mapped. Index arithmetic uses it
    // rather than the shared `size`, so a peer that scribbles over the header
    // can corrupt messages but never make this process touch memory outside
    // the segment.
    uint32_t m_nMask = 0;
};

}  // namespace shmmqueue
