// The host tool: flight records at the module's offsets, outgoing records
// decoded from bytes laid out independently of the header's structures, the
// JSON the demo report reads, and the flight profile and its schedule.

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "hostmessage.h"
#include "hostprofile.h"
#include "hostschedule.h"

namespace {

// Writes the low `size` bytes of `value` at `offset`, least significant first.
void put(std::vector<uint8_t>& bytes, size_t offset, int64_t value, size_t size = 2)
{
    for (size_t i = 0; i < size; ++i) {
        bytes[offset + i] = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * i));
    }
}

// A record's bytes, whole, to compare with the expected ones; frees the record.
std::vector<uint8_t> bytesOf(uint8_t* record, size_t size)
{
    std::vector<uint8_t> bytes(record, record + size);
    delete[] record;
    return bytes;
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
    std::vector<uint8_t> basic(sizeof(AircraftBasicState), 0), attitude(sizeof(AircraftAttitudeInfo), 0),
        speed(sizeof(AircraftSpeedInfo), 0);
    basic[1] = 2;
    put(basic, 71, 1235, 4);
    put(attitude, 32, -300);
    put(speed, 8, 150);
    put(speed, 10, -7);
    put(speed, 12, 32767);
    EXPECT_EQ(bytesOf(host::newBasicState(state), basic.size()), basic);
    EXPECT_EQ(bytesOf(host::newAttitude(state), attitude.size()), attitude);
    EXPECT_EQ(bytesOf(host::newSpeed(state), speed.size()), speed);
    EXPECT_EQ(bytesOf(host::newSensorSwitch(true), 1), std::vector<uint8_t>{0});
    EXPECT_EQ(bytesOf(host::newSensorSwitch(false), 1), std::vector<uint8_t>{1});
}

// Outgoing bytes at the documented offsets decode to their fields, a distance
// report to the JSON line the demo report reads; a short buffer to nothing.
TEST(HostDecode, EveryTypeFromItsBytes)
{
    const std::vector<uint8_t> status{1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0};
    const std::vector<uint8_t> version{1, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02, 0x01, 4};
    std::vector<uint8_t> distance(170, 0xEE);  // unwritten bytes must not leak into fields
    put(distance, 0, 0);
    put(distance, 2, 6000);
    put(distance, 5, static_cast<uint16_t>(-500));
    distance[9] = 1;
    put(distance, 10, 12);
    put(distance, 165, 0);
    put(distance, 167, 201);

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
// line is refused by number. The schedule hands out one-off events once,
// repeating ones once per period passed, in time order, file order for ties.
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
