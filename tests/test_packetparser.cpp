// The viewer's packet parser on streams split at every byte boundary, with
// garbage, packets cut short and false head markers.

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "packetparser.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Packets = std::vector<std::pair<uint32_t, Bytes>>;

Bytes operator+(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Packets takeAll(PacketParser& parser)
{
    Packets packets;
    PacketParser::Packet packet;
    while (parser.next(packet)) {
        packets.emplace_back(packet.type, packet.payload);
    }
    return packets;
}

// Packets found when `stream` arrives in pieces cut at `cuts`.
Packets parse(const Bytes& stream, const std::vector<size_t>& cuts, PacketParser& parser)
{
    Packets packets;
    size_t from = 0;
    for (size_t to : cuts) {
        parser.feed(stream.data() + from, to - from);
        const Packets taken = takeAll(parser);
        packets.insert(packets.end(), taken.begin(), taken.end());
        from = to;
    }
    return packets;
}

TEST(PacketParser, FindsEveryGoodPacketWhereverTheStreamIsCut)
{
    // A payload that holds a head marker, so a parser that searches inside
    // an intact packet gets it wrong.
    const Bytes pair = {1, 2, 0x44, 0x33, 0x22, 0x11, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0};
    const Bytes disparity = {0x00, 0x00, 0xE8, 0x40, 10, 20, 30, 40, 50, 60, 70, 80};
    const Bytes good = testsupport::streamPacket(0, pair) + testsupport::streamPacket(3, disparity);
    const Packets both = {{0, pair}, {3, disparity}};
    const Bytes cutShort(good.begin(), good.begin() + 12 + 5);
    const Bytes falseHead = {0x44, 0x33, 0x22, 0x11, 0xFF, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0};
    const struct {
        const char* name;
        Bytes stream;
        Packets expected;
        uint64_t skipped;
    } cases[] = {
        {"two packets and an empty one",
         good + testsupport::streamPacket(7, {}),
         {{0, pair}, {3, disparity}, {7, {}}},
         0},
        {"garbage with partial markers first", Bytes{0x44, 0x33, 0x22, 5, 0x44, 0x44, 0x33} + good, both, 7},
        {"a head with an impossible length first", falseHead + good, both, 12},
        {"a packet cut short, then good ones", cutShort + good, both, 17},
        {"garbage between packets",
         testsupport::streamPacket(0, pair) + Bytes{1, 2, 3} + testsupport::streamPacket(3, disparity), both, 3},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        std::vector<std::vector<size_t>> cutsList;
        std::vector<size_t> everyByte;
        for (size_t at = 0; at <= test.stream.size(); ++at) {
            cutsList.push_back({at, test.stream.size()});
            everyByte.push_back(at);
        }
        cutsList.push_back(everyByte);
        for (const std::vector<size_t>& cuts : cutsList) {
            PacketParser parser(1000);
            ASSERT_EQ(parse(test.stream, cuts, parser), test.expected) << "first cut at " << cuts[0];
            EXPECT_EQ(parser.skippedBytes(), test.skipped);
            EXPECT_EQ(parser.bufferedBytes(), 0u);
        }
    }
}

TEST(PacketParser, ResetForgetsAPartialPacket)
{
    const Bytes packet = testsupport::streamPacket(0, {1, 2, 3});
    PacketParser parser;
    parser.feed(packet.data(), 10);
    parser.reset();
    parser.feed(packet.data(), packet.size());
    EXPECT_EQ(takeAll(parser), (Packets{{0, {1, 2, 3}}}));
}

}  // namespace
