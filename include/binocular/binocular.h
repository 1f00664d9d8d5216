#ifndef BINOCULAR_BINOCULAR_H
#define BINOCULAR_BINOCULAR_H
/*
 * libbinocular: stereo obstacle sensing for the flight host process.
 *
 * The host calls binocularInit once with its callback, hands every flight
 * controller message that concerns the module to binocular_getInfoFromVM,
 * and receives camera status, distance reports and replies through the
 * callback, from several module threads, possibly at the same time.
 *
 * Buffers and who frees them:
 *   - incoming: the host allocates each message with new[] (at least the
 *     record size of its type) and hands it over; the module frees it with
 *     delete[] before binocular_getInfoFromVM returns, whatever the type.
 *   - outgoing: the module allocates each message with plain new of its
 *     record (exactly the record's size); from the callback on, the host owns
 *     it and frees it with plain delete as that record, e.g.
 *     delete static_cast<BinoDistanceReport*>(message). The callback gets no
 *     length: the type tells the record.
 *
 * Every record is packed, little-endian, at the byte offsets asserted below.
 * Bytes the module gives no meaning are zero in outgoing records.
 */

#include <stddef.h>
#include <stdint.h>

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "the host records are little-endian; this header maps them onto native integers"
#endif

#ifdef __cplusplus
extern "C" {
#define BINOCULAR_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define BINOCULAR_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

#if defined(__GNUC__)
#define BINOCULAR_API __attribute__((visibility("default")))
#define BINOCULAR_PACKED __attribute__((packed))
#else
#error "the records need a packed-structure attribute"
#endif

/* Outgoing message types, the callback's second argument. */
enum BinoMessageType {
    BINO_MSG_STATUS = 0,        /* BinoStatusReport, once a second */
    BINO_MSG_VERSION_REPLY = 1, /* BinoVersionReply, answers HOST_MSG_VERSION_REQUEST */
    BINO_MSG_SWITCH_REPLY = 2,  /* BinoSwitchReply, answers HOST_MSG_SENSOR_SWITCH */
    BINO_MSG_DISTANCE = 3       /* BinoDistanceReport, one per processed frame and pair */
};

/* Incoming message types, binocular_getInfoFromVM's second argument. */
enum HostMessageType {
    HOST_MSG_BASIC_STATE = 0,     /* AircraftBasicState */
    HOST_MSG_IGNORED = 1,         /* accepted, not read */
    HOST_MSG_ATTITUDE = 2,        /* AircraftAttitudeInfo */
    HOST_MSG_SPEED = 3,           /* AircraftSpeedInfo */
    HOST_MSG_VERSION_REQUEST = 4, /* content not read; answered with BINO_MSG_VERSION_REPLY */
    HOST_MSG_SENSOR_SWITCH = 5    /* byte 0: 0 turns sensing on, anything else off */
};

/* ------------------------------------------------------------ outgoing */

/* Camera status. Hardware: 0 frames arriving, 1 no frames, 2 low light.
 * Calibration: 0 all files present, 1 otherwise. A disabled pair reads 0, 0. */
typedef struct BINOCULAR_PACKED BinoStatusReport {
    uint8_t frontHardware;
    uint8_t frontCalib;
    uint8_t reserved2[8];
    uint8_t lowerHardware;
    uint8_t lowerCalib;
} BinoStatusReport;

typedef struct BINOCULAR_PACKED BinoVersionReply {
    uint16_t major; /* 1 */
    uint8_t minor;  /* 3 */
    uint8_t reserved3[12];
    uint16_t major2; /* 1 */
    uint8_t minor2;  /* 3 */
} BinoVersionReply;

typedef struct BINOCULAR_PACKED BinoSwitchReply {
    uint16_t result; /* 0 */
} BinoSwitchReply;

/* Distances in cm: metres x 100, truncated, low 16 bits (655.36 m wraps). */
typedef struct BINOCULAR_PACKED BinoDistanceReport {
    uint16_t reserved0;       /* 0 */
    uint16_t frontDistanceCm; /* nearest front obstacle; 6000 = none within 60 m */
    uint8_t reserved4;
    int16_t targetX1000; /* target region x x 1000, truncated */
    uint8_t reserved7[2];
    uint8_t passable;    /* 1 when the target region is passable */
    int16_t targetY1000; /* target region y x 1000, truncated */
    uint8_t reserved12[153];
    uint16_t reserved165;    /* 0 */
    uint16_t downDistanceCm; /* ground or obstacle below */
    uint8_t reserved169;
} BinoDistanceReport;

/* ------------------------------------------------------------ incoming */

/* Only the fields named here are read; the rest is kept as received. Values
 * are hundredths of the flight controller's unit; the module divides by 100. */
typedef struct BINOCULAR_PACKED AircraftBasicState {
    uint8_t reserved0;
    uint8_t armState; /* 1 and 2 mean flying */
    uint8_t reserved2[69];
    int32_t height; /* 1/100 m above take-off */
    uint8_t reserved75[22];
} AircraftBasicState;

typedef struct BINOCULAR_PACKED AircraftAttitudeInfo {
    uint8_t reserved0[32];
    int16_t pitch; /* 1/100 degree */
} AircraftAttitudeInfo;

typedef struct BINOCULAR_PACKED AircraftSpeedInfo {
    uint8_t reserved0[8];
    int16_t headSpeed;     /* 1/100 m/s along the nose */
    int16_t rightSpeed;    /* 1/100 m/s to the right */
    int16_t verticalSpeed; /* 1/100 m/s */
} AircraftSpeedInfo;

BINOCULAR_STATIC_ASSERT(sizeof(BinoStatusReport) == 12, "status report size");
BINOCULAR_STATIC_ASSERT(offsetof(BinoStatusReport, frontCalib) == 1, "status front calibration");
BINOCULAR_STATIC_ASSERT(offsetof(BinoStatusReport, lowerHardware) == 10, "status down hardware");
BINOCULAR_STATIC_ASSERT(offsetof(BinoStatusReport, lowerCalib) == 11, "status down calibration");
BINOCULAR_STATIC_ASSERT(sizeof(BinoVersionReply) == 18, "version reply size");
BINOCULAR_STATIC_ASSERT(offsetof(BinoVersionReply, minor) == 2, "version minor");
BINOCULAR_STATIC_ASSERT(offsetof(BinoVersionReply, major2) == 15, "version second major");
BINOCULAR_STATIC_ASSERT(offsetof(BinoVersionReply, minor2) == 17, "version second minor");
BINOCULAR_STATIC_ASSERT(sizeof(BinoSwitchReply) == 2, "switch reply size");
BINOCULAR_STATIC_ASSERT(sizeof(BinoDistanceReport) == 170, "distance report size");
BINOCULAR_STATIC_ASSERT(offsetof(BinoDistanceReport, frontDistanceCm) == 2, "front distance");
BINOCULAR_STATIC_ASSERT(offsetof(BinoDistanceReport, targetX1000) == 5, "target x");
BINOCULAR_STATIC_ASSERT(offsetof(BinoDistanceReport, passable) == 9, "passable flag");
BINOCULAR_STATIC_ASSERT(offsetof(BinoDistanceReport, targetY1000) == 10, "target y");
BINOCULAR_STATIC_ASSERT(offsetof(BinoDistanceReport, reserved165) == 165, "zero word before the down distance");
BINOCULAR_STATIC_ASSERT(offsetof(BinoDistanceReport, downDistanceCm) == 167, "down distance");
BINOCULAR_STATIC_ASSERT(sizeof(AircraftBasicState) == 97, "basic state size");
BINOCULAR_STATIC_ASSERT(offsetof(AircraftBasicState, armState) == 1, "arm state");
BINOCULAR_STATIC_ASSERT(offsetof(AircraftBasicState, height) == 71, "height");
BINOCULAR_STATIC_ASSERT(sizeof(AircraftAttitudeInfo) == 34, "attitude size");
BINOCULAR_STATIC_ASSERT(offsetof(AircraftAttitudeInfo, pitch) == 32, "pitch");
BINOCULAR_STATIC_ASSERT(sizeof(AircraftSpeedInfo) == 14, "speed size");
BINOCULAR_STATIC_ASSERT(offsetof(AircraftSpeedInfo, headSpeed) == 8, "forward speed");
BINOCULAR_STATIC_ASSERT(offsetof(AircraftSpeedInfo, rightSpeed) == 10, "rightward speed");
BINOCULAR_STATIC_ASSERT(offsetof(AircraftSpeedInfo, verticalSpeed) == 12, "vertical speed");

/* ------------------------------------------------------------ entry points */

/* The host's receiver: (message, BinoMessageType, the handle given to
 * binocularInit). Its return value is ignored. */
typedef int64_t (*SendInfoCallback)(void* message, uint32_t type, uint64_t binoModule);

/* Reads the configuration and starts the enabled camera pairs (front, then
 * down) and the reporters. Returns 0. Throws (C++ std::invalid_argument or
 * std::out_of_range) when the configuration file is missing or holds a value
 * a pair cannot use: then no reporter has started and the refused pair has
 * no thread or queue, but a front pair built before a refused down pair
 * keeps running. Call once. */
BINOCULAR_API int64_t binocularInit(SendInfoCallback sendInfo, uint64_t binoModule);

/* Logs that shutdown is not supported and returns 0: the module runs until
 * the host process ends. */
BINOCULAR_API int64_t binocularUninit(void);

/* Takes one host message (HostMessageType) and frees it with delete[];
 * a null buffer is not freed. Returns 0. */
BINOCULAR_API int64_t binocular_getInfoFromVM(uint8_t* buffer, uint32_t type);

#ifdef __cplusplus
}
#endif

#endif /* BINOCULAR_BINOCULAR_H */
