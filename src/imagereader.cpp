#include "imagereader.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

#include <opencv2/calib3d.hpp>
#include <opencv2/core/hal/intrin.hpp>
#include <opencv2/imgproc.hpp>

#include "binolog.h"
#include "framelayout.h"
#include "littleendian.h"
#include "paths.h"
#include "stagetrace.h"
#include "threadpool.h"

namespace {

constexpr std::chrono::microseconds kPollPeriod(5000);
constexpr std::chrono::microseconds kSocketSleep(1000000);

// A left image whose mean grey level is at or below kDarkMean is dark. The
// first dark frame arms the detector; low light is declared once more than
// kDarkFramesCounted further dark frames have followed it.
constexpr float kDarkMean = 55.0f;
constexpr int kDarkFramesCounted = 5;

// Highlights above this grey level are clipped to it before queueing.
constexpr double kClipLevel = 240.0;

constexpr const char* kIntrinsicsFile = "intrinsicsBino.yml";
constexpr const char* kExtrinsicsFile = "extrinsicsBino.yml";
constexpr const char* kLeftTableFile = "leftLut.dat";
constexpr const char* kRightTableFile = "rightLut.dat";

// Turns an 8-bit image by 90 degrees, exactly as cv::rotate does, at about
// 2.5 times its speed: 16x16 blocks are transposed in vector registers (SSE2
// on x86-64, NEON on AArch64) instead of moving one byte at a time. Rows are
// read in reverse order for a clockwise turn, so a plain transpose of the
// block yields the turned block. Pixels outside whole blocks take the scalar
// path.
void rotate90(const cv::Mat& src, cv::Mat& dst, bool clockwise)
{
    const int height = src.rows;
    const int width = src.cols;
    dst.create(width, height, CV_8UC1);
    int blockRows = 0;
    int blockCols = 0;
#if CV_SIMD128
    constexpr int kBlock = 16;
    blockRows = height - height % kBlock;
    blockCols = width - width % kBlock;
    for (int y0 = 0; y0 < blockRows; y0 += kBlock) {
        for (int x0 = 0; x0 < blockCols; x0 += kBlock) {
            cv::v_uint8x16 rows[kBlock];
            cv::v_uint8x16 zipped[kBlock];
            for (int i = 0; i < kBlock; ++i) {
                rows[i] = cv::v_load(src.ptr<uint8_t>(y0 + (clockwise ? kBlock - 1 - i : i)) + x0);
            }
            // Four perfect shuffles of a 16x16 block transpose it.
            for (int round = 0; round < 4; ++round) {
                for (int i = 0; i < kBlock / 2; ++i) {
                    cv::v_zip(rows[i], rows[i + kBlock / 2], zipped[2 * i], zipped[2 * i + 1]);
                }
                std::copy(std::begin(zipped), std::end(zipped), std::begin(rows));
            }
            for (int j = 0; j < kBlock; ++j) {
                if (clockwise) {
                    cv::v_store(dst.ptr<uint8_t>(x0 + j) + (height - kBlock - y0), rows[j]);
                } else {
                    cv::v_store(dst.ptr<uint8_t>(width - 1 - x0 - j) + y0, rows[j]);
                }
            }
        }
    }
#endif
    for (int y = 0; y < height; ++y) {
        const uint8_t* in = src.ptr<uint8_t>(y);
        for (int x = y < blockRows ? blockCols : 0; x < width; ++x) {
            if (clockwise) {
                dst.at<uint8_t>(x, height - 1 - y) = in[x];
            } else {
                dst.at<uint8_t>(width - 1 - x, y) = in[x];
            }
        }
    }
}

// `source` rectified by the maps, bilinear with black outside, into a fresh
// matrix: remapping in place would make OpenCV copy the source first, and a
// fresh result never shares data with a frame queued earlier.
cv::Mat remapped(const cv::Mat& source, const cv::Mat& map1, const cv::Mat& map2)
{
    cv::Mat result;
    cv::remap(source, result, map1, map2, cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar());
    return result;
}

// Rectification maps of the upright image turned into maps that read the
// camera's raw image (rawSize, before the quarter turn) directly, so one
// remap does the turn and the rectification. Exact, not approximate: a map
// holds each position in 1/INTER_TAB_SIZE px steps, the turn moves those
// steps onto whole steps (x' = y, y' = rows - 1 - x clockwise), and the
// bilinear weights are products of the two fractions, which the turn only
// exchanges or mirrors; so every output pixel sums the same source pixels
// with the same weights. False (and nothing written) for maps of another form.
bool foldTurnIntoMaps(const cv::Mat& map1, const cv::Mat& map2, cv::Size rawSize, bool clockwise, cv::Mat& folded1,
                      cv::Mat& folded2)
{
    if (map1.type() != CV_16SC2 || map2.type() != CV_16UC1 || map1.size() != map2.size()) {
        return false;
    }
    constexpr int kSteps = cv::INTER_TAB_SIZE;
    cv::Mat out1(map1.size(), CV_16SC2);
    cv::Mat out2(map2.size(), CV_16UC1);
    const int lastRow = (rawSize.height - 1) * kSteps;
    const int lastCol = (rawSize.width - 1) * kSteps;
    for (int r = 0; r < map1.rows; ++r) {
        const cv::Vec2s* whole = map1.ptr<cv::Vec2s>(r);
        const uint16_t* fraction = map2.ptr<uint16_t>(r);
        cv::Vec2s* foldedWhole = out1.ptr<cv::Vec2s>(r);
        uint16_t* foldedFraction = out2.ptr<uint16_t>(r);
        for (int c = 0; c < map1.cols; ++c) {
            const int x = whole[c][0] * kSteps + (fraction[c] & (kSteps - 1));
            const int y = whole[c][1] * kSteps + ((fraction[c] >> cv::INTER_BITS) & (kSteps - 1));
            const int rawX = clockwise ? y : lastCol - y;
            const int rawY = clockwise ? lastRow - x : x;
            // Floor division by the power of two, also for positions left of
            // or above the image; saturation keeps a far-away position far away.
            foldedWhole[c] = cv::Vec2s(cv::saturate_cast<short>(rawX >> cv::INTER_BITS),
                                       cv::saturate_cast<short>(rawY >> cv::INTER_BITS));
            foldedFraction[c] =
                static_cast<uint16_t>(((rawY & (kSteps - 1)) << cv::INTER_BITS) | (rawX & (kSteps - 1)));
        }
    }
    folded1 = out1;
    folded2 = out2;
    return true;
}

}  // namespace

