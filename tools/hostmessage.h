#pragma once
// The host side of the module's messages: flight records built as the flight
// controller sends them, and the module's outgoing records decoded and freed
// as their owner must free them.

#include <cstddef>
#include <cstdint>
#include <string>

#include "binocular/binocular.h"

namespace host {

/// Flight state the host forwards, in the flight controller's units.
struct FlightState {
    bool sensing = true;        ///< obstacle sensing wanted on
    uint8_t armState = 1;       ///< 1 and 2 mean flying
    double heightM = 2.0;       ///< m above take-off
    double pitchDeg = 0.0;      ///< degrees
    double headSpeedMps = 0.0;  ///< m/s along the nose
    double rightSpeedMps = 0.0;
    double verticalSpeedMps = 0.0;
};

/// A value in hundredths, rounded to nearest and saturated to the field's range.
int16_t hundredths16(double value);
int32_t hundredths32(double value);

/// Incoming messages as the module takes them: new[] of the record's size,
/// zero apart from the fields the state fills. The caller hands the buffer to
/// binocular_getInfoFromVM, which frees it.
uint8_t* newBasicState(const FlightState& state);
uint8_t* newAttitude(const FlightState& state);
uint8_t* newSpeed(const FlightState& state);
uint8_t* newVersionRequest();
/// Byte 0 is 0 to turn sensing on, 1 to turn it off (the host protocol's sense).
uint8_t* newSensorSwitch(bool sensingOn);

/// Size in bytes of an outgoing record of `type`; 0 for a type the module never sends.
size_t outgoingSize(uint32_t type);

/// Frees an outgoing message as the record of its type (plain delete, as the
/// module allocated it with plain new). Returns false, freeing nothing, for an
/// unknown type: its allocation is unknown, so leaking is the only safe choice.
bool releaseOutgoing(void* message, uint32_t type);

/// One outgoing message, decoded. Fields that a type does not carry stay 0.
struct Decoded {
    uint32_t type = 0;
    bool known = false;
    // BINO_MSG_STATUS
    uint8_t frontHardware = 0;  ///< 0 frames arriving, 1 no frames, 2 low light
    uint8_t frontCalib = 0;     ///< 0 all files present, 1 otherwise
    uint8_t downHardware = 0;
    uint8_t downCalib = 0;
    // BINO_MSG_VERSION_REPLY
    uint16_t major = 0;
    uint8_t minor = 0;
    uint16_t major2 = 0;
    uint8_t minor2 = 0;
    // BINO_MSG_SWITCH_REPLY
    uint16_t result = 0;
    // BINO_MSG_DISTANCE
    uint16_t frontCm = 0;  ///< cm
    uint16_t downCm = 0;   ///< cm
    int16_t targetX1000 = 0;
    int16_t targetY1000 = 0;
    uint8_t passable = 0;
};

/// Decodes `size` bytes of a message of `type`. Returns false (known = false)
/// when the type is unknown or `size` is shorter than the type's record.
bool decode(uint32_t type, const uint8_t* bytes, size_t size, Decoded& out);

/// Readable text of a hardware or calibration status value.
const char* hardwareText(uint8_t status);
const char* calibrationText(uint8_t status);

/// One line without newline. `timeS` is the receipt time in seconds since the
/// host started, `pair` the reporter that sent a distance ("front", "down" or "").
std::string toText(const Decoded& message, double timeS, const std::string& pair);
/// One JSON object without newline; `monotonicUs` is the receipt time on
/// CLOCK_MONOTONIC in microseconds, the clock the camera stamps frames with.
std::string toJson(const Decoded& message, double timeS, uint64_t monotonicUs, const std::string& pair);

}  // namespace host
