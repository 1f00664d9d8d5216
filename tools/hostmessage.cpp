#include "hostmessage.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

namespace host {

namespace {

template <typename Int>
Int hundredths(double value)
{
    const double scaled = std::round(value * 100.0);
    if (std::isnan(scaled)) {
        return 0;
    }
    if (scaled <= static_cast<double>(std::numeric_limits<Int>::min())) {
        return std::numeric_limits<Int>::min();
    }
    if (scaled >= static_cast<double>(std::numeric_limits<Int>::max())) {
        return std::numeric_limits<Int>::max();
    }
    return static_cast<Int>(scaled);
}

// The record's bytes in a new[] buffer, the form the module takes and frees.
template <typename Record>
uint8_t* newBuffer(const Record& record)
{
    uint8_t* buffer = new uint8_t[sizeof record];
    std::memcpy(buffer, &record, sizeof record);
    return buffer;
}

template <typename Record>
Record readRecord(const uint8_t* bytes)
{
    Record record;
    std::memcpy(&record, bytes, sizeof record);
    return record;
}

}  // namespace

int16_t hundredths16(double value) { return hundredths<int16_t>(value); }
int32_t hundredths32(double value) { return hundredths<int32_t>(value); }

uint8_t* newBasicState(const FlightState& state)
{
    AircraftBasicState record = {};
    record.armState = state.armState;
    record.height = hundredths32(state.heightM);
    return newBuffer(record);
}

uint8_t* newAttitude(const FlightState& state)
{
    AircraftAttitudeInfo record = {};
    record.pitch = hundredths16(state.pitchDeg);
    return newBuffer(record);
}

uint8_t* newSpeed(const FlightState& state)
{
    AircraftSpeedInfo record = {};
    record.headSpeed = hundredths16(state.headSpeedMps);
    record.rightSpeed = hundredths16(state.rightSpeedMps);
    record.verticalSpeed = hundredths16(state.verticalSpeedMps);
    return newBuffer(record);
}

uint8_t* newVersionRequest() { return new uint8_t[1](); }

uint8_t* newSensorSwitch(bool sensingOn)
{
    uint8_t* buffer = new uint8_t[1]();
    buffer[0] = sensingOn ? 0 : 1;
    return buffer;
}

size_t outgoingSize(uint32_t type)
{
    switch (type) {
        case BINO_MSG_STATUS:
            return sizeof(BinoStatusReport);
        case BINO_MSG_VERSION_REPLY:
            return sizeof(BinoVersionReply);
        case BINO_MSG_SWITCH_REPLY:
            return sizeof(BinoSwitchReply);
        case BINO_MSG_DISTANCE:
            return sizeof(BinoDistanceReport);
        default:
            return 0;
    }
}

bool releaseOutgoing(void* message, uint32_t type)
{
    switch (type) {
        case BINO_MSG_STATUS:
            delete static_cast<BinoStatusReport*>(message);
            return true;
        case BINO_MSG_VERSION_REPLY:
            delete static_cast<BinoVersionReply*>(message);
            return true;
        case BINO_MSG_SWITCH_REPLY:
            delete static_cast<BinoSwitchReply*>(message);
            return true;
        case BINO_MSG_DISTANCE:
            delete static_cast<BinoDistanceReport*>(message);
            return true;
        default:
            return false;
    }
}

bool decode(uint32_t type, const uint8_t* bytes, size_t size, Decoded& out)
{
    out = Decoded();
    out.type = type;
    const size_t need = outgoingSize(type);
    if (need == 0 || bytes == nullptr || size < need) {
        return false;
    }
    switch (type) {
        case BINO_MSG_STATUS: {
            const auto record = readRecord<BinoStatusReport>(bytes);
            out.frontHardware = record.frontHardware;
            out.frontCalib = record.frontCalib;
            out.downHardware = record.lowerHardware;
            out.downCalib = record.lowerCalib;
            break;
        }
        case BINO_MSG_VERSION_REPLY: {
            const auto record = readRecord<BinoVersionReply>(bytes);
            out.major = record.major;
            out.minor = record.minor;
            out.major2 = record.major2;
            out.minor2 = record.minor2;
            break;
        }
        case BINO_MSG_SWITCH_REPLY:
            out.result = readRecord<BinoSwitchReply>(bytes).result;
            break;
        case BINO_MSG_DISTANCE: {
            const auto record = readRecord<BinoDistanceReport>(bytes);
            out.frontCm = record.frontDistanceCm;
            out.downCm = record.downDistanceCm;
            out.targetX1000 = record.targetX1000;
            out.targetY1000 = record.targetY1000;
            out.passable = record.passable;
            break;
        }
        default:
            return false;
    }
    out.known = true;
    return true;
}

const char* hardwareText(uint8_t status)
{
    switch (status) {
        case 0:
            return "frames arriving";
        case 1:
            return "no frames";
        case 2:
            return "low light";
        default:
            return "unknown";
    }
}

const char* calibrationText(uint8_t status)
{
    switch (status) {
        case 0:
            return "calibrated";
        case 1:
            return "calibration missing";
        default:
            return "unknown";
    }
}

std::string toText(const Decoded& message, double timeS, const std::string& pair)
{
    char line[256];
    if (!message.known) {
        std::snprintf(line, sizeof line, "%9.3f unknown message type %u", timeS, message.type);
        return line;
    }
    switch (message.type) {
        case BINO_MSG_STATUS:
            std::snprintf(line, sizeof line, "%9.3f status    front: %u %s, %u %s; down: %u %s, %u %s", timeS,
                          message.frontHardware, hardwareText(message.frontHardware), message.frontCalib,
                          calibrationText(message.frontCalib), message.downHardware, hardwareText(message.downHardware),
                          message.downCalib, calibrationText(message.downCalib));
            break;
        case BINO_MSG_VERSION_REPLY:
            std::snprintf(line, sizeof line, "%9.3f version   %u.%u (second field %u.%u)", timeS, message.major,
                          message.minor, message.major2, message.minor2);
            break;
        case BINO_MSG_SWITCH_REPLY:
            std::snprintf(line, sizeof line, "%9.3f switch    reply %u", timeS, message.result);
            break;
        default:
            std::snprintf(
                line, sizeof line,
                "%9.3f distance  from %-5s front %6.2f m, down %6.2f m, target x %d y %d (x1000), passable %u", timeS,
                pair.empty() ? "?" : pair.c_str(), message.frontCm / 100.0, message.downCm / 100.0, message.targetX1000,
                message.targetY1000, message.passable);
            break;
    }
    return line;
}

std::string toJson(const Decoded& message, double timeS, uint64_t monotonicUs, const std::string& pair)
{
    char head[96];
    std::snprintf(head, sizeof head, "{\"t\":%.6f,\"mono_us\":%llu,\"type\":%u", timeS,
                  static_cast<unsigned long long>(monotonicUs), message.type);
    char body[256];
    if (!message.known) {
        std::snprintf(body, sizeof body, ",\"kind\":\"unknown\"}");
        return std::string(head) + body;
    }
    switch (message.type) {
        case BINO_MSG_STATUS:
            std::snprintf(body, sizeof body,
                          ",\"kind\":\"status\",\"front_hw\":%u,\"front_calib\":%u,\"down_hw\":%u,\"down_calib\":%u}",
                          message.frontHardware, message.frontCalib, message.downHardware, message.downCalib);
            break;
        case BINO_MSG_VERSION_REPLY:
            std::snprintf(body, sizeof body,
                          ",\"kind\":\"version\",\"major\":%u,\"minor\":%u,\"major2\":%u,\"minor2\":%u}", message.major,
                          message.minor, message.major2, message.minor2);
            break;
        case BINO_MSG_SWITCH_REPLY:
            std::snprintf(body, sizeof body, ",\"kind\":\"switch\",\"result\":%u}", message.result);
            break;
        default:
            // The pair name comes from our own fixed set, never from the message.
            std::snprintf(body, sizeof body,
                          ",\"kind\":\"distance\",\"pair\":\"%s\",\"front_cm\":%u,\"down_cm\":%u,\"target_x1000\":%d,"
                          "\"target_y1000\":%d,\"passable\":%u}",
                          pair.c_str(), message.frontCm, message.downCm, message.targetX1000, message.targetY1000,
                          message.passable);
            break;
    }
    return std::string(head) + body;
}

}  // namespace host
