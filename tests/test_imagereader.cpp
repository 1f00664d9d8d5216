// The frame reader on the real fixed-key queue, fed messages built here from the byte layout.

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "framelayout.h"
#include "imagereader.h"
#include "littleendian.h"
#include "rigcalibration.h"
#include "test_support.h"

namespace {

constexpr int kWidth = 640, kHeight = 480;

// A frame message cut to `length` bytes: header size at 4 and 8, the images at
// 12 and 522252, each timestamp little-endian over its image's first 8 bytes.
std::vector<unsigned char> message(const cv::Mat& left, const cv::Mat& right, uint64_t leftStamp, uint64_t rightStamp,
                                   uint32_t headerWidth = kWidth, uint32_t headerHeight = kHeight,
                                   size_t length = framelayout::kMessageBytes)
{
    std::vector<unsigned char> bytes(std::max(length, framelayout::kMessageBytes), 0);
    le::store(&bytes[4], headerWidth, 4);
    le::store(&bytes[8], headerHeight, 4);
    std::memcpy(&bytes[12], left.data, left.total());
    std::memcpy(&bytes[522252], right.data, right.total());
    le::store(&bytes[12], leftStamp, 8);
    le::store(&bytes[522252], rightStamp, 8);
    bytes.resize(length);
    return bytes;
}

cv::Mat flat(int value) { return cv::Mat(kHeight, kWidth, CV_8UC1, cv::Scalar(value)); }

cv::Mat noise(cv::Size size)
{
    cv::Mat image(size, CV_8UC1);
    return cv::randu(image, 0, 256), image;
}

// The sensor image at `offset` of a message, turned the way the reader must turn it.
cv::Mat turned(std::vector<unsigned char>& bytes, size_t offset, cv::Size size, cv::RotateFlags turn)
{
    cv::Mat upright;
    cv::rotate(cv::Mat(size, CV_8UC1, &bytes[offset]), upright, turn);
    return upright;
}

void writeRig(Common::Direction direction, double focalPx)
{
    scene::Rig rig;
    rig.focalPx = focalPx;
    std::string error;
    ASSERT_TRUE(camsim::writeRigCalibration(camsim::calibrationDirectory(direction), rig, error)) << error;
}

class ImageReaderTest : public ::testing::Test {
protected:
    testsupport::ScratchRoot root;
    testsupport::SysvGuard guard{framelayout::kFrontQueueKey, framelayout::kDownQueueKey};
    testsupport::LogCapture log;  // keeps the reader's log lines off the console
    std::unique_ptr<ImageReader> reader;

    void start(Common::Direction direction = Common::FRONT, int width = kWidth, int height = kHeight)
    {
        reader.reset();
        reader = std::make_unique<ImageReader>(direction, ImageReader::SHM, width, height);
    }

