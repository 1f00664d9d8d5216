#include "binocular.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include <opencv2/core.hpp>

#include "binocular/binocular.h"
#include "binolog.h"
#include "dronebino.h"
#include "inifile.h"
#include "paths.h"

bool enableFront = true;
bool enableDown = true;
bool visionSwitch = false;

void loadCfg()
{
    const std::string path = paths::resolve(paths::kConfigFile);
    IniFile ini;
    if (!ini.read(path)) {
        BINO_INFO("[BINOLIB] mINI: read %s failed.", path.c_str());
    }
    const IniFile::Section& common = ini["common"];
    visionSwitch = std::stoi(common.get("visionSwitch")) != 0;
    enableFront = std::stoi(common.get("enableFront")) != 0;
    enableDown = std::stoi(common.get("enableDown")) != 0;
    loadVisionSwitch();
}

int loadVisionSwitch()
{
    const std::string path = paths::resolve(paths::kVisionSwitchFile);
    IniFile ini;
    if (!ini.read(path) || !ini["common"].has("visionSwitch")) {
        BINO_ERROR("[BINOLIB] read %s failed", path.c_str());
        return -1;
    }
    visionSwitch = std::stoi(ini["common"].get("visionSwitch")) != 0;
    return visionSwitch ? 1 : 0;
}

void saveVisionSwitch()
{
    const std::string path = paths::resolve(paths::kVisionSwitchFile);
    IniFile ini;
    ini["common"].set("visionSwitch", visionSwitch ? "1" : "0");
    if (!ini.write(path)) {
        BINO_ERROR("[BINOLIB] save %s failed", path.c_str());
    }
}

// ---------------------------------------------------------------- module state

