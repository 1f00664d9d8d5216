#pragma once
// Splits the viewer's TCP byte stream into debug-stream packets
// (streampacket.h). The stream may hold garbage and packets cut short when
// the module lost a viewer mid-packet; the parser then resynchronises on the
// next head marker. A candidate packet is accepted only if its length word is
// at most the limit and its tail marker sits right after the payload.
//
// Thread-bound: one thread feeds and takes packets.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "streampacket.h"

class PacketParser {
public:
    struct Packet {
        uint32_t type = 0;  ///< ServerDataType word as received
        std::vector<unsigned char> payload;
    };

    /// Length words above `maxPayloadBytes` are taken for garbage.
    explicit PacketParser(size_t maxPayloadBytes = streampacket::kMaxPayloadBytes);

    /// Appends received bytes. Memory stays bounded by one packet of the
    /// largest accepted size plus the bytes fed since the last next().
    void feed(const unsigned char* data, size_t size);

    /// Moves the next complete packet into `packet`; false (and `packet`
    /// untouched) until one is complete.
    bool next(Packet& packet);

    /// Forgets every buffered byte: the next byte fed starts a new stream.
    void reset();

    /// Bytes dropped so far while looking for a packet head.
    uint64_t skippedBytes() const { return m_skipped; }
    /// Bytes fed but neither taken as packets nor skipped yet.
    size_t bufferedBytes() const { return m_buffer.size() - m_start; }

private:
    void skip(size_t count);

    size_t m_maxPayload;
    std::vector<unsigned char> m_buffer;
    size_t m_start = 0;  ///< first byte of m_buffer not yet consumed
    uint64_t m_skipped = 0;
};
