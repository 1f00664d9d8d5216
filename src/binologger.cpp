#include "binologger.h"

#include <cstdint>
#include <filesystem>
#include <utility>

#include "binolog.h"
#include "paths.h"

namespace {

/// path and its missing parents as directories. Done directly rather than
/// through "mkdir -p" in a shell: no fork of the host process per attempt
/// and no shell reading the path. mkdir -p exits with status 1 on every
/// failure it can report, so false here is that status; the shell-level
/// outcomes (no shell, a killed shell) cannot occur.
bool makeDirectories(std::string path)
{
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    if (path.empty()) {
        return false;
    }
    std::error_code error;
    std::filesystem::create_directories(path, error);
    return !error && std::filesystem::is_directory(path, error);
}

bool writable(const std::ofstream& stream) { return stream.is_open() && stream.good(); }

std::string runStem(const std::string& logDir, const std::string& logName, int index, const std::string& time)
{
    const std::string number = std::to_string(index);
    return logDir + logName + "_" + number + "_" + time + "_" + number;
}

}  // namespace

BinoLogger::BinoLogger(Common::Direction direction_, int saveImage_, int saveInterval_, cv::Size size, Clock clock_)
    : logHeader(Common::logPrefix(direction_)),
      direction(direction_),
      saveImage(saveImage_ != 0),
      imageSize(size),
      clock(std::move(clock_))
{
    saveInterval = saveInterval_;
    BINO_INFO("%s BinoLogger saveImage: %d, saveInterval: %d", logHeader.c_str(), saveImage_, saveInterval);
    init();
}

void BinoLogger::init()
{
    if (direction == Common::FRONT) {
        initFront();
    } else if (direction == Common::DOWN) {
        initDown();
    }
}

void BinoLogger::initFront()
{
    logDir = paths::resolve(paths::kFrontLogDir);
    logName = "frontBino";
}

void BinoLogger::initDown()
{
    logDir = paths::resolve(paths::kDownLogDir);
    logName = "downBino";
}

void BinoLogger::open(const std::string& header)
{
    const int index = getZlogCnt();
    const std::string time = getCurrentTimeString();
    if (!createLogDir()) {
        BINO_ERROR("%s create bino log dir failed.", logHeader.c_str());
        return;
    }
    if (createLog(index, time)) {
        fillLogHeader(header);
        logOpen = true;
    }
    if (saveImage) {
        createImageDirAndFile(index, time);
    }
}

bool BinoLogger::isOpen() { return logOpen; }

void BinoLogger::writeLog(const std::vector<std::string>& columns)
{
    const bool wasWritable = writable(logFile);
    for (const std::string& column : columns) {
        logFile << column << '\t';
    }
    logFile << '\n';
    logFile.flush();
    reportWriteFailure(logFile, wasWritable, logPath);
}

void BinoLogger::close()
{
    closeStream(logFile, logPath);
    if (saveImage) {
        const auto closeIfOpen = [this](std::ofstream& stream, const std::string& path) {
            if (stream.is_open()) {
                closeStream(stream, path);
            }
        };
        closeIfOpen(leftFile, leftPath);
        closeIfOpen(rightFile, rightPath);
        closeIfOpen(disparityFile, std::string());  // never written, so nothing to lose
    }
    logOpen = false;
}

int BinoLogger::getZlogCnt()
{
    std::ifstream counter(paths::resolve(paths::kZlogCountFile));
    if (!counter.is_open()) {
        BINO_ERROR("%s open zlog cnt file failed.", logHeader.c_str());
        return -1;
    }
    int index = 0;  // an empty file stores nothing
    counter >> index;
    return index;
}

std::string BinoLogger::getCurrentTimeString()
{
    const std::time_t now = clock ? clock() : std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return std::to_string(local.tm_hour) + "_" + std::to_string(local.tm_min) + "_" + std::to_string(local.tm_sec);
}

bool BinoLogger::createLogDir() { return makeDirectories(logDir); }

bool BinoLogger::createLog(int index, const std::string& time)
{
    const std::string path = runStem(logDir, logName, index, time) + ".log";
    const bool wasOpen = logFile.is_open();
    logFile.open(path, std::ios::out | std::ios::app);
    if (!logFile.is_open()) {
        BINO_ERROR("%s open bino log failed.", logHeader.c_str());
    } else if (!wasOpen) {
        logPath = path;
    }
    return logFile.is_open();
}

void BinoLogger::fillLogHeader(const std::string& header)
{
    const bool wasWritable = writable(logFile);
    logFile << header;
    reportWriteFailure(logFile, wasWritable, logPath);
}

void BinoLogger::createImageDirAndFile(int index, const std::string& time)
{
    const std::string directory = runStem(logDir, logName, index, time);
    if (!makeDirectories(directory)) {
        return;
    }
    const std::string stem =
        directory + "/gray_" + std::to_string(imageSize.width) + "x" + std::to_string(imageSize.height);
    // A stream still open from the previous open() fails to open again and
    // stays failed, keeping its earlier file: its frames are dropped silently
    // until close().
    struct ImageStream {
        std::ofstream& stream;
        std::string* path;
        std::string name;
        const char* failure;
    };
    ImageStream streams[] = {
        {leftFile, &leftPath, stem + "_left.yuv", "%s open left.yuv failed."},
        {rightFile, &rightPath, stem + "_right.yuv", "%s open right.yuv failed."},
        {disparityFile, nullptr, stem + "_disparity.yuv", "%s open disparity.yuv failed."},
    };
    for (ImageStream& image : streams) {
        const bool wasOpen = image.stream.is_open();
        image.stream.open(image.name, std::ios::out | std::ios::binary | std::ios::app);
        if (!wasOpen && image.stream.is_open() && image.path != nullptr) {
            *image.path = image.name;
        }
    }
    for (const ImageStream& image : streams) {
        if (!image.stream.is_open()) {
            BINO_ERROR(image.failure, logHeader.c_str());
        }
    }
}

void BinoLogger::writeImage(const cv::Mat& left, const cv::Mat& right, const cv::Mat& /*disparity*/,
                            const std::vector<cv::Point2f>& /*area*/)
{
    if (!saveImage) {
        return;
    }
    if (++imageCounter < saveInterval) {
        return;
    }
    imageCounter = 0;
    writeFrame(leftFile, left, leftPath);
    writeFrame(rightFile, right, rightPath);
}

void BinoLogger::reportWriteFailure(const std::ofstream& stream, bool wasWritable, const std::string& path)
{
    if (wasWritable && !stream.good()) {
        BINO_ERROR("%s write %s failed.", logHeader.c_str(), path.c_str());
    }
}

void BinoLogger::closeStream(std::ofstream& stream, const std::string& path)
{
    const bool wasWritable = writable(stream);
    stream.close();
    reportWriteFailure(stream, wasWritable, path);
}

void BinoLogger::writeFrame(std::ofstream& stream, const cv::Mat& image, const std::string& path)
{
    const int64_t bytes = static_cast<int64_t>(imageSize.width) * imageSize.height;
    if (bytes <= 0 || !image.isContinuous() || static_cast<int64_t>(image.total() * image.elemSize()) < bytes) {
        return;
    }
    const bool wasWritable = writable(stream);
    stream.write(reinterpret_cast<const char*>(image.data), bytes);
    reportWriteFailure(stream, wasWritable, path);
}