namespace {

constexpr const char* kVersion = "2.5.3";
constexpr float kNoObstacleM = 60.0f;
constexpr std::chrono::microseconds kDisabledPoll(1000000);
constexpr std::chrono::microseconds kReportSleep(10000);
constexpr std::chrono::microseconds kStatusPeriod(1000000);

// Written by binocularInit before any reporter starts.
std::atomic<SendInfoCallback> sendInfo{nullptr};
std::atomic<uint64_t> binoModule{0};
std::atomic<DroneBino*> frontBino{nullptr};
std::atomic<DroneBino*> downBino{nullptr};

// Each written by one reporter and read by the other; a value one report old
// is what the other side sees at worst.
std::atomic<float> frontDistance{kNoObstacleM};  ///< m
std::atomic<float> downDistance{kNoObstacleM};   ///< m
std::atomic<float> angle_X{0.0f};                ///< target x x 1000, a whole number
std::atomic<float> angle_Y{0.0f};                ///< target y x 1000, a whole number
std::atomic<uint8_t> isPassable{0};

// The host's last records of each kind; the host-message thread only.
AircraftBasicState aircraft_fc_basic_state_1{};
AircraftAttitudeInfo aircraft_fc_attitudeinfo{};
AircraftSpeedInfo aircraft_fc_speedinfo{};

// Hands `record` to the host, who owns it from then on. With no callback the
// record is freed here instead.
template <typename Record>
void send(Record* record, uint32_t type)
{
    SendInfoCallback callback = sendInfo.load(std::memory_order_relaxed);
    if (callback == nullptr) {
        delete record;
        return;
    }
    callback(record, type, binoModule.load(std::memory_order_relaxed));
}

// Zeroed, so the bytes the module gives no meaning read 0.
template <typename Record>
Record* newRecord()
{
    return new Record{};
}

// Truncated toward zero; NaN and values beyond 64 bits read 0, so no
// conversion is undefined whatever a distance turns out to be.
int64_t truncated(double value) { return value > -9.2e18 && value < 9.2e18 ? static_cast<int64_t>(value) : 0; }

// Metres to the record's centimetres: x 100, truncated, low 16 bits, so a
// distance of 655.36 m or more wraps as the field does.
uint16_t centimetres(float metres) { return static_cast<uint16_t>(truncated(static_cast<double>(metres) * 100.0)); }

// The low 16 bits of a truncated value, as the record's s16 fields hold it.
int16_t low16(double value) { return static_cast<int16_t>(static_cast<uint16_t>(truncated(value))); }

uint8_t lowByte(int value) { return static_cast<uint8_t>(value); }

// Paces a reporter's "distance, FPS" line to one a second.
class RateLine {
public:
    explicit RateLine(const char* format) : m_format(format), m_ticksPerSecond(cv::getTickFrequency()) {}
    void frame(float distance)
    {
        ++m_frames;
        const int64 now = cv::getTickCount();
        if (static_cast<double>(now - m_lastLog) >= m_ticksPerSecond) {
            m_lastLog = now;
            BINO_INFO(m_format, distance, m_frames);
            m_frames = 0;
        }
    }

private:
    const char* m_format;
    double m_ticksPerSecond;
    int64 m_lastLog = 0;
    int m_frames = 0;
};

void reportFront()
{
    // The name also tells a host which pair's reporter sent a distance
    // report: both send the same record.
    Common::nameThisThread("bino-rep-front");
    RateLine rate("[BINOLIB] frontDistance: %.2f, front FPS: %d");
    for (;;) {
        while (enableFront) {
            DroneBino* pipeline = frontBino.load(std::memory_order_relaxed);
            if (pipeline == nullptr) {
                break;
            }
            const float distance = pipeline->getDistance();
            frontDistance.store(distance, std::memory_order_relaxed);
            const uint16_t downCm = centimetres(downDistance.load(std::memory_order_relaxed));
            const std::array<float, 3> region = pipeline->getTargetRegion();
            const bool passable = static_cast<uint8_t>(truncated(region[2])) != 0;
            const int16_t x1000 = low16(region[0] * 1000.0);
            const int16_t y1000 = low16(region[1] * 1000.0);
            isPassable.store(passable ? 1 : 0, std::memory_order_relaxed);
            angle_X.store(x1000, std::memory_order_relaxed);
            angle_Y.store(y1000, std::memory_order_relaxed);

            BinoDistanceReport* report = newRecord<BinoDistanceReport>();
            report->targetX1000 = x1000;
            report->targetY1000 = y1000;
            report->passable = passable ? 1 : 0;
            report->downDistanceCm = downCm;
            report->frontDistanceCm = centimetres(distance);
            send(report, BINO_MSG_DISTANCE);
            rate.frame(frontDistance.load(std::memory_order_relaxed));
            std::this_thread::sleep_for(kReportSleep);
        }
        std::this_thread::sleep_for(kDisabledPoll);
    }
}

void reportDown()
{
    Common::nameThisThread("bino-rep-down");
    RateLine rate("[BINOLIB] downDistance: %.2f, down FPS: %d");
    for (;;) {
        while (enableDown) {
            DroneBino* pipeline = downBino.load(std::memory_order_relaxed);
            if (pipeline == nullptr) {
                break;
            }
            const float distance = pipeline->getDistance();
            downDistance.store(distance, std::memory_order_relaxed);
            BinoDistanceReport* report = newRecord<BinoDistanceReport>();
            report->targetX1000 = low16(angle_X.load(std::memory_order_relaxed));
            report->targetY1000 = low16(angle_Y.load(std::memory_order_relaxed));
            report->passable = isPassable.load(std::memory_order_relaxed);
            report->frontDistanceCm = centimetres(frontDistance.load(std::memory_order_relaxed));
            report->downDistanceCm = centimetres(distance);
            send(report, BINO_MSG_DISTANCE);
            rate.frame(downDistance.load(std::memory_order_relaxed));
            std::this_thread::sleep_for(kReportSleep);
        }
        std::this_thread::sleep_for(kDisabledPoll);
    }
}

void reportStatus()
{
    Common::nameThisThread("bino-status");
    uint8_t status[4] = {0, 0, 0, 0};  // front hardware, front calibration, down hardware, down calibration
    for (;;) {
        if (DroneBino* front = frontBino.load(std::memory_order_relaxed); enableFront && front != nullptr) {
            const std::pair<int, int> frontStatus = front->getBinoStatus();
            status[0] = lowByte(frontStatus.first);
            status[1] = lowByte(frontStatus.second);
        }
        if (DroneBino* down = downBino.load(std::memory_order_relaxed); enableDown && down != nullptr) {
            const std::pair<int, int> downStatus = down->getBinoStatus();
            status[2] = lowByte(downStatus.first);
            status[3] = lowByte(downStatus.second);
        }
        BinoStatusReport* report = newRecord<BinoStatusReport>();
        report->frontHardware = status[0];
        report->frontCalib = status[1];
        report->lowerHardware = status[2];
        report->lowerCalib = status[3];
        send(report, BINO_MSG_STATUS);
        BINO_INFO("[BINOLIB] frontHardware: %d, frontCalib: %d, lowerHardware: %d, lowerCalib: %d", status[0],
                  status[1], status[2], status[3]);
        std::this_thread::sleep_for(kStatusPeriod);
    }
}

Common::FlyInfo flightState()
{
    Common::FlyInfo info;
    info.visionSwitch = visionSwitch;
    info.pitch = static_cast<float>(aircraft_fc_attitudeinfo.pitch) * 0.01f;
    info.headSpeed = static_cast<float>(aircraft_fc_speedinfo.headSpeed) * 0.01f;
    info.rightSpeed = static_cast<float>(aircraft_fc_speedinfo.rightSpeed) * 0.01f;
    info.verticalSpeed = static_cast<float>(aircraft_fc_speedinfo.verticalSpeed) * 0.01f;
    info.height = static_cast<float>(aircraft_fc_basic_state_1.height) * 0.01f;
    info.armOrDisarm = aircraft_fc_basic_state_1.armState;
    return info;
}

template <typename Record>
void store(Record& record, const uint8_t* buffer)
{
    std::memcpy(&record, buffer, sizeof record);
}

}  // namespace

