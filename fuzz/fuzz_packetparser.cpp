// The viewer's packet parser on streams a faulty link or a hostile peer could
// deliver, fed in chunks of fuzzer-chosen sizes.
//
// Input: one control byte, then the stream description.
//   bit 0 clear: raw mode. The rest is the stream itself, parsed with a small
//     length limit. Every packet returned must occur in the stream exactly as
//     returned, and every byte fed is either returned, skipped or buffered.
//   bit 0 set: built mode. The rest describes segments (kind and type byte,
//     length byte, bytes): good packets, garbage and packets cut short; the
//     parser must return exactly the good packets, in order.
// Bits 1-7 seed the chunk sizes.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "packetparser.h"

namespace {

using Bytes = std::vector<unsigned char>;

void appendWord(Bytes& out, uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8) {
        out.push_back(static_cast<unsigned char>(value >> shift));
    }
}

Bytes encode(const PacketParser::Packet& packet)
{
    Bytes out;
    appendWord(out, PACKET_HEAD);
    appendWord(out, static_cast<uint32_t>(packet.payload.size()));
    appendWord(out, packet.type);
    out.insert(out.end(), packet.payload.begin(), packet.payload.end());
    appendWord(out, PACKET_TAIL);
    return out;
}

// Feeds `stream` in chunks of 1..64 bytes and returns every packet.
std::vector<PacketParser::Packet> parseInChunks(PacketParser& parser, const Bytes& stream, uint32_t seed)
{
    std::vector<PacketParser::Packet> packets;
    PacketParser::Packet packet;
    size_t at = 0;
    while (at < stream.size()) {
        seed = seed * 1103515245u + 12345u;
        const size_t chunk = std::min<size_t>(1 + (seed >> 16) % 64, stream.size() - at);
        parser.feed(stream.data() + at, chunk);
        at += chunk;
        while (parser.next(packet)) {
            packets.push_back(packet);
        }
    }
    return packets;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) {
        return 0;
    }
    const uint32_t seed = data[0] >> 1;
    const Bytes rest(data + 1, data + size);
    if ((data[0] & 1) == 0) {
        PacketParser parser(64);
        uint64_t returned = 0;
        for (const PacketParser::Packet& packet : parseInChunks(parser, rest, seed)) {
            const Bytes encoded = encode(packet);
            if (packet.payload.size() > 64 ||
                std::search(rest.begin(), rest.end(), encoded.begin(), encoded.end()) == rest.end()) {
                std::abort();
            }
            returned += encoded.size();
        }
        if (returned + parser.skippedBytes() + parser.bufferedBytes() != rest.size()) {
            std::abort();
        }
        return 0;
    }

    // Built mode. Payloads and garbage hold no 0x44 and no 0x88, so every head
    // and tail marker in the stream is a real one.
    auto clean = [](unsigned char byte) -> unsigned char { return byte == 0x44 || byte == 0x88 ? byte + 1 : byte; };
    Bytes stream;
    std::vector<PacketParser::Packet> expected;
    std::vector<std::pair<size_t, size_t>> cutShort;  // head position, declared length
    size_t at = 0;
    while (at + 2 <= rest.size()) {
        const uint8_t kind = rest[at] >> 6;
        const size_t length = std::min<size_t>(rest[at + 1], rest.size() - at - 2);
        at += 2;
        Bytes bytes;
        for (size_t i = 0; i < length; ++i) {
            bytes.push_back(clean(rest[at + i]));
        }
        at += length;
        PacketParser::Packet packet;
        packet.type = rest[at - length - 2] & 0x3F;
        packet.payload = bytes;
        if (kind == 2) {
            stream.insert(stream.end(), bytes.begin(), bytes.end());
        } else if (kind == 3) {
            // Declares `length` bytes, carries half of them and no tail.
            const Bytes encoded = encode(packet);
            cutShort.emplace_back(stream.size(), length);
            stream.insert(stream.end(), encoded.begin(),
                          encoded.begin() + 12 + static_cast<std::ptrdiff_t>(length / 2));
        } else {
            const Bytes encoded = encode(packet);
            stream.insert(stream.end(), encoded.begin(), encoded.end());
            expected.push_back(std::move(packet));
        }
    }
    // Filler lets every cut-short head be checked against the bytes after it.
    stream.insert(stream.end(), 12 + 255 + 4, 0);
    // A cut-short packet whose declared end meets a real tail marker is a
    // valid packet on the wire; the format cannot tell, so skip such inputs.
    for (const auto& [head, length] : cutShort) {
        const size_t tail = head + 12 + length;
        if (stream[tail] == (PACKET_TAIL & 0xFF) && stream[tail + 1] == ((PACKET_TAIL >> 8) & 0xFF)) {
            return 0;
        }
    }
    PacketParser parser(255);
    const std::vector<PacketParser::Packet> found = parseInChunks(parser, stream, seed);
    if (found.size() != expected.size()) {
        std::abort();
    }
    for (size_t i = 0; i < found.size(); ++i) {
        if (found[i].type != expected[i].type || found[i].payload != expected[i].payload) {
            std::abort();
        }
    }
    return 0;
}
