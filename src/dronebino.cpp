#include "dronebino.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <stdexcept>

#include <opencv2/imgproc.hpp>

#include "binolog.h"
#include "camerasettings.h"
#include "framelayout.h"
#include "paths.h"

namespace {

constexpr std::chrono::microseconds kPassSleep(5000);
constexpr std::chrono::microseconds kAvoidSleep(1000000);
constexpr float kNoObstacleM = 60.0f;

// The stereo unit holds one image size for both groups: the first pipeline
// on it claims its size, and a pipeline of another size is refused at start
// instead of getting invalid maps on every frame.
struct UnitClaim {
    cv::Size size;         ///< camera image size (before rotation), px
    std::string claimant;  ///< section of the first pipeline that claimed it
    int pipelines = 0;     ///< pipelines on the unit now
};
std::mutex g_unitClaimMutex;
UnitClaim g_unitClaim;

std::string refusal(const std::string& section, const char* key, int value, const std::string& why)
{
    return "binocular.ini [" + section + "] " + key + " = " + std::to_string(value) + ": " + why;
}

}  // namespace

void DroneBino::SharedFlyInfo::store(const Common::FlyInfo& info)
{
    m_visionSwitch.store(info.visionSwitch, std::memory_order_relaxed);
    m_pitch.store(info.pitch, std::memory_order_relaxed);
    m_headSpeed.store(info.headSpeed, std::memory_order_relaxed);
    m_rightSpeed.store(info.rightSpeed, std::memory_order_relaxed);
    m_verticalSpeed.store(info.verticalSpeed, std::memory_order_relaxed);
    m_height.store(info.height, std::memory_order_relaxed);
    m_armOrDisarm.store(info.armOrDisarm, std::memory_order_relaxed);
}

Common::FlyInfo DroneBino::SharedFlyInfo::load() const
{
    Common::FlyInfo info;
    info.visionSwitch = m_visionSwitch.load(std::memory_order_relaxed);
    info.pitch = m_pitch.load(std::memory_order_relaxed);
    info.headSpeed = m_headSpeed.load(std::memory_order_relaxed);
    info.rightSpeed = m_rightSpeed.load(std::memory_order_relaxed);
    info.verticalSpeed = m_verticalSpeed.load(std::memory_order_relaxed);
    info.height = m_height.load(std::memory_order_relaxed);
    info.armOrDisarm = m_armOrDisarm.load(std::memory_order_relaxed);
    return info;
}

DroneBino::DroneBino(Common::Direction pairDirection)
    : logHeader(Common::logPrefix(pairDirection)), direction(pairDirection)
{
    BINO_INFO("%s DroneBino: start ", logHeader.c_str());
    loadCfg();
    init();
}

DroneBino::~DroneBino()
{
    worker.stop();
    if (unitClaimed) {
        std::lock_guard<std::mutex> lock(g_unitClaimMutex);
        --g_unitClaim.pipelines;
    }
}

void DroneBino::loadCfg()
{
    CameraSettings settings;
    const auto apply = [this, &settings] {
        imageType = settings.imageType;
        width = settings.width;
        height = settings.height;
        source = static_cast<ImageReader::Source>(settings.source);
        matcher = static_cast<StereoMatcher::Matcher>(settings.matcher);
        processor = static_cast<Processor>(settings.processor);
        saveImage = settings.saveImage;
        saveInterval = settings.saveInterval;
    };
    apply();
    bool sensing = flyInfo.visionSwitch();
    bool loaded = false;
    try {
        loaded = settings.load(direction, sensing);
    } catch (...) {
        apply();  // the keys read before the bad one keep their values
        flyInfo.setVisionSwitch(sensing);
        throw;
    }
    if (!loaded) {
        BINO_INFO("[%s mINI: read %s failed.", logHeader.c_str(), paths::resolve(paths::kConfigFile).c_str());
        return;
    }
    apply();
    flyInfo.setVisionSwitch(sensing);
    checkSettings();
}