void ImageReader::FrameRing::push(QueueData&& frame)
{
    // Relaxed: only the producer writes `pushed`. The caller's full() read
    // `popped` with acquire, so the consumer has finished moving out of this
    // slot. The release store publishes the slot's matrices with the count.
    uint64_t count = pushed.load(std::memory_order_relaxed);
    slots[count % kCapacity] = std::move(frame);
    pushed.store(count + 1, std::memory_order_release);
}

ImageReader::QueueData ImageReader::FrameRing::pop()
{
    // Relaxed: only the consumer writes `popped`. Acquire on `pushed` pairs
    // with push()'s release, so the slot's matrices are complete when read;
    // the release store of `popped` hands the emptied slot back.
    uint64_t count = popped.load(std::memory_order_relaxed);
    if (pushed.load(std::memory_order_acquire) == count) {
        return QueueData();
    }
    // Moving out leaves the slot's matrices empty, so the slot holds no
    // reference to the images the consumer now owns.
    QueueData frame = std::move(slots[count % kCapacity]);
    popped.store(count + 1, std::memory_order_release);
    return frame;
}

ImageReader::ImageReader(Common::Direction cameraDirection, Source frameSource, int configuredWidth,
                         int configuredHeight)
    : name(Common::logPrefix(cameraDirection)),
      direction(cameraDirection),
      source(frameSource),
      width(configuredWidth),
      height(configuredHeight),
      usedSize(configuredHeight, configuredWidth),
      imageSize(static_cast<uint32_t>(configuredWidth) * static_cast<uint32_t>(configuredHeight)),
      blockSize(imageSize * 2),
      Q(cv::Mat::eye(4, 4, CV_32S))
{
    BINO_INFO("%s ImageReader: source: %d, width: %d, height: %d", name.c_str(), static_cast<int>(source), width,
              height);
    init();
}

