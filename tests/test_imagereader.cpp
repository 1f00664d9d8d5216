// The frame reader against the real queue (fixed keys 9990/9991) and its real
// polling thread. Messages are built here by hand from the documented byte
// layout, independently of the camera simulator's encoder. Waits are on the
// reader's poll counter and semaphore, never on elapsed time.

#include <gtest/gtest.h>
#include <sys/shm.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "imagereader.h"
#include "paths.h"
#include "rigcalibration.h"
#include "scenerender.h"
#include "test_support.h"

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr ImageReader::Source kNoSource = static_cast<ImageReader::Source>(2);

template <typename Predicate>
bool waitFor(Predicate done)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void putLe(unsigned char* at, uint64_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i) {
        at[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

// A frame message of `length` bytes: header size, the sensor images (as far
// as the message reaches) and the timestamps over each image's first 8 bytes.
std::vector<unsigned char> message(const cv::Mat& left, const cv::Mat& right, uint64_t leftStamp, uint64_t rightStamp,
                                   uint32_t headerWidth = kWidth, uint32_t headerHeight = kHeight,
                                   size_t length = 1045312)
{
    std::vector<unsigned char> bytes(std::max<size_t>(length, 1045312), 0);
    putLe(&bytes[4], headerWidth, 4);
    putLe(&bytes[8], headerHeight, 4);
    std::memcpy(&bytes[12], left.data, left.total());
    std::memcpy(&bytes[522252], right.data, right.total());
    putLe(&bytes[12], leftStamp, 8);
    putLe(&bytes[522252], rightStamp, 8);
    bytes.resize(length);
    return bytes;
}

// Uniform sensor image of the configured size.
cv::Mat flat(int value, int width = kWidth, int height = kHeight)
{
    return cv::Mat(height, width, CV_8UC1, cv::Scalar(value));
}

// The 8-byte timestamp whose bytes are all `value`: a frame stamped with it
// keeps its image uniform.
uint64_t stampOfBytes(unsigned char value) { return 0x0101010101010101ull * value; }

// Calibration folder contents written by hand, for the cases the simulator
// never produces.
void writeYaml(const std::string& path, const std::vector<std::pair<std::string, cv::Mat>>& entries)
{
    cv::FileStorage file(path, cv::FileStorage::WRITE);
    for (const auto& entry : entries) {
        file << entry.first << entry.second;
    }
}

class ImageReaderTest : public ::testing::Test {
protected:
    testsupport::ScratchRoot root;
    testsupport::SysvGuard guard{ImageReader::kFrontShmKey, ImageReader::kDownShmKey};
    testsupport::LogCapture log;
    std::unique_ptr<ImageReader> reader;

    void start(Common::Direction direction = Common::FRONT, int width = kWidth, int height = kHeight)
    {
        reader.reset();
        reader = std::make_unique<ImageReader>(direction, ImageReader::SHM, width, height);
    }

    // Sends one message and returns once the poller is done with it.
    void deliver(std::vector<unsigned char> bytes)
    {
        ASSERT_EQ(reader->queue->SendMessage(bytes.data(), bytes.size()), 0);
        ASSERT_TRUE(waitFor([&] { return reader->queue->GetDataSize() == 0; }));
        // The poll that took the message ends at most one count later.
        const uint64_t seen = reader->pollCount();
        ASSERT_TRUE(waitFor([&] { return reader->pollCount() > seen; }));
    }

    int queued() { return reader->frameReady->value(); }

    ImageReader::QueueData take()
    {
        ImageReader::QueueData frame;
        EXPECT_GT(queued(), 0) << "getImageBlock would block";
        if (queued() > 0) {
            reader->getImageBlock(frame.left, frame.right, frame.leftTimestamp, frame.rightTimestamp);
        }
        return frame;
    }

    std::string calibDir(Common::Direction direction)
    {
        return paths::resolve(direction == Common::FRONT ? paths::kFrontCalibDir : paths::kDownCalibDir);
    }
};

// The reader's view of a message's image area: what it must rotate.
cv::Mat sensorView(std::vector<unsigned char>& bytes, size_t offset, int width, int height)
{
    return cv::Mat(height, width, CV_8UC1, &bytes[offset]);
}

// Given a marker pixel in each sensor image, when the frame is read, then it
// lands where a clockwise (front) or counter-clockwise (down) turn puts it,
// in an image of (configured height) x (configured width); every other pixel
// moves as cv::rotate moves it, also for sizes that are not a multiple of the
// reader's 16-pixel blocks.
TEST_F(ImageReaderTest, RotatesByDirectionIntoTheUsedSize)
{
    for (cv::Size configured : {cv::Size(kWidth, kHeight), cv::Size(37, 23)}) {
        for (Common::Direction direction : {Common::FRONT, Common::DOWN}) {
            SCOPED_TRACE(Common::binoString(direction) + " " + std::to_string(configured.width));
            const int w = configured.width;
            const int h = configured.height;
            start(direction, w, h);
            cv::Mat left(configured, CV_8UC1);
            cv::Mat right(configured, CV_8UC1);
            cv::randu(left, 100, 230);
            cv::randu(right, 100, 230);
            left.at<uint8_t>(3, 10) = 255;   // row 3, column 10
            right.at<uint8_t>(5, 20) = 254;  // row 5, column 20
            std::vector<unsigned char> bytes = message(left, right, 0x9f9e9d9c9b9a9998ull, 7, w, h);
            cv::Mat expectedLeft;
            cv::Mat expectedRight;
            const auto turn = direction == Common::FRONT ? cv::ROTATE_90_CLOCKWISE : cv::ROTATE_90_COUNTERCLOCKWISE;
            cv::rotate(sensorView(bytes, 12, w, h), expectedLeft, turn);
            cv::rotate(sensorView(bytes, 522252, w, h), expectedRight, turn);
            deliver(bytes);

            ImageReader::QueueData frame = take();
            EXPECT_EQ(reader->getUsedSize(), cv::Size(h, w));
            ASSERT_EQ(frame.left.size(), cv::Size(h, w));
            ASSERT_EQ(frame.right.size(), cv::Size(h, w));
            const cv::Point leftMarker =
                direction == Common::FRONT ? cv::Point(h - 1 - 3, 10) : cv::Point(3, w - 1 - 10);
            const cv::Point rightMarker =
                direction == Common::FRONT ? cv::Point(h - 1 - 5, 20) : cv::Point(5, w - 1 - 20);
            EXPECT_EQ(frame.left.at<uint8_t>(leftMarker), 240);
            EXPECT_EQ(frame.right.at<uint8_t>(rightMarker), 240);
            EXPECT_EQ(cv::countNonZero(frame.left != cv::min(expectedLeft, 240)), 0);
            EXPECT_EQ(cv::countNonZero(frame.right != cv::min(expectedRight, 240)), 0);
        }
    }
}

// Timestamps pass through; values above 240 leave as 240; rectification is
// applied only while enabled, with each camera's own maps on the rotated image.
TEST_F(ImageReaderTest, PassesTimestampsClipsAndRemapsOnRequest)
{
    const std::string dir = calibDir(Common::FRONT);
    std::filesystem::create_directories(dir);
    const cv::Mat camera = (cv::Mat_<double>(3, 3) << 300, 0, 240, 0, 300, 320, 0, 0, 1);
    const cv::Mat leftDistortion = (cv::Mat_<double>(1, 5) << -0.2, 0.05, 0, 0, 0);
    const cv::Mat rightDistortion = (cv::Mat_<double>(1, 5) << 0.1, 0, 0, 0, 0);
    writeYaml(dir + "intrinsicsBino.yml",
              {{"M1", camera}, {"D1", leftDistortion}, {"M2", camera}, {"D2", rightDistortion}});
    const cv::Mat translation = (cv::Mat_<double>(3, 1) << -100, 0, 0);
    writeYaml(dir + "extrinsicsBino.yml", {{"R", cv::Mat::eye(3, 3, CV_64F)}, {"T", translation}});
    std::ofstream(dir + "leftLut.dat");
    std::ofstream(dir + "rightLut.dat");
    start();

    scene::Rig rig;
    cv::Mat uprightLeft;
    cv::Mat uprightRight;
    scene::renderPair(rig, scene::SceneLayout(), uprightLeft, uprightRight);
    cv::Mat left;
    cv::Mat right;
    cv::rotate(uprightLeft, left, cv::ROTATE_90_COUNTERCLOCKWISE);
    cv::rotate(uprightRight, right, cv::ROTATE_90_COUNTERCLOCKWISE);
    left.at<uint8_t>(100, 100) = 250;
    left.at<uint8_t>(100, 101) = 241;
    left.at<uint8_t>(100, 102) = 240;
    left.at<uint8_t>(100, 103) = 239;
    const uint64_t leftStamp = 0x0000123456789abcull;
    const uint64_t rightStamp = 0x0000123456789abdull;
    const std::vector<unsigned char> bytes = message(left, right, leftStamp, rightStamp);

    // What the reader must see: the images with the stamps over their first bytes.
    cv::Mat sensorLeft(kHeight, kWidth, CV_8UC1, const_cast<unsigned char*>(&bytes[12]));
    cv::Mat sensorRight(kHeight, kWidth, CV_8UC1, const_cast<unsigned char*>(&bytes[522252]));
    cv::Mat rotatedLeft;
    cv::Mat rotatedRight;
    cv::rotate(sensorLeft, rotatedLeft, cv::ROTATE_90_CLOCKWISE);
    cv::rotate(sensorRight, rotatedRight, cv::ROTATE_90_CLOCKWISE);

    deliver(bytes);
    ImageReader::QueueData plain = take();
    EXPECT_EQ(plain.leftTimestamp, leftStamp);
    EXPECT_EQ(plain.rightTimestamp, rightStamp);
    // Sensor (row 100, column 100 + i) is rotated (row 100 + i, column 379).
    EXPECT_EQ(plain.left.at<uint8_t>(100, 379), 240);
    EXPECT_EQ(plain.left.at<uint8_t>(101, 379), 240);
    EXPECT_EQ(plain.left.at<uint8_t>(102, 379), 240);
    EXPECT_EQ(plain.left.at<uint8_t>(103, 379), 239);
    cv::Mat clippedLeft = cv::min(rotatedLeft, 240);
    EXPECT_EQ(cv::countNonZero(plain.left != clippedLeft), 0);
    EXPECT_EQ(cv::countNonZero(plain.right != cv::min(rotatedRight, 240)), 0);

    reader->enableRemap(true);
    deliver(bytes);
    ImageReader::QueueData rectified = take();
    cv::Mat R1, R2, P1, P2, Q, map1, map2, expectedLeft, expectedRight;
    cv::stereoRectify(camera, leftDistortion, camera, rightDistortion, cv::Size(kHeight, kWidth),
                      cv::Mat::eye(3, 3, CV_64F), translation, R1, R2, P1, P2, Q, cv::CALIB_ZERO_DISPARITY, 0);
    cv::initUndistortRectifyMap(camera, leftDistortion, R1, P1, cv::Size(kHeight, kWidth), CV_16SC2, map1, map2);
    cv::remap(rotatedLeft, expectedLeft, map1, map2, cv::INTER_LINEAR);
    cv::initUndistortRectifyMap(camera, rightDistortion, R2, P2, cv::Size(kHeight, kWidth), CV_16SC2, map1, map2);
    cv::remap(rotatedRight, expectedRight, map1, map2, cv::INTER_LINEAR);
    EXPECT_EQ(cv::countNonZero(rectified.left != cv::min(expectedLeft, 240)), 0);
    EXPECT_EQ(cv::countNonZero(rectified.right != cv::min(expectedRight, 240)), 0);
    EXPECT_GT(cv::countNonZero(rectified.left != plain.left), rectified.left.total() / 2);

    reader->enableRemap(false);
    deliver(bytes);
    EXPECT_EQ(cv::countNonZero(take().left != plain.left), 0);
}

// Given frames with a left mean of exactly 55.0, when seven arrive, then six
// are queued and the seventh is not, and the status reports low light until
// the first brighter frame.
TEST_F(ImageReaderTest, LowLightAfterSixDarkFramesUntilABrightOne)
{
    start();
    const auto dark = [] { return message(flat(55), flat(55), stampOfBytes(55), stampOfBytes(55)); };
    for (int frame = 1; frame <= 6; ++frame) {
        SCOPED_TRACE(frame);
        deliver(dark());
        EXPECT_EQ(queued(), 1);
        take();
        EXPECT_EQ(reader->getBinoStatus().first, 0);
    }
    deliver(dark());
    EXPECT_EQ(queued(), 0);
    EXPECT_EQ(reader->getBinoStatus().first, 2);
    deliver(dark());
    EXPECT_EQ(queued(), 0);

    // 100 pixels of 56: mean 55.0003, bright.
    cv::Mat barelyBright = flat(55);
    barelyBright(cv::Rect(0, 200, 100, 1)) = 56;
    deliver(message(barelyBright, flat(55), stampOfBytes(55), stampOfBytes(55)));
    EXPECT_EQ(queued(), 1);
    EXPECT_EQ(reader->getBinoStatus().first, 0);
}

// Given no producer, the status turns to "no frames" on the 100th empty poll
// and not before; the next message clears it; "no frames" outranks low light.
TEST_F(ImageReaderTest, NoImageAfterHundredEmptyPollsAndItOutranksLowLight)
{
    start();
    for (;;) {
        const uint64_t before = reader->pollCount();
        const int hardware = reader->getBinoStatus().first;
        const uint64_t after = reader->pollCount();
        if (after < 99) {
            ASSERT_EQ(hardware, 0) << "after " << after << " polls";
        }
        if (before >= 100) {
            ASSERT_EQ(hardware, 1) << "after " << before << " polls";
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(queued(), 0);

    for (int frame = 1; frame <= 7; ++frame) {
        deliver(message(flat(20), flat(20), stampOfBytes(20), stampOfBytes(20)));
        if (frame <= 6) {
            take();
        }
    }
    EXPECT_EQ(reader->getBinoStatus().first, 2);
    const uint64_t lastMessage = reader->pollCount();
    ASSERT_TRUE(waitFor([&] { return reader->pollCount() >= lastMessage + 101; }));
    EXPECT_EQ(reader->getBinoStatus().first, 1);
    deliver(message(flat(20), flat(20), stampOfBytes(20), stampOfBytes(20)));
    EXPECT_EQ(reader->getBinoStatus().first, 2);
}

// Given two frames waiting, a third is dropped without a post; the queue
// hands out the two oldest in order, as copies the poller no longer touches.
TEST_F(ImageReaderTest, KeepsTheTwoOldestFramesAndDropsTheNewest)
{
    start();
    for (int frame = 1; frame <= 3; ++frame) {
        deliver(message(flat(100 + frame), flat(110 + frame), frame, 10 + frame));
    }
    EXPECT_EQ(queued(), 2);
    EXPECT_EQ(reader->frames.size(), 2u);
    ImageReader::QueueData first = take();
    ImageReader::QueueData second = take();
    EXPECT_EQ(queued(), 0);
    EXPECT_EQ(first.leftTimestamp, 1u);
    EXPECT_EQ(first.rightTimestamp, 11u);
    EXPECT_EQ(second.leftTimestamp, 2u);
    EXPECT_EQ(second.rightTimestamp, 12u);

    for (int frame = 4; frame <= 6; ++frame) {
        deliver(message(flat(100 + frame), flat(110 + frame), frame, 10 + frame));
    }
    EXPECT_EQ(take().leftTimestamp, 4u);
    EXPECT_EQ(take().leftTimestamp, 5u);
    // Pixels away from the stamp bytes still hold the first frame's values.
    EXPECT_EQ(first.left.at<uint8_t>(kWidth / 2, kHeight / 2), 101);
    EXPECT_EQ(first.right.at<uint8_t>(kWidth / 2, kHeight / 2), 111);
}

// A consumer thread taking frames while the producer keeps the ring busy:
// every frame arrives whole (its pixels match its stamp) and in order. Run
// under ThreadSanitizer this is the reader's race check.
TEST_F(ImageReaderTest, ConcurrentConsumerSeesWholeFramesInOrder)
{
    start();
    constexpr int kFrames = 40;
    std::vector<ImageReader::QueueData> received;
    std::atomic<bool> done{false};
    std::thread consumer([&] {
        while (!done.load()) {
            if (reader->frameReady->value() == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
                continue;
            }
            ImageReader::QueueData frame;
            reader->getImageBlock(frame.left, frame.right, frame.leftTimestamp, frame.rightTimestamp);
            received.push_back(frame);
        }
    });
    for (int frame = 1; frame <= kFrames; ++frame) {
        std::vector<unsigned char> bytes = message(flat(60 + frame), flat(120 + frame), frame, frame);
        ASSERT_TRUE(waitFor([&] { return reader->queue->SendMessage(bytes.data(), bytes.size()) == 0; }));
    }
    ASSERT_TRUE(waitFor([&] { return reader->queue->GetDataSize() == 0; }));
    const uint64_t seen = reader->pollCount();
    ASSERT_TRUE(waitFor([&] { return reader->pollCount() > seen && reader->frameReady->value() == 0; }));
    done = true;
    consumer.join();

    ASSERT_FALSE(received.empty());
    uint64_t previous = 0;
    for (const ImageReader::QueueData& frame : received) {
        EXPECT_GT(frame.leftTimestamp, previous);
        previous = frame.leftTimestamp;
        EXPECT_EQ(cv::countNonZero(frame.left(cv::Rect(0, 8, kHeight, kWidth - 8)) != 60 + int(previous)), 0);
        EXPECT_EQ(cv::countNonZero(frame.right(cv::Rect(0, 8, kHeight, kWidth - 8)) != 120 + int(previous)), 0);
    }
}

// Given a message whose width or height differs from the configuration, the
// size message is logged, the previous timestamps are kept and the frame is
// still read from the new bytes through the previous views.
TEST_F(ImageReaderTest, WrongSizeMessageKeepsPreviousViewsAndTimestamps)
{
    start();
    deliver(message(flat(100), flat(100), 11, 12));
    take();
    deliver(message(flat(150), flat(160), 21, 22, kWidth / 2, kHeight));

    ASSERT_EQ(log.count("[BINOLIB] [front] shm size do not match bino size!"), 1u);
    for (const binolog::Record& record : log.records()) {
        if (record.message.find("shm size") != std::string::npos) {
            EXPECT_EQ(record.level, binolog::ERROR);
            EXPECT_EQ(record.file, "src/imagereader.cpp");
        }
    }
    ImageReader::QueueData frame = take();
    EXPECT_EQ(frame.leftTimestamp, 11u);
    EXPECT_EQ(frame.rightTimestamp, 12u);
    EXPECT_EQ(frame.left.at<uint8_t>(kWidth / 2, kHeight / 2), 150);
    EXPECT_EQ(frame.right.at<uint8_t>(kWidth / 2, kHeight / 2), 160);
}

// Malformed messages never read beyond what arrived, never queue images made
// of stale bytes, and leave the reader working for the next good frame.
TEST_F(ImageReaderTest, MalformedMessagesAreRejectedWithoutReadingStaleBytes)
{
    start();
    deliver(message(flat(100), flat(100), 1, 1));
    take();
    const size_t complete = 522252 + kWidth * kHeight;

    // Shorter than the header: the previous message's header is still in the buffer.
    deliver(message(flat(100), flat(100), 2, 2, kWidth, kHeight, 5));
    // Header right, right image cut short by one byte.
    deliver(message(flat(100), flat(100), 3, 3, kWidth, kHeight, complete - 1));
    // Zero sizes in the header.
    deliver(message(flat(100), flat(100), 4, 4, 0, 0, 100));
    EXPECT_EQ(queued(), 0);
    EXPECT_EQ(log.count("shm size do not match bino size!"), 3u);
    EXPECT_EQ(reader->getBinoStatus().first, 0);

    // Exactly long enough; then the largest payload the ring can carry.
    deliver(message(flat(120), flat(121), 5, 5, kWidth, kHeight, complete));
    EXPECT_EQ(take().leftTimestamp, 5u);
    const size_t largest = reader->queue->GetFreeSize() - 8;
    EXPECT_GT(largest, size_t{1045312});
    deliver(message(flat(130), flat(131), 6, 7, kWidth, kHeight, largest));
    ImageReader::QueueData frame = take();
    EXPECT_EQ(frame.leftTimestamp, 6u);
    EXPECT_EQ(frame.rightTimestamp, 7u);
    EXPECT_EQ(frame.right.at<uint8_t>(kWidth - 1, 0), 131);
}

// A configured size that is zero or larger than a message's image area can
// never match, even when the header claims it.
TEST_F(ImageReaderTest, ImpossibleConfiguredSizesNeverQueue)
{
    for (cv::Size configured : {cv::Size(0, 0), cv::Size(1000, 1000), cv::Size(-1, 480)}) {
        SCOPED_TRACE(configured);
        log.clear();
        start(Common::FRONT, configured.width, configured.height);
        deliver(message(flat(100, 8, 8), flat(100, 8, 8), 1, 1, static_cast<uint32_t>(configured.width),
                        static_cast<uint32_t>(configured.height)));
        EXPECT_EQ(queued(), 0);
        EXPECT_EQ(log.count("shm size do not match bino size!"), 1u);
    }
}

TEST_F(ImageReaderTest, SocketSourceStartsNoQueue)
{
    reader = std::make_unique<ImageReader>(Common::FRONT, ImageReader::SOCKET, kWidth, kHeight);
    EXPECT_EQ(reader->queue, nullptr);
    EXPECT_EQ(shmget(ImageReader::kFrontShmKey, 0, 0), -1);
    EXPECT_EQ(reader->getBinoStatus(), std::make_pair(0, 1));
    EXPECT_TRUE(log.contains("[BINOLIB] [front] ImageReader: source: 1, width: 640, height: 480"));
}

// Calibration: presence decides calibOk; incomplete or unparsable files leave
// the integer identity; the simulator's rig reprojects disparity d to f*B/d.
class CalibrationTest : public ImageReaderTest {
protected:
    void writeRig(Common::Direction direction, double focalPx)
    {
        scene::Rig rig;
        rig.focalPx = focalPx;
        std::string error;
        ASSERT_TRUE(camsim::writeRigCalibration(calibDir(direction), rig, error)) << error;
    }

    std::unique_ptr<ImageReader> load(Common::Direction direction)
    {
        return std::make_unique<ImageReader>(direction, kNoSource, kWidth, kHeight);
    }

    static void expectIntegerIdentity(const cv::Mat& q)
    {
        ASSERT_EQ(q.type(), CV_32S);
        EXPECT_EQ(cv::countNonZero(q != cv::Mat::eye(4, 4, CV_32S)), 0);
    }

    // Depth (unit of T) that Q gives a pixel of disparity d.
    static double depthOf(const cv::Mat& q, double d)
    {
        cv::Mat point = q * (cv::Mat_<double>(4, 1) << 100, 200, d, 1);
        return point.at<double>(2) / point.at<double>(3);
    }
};

TEST_F(CalibrationTest, MissingRightTableMeansNotCalibratedAndNothingLoaded)
{
    writeRig(Common::FRONT, 400);
    std::filesystem::remove(calibDir(Common::FRONT) + "rightLut.dat");
    auto loaded = load(Common::FRONT);
    EXPECT_FALSE(loaded->calibOk);
    EXPECT_EQ(loaded->getBinoStatus().second, 1);
    expectIntegerIdentity(loaded->getQ());
    EXPECT_TRUE(loaded->leftMap1.empty());
}

TEST_F(CalibrationTest, IncompleteOrBrokenFilesKeepTheIdentity)
{
    writeRig(Common::FRONT, 400);
    const std::string intrinsics = calibDir(Common::FRONT) + "intrinsicsBino.yml";
    const cv::Mat camera = (cv::Mat_<double>(3, 3) << 400, 0, 239.5, 0, 400, 319.5, 0, 0, 1);
    writeYaml(intrinsics, {{"M1", camera}, {"D1", cv::Mat::zeros(1, 5, CV_64F)}, {"M2", camera}});
    auto noD2 = load(Common::FRONT);
    EXPECT_TRUE(log.contains("[BINOLIB] [front] Intrinsics file is empty!"));
    EXPECT_TRUE(noD2->calibOk);
    EXPECT_EQ(noD2->getBinoStatus().second, 0);
    expectIntegerIdentity(noD2->getQ());

    // Not YAML at all, then matrices of the wrong shape: OpenCV throws inside.
    std::ofstream(intrinsics) << "M1: [unbalanced\n\t: :\n";
    expectIntegerIdentity(load(Common::FRONT)->getQ());
    writeYaml(intrinsics, {{"M1", cv::Mat::eye(2, 2, CV_64F)},
                           {"D1", cv::Mat::zeros(1, 5, CV_64F)},
                           {"M2", camera},
                           {"D2", cv::Mat::zeros(1, 5, CV_64F)}});
    auto misshapen = load(Common::FRONT);
    EXPECT_EQ(misshapen->loadCalibParams(), -1);
    expectIntegerIdentity(misshapen->getQ());
    EXPECT_TRUE(misshapen->leftMap1.empty());
}

TEST_F(CalibrationTest, SimulatorRigReprojectsDisparityToFocalTimesBaselineOverD)
{
    writeRig(Common::FRONT, 400);
    auto loaded = load(Common::FRONT);
    ASSERT_TRUE(loaded->calibOk);
    const cv::Mat q = loaded->getQ();
    ASSERT_EQ(q.type(), CV_64F);
    for (double d : {1.0, 8.0, 37.5}) {
        SCOPED_TRACE(d);
        EXPECT_NEAR(depthOf(q, d), 400.0 * 100.0 / d, 400.0 * 100.0 / d * 1e-9);  // mm
    }
    EXPECT_EQ(loaded->leftMap1.size(), cv::Size(kHeight, kWidth));
    EXPECT_EQ(loaded->leftMap1.type(), CV_16SC2);
}

TEST_F(CalibrationTest, DownCameraReadsOnlyItsOwnFolder)
{
    writeRig(Common::FRONT, 400);
    EXPECT_FALSE(load(Common::DOWN)->calibOk);
    writeRig(Common::DOWN, 300);
    auto down = load(Common::DOWN);
    ASSERT_TRUE(down->calibOk);
    EXPECT_NEAR(depthOf(down->getQ(), 10.0), 300.0 * 100.0 / 10.0, 1e-6);
}

}  // namespace