void DroneBino::checkSettings()
{
    const std::string section = Common::binoString(direction);
    if (width <= 0) {
        throw std::invalid_argument(refusal(section, "width", width, "must be positive"));
    }
    if (height <= 0) {
        throw std::invalid_argument(refusal(section, "height", height, "must be positive"));
    }
    if (static_cast<long long>(width) * height > static_cast<long long>(framelayout::kImageAreaBytes)) {
        throw std::invalid_argument(
            refusal(section, "width", width,
                    "width x height = " + std::to_string(static_cast<long long>(width) * height) +
                        " exceeds the frame message's image area of " + std::to_string(framelayout::kImageAreaBytes) +
                        " bytes"));
    }
    if (matcher == StereoMatcher::BM) {
        // The rotated image has `width` rows and `height` columns; block
        // matching searches a band of up to 400 rows and 160 px of margins.
        if (width < 400) {
            throw std::invalid_argument(refusal(section, "width", width, "block matching needs at least 400"));
        }
        if (height <= 160) {
            throw std::invalid_argument(refusal(section, "height", height, "block matching needs more than 160"));
        }
    }
    if (matcher == StereoMatcher::DPU) {
        const cv::Size size(width, height);
        std::lock_guard<std::mutex> lock(g_unitClaimMutex);
        if (g_unitClaim.pipelines > 0 && g_unitClaim.size != size) {
            const char* key = g_unitClaim.size.width != width ? "width" : "height";
            throw std::invalid_argument(refusal(section, key, key[0] == 'w' ? width : height,
                                                "both pairs on the stereo unit need one size; " + g_unitClaim.claimant +
                                                    " uses " + std::to_string(g_unitClaim.size.width) + "x" +
                                                    std::to_string(g_unitClaim.size.height)));
        }
        if (g_unitClaim.pipelines++ == 0) {
            g_unitClaim.size = size;
            g_unitClaim.claimant = section;
        }
        unitClaimed = true;
    }
}

void DroneBino::init()
{
    frameReady = std::make_unique<UnnamedSemaphore>(0);
    reader = std::make_unique<ImageReader>(direction, source, width, height);
    if (matcher == StereoMatcher::BM) {
        reader->enableRemap(true);
    }
    stereo = std::make_unique<StereoMatcher>(direction, matcher, reader->getUsedSize());
    logger = std::make_unique<BinoLogger>(direction, saveImage, saveInterval, reader->getUsedSize());
    initProcessor(processor);
}

void DroneBino::initProcessor(Processor which)
{
    switch (which) {
        case BRAKE:
            initBrake();
            break;
        case AVOID:
            initAvoid();
            break;
    }
}

void DroneBino::initBrake()
{
    brake = std::make_unique<Brake>(direction);
    // A stop request wakes a worker waiting for a frame: the post makes
    // getImageBlock return, and the worker leaves before using the frame.
    worker.start([this] { brakeRun(); }, [this] { reader->frameReady->post(); });
}

void DroneBino::initAvoid()
{
    worker.start([this] { avoidRun(); });
}

void DroneBino::avoidRun()
{
    while (worker.sleepFor(kAvoidSleep)) {
    }
}

bool DroneBino::waitWhileSensingOff()
{
    while (!flyInfo.visionSwitch()) {
        if (logger->isOpen()) {
            logger->close();
        }
        if (!worker.sleepFor(kPassSleep)) {
            return false;
        }
    }
    return !worker.stopping();
}

void DroneBino::brakeRun()
{
    Common::nameThisThread("bino-work-" + Common::binoString(direction));
    std::string address;
    int port = 0;
    getServerInfo(address, port);
    server = std::make_unique<Server>(address, port);
    stages = std::make_unique<StageTrace>(Common::binoString(direction));
    sendBuffer.assign(2 * static_cast<size_t>(reader->getUsedSize().area()), 0);
    cv::Mat disparity;
    while (waitWhileSensingOff()) {
        // One bad frame must cost that frame only, never the pipeline.
        try {
            runPass(disparity);
        } catch (const std::exception& error) {
            BINO_ERROR("%s brakeRun: frame skipped: %s", logHeader.c_str(), error.what());
        } catch (...) {
            BINO_ERROR("%s brakeRun: frame skipped: unknown exception", logHeader.c_str());
        }
        if (!worker.sleepFor(kPassSleep)) {
            break;
        }
    }
}