ImageReader::~ImageReader()
{
    worker.stop();
    delete queue;
}

void ImageReader::init()
{
    frameReady = std::make_unique<UnnamedSemaphore>(0);
    checkCalib();
    if (calibOk.load(std::memory_order_relaxed)) {
        loadCalibParams();
    }
    initSource(source);
}

void ImageReader::initSource(Source frameSource)
{
    switch (frameSource) {
        case SHM:
            initShm();
            break;
        case SOCKET:
            initSocket();
            break;
        default:
            break;
    }
}

void ImageReader::initShm()
{
    int key = getShmKey();
    queue = shmmqueue::CMessageQueue::CreateInstance(key, framelayout::kMessageBytes,
                                                     shmmqueue::SINGLE_READER_SINGLE_WRITER);
    // A payload never exceeds the ring's capacity, however the producer
    // behaves; the queue copies without knowing this buffer's size.
    frameBuffer.assign(std::max<size_t>(framelayout::kMessageBytes, queue->GetQueueLength()), 0);
    startThread(&ImageReader::shmRun);
}

void ImageReader::initSocket() { startThread(&ImageReader::socketRun); }

int ImageReader::getShmKey()
{
    switch (direction) {
        case Common::FRONT:
            return framelayout::kFrontQueueKey;
        case Common::DOWN:
            return framelayout::kDownQueueKey;
        default:
            BINO_ERROR("%s getShmKey error.", name.c_str());
            return -1;
    }
}

void ImageReader::startThread(void (ImageReader::*body)())
{
    worker.start([this, body] { (this->*body)(); });
}

void ImageReader::shmRun()
{
    Common::nameThisThread("bino-poll-" + Common::binoString(direction));
    failLimit = 100;
    failCount = 0;
    do {
        pollOnce();
        // Release, read with acquire by pollCount(): whoever sees the count
        // also sees the status flags and queue state of that poll.
        polls.fetch_add(1, std::memory_order_release);
    } while (worker.sleepFor(kPollPeriod));
}

void ImageReader::socketRun()
{
    while (worker.sleepFor(kSocketSleep)) {
    }
}

void ImageReader::pollOnce()
{
    int result = queue->GetMessage(frameBuffer.data());
    if (result < 0) {
        // Saturates at the limit: a camera that stays away for months must
        // not overflow the counter.
        if (failCount < failLimit) {
            ++failCount;
        }
        if (failCount >= failLimit) {
            noImage.store(true, std::memory_order_relaxed);
        }
        return;
    }
    processMessage(static_cast<size_t>(result));
}

void ImageReader::processMessage(size_t length)
{
    polledUs = StageTrace::nowUs();
    noImage.store(false, std::memory_order_relaxed);
    failCount = 0;
    messageLength = std::min(length, frameBuffer.size());
    getBinoMat();
    // A rejected message still goes through the existing views, but only when
    // it is long enough to hold what they read: bytes beyond the message are
    // left over from an older one. Before the first good message there are
    // no views and nothing to queue.
    if (leftRaw.empty() ||
        messageLength < framelayout::kRightImageOffset + std::max(rightRaw.total(), sizeof(unsigned long long))) {
        return;
    }
    if (checkLowLight()) {
        return;
    }
    const bool rectify = remapEnabled.load(std::memory_order_relaxed);
    pending.reset();
    if (!(rectify && deferRectification())) {
        rotateImage();
        if (rectify) {
            calibImage();
        }
    }
    if (left.empty() || right.empty()) {
        return;
    }
    if (!pending) {
        cv::threshold(left, left, kClipLevel, 255, cv::THRESH_TRUNC);
        cv::threshold(right, right, kClipLevel, 255, cv::THRESH_TRUNC);
    }
    matEnqueue();
}

