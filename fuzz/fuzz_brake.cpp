// Brake's distance chain on arbitrary disparity maps: any size up to 700 x 700
// (empty included), CV_16S or CV_32F (every bit pattern, NaN and infinities
// included), map views with a stride, Q of the rig, the uncalibrated identity,
// arbitrary doubles or a wrong shape, and arbitrary flight state. Each input
// runs two frames through Brake and through the straightforward reading of
// the tests (tests/brake_reference); any difference, a front-area point
// outside the map, or a read outside it (AddressSanitizer) is a finding.
//
// Input: 16 bytes of settings (camera, type, Q choice, size, flight state),
// 128 bytes of Q when chosen, then the map's content, tiled over the map.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "brake_maps.h"
#include "brake_reference.h"

namespace {

constexpr int kMaxSide = 700;

class Input {
public:
    Input(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

    template <typename T>
    T take()
    {
        T value{};
        const size_t n = std::min(sizeof value, m_size - m_used);
        std::memcpy(&value, m_data + m_used, n);
        m_used += n;
        return value;
    }

    const uint8_t* rest() const { return m_data + m_used; }
    size_t restSize() const { return m_size - m_used; }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_used = 0;
};

cv::Mat reprojection(Input& in, uint8_t choice, cv::Size size)
{
    switch (choice % 6) {
        case 0:
            return cv::Mat::eye(4, 4, CV_32S);
        case 1: {
            cv::Mat q(4, 4, CV_64F);
            for (int i = 0; i < 16; ++i) {
                q.at<double>(i / 4, i % 4) = in.take<double>();
            }
            return q;
        }
        case 2:
            return cv::Mat::eye(3, 3, CV_64F);
        default:
            return brakemaps::rigQ(size.area() > 0 ? size : cv::Size(2, 2));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input in(data, size);
    const auto flags = in.take<uint8_t>();
    const auto qChoice = in.take<uint8_t>();
    const int rows = in.take<uint16_t>() % (kMaxSide + 1);
    const int columns = in.take<uint16_t>() % (kMaxSide + 1);
    Common::FlyInfo info;
    info.pitch = static_cast<float>(in.take<int16_t>()) / 256.0f;  // within +-128 degrees, 1/256 steps
    info.headSpeed = static_cast<float>(in.take<int8_t>()) / 16.0f;
    info.rightSpeed = static_cast<float>(in.take<int8_t>()) / 16.0f;
    info.verticalSpeed = static_cast<float>(in.take<int8_t>()) / 16.0f;
    info.armOrDisarm = in.take<uint8_t>() % 4;
    const auto secondPitch = in.take<int16_t>();
    const auto padding = in.take<uint8_t>() % 8;  // extra columns: the map becomes a view with a stride

    const auto direction = (flags & 1) != 0 ? Common::DOWN : Common::FRONT;
    const int type = (flags & 2) != 0 ? CV_32F : CV_16S;
    const cv::Size mapSize(columns, rows);
    const cv::Mat Q = reprojection(in, qChoice, mapSize);

    cv::Mat whole(rows, columns + padding, type, cv::Scalar(0));
    const size_t contentSize = in.restSize();
    if (contentSize > 0 && !whole.empty()) {
        const uint8_t* content = in.rest();
        for (int y = 0; y < rows; ++y) {
            uint8_t* row = whole.ptr<uint8_t>(y);
            const size_t rowBytes = whole.cols * whole.elemSize();
            for (size_t i = 0; i < rowBytes; ++i) {
                row[i] = content[(y * rowBytes + i) % contentSize];
            }
        }
    }
    const cv::Mat map = whole(cv::Rect(0, 0, columns, rows));

    brakeref::Twin twin(direction);
    for (int frame = 0; frame < 2; ++frame) {
        if (!twin.frame(info, map, Q).empty()) {
            std::abort();
        }
        for (const cv::Point2f& point : twin.fast.getFrountArea()) {
            if (point.x < 0 || point.y < 0 || point.x >= columns || point.y >= rows) {
                std::abort();
            }
        }
        if (twin.fast.getLogline().size() != 21) {
            std::abort();
        }
        info.pitch = static_cast<float>(secondPitch) / 256.0f;
    }
    return 0;
}
