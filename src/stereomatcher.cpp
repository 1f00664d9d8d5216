#include "stereomatcher.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <mutex>
#include <new>

#include "binolog.h"
#include "dpu.h"

std::atomic<bool> StereoMatcher::first{true};

namespace {

// The dump always holds 640 x 480 words, whatever the configured size.
constexpr size_t kDumpWords = 307200;
constexpr const char* kDumpFile = "test.yuv";

constexpr uint16_t kMagnitudeMask = 0x7FFF;  // 1/64 px
// Every word the unit did not produce for this frame is marked invalid.
constexpr uint16_t kInvalidWord = 0xFFFF;

constexpr int kRoiMargin = 80;             // px left and right of the BM band
constexpr float kSteepPitch = 16.333334f;  // beyond this the band moves furthest
constexpr int kBmFractionScale = 16;       // StereoBM's disparity unit is 1/16 px

static_assert(std::numeric_limits<float>::is_iec559, "decoding writes IEEE 754 bit patterns");
constexpr uint32_t kFloatSignBit = 0x80000000u;
constexpr uint32_t kFloatOneBits = 0x3F800000u;  // 1.0f

// The image size of the stereo unit's last successful dpu_init in this
// process, packed as width << 32 | height; 0 before any. Written under
// g_unitInitMutex together with the dpu_init call, so it always names the
// size the unit holds.
std::mutex g_unitInitMutex;
std::atomic<uint64_t> g_unitSize{0};

uint64_t packSize(cv::Size size)
{
    return static_cast<uint64_t>(static_cast<uint32_t>(size.width)) << 32 | static_cast<uint32_t>(size.height);
}

// The pixel count of `size`, or the error new[] raises for an impossible count.
size_t checkedPixelCount(cv::Size size)
{
    const long long pixels = static_cast<long long>(size.width) * size.height;
    if (size.width < 0 || size.height < 0 ||
        static_cast<unsigned long long>(pixels) > std::numeric_limits<size_t>::max() / sizeof(float)) {
        throw std::bad_array_new_length();
    }
    return static_cast<size_t>(pixels);
}

// The unit reads width * height packed bytes from each image.
bool fitsUnit(const cv::Mat& image, cv::Size size)
{
    return image.type() == CV_8UC1 && image.isContinuous() && image.size() == size;
}

// Branch-free, so that the loop below vectorises: a flagged word becomes -1.0,
// or -0.0 when its magnitude is 0 (a negated zero is not below zero).
float decodeWord(uint16_t word)
{
    const uint32_t magnitude = word & kMagnitudeMask;
    const float px = static_cast<float>(magnitude) * 0.015625f;  // exact: 15-bit magnitude, 1/64 px
    uint32_t validBits;
    std::memcpy(&validBits, &px, sizeof validBits);
    const uint32_t flaggedBits = kFloatSignBit | (magnitude != 0 ? kFloatOneBits : 0u);  // -1.0 or -0.0
    const uint32_t flagged = 0u - static_cast<uint32_t>(word >> 15);                     // all ones when bit 15 is set
    const uint32_t bits = (validBits & ~flagged) | (flaggedBits & flagged);
    float decoded;
    std::memcpy(&decoded, &bits, sizeof decoded);
    return decoded;
}

// Fixed-length inner blocks let the compiler vectorise without a runtime
// trip-count check, also at -O2.
void decodeWords(const uint16_t* words, float* px, size_t count)
{
    constexpr size_t kBlock = 64;
    size_t i = 0;
    for (; i + kBlock <= count; i += kBlock) {
        for (size_t j = 0; j < kBlock; ++j) {
            px[i + j] = decodeWord(words[i + j]);
        }
    }
    for (; i < count; ++i) {
        px[i] = decodeWord(words[i]);
    }
}

}  // namespace

StereoMatcher::StereoMatcher(Common::Direction direction_, Matcher matcher_, cv::Size size_)
    : name(Common::logPrefix(direction_)), direction(direction_), matcher(matcher_), size(size_)
{
    BINO_DEBUG("%s StereoMatcher matcher: %d", name.c_str(), static_cast<int>(matcher));
    init();
}

void StereoMatcher::init() { initMatcher(); }

void StereoMatcher::initMatcher()
{
    switch (matcher) {
        case BM:
            initBM();
            break;
        case DPU:
            initDPU();
            break;
        case NPU:
            initNPU();
            break;
    }
}

void StereoMatcher::initBM()
{
    // The block size given to create() is replaced by the setting below.
    bm = cv::StereoBM::create(0, 21);
    bm->setMinDisparity(0);
    bm->setNumDisparities(48);
    bm->setBlockSize(65);
    bm->setSpeckleWindowSize(100);
    bm->setSpeckleRange(32);
    bm->setDisp12MaxDiff(1);
    bm->setPreFilterType(cv::StereoBM::PREFILTER_XSOBEL);
    bm->setPreFilterSize(17);
    bm->setPreFilterCap(63);
    bm->setTextureThreshold(5000);
    bm->setUniquenessRatio(20);
    bm->setSmallerBlockSize(0);
    // One stripe per thread OpenCV runs its parallel work on.
    stripedBm = std::make_unique<StripedBlockMatcher>(bm, cv::getNumThreads());
}