void DroneBino::runPass(cv::Mat& disparity)
{
    if (!logger->isOpen()) {
        logger->open(brake->getLogHeader());
    }
    ImageReader::QueueData frame = reader->getFrameBlock();
    if (worker.stopping()) {
        return;
    }
    stages->begin(frame.leftTimestamp);
    const ImageReader::FrameTimes readerTimes = reader->takenFrameTimes();
    stages->set(StageTrace::POLLED, readerTimes.polledUs);
    stages->set(StageTrace::QUEUED, readerTimes.queuedUs);
    stages->mark(StageTrace::GOT);
    const Common::FlyInfo info = flyInfo.load();
    brake->setFlyInfo(info);
    if (brake->meetSpeed()) {
        stereo->setPitch(info.pitch);
        // The distance waits only for the part the matcher reads; the rest
        // is rectified after the reporter has been woken.
        frame.rectifyRegion(stereo->regionRead(frame.left.rows, frame.left.cols));
        stages->mark(StageTrace::RECTIFIED);
        stereo->compute(frame.left, frame.right, disparity, 0);
        stages->mark(StageTrace::MATCHED);
        brake->setDisparity(disparity, reader->getQ());
    } else {
        brake->reset();
    }
    stages->mark(StageTrace::CHAINED);
    frameReady->post();
    stages->mark(StageTrace::POSTED);
    frame.complete();

    brake->getTargetRegionFromBrake(cv::Vec3f(targetRegion[0], targetRegion[1], targetRegion[2]));
    std::vector<std::string> columns = brake->getLogline();
    // In double: a float loses the milliseconds of a clock that has run for days.
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%f", static_cast<double>(frame.leftTimestamp) * 0.001);
    columns.emplace_back(stamp);
    std::snprintf(stamp, sizeof stamp, "%f", static_cast<double>(frame.rightTimestamp) * 0.001);
    columns.emplace_back(stamp);
    logger->writeLog(columns);
    const std::vector<cv::Point2f> area = brake->getFrountArea();
    logger->writeImage(frame.left, frame.right, disparity, area);
    stages->mark(StageTrace::RECORDED);
    brake->update();
    // Relaxed: the flag only saves work when nobody watches; the socket is
    // taken through the server's atomic shared_ptr, which orders the rest.
    if (server->isConnected.load(std::memory_order_relaxed)) {
        sendToSever(*server, frame.left, frame.right, disparity, area, brake->getDistance());
    }
    stages->mark(StageTrace::STREAMED);
    stages->end();
}

float DroneBino::getDistance()
{
    frameReady->wait();
    switch (processor) {
        case BRAKE:
            return brake->getDistance();
        case AVOID:
        default:
            return kNoObstacleM;
    }
}

std::array<float, 3> DroneBino::getTargetRegion() const { return targetRegion; }

std::pair<int, int> DroneBino::getBinoStatus() { return reader->getBinoStatus(); }

void DroneBino::setFlyInfo(const Common::FlyInfo& info) { flyInfo.store(info); }

void DroneBino::getServerInfo(std::string& address, int& port) const
{
    switch (direction) {
        case Common::FRONT:
            address = Server::kListenAddress;
            port = streampacket::kFrontPort;
            break;
        case Common::DOWN:
            address = Server::kListenAddress;
            port = streampacket::kDownPort;
            break;
    }
}

void DroneBino::sendToSever(Server& to, const cv::Mat& left, const cv::Mat& right, cv::Mat& disparity,
                            const std::vector<cv::Point2f>& area, float distance)
{
    if (left.empty() || right.size() != left.size() || left.type() != CV_8UC1 || right.type() != CV_8UC1 ||
        disparity.size() != left.size()) {
        return;
    }
    disparity.convertTo(disparity, -1, 16.0);
    cv::Mat grey;
    disparity.convertTo(grey, CV_8U, 1.0);
    cv::Mat colour;
    cv::cvtColor(grey, colour, cv::COLOR_GRAY2BGR);
    std::memcpy(colour.data, &distance, sizeof distance);
    for (const cv::Point2f& point : area) {
        const int x = static_cast<int>(point.x);
        const int y = static_cast<int>(point.y);
        if (x >= 0 && y >= 0 && x < colour.cols && y < colour.rows) {
            colour.at<cv::Vec3b>(y, x) = cv::Vec3b(255, 0, 0);
        }
    }
    const size_t rowBytes = static_cast<size_t>(left.cols);
    const size_t imageBytes = rowBytes * static_cast<size_t>(left.rows);
    sendBuffer.resize(2 * imageBytes);
    for (int row = 0; row < left.rows; ++row) {
        std::memcpy(sendBuffer.data() + row * rowBytes, left.ptr(row), rowBytes);
        std::memcpy(sendBuffer.data() + imageBytes + row * rowBytes, right.ptr(row), rowBytes);
    }
    to.write(sendBuffer.data(), static_cast<int>(2 * imageBytes), STEREO_PAIR);
    to.write(colour.data, static_cast<int>(3 * imageBytes), DISPARITY_COLOR);
}
