// Arbitrary ring contents and indexes, as a faulty or hostile peer could leave
// them in the shared segment: every read must stay inside the ring and the
// output buffer, and a corrupt ring must be reported, not followed.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "shmmqueue.h"

namespace {

constexpr size_t kRing = 4096;

struct Harness {
    std::vector<unsigned char> segment = std::vector<unsigned char>(shmmqueue::kTrunkSize + kRing);
    // The ring can hand out at most kRing - 16 bytes; the buffer is exactly
    // that, so any overrun shows up under AddressSanitizer.
    std::vector<unsigned char> out = std::vector<unsigned char>(kRing - 16);
    // Never destroyed: its destructor would try to remove a System V segment.
    shmmqueue::CMessageQueue* queue =
        new shmmqueue::CMessageQueue(segment.data(), shmmqueue::SINGLE_READER_SINGLE_WRITER, -1, -1, kRing);
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // Corrupt rings are reported on stdout; keep the fuzzer's console readable.
    (void)!std::freopen("/dev/null", "w", stdout);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Harness harness;
    if (size < 9) {
        return 0;
    }
    auto* trunk = reinterpret_cast<shmmqueue::MemTrunk*>(harness.segment.data());
    std::memcpy(&trunk->begin, data, 4);
    std::memcpy(&trunk->end, data + 4, 4);
    const uint8_t script = data[8];
    data += 9;
    size -= 9;
    std::memset(harness.segment.data() + shmmqueue::kTrunkSize, 0, kRing);
    std::memcpy(harness.segment.data() + shmmqueue::kTrunkSize, data, size < kRing ? size : kRing);

    auto& queue = *harness.queue;
    for (int step = 0; step < 8; ++step) {
        switch ((script >> (step % 4 * 2)) & 3) {
            case 0:
                queue.ReadHeadMessage(harness.out.data());
                break;
            case 1:
                queue.GetMessage(harness.out.data());
                break;
            case 2:
                queue.DeleteHeadMessage();
                break;
            default:
                queue.SendMessage(const_cast<uint8_t*>(data), size % kRing);
                break;
        }
    }
    return 0;
}