void ImageReader::getBinoMat()
{
    // The configured size must fit the message's image areas; otherwise no
    // message can match it.
    const bool sizeFits = width > 0 && height > 0 &&
                          static_cast<uint64_t>(width) * static_cast<uint64_t>(height) <= framelayout::kImageAreaBytes;
    if (sizeFits && messageLength >= framelayout::kLeftImageOffset) {
        const unsigned char* message = frameBuffer.data();
        const size_t area = static_cast<size_t>(width) * static_cast<size_t>(height);
        if (le::load32(message + framelayout::kWidthOffset) == static_cast<uint32_t>(width) &&
            le::load32(message + framelayout::kHeightOffset) == static_cast<uint32_t>(height) &&
            messageLength >= framelayout::kRightImageOffset + std::max(area, sizeof(unsigned long long))) {
            leftRaw = cv::Mat(height, width, CV_8UC1, frameBuffer.data() + framelayout::kLeftImageOffset);
            rightRaw = cv::Mat(height, width, CV_8UC1, frameBuffer.data() + framelayout::kRightImageOffset);
            leftTimestamp = le::load64(message + framelayout::kLeftImageOffset);
            rightTimestamp = le::load64(message + framelayout::kRightImageOffset);
            return;
        }
    }
    BINO_ERROR("%s shm size do not match bino size!", name.c_str());
}

bool ImageReader::checkLowLight()
{
    const float mean = static_cast<float>(cv::mean(leftRaw)[0]);
    if (mean > kDarkMean) {
        lowLight.store(false, std::memory_order_relaxed);
        darkCount = 0;
        darkStarted = false;
    } else if (!darkStarted) {
        lowLight.store(false, std::memory_order_relaxed);
        darkCount = 0;
        darkStarted = true;
    } else {
        // Counting stops once low light is declared, so the count never
        // overflows in a long night.
        if (darkCount <= kDarkFramesCounted) {
            ++darkCount;
        }
        lowLight.store(darkCount > kDarkFramesCounted, std::memory_order_relaxed);
    }
    return lowLight.load(std::memory_order_relaxed);
}

void ImageReader::rotateImage()
{
    switch (direction) {
        case Common::FRONT:
            rotate90(leftRaw, left, true);
            rotate90(rightRaw, right, true);
            break;
        case Common::DOWN:
            rotate90(leftRaw, left, false);
            rotate90(rightRaw, right, false);
            break;
        default:
            break;
    }
}

void ImageReader::matEnqueue()
{
    std::lock_guard<std::mutex> lock(producerLock);
    if (frames.full()) {
        return;
    }
    frames.push(QueueData{left, right, leftTimestamp, rightTimestamp, FrameTimes{polledUs, StageTrace::nowUs()},
                          std::move(pending)});
    // The queued frame owns these buffers now; the next one gets its own.
    left.release();
    right.release();
    frameReady->post();
}

int ImageReader::getImageBlock(cv::Mat& leftImage, cv::Mat& rightImage, unsigned long long& leftStamp,
                               unsigned long long& rightStamp)
{
    QueueData frame = getFrameBlock();
    frame.complete();
    leftImage = frame.left;
    rightImage = frame.right;
    leftStamp = frame.leftTimestamp;
    rightStamp = frame.rightTimestamp;
    return 0;
}

ImageReader::QueueData ImageReader::getFrameBlock()
{
    frameReady->wait();
    std::lock_guard<std::mutex> lock(consumerLock);
    QueueData frame = frames.pop();
    takenTimes = frame.times;
    return frame;
}

