#include "packetparser.h"

#include <algorithm>

#include "littleendian.h"

namespace {

constexpr unsigned char kHeadMarker[4] = {PACKET_HEAD & 0xFF, (PACKET_HEAD >> 8) & 0xFF, (PACKET_HEAD >> 16) & 0xFF,
                                          PACKET_HEAD >> 24};

}  // namespace

PacketParser::PacketParser(size_t maxPayloadBytes) : m_maxPayload(maxPayloadBytes) {}

void PacketParser::feed(const unsigned char* data, size_t size)
{
    // Drop consumed bytes once they outweigh the live ones: each byte is
    // moved a bounded number of times on average.
    if (m_start > 0 && m_start >= m_buffer.size() - m_start) {
        m_buffer.erase(m_buffer.begin(), m_buffer.begin() + static_cast<std::ptrdiff_t>(m_start));
        m_start = 0;
    }
    m_buffer.insert(m_buffer.end(), data, data + size);
}

bool PacketParser::next(Packet& packet)
{
    using streampacket::kHeadBytes;
    using streampacket::kTailBytes;
    for (;;) {
        const auto begin = m_buffer.begin() + static_cast<std::ptrdiff_t>(m_start);
        const auto head = std::search(begin, m_buffer.end(), std::begin(kHeadMarker), std::end(kHeadMarker));
        if (head == m_buffer.end()) {
            // The last three bytes may be the start of a marker.
            skip(bufferedBytes() > 3 ? bufferedBytes() - 3 : 0);
            return false;
        }
        skip(static_cast<size_t>(head - begin));
        const unsigned char* at = m_buffer.data() + m_start;
        if (bufferedBytes() < kHeadBytes) {
            return false;
        }
        const size_t length = le::load32(at + 4);
        if (length > m_maxPayload) {
            skip(1);
            continue;
        }
        if (bufferedBytes() < kHeadBytes + length + kTailBytes) {
            return false;
        }
        if (le::load32(at + kHeadBytes + length) != PACKET_TAIL) {
            // Cut short: the next packet's head may be inside what was
            // taken for this one's payload, so look again one byte on.
            skip(1);
            continue;
        }
        packet.type = le::load32(at + 8);
        packet.payload.assign(at + kHeadBytes, at + kHeadBytes + length);
        m_start += kHeadBytes + length + kTailBytes;
        return true;
    }
}

void PacketParser::reset()
{
    m_buffer.clear();
    m_start = 0;
}

void PacketParser::skip(size_t count)
{
    m_start += count;
    m_skipped += count;
}
