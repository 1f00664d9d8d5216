// The viewer's packet parser on streams cut at every byte boundary, with
// garbage, packets cut short and false head markers.

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "packetparser.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Packets = std::vector<std::pair<uint32_t, Bytes>>;
using testsupport::streamPacket;

Bytes operator+(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The packets found when `stream` arrives in pieces ending at `cuts`.
Packets parse(PacketParser& parser, const Bytes& stream, const std::vector<size_t>& cuts)
{
    Packets packets;
    PacketParser::Packet packet;
    for (size_t i = 0, from = 0; i < cuts.size(); from = cuts[i++]) {
        parser.feed(stream.data() + from, cuts[i] - from);
        while (parser.next(packet)) {
            packets.emplace_back(packet.type, packet.payload);
        }
    }
    return packets;
}

TEST(PacketParser, FindsEveryGoodPacketWhereverTheStreamIsCut)
{
    // The pair's payload holds a head marker: an intact packet is never searched.
    const Bytes pair = {1, 2, 0x44, 0x33, 0x22, 0x11, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0};
    const Bytes disparity = {0x00, 0x00, 0xE8, 0x40, 10, 20, 30, 40};
    const Bytes good = streamPacket(0, pair) + streamPacket(3, disparity);
    const Packets both = {{0, pair}, {3, disparity}};
    const struct {
        const char* name;
        Bytes stream;
        Packets expected;
        uint64_t skipped;
    } cases[] = {
        {"two packets and an empty one", good + streamPacket(7, {}), {{0, pair}, {3, disparity}, {7, {}}}, 0},
        {"garbage with partial markers first", Bytes{0x44, 0x33, 0x22, 5, 0x44, 0x44, 0x33} + good, both, 7},
        {"a head with an impossible length first", Bytes{0x44, 0x33, 0x22, 0x11, 0xFF, 0xFF, 0xFF, 0x7F} + good, both,
         8},
        {"a packet cut short, then good ones", Bytes(good.begin(), good.begin() + 17) + good, both, 17},
        {"garbage between packets", streamPacket(0, pair) + Bytes{1, 2, 3} + streamPacket(3, disparity), both, 3},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        std::vector<size_t> everyByte;
        for (size_t at = 0; at <= test.stream.size(); ++at) {
            everyByte.push_back(at);
            PacketParser parser(1000);
            ASSERT_EQ(parse(parser, test.stream, {at, test.stream.size()}), test.expected) << "cut at " << at;
            EXPECT_EQ(std::make_pair(parser.skippedBytes(), parser.bufferedBytes()),
                      std::make_pair(test.skipped, size_t{0}));
        }
        PacketParser parser(1000);
        EXPECT_EQ(parse(parser, test.stream, everyByte), test.expected) << "byte by byte";
    }
    // A new connection: the half packet before reset() is forgotten.
    PacketParser parser;
    parser.feed(good.data(), 10);
    parser.reset();
    EXPECT_EQ(parse(parser, good, {good.size()}), both);
}

}  // namespace
