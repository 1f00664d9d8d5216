// The host tool: flight records at the module's offsets, outgoing records
// decoded from bytes laid out independently of the header's structures, the
// JSON the demo report reads, and the flight profile and its schedule.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "hostmessage.h"
#include "hostprofile.h"
#include "hostschedule.h"

namespace {

void putU16(std::vector<uint8_t>& bytes, size_t offset, uint16_t value)
{
    bytes[offset] = static_cast<uint8_t>(value & 0xff);
    bytes[offset + 1] = static_cast<uint8_t>(value >> 8);
}

// The little-endian signed value of `size` bytes at `offset`.
int64_t valueAt(const uint8_t* bytes, size_t offset, size_t size)
{
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) {
        value |= uint64_t{bytes[offset + i]} << (8 * i);
    }
    const int shift = static_cast<int>(64 - 8 * size);
    return static_cast<int64_t>(value << shift) >> shift;
}

// Whether every byte outside [from, to) is zero.
bool zeroOutside(const uint8_t* bytes, size_t total, size_t from, size_t to)
{
    for (size_t i = 0; i < total; ++i) {
        if ((i < from || i >= to) && bytes[i] != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

// Given a flight state, each record carries its field in hundredths at the
// module's offset (rounded to nearest, saturated) and zero everywhere else;
// the sensor switch has the protocol's inverted sense.
TEST(HostRecords, FlightStateLandsAtTheModulesOffsetsInHundredths)
{
    host::FlightState state;
    state.armState = 2;
    state.heightM = 12.345;  // 1235, not 1234 (truncated)
    state.pitchDeg = -3.0;
    state.headSpeedMps = 1.5;
    state.rightSpeedMps = -0.07;
    state.verticalSpeedMps = 400.0;  // beyond s16: saturates
    uint8_t* basic = host::newBasicState(state);
    EXPECT_EQ(basic[1], 2);
    basic[1] = 0;
    EXPECT_EQ(valueAt(basic, 71, 4), 1235);
    EXPECT_TRUE(zeroOutside(basic, sizeof(AircraftBasicState), 71, 75));
    uint8_t* attitude = host::newAttitude(state);
    EXPECT_EQ(valueAt(attitude, 32, 2), -300);
    EXPECT_TRUE(zeroOutside(attitude, sizeof(AircraftAttitudeInfo), 32, 34));
    uint8_t* speed = host::newSpeed(state);
    EXPECT_EQ(std::make_tuple(valueAt(speed, 8, 2), valueAt(speed, 10, 2), valueAt(speed, 12, 2)),
              std::make_tuple(150, -7, 32767));
    EXPECT_TRUE(zeroOutside(speed, sizeof(AircraftSpeedInfo), 8, 14));
    uint8_t* on = host::newSensorSwitch(true);
    uint8_t* off = host::newSensorSwitch(false);
    EXPECT_EQ(on[0], 0);
    EXPECT_EQ(off[0], 1);
    for (uint8_t* record : {basic, attitude, speed, on, off}) {
        delete[] record;
    }

    const struct {
        double value;
        int16_t s16;
        int32_t s32;
    } cases[] = {{-0.005, -1, -1}, {3e7, 32767, std::numeric_limits<int32_t>::max()}, {NAN, 0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        EXPECT_EQ(host::hundredths16(c.value), c.s16);
        EXPECT_EQ(host::hundredths32(c.value), c.s32);
    }
}

// Outgoing bytes built at the documented offsets decode to their fields, and
// a distance report to the JSON line the demo report reads; a short buffer
// decodes to nothing.
TEST(HostDecode, EveryTypeFromItsBytes)
{
    std::vector<uint8_t> status(12, 0);
    status[0] = status[1] = 1;
    status[10] = 2;
    std::vector<uint8_t> version(18, 0);
    putU16(version, 0, 1);
    version[2] = 3;
    putU16(version, 15, 0x0102);
    version[17] = 4;
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
    ASSERT_TRUE(host::decode(BINO_MSG_SWITCH_REPLY, std::vector<uint8_t>{7, 0}.data(), 2, d));
    EXPECT_EQ(d.result, 7);
    ASSERT_TRUE(host::decode(BINO_MSG_DISTANCE, distance.data(), distance.size(), d));
    EXPECT_EQ(std::make_tuple(d.frontCm, d.downCm, d.targetX1000, d.targetY1000, d.passable),
              std::make_tuple(6000, 201, -500, 12, 1));
    EXPECT_EQ(host::toJson(d, 1.5, 1234567, "down"),
              "{\"t\":1.500000,\"mono_us\":1234567,\"type\":3,\"kind\":\"distance\",\"pair\":\"down\","
              "\"front_cm\":6000,\"down_cm\":201,\"target_x1000\":-500,\"target_y1000\":12,\"passable\":1}");

    EXPECT_FALSE(host::decode(BINO_MSG_DISTANCE, distance.data(), 169, d));  // fuzz_hostdecode covers the rest
    EXPECT_FALSE(d.known);
    EXPECT_EQ(d.frontCm, 0);
}

// Every command is read with its time, period, values and line; a malformed
// line is refused by number (fuzz_hostprofile covers arbitrary bytes). The
// schedule hands out one-off events once, repeating ones once per period
// passed, in time order with file order for ties.
TEST(HostProfile, ReadsCommandsAndSchedulesThem)
{
    host::Profile profile;
    std::string error;
    EXPECT_FALSE(host::parseProfile("0 version\n0 fly", profile, error));
    EXPECT_EQ(error.rfind("line 2: ", 0), 0u) << error;
    ASSERT_TRUE(
        host::parseProfile("2 version  # comment\n"  // line 1
                           "every 1 from 0.5 speed 1.5 -0.5\n"
                           "\n"
                           "0 armed 1\n"  // line 4
                           "0 height -1.25\n"
                           "every 10 sensing on\n"
                           "20 end",
                           profile, error))
        << error;
    ASSERT_EQ(profile.events.size(), 6u);
    const host::ProfileEvent& speed = profile.events[1];
    EXPECT_EQ(std::make_tuple(speed.kind, speed.atS, speed.everyS, speed.valueCount, speed.values[0], speed.values[1]),
              std::make_tuple(host::ProfileEvent::Kind::Speed, 0.5, 1.0, 2, 1.5, -0.5));
    EXPECT_EQ(std::make_tuple(profile.events[3].kind, profile.events[3].values[0], profile.events[4].on),
              std::make_tuple(host::ProfileEvent::Kind::Height, -1.25, true));

    host::ProfileSchedule schedule(profile.events);
    const struct {
        double at;
        std::vector<int> lines;
    } steps[] = {
        {0.0, {4, 5, 6}},  // equal times: file order
        {0.0, {}},         // nothing twice
        {0.5, {2}},
        {2.6, {2, 1, 2}},  // 1.5, 2.0, 2.5: each occurrence, in time order
        {10.0, {2, 2, 2, 2, 2, 2, 2, 6}},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.at);
        std::vector<int> lines;
        for (const host::ProfileEvent& event : schedule.takeDue(step.at)) {
            lines.push_back(event.line);
        }
        EXPECT_EQ(lines, step.lines);
    }
}
