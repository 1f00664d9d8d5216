#include "streamview.h"

#include <cstdio>
#include <cstring>
#include <filesystem>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "littleendian.h"

namespace {

// The distance occupies the first four bytes: all of pixel 0 and the first
// channel of pixel 1 of the disparity image.
constexpr int kDistancePixels = 2;

bool isAreaMark(const cv::Vec3b& pixel) { return pixel[0] == 255 && pixel[1] == 0 && pixel[2] == 0; }

}  // namespace

StreamView::StreamView(cv::Size imageSize)
    : left(imageSize, CV_8UC1, cv::Scalar(0)),
      right(imageSize, CV_8UC1, cv::Scalar(0)),
      disparity(imageSize, CV_8UC3, cv::Scalar::all(0)),
      m_size(imageSize)
{
}

StreamView::Taken StreamView::take(const PacketParser::Packet& packet)
{
    const size_t area = static_cast<size_t>(m_size.area());
    const unsigned char* payload = packet.payload.data();
    switch (packet.type) {
        case STEREO_PAIR:
            if (packet.payload.size() != 2 * area) {
                return Taken::WrongSize;
            }
            std::memcpy(left.data, payload, area);
            std::memcpy(right.data, payload + area, area);
            m_pairPending = true;
            return Taken::Pair;
        case DISPARITY_COLOR: {
            if (packet.payload.size() != 3 * area || area < kDistancePixels) {
                return Taken::WrongSize;
            }
            std::memcpy(disparity.data, payload, 3 * area);
            const uint32_t bits = le::load32(payload);
            std::memcpy(&distanceM, &bits, sizeof distanceM);
            if (!m_pairPending) {
                return Taken::Disparity;
            }
            m_pairPending = false;
            ++frames;
            return Taken::Frame;
        }
        default:
            return Taken::Ignored;
    }
}

cv::Mat StreamView::render() const
{
    cv::Mat grey;
    cv::extractChannel(disparity, grey, 1);  // the area mark leaves channel 1 at 0
    grey.ptr<unsigned char>(0)[0] = 0;       // channel 1 of pixel 0 is a distance byte
    cv::Mat coloured;
    cv::applyColorMap(grey, coloured, cv::COLORMAP_JET);
    for (int y = 0; y < disparity.rows; ++y) {
        for (int x = y == 0 ? kDistancePixels : 0; x < disparity.cols; ++x) {
            if (isAreaMark(disparity.at<cv::Vec3b>(y, x))) {
                coloured.at<cv::Vec3b>(y, x) = cv::Vec3b(255, 255, 255);
            }
        }
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.2f m", static_cast<double>(distanceM));
    const cv::Point origin(4, 20);
    cv::putText(coloured, text, origin, cv::FONT_HERSHEY_SIMPLEX, 0.6, cv::Scalar::all(0), 3);
    cv::putText(coloured, text, origin, cv::FONT_HERSHEY_SIMPLEX, 0.6, cv::Scalar::all(255), 1);

    cv::Mat panels[3];
    cv::cvtColor(left, panels[0], cv::COLOR_GRAY2BGR);
    cv::cvtColor(right, panels[1], cv::COLOR_GRAY2BGR);
    panels[2] = coloured;
    cv::Mat view;
    cv::hconcat(panels, 3, view);
    return view;
}

bool StreamView::writeSnapshot(const std::string& directory, std::string& error) const
{
    std::error_code failure;
    std::filesystem::create_directories(directory, failure);
    char number[16];
    std::snprintf(number, sizeof number, "%06llu", static_cast<unsigned long long>(frames));
    const std::string stem = (std::filesystem::path(directory) / ("frame" + std::string(number))).string();
    const std::pair<const char*, cv::Mat> files[] = {
        {"-left.png", left}, {"-right.png", right}, {"-disparity.png", disparity}, {"-view.png", render()}};
    for (const auto& [suffix, image] : files) {
        const std::string path = stem + suffix;
        bool written = false;
        try {
            written = cv::imwrite(path, image);
        } catch (const cv::Exception& exception) {
            error = path + ": " + exception.what();
            return false;
        }
        if (!written) {
            error = "cannot write " + path;
            return false;
        }
    }
    return true;
}
