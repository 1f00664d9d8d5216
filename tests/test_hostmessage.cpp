// The host tool's records: flight records encoded at the module's offsets,
// outgoing records decoded from bytes laid out independently of the header's
// structures, freed as their own type, and printed readable and as JSON.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "hostmessage.h"

namespace {

void putU16(std::vector<uint8_t>& bytes, size_t offset, uint16_t value)
{
    bytes[offset] = static_cast<uint8_t>(value & 0xff);
    bytes[offset + 1] = static_cast<uint8_t>(value >> 8);
}

int32_t s32At(const uint8_t* bytes, size_t offset)
{
    return static_cast<int32_t>(static_cast<uint32_t>(bytes[offset]) | static_cast<uint32_t>(bytes[offset + 1]) << 8 |
                                static_cast<uint32_t>(bytes[offset + 2]) << 16 |
                                static_cast<uint32_t>(bytes[offset + 3]) << 24);
}

int16_t s16At(const uint8_t* bytes, size_t offset)
{
    return static_cast<int16_t>(static_cast<uint16_t>(bytes[offset] | bytes[offset + 1] << 8));
}

size_t nonZeroOutside(const uint8_t* bytes, size_t size, std::vector<size_t> fieldBytes)
{
    size_t count = 0;
    for (size_t i = 0; i < size; ++i) {
        if (bytes[i] != 0 && std::find(fieldBytes.begin(), fieldBytes.end(), i) == fieldBytes.end()) {
            ++count;
        }
    }
    return count;
}

// Given a flight state, each record carries its fields in hundredths at the
// module's offsets (rounded, saturated) and zero everywhere else.
TEST(HostRecords, FlightStateLandsAtTheModulesOffsetsInHundredths)
{
    host::FlightState state;
    state.armState = 2;
    state.heightM = 12.345;  // rounds to 1235 (nearest), not 1234 (truncated)
    state.pitchDeg = -3.0;
    state.headSpeedMps = 1.5;
    state.rightSpeedMps = -0.07;
    state.verticalSpeedMps = 400.0;  // beyond s16: saturates

    uint8_t* basic = host::newBasicState(state);
    EXPECT_EQ(basic[1], 2);
    EXPECT_EQ(s32At(basic, 71), 1235);
    EXPECT_EQ(nonZeroOutside(basic, sizeof(AircraftBasicState), {1, 71, 72, 73, 74}), 0u);
    delete[] basic;

    uint8_t* attitude = host::newAttitude(state);
    EXPECT_EQ(s16At(attitude, 32), -300);
    EXPECT_EQ(nonZeroOutside(attitude, sizeof(AircraftAttitudeInfo), {32, 33}), 0u);
    delete[] attitude;

    uint8_t* speed = host::newSpeed(state);
    EXPECT_EQ(s16At(speed, 8), 150);
    EXPECT_EQ(s16At(speed, 10), -7);
    EXPECT_EQ(s16At(speed, 12), 32767);
    EXPECT_EQ(nonZeroOutside(speed, sizeof(AircraftSpeedInfo), {8, 9, 10, 11, 12, 13}), 0u);
    delete[] speed;

    // The protocol's inverted sense: 0 turns sensing on.
    uint8_t* on = host::newSensorSwitch(true);
    uint8_t* off = host::newSensorSwitch(false);
    EXPECT_EQ(on[0], 0);
    EXPECT_EQ(off[0], 1);
    delete[] on;
    delete[] off;
}

TEST(HostRecords, HundredthsRoundAndSaturate)
{
    const struct {
        double value;
        int16_t s16;
        int32_t s32;
    } cases[] = {
        {0.005, 1, 1},
        {-0.005, -1, -1},
        {327.68, 32767, 32768},
        {3e7, 32767, std::numeric_limits<int32_t>::max()},
        {-INFINITY, -32768, std::numeric_limits<int32_t>::min()},
        {NAN, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        EXPECT_EQ(host::hundredths16(c.value), c.s16);
        EXPECT_EQ(host::hundredths32(c.value), c.s32);
    }
}

// Outgoing bytes built at the documented offsets decode to their fields; a
// short buffer or an unknown type decodes to nothing.
TEST(HostDecode, EveryTypeFromItsBytes)
{
    std::vector<uint8_t> status(12, 0);
    status[0] = 1;
    status[1] = 1;
    status[10] = 2;
    status[11] = 0;
    std::vector<uint8_t> version(18, 0);
    putU16(version, 0, 1);
    version[2] = 3;
    putU16(version, 15, 0x0102);
    version[17] = 4;
    std::vector<uint8_t> reply(2, 0);
    putU16(reply, 0, 7);
    std::vector<uint8_t> distance(170, 0xEE);  // unwritten bytes must not leak into fields
    putU16(distance, 0, 0);
    putU16(distance, 2, 6000);
    putU16(distance, 5, static_cast<uint16_t>(-500));
    distance[9] = 1;
    putU16(distance, 10, 12);
    putU16(distance, 165, 0);
    putU16(distance, 167, 201);

    host::Decoded d;
    ASSERT_TRUE(host::decode(BINO_MSG_STATUS, status.data(), status.size(), d));
    EXPECT_EQ(std::make_tuple(d.frontHardware, d.frontCalib, d.downHardware, d.downCalib), std::make_tuple(1, 1, 2, 0));
    ASSERT_TRUE(host::decode(BINO_MSG_VERSION_REPLY, version.data(), version.size(), d));
    EXPECT_EQ(std::make_tuple(d.major, d.minor, d.major2, d.minor2), std::make_tuple(1, 3, 0x0102, 4));
    ASSERT_TRUE(host::decode(BINO_MSG_SWITCH_REPLY, reply.data(), reply.size(), d));
    EXPECT_EQ(d.result, 7);
    ASSERT_TRUE(host::decode(BINO_MSG_DISTANCE, distance.data(), distance.size(), d));
    EXPECT_EQ(std::make_tuple(d.frontCm, d.downCm, d.targetX1000, d.targetY1000, d.passable),
              std::make_tuple(6000, 201, -500, 12, 1));

    // One byte short, and an unknown type; fuzz_hostdecode covers the rest.
    for (const auto& [type, size] :
         {std::pair<uint32_t, size_t>(BINO_MSG_STATUS, 11), {BINO_MSG_DISTANCE, 169}, {4, 200}}) {
        SCOPED_TRACE(type);
        EXPECT_FALSE(host::decode(type, distance.data(), size, d));
        EXPECT_FALSE(d.known);
        EXPECT_EQ(d.type, type);
        EXPECT_EQ(d.frontCm, 0);
    }
    EXPECT_FALSE(host::decode(BINO_MSG_STATUS, nullptr, 12, d));
}

// Each outgoing record is freed as its own type. Under AddressSanitizer a
// size or kind mismatch (delete of the wrong record, delete[] of a plain new)
// fails here; an unknown type is refused and left alone.
TEST(HostDecode, ReleasesEachRecordAsItsOwnType)
{
    const struct {
        uint32_t type;
        void* message;
        size_t size;
    } cases[] = {
        {BINO_MSG_STATUS, new BinoStatusReport{}, sizeof(BinoStatusReport)},
        {BINO_MSG_VERSION_REPLY, new BinoVersionReply{}, sizeof(BinoVersionReply)},
        {BINO_MSG_SWITCH_REPLY, new BinoSwitchReply{}, sizeof(BinoSwitchReply)},
        {BINO_MSG_DISTANCE, new BinoDistanceReport{}, sizeof(BinoDistanceReport)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        EXPECT_EQ(host::outgoingSize(c.type), c.size);
        EXPECT_TRUE(host::releaseOutgoing(c.message, c.type));
    }
    BinoStatusReport unknown{};
    EXPECT_EQ(host::outgoingSize(9), 0u);
    EXPECT_FALSE(host::releaseOutgoing(&unknown, 9));  // a stack object: freeing it would crash
}

// The JSON lines are what the demo report and the plots read.
TEST(HostOutput, TextAndJsonCarryTheDecodedFields)
{
    host::Decoded d;
    std::vector<uint8_t> distance(170, 0);
    putU16(distance, 2, 1234);
    putU16(distance, 167, 200);
    ASSERT_TRUE(host::decode(BINO_MSG_DISTANCE, distance.data(), distance.size(), d));
    const std::string text = host::toText(d, 1.5, "front");
    EXPECT_NE(text.find("front  12.34 m"), std::string::npos) << text;
    EXPECT_NE(text.find("down   2.00 m"), std::string::npos) << text;
    EXPECT_EQ(host::toJson(d, 1.5, 1234567, "down"),
              "{\"t\":1.500000,\"mono_us\":1234567,\"type\":3,\"kind\":\"distance\",\"pair\":\"down\","
              "\"front_cm\":1234,\"down_cm\":200,\"target_x1000\":0,\"target_y1000\":0,\"passable\":0}");

    std::vector<uint8_t> status(12, 0);
    status[0] = 1;
    status[11] = 1;
    ASSERT_TRUE(host::decode(BINO_MSG_STATUS, status.data(), status.size(), d));
    EXPECT_EQ(host::toJson(d, 0.0, 5, ""),
              "{\"t\":0.000000,\"mono_us\":5,\"type\":0,\"kind\":\"status\",\"front_hw\":1,\"front_calib\":0,"
              "\"down_hw\":0,\"down_calib\":1}");
}

}  // namespace
