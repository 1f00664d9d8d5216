#include "framemessage.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "framelayout.h"
#include "littleendian.h"

namespace camsim {
namespace {

void writeImage(const cv::Mat& image, unsigned char* area)
{
    if (image.type() != CV_8UC1 || image.total() > framelayout::kImageAreaBytes) {
        throw std::invalid_argument("frame message images are CV_8UC1 of at most 522240 pixels");
    }
    for (int y = 0; y < image.rows; ++y) {
        std::memcpy(area + static_cast<size_t>(y) * image.cols, image.ptr(y), image.cols);
    }
}

}  // namespace

cv::Mat toSensorOrientation(Common::Direction direction, const cv::Mat& upright)
{
    cv::Mat sensor;
    cv::rotate(upright, sensor, direction == Common::FRONT ? cv::ROTATE_90_COUNTERCLOCKWISE : cv::ROTATE_90_CLOCKWISE);
    return sensor;
}

void encodeFrameMessage(const cv::Mat& sensorLeft, const cv::Mat& sensorRight, uint64_t leftTimestamp,
                        uint64_t rightTimestamp, uint32_t headerWidth, uint32_t headerHeight,
                        std::vector<unsigned char>& message)
{
    message.assign(framelayout::kMessageBytes, 0);
    le::store(message.data() + framelayout::kWidthOffset, headerWidth, 4);
    le::store(message.data() + framelayout::kHeightOffset, headerHeight, 4);
    writeImage(sensorLeft, message.data() + framelayout::kLeftImageOffset);
    writeImage(sensorRight, message.data() + framelayout::kRightImageOffset);
    stampFrameMessage(leftTimestamp, rightTimestamp, message);
}

void stampFrameMessage(uint64_t leftTimestamp, uint64_t rightTimestamp, std::vector<unsigned char>& message)
{
    if (message.size() < framelayout::kMessageBytes) {
        throw std::invalid_argument("frame message too short to stamp");
    }
    le::store(message.data() + framelayout::kLeftImageOffset, leftTimestamp, 8);
    le::store(message.data() + framelayout::kRightImageOffset, rightTimestamp, 8);
}

}  // namespace camsim