void StereoMatcher::initDPU()
{
    const size_t pixels = checkedPixelCount(size);
    // Value-initialised, so words past the image that the dump reads are 0.
    hwDisparity = std::make_unique<uint16_t[]>(std::max(pixels, kDumpWords));
    disparityBuffer = std::make_unique<float[]>(pixels);
    int status;
    {
        std::lock_guard<std::mutex> lock(g_unitInitMutex);
        status = dpu_init(size.width, size.height);
        if (status == 0) {
            g_unitSize.store(packSize(size), std::memory_order_relaxed);
        }
    }
    if (status != 0) {
        BINO_ERROR("%s dpu_init(%d, %d) failed: %d", name.c_str(), size.width, size.height, status);
    }
}

bool StereoMatcher::unitHasOurSize() const { return g_unitSize.load(std::memory_order_relaxed) == packSize(size); }

void StereoMatcher::initNPU() {}

void StereoMatcher::setPitch(float pitch_) { pitch = pitch_; }

int StereoMatcher::compute(cv::Mat& left, cv::Mat& right, cv::Mat& disparity, ParaType type)
{
    getDisparity(left, right, disparity, type);
    return 0;
}

void StereoMatcher::getDisparity(cv::Mat& left, cv::Mat& right, cv::Mat& disparity, ParaType type)
{
    switch (matcher) {
        case BM:
            getDisparityBM(left, right, disparity, type);
            break;
        case DPU:
            getDisparityDPU(left, right, disparity, type);
            break;
        case NPU:
            getDisparityNPU(left, right, disparity, type);
            break;
    }
}

cv::Rect StereoMatcher::decideROI(float pitch_, int rows, int cols)
{
    cv::Rect roi(kRoiMargin, 0, cols - 2 * kRoiMargin, 280);
    // Every comparison is false for NaN, which therefore takes the last band.
    if (pitch_ > 0) {
        if (pitch_ >= kSteepPitch) {
            roi.y = 120;
        } else {
            // Scales with the image height: 6.125 for 640 rows.
            const float t = 98.0f / static_cast<float>(rows / 40);
            if (t > pitch_) {
                roi.y = 80;
            } else {
                roi.y = 120;
                roi.height = 240;
            }
        }
    } else {
        roi.y = pitch_ > -kSteepPitch ? 40 : 0;
    }
    return roi;
}

cv::Rect StereoMatcher::regionRead(int rows, int cols)
{
    return matcher == BM ? decideROI(pitch, rows, cols) : cv::Rect(0, 0, cols, rows);
}

void StereoMatcher::getDisparityBM(cv::Mat& left, cv::Mat& right, cv::Mat& disparity, ParaType)
{
    const cv::Rect roi = decideROI(pitch, left.rows, left.cols);
    stripedBm->compute(left(roi), right(roi), bandDisparity);  // 1/16 px
    // Rounds to whole px; StereoBM's invalid -16 becomes -1. Outside the
    // band the map reads 0.
    disparity.create(left.size(), CV_16S);
    disparity.setTo(cv::Scalar(0));
    bandDisparity.convertTo(disparity(roi), CV_16S, 1.0 / kBmFractionScale);
}

void StereoMatcher::getDisparityDPU(cv::Mat& left, cv::Mat& right, cv::Mat& disparity, ParaType)
{
    if (direction == Common::FRONT || direction == Common::DOWN) {
        const bool unitReady = unitHasOurSize();
        if (!unitReady) {
            if (!unitRefusalLogged) {
                const uint64_t unit = g_unitSize.load(std::memory_order_relaxed);
                BINO_ERROR("%s stereo unit is set up for %dx%d, not this camera's %dx%d: no disparity from it",
                           name.c_str(), static_cast<int>(unit >> 32), static_cast<int>(unit & 0xFFFFFFFFu), size.width,
                           size.height);
                unitRefusalLogged = true;
            }
            std::fill_n(hwDisparity.get(), checkedPixelCount(size), kInvalidWord);
        } else if (fitsUnit(left, size) && fitsUnit(right, size)) {
            unitRefusalLogged = false;
            if (direction == Common::FRONT) {
                dpu_compute_grp0(left.data, right.data, hwDisparity.get());
            } else {
                dpu_compute_grp1(left.data, right.data, hwDisparity.get());
            }
        } else {
            // The unit would read past these images; report no disparity
            // rather than the previous frame's.
            BINO_ERROR("%s images do not match the stereo unit's %dx%d 8-bit size", name.c_str(), size.width,
                       size.height);
            std::fill_n(hwDisparity.get(), checkedPixelCount(size), kInvalidWord);
        }
        if (direction == Common::FRONT && first.exchange(false)) {
            // A debugging aid only: a working directory that cannot be
            // written to costs the dump, never the frame.
            if (std::FILE* file = std::fopen(kDumpFile, "wb")) {
                std::fwrite(hwDisparity.get(), sizeof(uint16_t), kDumpWords, file);
                std::fclose(file);
            }
        }
    }
    fixed2float(disparity);
}

void StereoMatcher::getDisparityNPU(cv::Mat&, cv::Mat&, cv::Mat&, ParaType) {}

void StereoMatcher::fixed2float(cv::Mat& disparity)
{
    decodeWords(hwDisparity.get(), disparityBuffer.get(), checkedPixelCount(size));
    disparity = cv::Mat(size.height, size.width, CV_32F, disparityBuffer.get());
}