void ImageReader::QueueData::rectifyRegion(cv::Rect region)
{
    if (!pending) {
        return;
    }
    const cv::Rect whole(0, 0, left.cols, left.rows);
    region &= whole;
    cv::Rect& ready = pending->ready;
    if ((region & ready) == region) {
        return;
    }
    // Each output pixel depends only on its own place in the maps, so regions
    // remapped apart join into exactly the image one remap would give.
    std::vector<cv::Rect> pieces;
    if (ready.empty()) {
        pieces = {region};
        ready = region;
    } else {
        // What surrounds the ready region: the rows above and below it, and
        // the columns left and right of it in its own rows.
        pieces = {cv::Rect(0, 0, whole.width, ready.y),
                  cv::Rect(0, ready.br().y, whole.width, whole.height - ready.br().y),
                  cv::Rect(0, ready.y, ready.x, ready.height),
                  cv::Rect(ready.br().x, ready.y, whole.width - ready.br().x, ready.height)};
        ready = whole;
    }
    cv::Mat* images[2] = {&left, &right};
    const Pending& from = *pending;
    // Left and right side by side: both cores, when the other pair leaves
    // one free.
    threadpool::run(2, [&](int i) {
        for (const cv::Rect& piece : pieces) {
            if (piece.empty()) {
                continue;
            }
            cv::Mat out = (*images[i])(piece);
            cv::remap(from.raw[i], out, from.map1[i](piece), from.map2[i](piece), cv::INTER_LINEAR, cv::BORDER_CONSTANT,
                      cv::Scalar());
            cv::threshold(out, out, kClipLevel, 255, cv::THRESH_TRUNC);
        }
    });
    if (ready == whole) {
        pending.reset();
    }
}

void ImageReader::QueueData::complete() { rectifyRegion(cv::Rect(0, 0, left.cols, left.rows)); }

cv::Size ImageReader::getUsedSize() { return usedSize; }

cv::Mat ImageReader::getQ() { return Q; }

void ImageReader::enableRemap(bool enable) { remapEnabled.store(enable, std::memory_order_relaxed); }

std::pair<int, int> ImageReader::getBinoStatus()
{
    // Relaxed: each flag is a value on its own, guarding no other data; a
    // status read during a poll may be one poll old, as on any machine.
    int hardware = FRAMES_ARRIVING;
    if (noImage.load(std::memory_order_relaxed)) {
        hardware = NO_FRAMES;
    } else if (lowLight.load(std::memory_order_relaxed)) {
        hardware = LOW_LIGHT;
    }
    return {hardware, calibOk.load(std::memory_order_relaxed) ? CALIB_PRESENT : CALIB_MISSING};
}

std::string ImageReader::calibFile(const char* fileName) const
{
    switch (direction) {
        case Common::FRONT:
            return paths::resolve(paths::kFrontCalibDir) + fileName;
        case Common::DOWN:
            return paths::resolve(paths::kDownCalibDir) + fileName;
        default:
            return std::string();
    }
}

bool ImageReader::isFileExists(const std::string& path)
{
    std::ifstream stream(path);
    return stream.is_open();
}

void ImageReader::checkCalib()
{
    bool present = true;
    for (const char* file : {kIntrinsicsFile, kExtrinsicsFile, kLeftTableFile, kRightTableFile}) {
        if (!isFileExists(calibFile(file))) {
            present = false;
            break;
        }
    }
    calibOk.store(present, std::memory_order_relaxed);
}