    // Sends one message and returns once the poll that took it has ended.
    void deliver(std::vector<unsigned char> bytes)
    {
        ASSERT_EQ(reader->queue->SendMessage(bytes.data(), bytes.size()), 0);
        ASSERT_TRUE(testsupport::waitUntil([&] { return reader->queue->GetDataSize() == 0; }));
        const uint64_t seen = reader->pollCount();
        ASSERT_TRUE(testsupport::waitUntil([&] { return reader->pollCount() > seen; }));
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
};

// Each camera's frame is turned (front clockwise, down counter-clockwise) into
// (height, width), clipped to 240, also off the 16-pixel blocks; stamps pass.
TEST_F(ImageReaderTest, RotatesByDirectionIntoTheUsedSize)
{
    for (cv::Size size : {cv::Size(kWidth, kHeight), cv::Size(37, 23)}) {
        for (Common::Direction direction : {Common::FRONT, Common::DOWN}) {
            SCOPED_TRACE(Common::binoString(direction) + " " + std::to_string(size.width));
            start(direction, size.width, size.height);
            std::vector<unsigned char> bytes = message(noise(size), noise(size), 0x0000123456789abcull,
                                                       0x9f9e9d9c9b9a9998ull, size.width, size.height);
            deliver(bytes);
            ImageReader::QueueData frame = take();
            EXPECT_EQ(std::pair(frame.leftTimestamp, frame.rightTimestamp),
                      std::pair(0x0000123456789abcull, 0x9f9e9d9c9b9a9998ull));
            EXPECT_EQ(reader->getUsedSize(), cv::Size(size.height, size.width));
            const auto turn = direction == Common::FRONT ? cv::ROTATE_90_CLOCKWISE : cv::ROTATE_90_COUNTERCLOCKWISE;
            EXPECT_EQ(cv::countNonZero(frame.left != cv::min(turned(bytes, 12, size, turn), 240)), 0);
            EXPECT_EQ(cv::countNonZero(frame.right != cv::min(turned(bytes, 522252, size, turn), 240)), 0);
        }
    }
}

// Rectification, with each camera's own maps on the turned image, applies
// before the clip and only while enabled; one remap of the raw image, in
// pieces of rows, gives the turned-then-rectified image to the byte.
TEST_F(ImageReaderTest, RemapsOnlyWhileEnabled)
{
    const cv::Mat camera = (cv::Mat_<double>(3, 3) << 300, 0, 240, 0, 300, 320, 0, 0, 1);
    const cv::Mat distortion[] = {(cv::Mat_<double>(1, 5) << -0.2, 0.05, 0, 0, 0),
                                  (cv::Mat_<double>(1, 5) << 0.1, 0, 0, 0, 0)};
    for (Common::Direction direction : {Common::FRONT, Common::DOWN}) {
        SCOPED_TRACE(Common::binoString(direction));
        const auto turn = direction == Common::FRONT ? cv::ROTATE_90_CLOCKWISE : cv::ROTATE_90_COUNTERCLOCKWISE;
        writeRig(direction, 300);  // R identity, T (-100, 0, 0) mm
        cv::FileStorage yaml(camsim::calibrationDirectory(direction) + "intrinsicsBino.yml", cv::FileStorage::WRITE);
        yaml << "M1" << camera << "D1" << distortion[0] << "M2" << camera << "D2" << distortion[1];
        yaml.release();
        start(direction);
        const cv::Size sensor(kWidth, kHeight);
        std::vector<unsigned char> bytes = message(noise(sensor), noise(sensor), 1, 2);
        deliver(bytes);
        EXPECT_EQ(cv::countNonZero(take().left != cv::min(turned(bytes, 12, sensor, turn), 240)), 0);
        reader->enableRemap(true);
        deliver(bytes);
        ASSERT_GT(queued(), 0);
        // Made ready in five pieces: the region a matcher reads first, then
        // what surrounds it.
        ImageReader::QueueData rectified = reader->getFrameBlock();
        const cv::Rect band(80, 40, 320, 280);
        rectified.rectifyRegion(band);
        const cv::Mat first = rectified.left(band).clone();
        rectified.complete();
        EXPECT_EQ(cv::countNonZero(first != rectified.left(band)), 0);
        cv::Mat R[2], P[2], Q;
        const cv::Size used(kHeight, kWidth);
        cv::stereoRectify(camera, distortion[0], camera, distortion[1], used, cv::Mat::eye(3, 3, CV_64F),
                          cv::Vec3d(-100, 0, 0), R[0], R[1], P[0], P[1], Q, cv::CALIB_ZERO_DISPARITY, 0);
        for (int i : {0, 1}) {
            cv::Mat map1, map2, expected;
            cv::initUndistortRectifyMap(camera, distortion[i], R[i], P[i], used, CV_16SC2, map1, map2);
            cv::remap(turned(bytes, i == 0 ? 12 : 522252, sensor, turn), expected, map1, map2, cv::INTER_LINEAR);
            EXPECT_EQ(cv::countNonZero((i == 0 ? rectified.left : rectified.right) != cv::min(expected, 240)), 0) << i;
        }
    }
}

// No frames (1) once 100 polls found nothing; low light (2) from the 7th frame
// of left mean 55.0 until a brighter one, and such frames are not queued. Given
// two frames waiting, a third is read but dropped without a post; the two
// oldest come out in order, as copies the poller leaves alone. A message one
// byte short of its right image is never queued (no stale bytes); a whole one is.
TEST_F(ImageReaderTest, StatusKeepsTwoOldestFramesAndRefusesShortMessages)
{
    start();
    ASSERT_TRUE(testsupport::waitUntil([&] { return reader->pollCount() >= 100; }));
    EXPECT_EQ(reader->getBinoStatus().first, ImageReader::NO_FRAMES);
    for (int frame = 1; frame <= 7; ++frame) {  // stamps of bytes 55 keep the images flat
        deliver(message(flat(55), flat(55), 0x3737373737373737ull, 0x3737373737373737ull));
        EXPECT_EQ(queued(), frame < 7 ? 1 : 0) << frame;
        EXPECT_EQ(reader->getBinoStatus().first, frame < 7 ? ImageReader::FRAMES_ARRIVING : ImageReader::LOW_LIGHT);
        if (frame < 7) {
            take();
        }
    }
    for (int frame : {1, 2, 3}) {  // the first brighter frame ends low light
        deliver(message(flat(55 + frame), flat(110 + frame), frame, 10 + frame));
    }
    EXPECT_EQ(std::make_pair(queued(), reader->getBinoStatus().first),
              std::make_pair(2, int{ImageReader::FRAMES_ARRIVING}));
    for (const auto& [stamp, left, right] : {std::tuple(1ull, 56, 111), std::tuple(2ull, 57, 112)}) {
        ImageReader::QueueData frame = take();
        EXPECT_EQ(std::tuple(frame.leftTimestamp, frame.rightTimestamp, frame.left.at<uint8_t>(320, 240),
                             frame.right.at<uint8_t>(320, 240)),
                  std::tuple(stamp, stamp + 10, left, right));
    }
    deliver(message(flat(100), flat(100), 3, 3, kWidth, kHeight, 522252 + kWidth * kHeight - 1));
    EXPECT_EQ(queued(), 0);
    deliver(message(flat(130), flat(131), 6, 7, kWidth, kHeight, 522252 + kWidth * kHeight));
    ImageReader::QueueData frame = take();
    EXPECT_EQ(std::tuple(frame.leftTimestamp, frame.rightTimestamp, frame.right.at<uint8_t>(kWidth - 1, 0)),
              std::tuple(6ull, 7ull, 131));
}

// Complete files: each camera reads only its own folder, and Q reprojects a
// disparity d to Z = f * B / d (mm). A missing table: not calibrated, Q the integer identity.
TEST_F(ImageReaderTest, CalibrationFilesDecideQForEachCamera)
{
    writeRig(Common::FRONT, 400);
    writeRig(Common::DOWN, 300);
    for (const auto& [direction, focalPx] : {std::pair(Common::FRONT, 400.0), std::pair(Common::DOWN, 300.0)}) {
        SCOPED_TRACE(Common::binoString(direction));
        ImageReader loaded(direction, ImageReader::NONE, kWidth, kHeight);
        ASSERT_TRUE(loaded.calibOk);
        for (double d : {1.0, 37.5}) {
            cv::Mat point = loaded.getQ() * (cv::Mat_<double>(4, 1) << 100, 200, d, 1);
            EXPECT_NEAR(point.at<double>(2) / point.at<double>(3), focalPx * 100.0 / d, 1e-6) << d;
        }
    }
    std::filesystem::remove(camsim::calibrationDirectory(Common::FRONT) + "rightLut.dat");
    ImageReader loaded(Common::FRONT, ImageReader::NONE, kWidth, kHeight);
    EXPECT_EQ(std::make_pair(loaded.calibOk.load(), loaded.getBinoStatus().second),
              std::make_pair(false, int{ImageReader::CALIB_MISSING}));
    EXPECT_EQ(cv::countNonZero(loaded.getQ() != cv::Mat::eye(4, 4, CV_32S)), 0);
}

}  // namespace
