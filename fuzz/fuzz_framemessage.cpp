// Arbitrary frame messages through the reader's message path, as a faulty or
// hostile camera process could send them: any length up to the ring's
// capacity, any header, any pixels. The bytes of the buffer beyond each
// message are poisoned, so reading anything the message did not carry is an
// AddressSanitizer error, and every queued frame must have the rotated size
// and no pixel above 240.
//
// Input: one configuration byte (direction, configured size, remap), then
// messages of 13 bytes each (length choice, header, pixel values) followed by
// up to 32 bytes written over the start of the left image.
//
// The module's log lines go to stderr; run with -close_fd_mask=2 to keep the
// fuzzer's console readable.

#include <sanitizer/asan_interface.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <opencv2/calib3d.hpp>

#include "framelayout.h"
#include "imagereader.h"
#include "littleendian.h"

namespace {

constexpr size_t kRingBytes = 1048576;  // what the reader's queue request rounds up to

// Configured sizes: regular, odd, tiny, empty and impossible ones.
constexpr int kSizes[8][2] = {{640, 480}, {37, 23}, {16, 16}, {1, 1}, {0, 0}, {1000, 1000}, {723, 723}, {8, 1}};

void enableRemap(ImageReader& reader)
{
    const cv::Size used = reader.getUsedSize();
    if (used.width <= 0 || used.height <= 0 || used.area() > static_cast<int>(framelayout::kImageAreaBytes)) {
        return;
    }
    const cv::Mat camera = (cv::Mat_<double>(3, 3) << 300, 0, used.width / 2.0, 0, 300, used.height / 2.0, 0, 0, 1);
    const cv::Mat distortion = (cv::Mat_<double>(1, 5) << -0.1, 0, 0, 0, 0);
    cv::initUndistortRectifyMap(camera, distortion, cv::Mat(), camera, used, CV_16SC2, reader.leftMap1,
                                reader.leftMap2);
    reader.rightMap1 = reader.leftMap1;
    reader.rightMap2 = reader.leftMap2;
    reader.enableRemap(true);
}

void drain(ImageReader& reader)
{
    while (reader.frameReady->value() > 0) {
        ImageReader::QueueData frame;
        reader.getImageBlock(frame.left, frame.right, frame.leftTimestamp, frame.rightTimestamp);
        double highest = 0;
        for (const cv::Mat& image : {frame.left, frame.right}) {
            if (image.size() != reader.getUsedSize() || image.type() != CV_8UC1) {
                std::abort();
            }
            cv::minMaxLoc(image, nullptr, &highest);
            if (highest > 240) {
                std::abort();
            }
        }
    }
    if (reader.frames.size() != 0) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // No calibration files: the reader must not pick up the host's.
    const std::string root = (std::filesystem::temp_directory_path() / "fuzz_framemessage_root").string();
    std::filesystem::create_directories(root);
    setenv("BINOCULAR_ROOT", root.c_str(), 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) {
        return 0;
    }
    const uint8_t config = data[0];
    const auto direction = static_cast<Common::Direction>(config & 1);
    const int width = kSizes[(config >> 1) & 7][0];
    const int height = kSizes[(config >> 1) & 7][1];
    ImageReader reader(direction, ImageReader::NONE, width, height);
    reader.frameBuffer.assign(kRingBytes, 0);
    if (config & 0x10) {
        enableRemap(reader);
    }
    const size_t area = static_cast<size_t>(std::max(width, 0)) * static_cast<size_t>(std::max(height, 0));
    const size_t minimum = framelayout::kRightImageOffset + std::max<size_t>(area, 8);

    size_t at = 1;
    while (at + 13 <= size) {
        const uint8_t* chunk = data + at;
        at += 13;
        // Boundary lengths most of the time, any length otherwise; the
        // largest is what a corrupt ring can deliver (capacity - 9).
        const size_t lengths[] = {framelayout::kMessageBytes, minimum, minimum - 1, kRingBytes - 9};
        size_t length = chunk[0] % 6 < 4 ? lengths[chunk[0] % 6]
                                         : (static_cast<size_t>(le::load32(chunk) >> 8) * 131) % (kRingBytes - 8);
        length = std::min(length, reader.frameBuffer.size());
        unsigned char* buffer = reader.frameBuffer.data();
        // Header: the configured size (a well-formed message) or the input's.
        const bool ownHeader = chunk[1] & 1;
        const size_t headerEnd = std::min<size_t>(length, 12);
        unsigned char header[12] = {};
        le::store32(header + 4, ownHeader ? le::load32(chunk + 3) : static_cast<uint32_t>(width));
        le::store32(header + 8, ownHeader ? le::load32(chunk + 7) : static_cast<uint32_t>(height));
        std::memcpy(buffer, header, headerEnd);
        if (length > framelayout::kLeftImageOffset) {
            std::memset(buffer + framelayout::kLeftImageOffset, chunk[11],
                        std::min(length, framelayout::kRightImageOffset) - framelayout::kLeftImageOffset);
        }
        if (length > framelayout::kRightImageOffset) {
            std::memset(buffer + framelayout::kRightImageOffset, chunk[12], length - framelayout::kRightImageOffset);
        }
        const size_t extra = std::min<size_t>({32, size - at, length > 12 ? length - 12 : 0});
        std::memcpy(buffer + framelayout::kLeftImageOffset, data + at, extra);
        at += extra;

        ASAN_POISON_MEMORY_REGION(buffer + length, reader.frameBuffer.size() - length);
        reader.processMessage(length);
        ASAN_UNPOISON_MEMORY_REGION(buffer + length, reader.frameBuffer.size() - length);

        if (reader.frames.size() > 2 || reader.getBinoStatus().first == ImageReader::NO_FRAMES) {
            std::abort();
        }
        if (chunk[2] & 1) {
            drain(reader);
        }
    }
    drain(reader);
    return 0;
}