// ---------------------------------------------------------------- entry points

extern "C" {

int64_t binocularInit(SendInfoCallback callback, uint64_t module)
{
    BINO_INFO("[BINOLIB] version: %s; Date: %s %s.", kVersion, __DATE__, __TIME__);
    // Relaxed stores suffice for the handle, the callback and the pipelines:
    // each is written once, before the reporter threads are created (thread
    // creation orders everything before it) and before this call returns to
    // the host, which orders its later calls after that return.
    binoModule.store(module, std::memory_order_relaxed);
    sendInfo.store(callback, std::memory_order_relaxed);
    loadCfg();
    if (enableFront) {
        frontBino.store(new DroneBino(Common::FRONT), std::memory_order_relaxed);
    }
    if (enableDown) {
        downBino.store(new DroneBino(Common::DOWN), std::memory_order_relaxed);
    }
    std::thread(reportStatus).detach();
    std::thread(reportFront).detach();
    std::thread(reportDown).detach();
    return 0;
}

int64_t binocularUninit(void)
{
    BINO_INFO("[BINOLIB] binocular uninit not implement.");
    return 0;
}

int64_t binocular_getInfoFromVM(uint8_t* buffer, uint32_t type)
{
    // The host sends at least the record of each type; a null buffer of a
    // type with content is dropped rather than read.
    const bool needsContent = type == HOST_MSG_BASIC_STATE || type == HOST_MSG_ATTITUDE || type == HOST_MSG_SPEED ||
                              type == HOST_MSG_SENSOR_SWITCH;
    switch (buffer == nullptr && needsContent ? static_cast<uint32_t>(HOST_MSG_IGNORED) : type) {
        case HOST_MSG_BASIC_STATE:
            store(aircraft_fc_basic_state_1, buffer);
            break;
        case HOST_MSG_IGNORED:
            break;
        case HOST_MSG_ATTITUDE:
            store(aircraft_fc_attitudeinfo, buffer);
            break;
        case HOST_MSG_SPEED:
            store(aircraft_fc_speedinfo, buffer);
            break;
        case HOST_MSG_VERSION_REQUEST: {
            BINO_INFO("[BINOLIB] receive req: full visual version.");
            BinoVersionReply* reply = newRecord<BinoVersionReply>();
            reply->major = 1;
            reply->minor = 3;
            reply->major2 = 1;
            reply->minor2 = 3;
            send(reply, BINO_MSG_VERSION_REPLY);
            break;
        }
        case HOST_MSG_SENSOR_SWITCH: {
            const uint8_t sensorSwitch = buffer[0];
            visionSwitch = sensorSwitch == 0;  // the host's convention: 0 turns sensing on
            send(newRecord<BinoSwitchReply>(), BINO_MSG_SWITCH_REPLY);
            BINO_INFO("[BINOLIB] receive req: avoid sensor. sensor_switch: %d", sensorSwitch);
            saveVisionSwitch();
            break;
        }
        default:
            BINO_INFO("[BINOLIB] msg type %d not implement.", static_cast<int>(type));
            break;
    }
    const Common::FlyInfo info = flightState();
    if (DroneBino* front = frontBino.load(std::memory_order_relaxed); enableFront && front != nullptr) {
        front->setFlyInfo(info);
    }
    if (DroneBino* down = downBino.load(std::memory_order_relaxed); enableDown && down != nullptr) {
        down->setFlyInfo(info);
    }
    delete[] buffer;
    return 0;
}

}  // extern "C"
