// Arbitrary bytes as an outgoing message of the module, decoded and printed
// by the host tool. Input: 4 bytes of message type (little-endian), then the
// message.
// Checked: decoding never reads past the bytes given (AddressSanitizer);
// it succeeds exactly for a known type with at least its record's bytes;
// the text and the JSON line are produced for anything, and the JSON line
// is one line of printable characters.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzzcheck.h"
#include "hostmessage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 4) {
        return 0;
    }
    uint32_t type = 0;
    std::memcpy(&type, data, sizeof type);
    // A copy of exactly the message's size, so a read beyond it is caught.
    const size_t length = size - 4;
    uint8_t* message = new uint8_t[length > 0 ? length : 1];
    std::memcpy(message, data + 4, length);
    host::Decoded decoded;
    const bool known = host::decode(type, message, length, decoded);
    const size_t need = host::outgoingSize(type);
    check(known == (need > 0 && length >= need));
    check(decoded.known == known && decoded.type == type);
    const std::string text = host::toText(decoded, 1.0, "front");
    const std::string json = host::toJson(decoded, 1.0, 123, "down");
    check(!text.empty() && json.front() == '{' && json.back() == '}');
    for (char c : json) {
        check(c >= 0x20 && c < 0x7f);
    }
    delete[] message;
    return 0;
}