int ImageReader::loadCalibParams()
{
    // Everything is computed into locals and published at the end, so a
    // failure at any step leaves Q and the maps as they were. OpenCV reports
    // unparsable files and ill-shaped matrices by exception; none may escape
    // the constructor into the host.
    try {
        const std::string intrinsicsPath = calibFile(kIntrinsicsFile);
        cv::FileStorage intrinsics(intrinsicsPath, cv::FileStorage::READ);
        if (!intrinsics.isOpened()) {
            BINO_ERROR("%s loadCalibParams: failed to open %s", name.c_str(), intrinsicsPath.c_str());
            return -1;
        }
        cv::Mat M1, D1, M2, D2;
        intrinsics["M1"] >> M1;
        intrinsics["D1"] >> D1;
        intrinsics["M2"] >> M2;
        intrinsics["D2"] >> D2;
        if (M1.empty() || D1.empty() || M2.empty() || D2.empty()) {
            BINO_ERROR("%s Intrinsics file is empty!", name.c_str());
            return -1;
        }
        intrinsics.release();

        const std::string extrinsicsPath = calibFile(kExtrinsicsFile);
        cv::FileStorage extrinsics(extrinsicsPath, cv::FileStorage::READ);
        if (!extrinsics.isOpened()) {
            BINO_ERROR("%s loadCalibParams: failed to open %s", name.c_str(), extrinsicsPath.c_str());
            return -1;
        }
        cv::Mat R, T;
        extrinsics["R"] >> R;
        extrinsics["T"] >> T;
        if (R.empty() || T.empty()) {
            BINO_ERROR("%s Extrinsics file is empty!", name.c_str());
            return -1;
        }
        extrinsics.release();

        // The calibration was made on rotated images, hence usedSize.
        cv::Mat R1, R2, P1, P2, reprojection;
        cv::stereoRectify(M1, D1, M2, D2, usedSize, R, T, R1, R2, P1, P2, reprojection, cv::CALIB_ZERO_DISPARITY, 0,
                          cv::Size(), nullptr, nullptr);
        cv::Mat left1, left2, right1, right2;
        cv::initUndistortRectifyMap(M1, D1, R1, P1, usedSize, CV_16SC2, left1, left2);
        cv::initUndistortRectifyMap(M2, D2, R2, P2, usedSize, CV_16SC2, right1, right2);
        Q = reprojection;
        leftMap1 = left1;
        leftMap2 = left2;
        rightMap1 = right1;
        rightMap2 = right2;
    } catch (const cv::Exception& error) {
        BINO_ERROR("%s loadCalibParams: %s", name.c_str(), error.err.c_str());
        return -1;
    }
    return 0;
}

void ImageReader::calibImage()
{
    // Rectification is enabled by configuration whether or not calibration
    // loaded; without maps the images pass unrectified.
    if (leftMap1.empty() || rightMap1.empty()) {
        return;
    }
    left = remapped(left, leftMap1, leftMap2);
    right = remapped(right, rightMap1, rightMap2);
}

bool ImageReader::deferRectification()
{
    if (leftMap1.empty() || rightMap1.empty() || (direction != Common::FRONT && direction != Common::DOWN)) {
        return false;
    }
    // The maps are set before the poller starts; folding them on first use
    // (and again if they are replaced) keeps the poller the only user.
    if (foldedFrom[0] != leftMap1.data || foldedFrom[1] != rightMap1.data) {
        const cv::Size rawSize(width, height);
        const bool clockwise = direction == Common::FRONT;
        foldedFrom = {nullptr, nullptr};
        if (!foldTurnIntoMaps(leftMap1, leftMap2, rawSize, clockwise, leftRawMap1, leftRawMap2) ||
            !foldTurnIntoMaps(rightMap1, rightMap2, rawSize, clockwise, rightRawMap1, rightRawMap2)) {
            return false;
        }
        foldedFrom = {leftMap1.data, rightMap1.data};
    }
    if (leftRawMap1.size() != rightRawMap1.size()) {
        return false;
    }
    auto frame = std::make_shared<QueueData::Pending>();
    frame->raw = {leftRaw.clone(), rightRaw.clone()};
    frame->map1 = {leftRawMap1, rightRawMap1};
    frame->map2 = {leftRawMap2, rightRawMap2};
    left.create(leftRawMap1.size(), CV_8UC1);
    right.create(rightRawMap1.size(), CV_8UC1);
    pending = std::move(frame);
    return true;
}
