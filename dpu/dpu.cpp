// Stand-in for the stereo unit's vendor library on machines without the unit:
// OpenCV's semi-global matcher with sub-pixel refinement, written out in the
// unit's word format. It is built as its own shared library so the vendor's
// libdpu replaces it at link time without a source change.

#include "dpu.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cstdint>
#include <mutex>

namespace {

constexpr int kNumDisparities = 64;  // search range in px, a multiple of 16
constexpr int kBlockSize = 5;        // matching window side in px, odd
constexpr int kMaxSide = 8192;       // largest width or height dpu_init accepts
constexpr int kSgbmFractionBits = 4; // OpenCV's disparity unit is 1/16 px
constexpr int kWordFractionBits = 6; // the unit's disparity unit is 1/64 px
constexpr uint16_t kInvalidFlag = 0x8000;
constexpr uint16_t kMagnitudeMask = 0x7FFF;
// Invalid pixels carry the largest magnitude as well as the flag, so a reader
// that only tests the sign of the decoded value also rejects them.
constexpr uint16_t kInvalidWord = kInvalidFlag | kMagnitudeMask;

struct Geometry {
    int width = 0;   // px, 0 until the first successful dpu_init
    int height = 0;  // px
};

std::mutex g_geometryMutex;
Geometry g_geometry;

// One processing group: its own matcher and working matrix, so the two groups
// never share memory and can run at the same time.
struct Group {
    std::mutex mutex;
    cv::Ptr<cv::StereoSGBM> sgbm;
    cv::Mat disparity16;  // CV_16S, 1/16 px, negative where invalid
};

Group g_groups[2];

Geometry currentGeometry()
{
    std::lock_guard<std::mutex> lock(g_geometryMutex);
    return g_geometry;
}

cv::Ptr<cv::StereoSGBM> createMatcher()
{
    const int area = kBlockSize * kBlockSize;
    auto sgbm = cv::StereoSGBM::create(0, kNumDisparities, kBlockSize);
    sgbm->setP1(8 * area);
    sgbm->setP2(32 * area);
    sgbm->setPreFilterCap(63);
    sgbm->setUniquenessRatio(10);
    sgbm->setDisp12MaxDiff(1);
    sgbm->setSpeckleWindowSize(100);
    sgbm->setSpeckleRange(2);
    sgbm->setMode(cv::StereoSGBM::MODE_SGBM);
    return sgbm;
}

uint16_t encodeWord(int16_t disparity16)
{
    if (disparity16 < 0) {
        return kInvalidWord;
    }
    const int fixed64 = int{disparity16} << (kWordFractionBits - kSgbmFractionBits);
    return static_cast<uint16_t>(std::min<int>(fixed64, kMagnitudeMask));
}

int computeGroup(Group& group, unsigned char* left, unsigned char* right, unsigned short* out)
{
    if (left == nullptr || right == nullptr || out == nullptr) {
        return DPU_EINVAL;
    }
    const Geometry geometry = currentGeometry();
    if (geometry.width == 0) {
        return DPU_EINVAL;
    }
    const size_t pixels = static_cast<size_t>(geometry.width) * static_cast<size_t>(geometry.height);

    std::lock_guard<std::mutex> lock(group.mutex);
    try {
        if (!group.sgbm) {
            group.sgbm = createMatcher();
        }
        const cv::Mat leftImage(geometry.height, geometry.width, CV_8UC1, left);
        const cv::Mat rightImage(geometry.height, geometry.width, CV_8UC1, right);
        group.sgbm->compute(leftImage, rightImage, group.disparity16);
        CV_Assert(group.disparity16.type() == CV_16SC1 && group.disparity16.isContinuous() &&
                  group.disparity16.total() == pixels);
        const auto* disparity = group.disparity16.ptr<int16_t>();
        std::transform(disparity, disparity + pixels, out, encodeWord);
        return DPU_OK;
    } catch (...) {
        // No exception may leave a C entry point, and a caller that ignores
        // the status must not read the previous frame as this one.
        std::fill(out, out + pixels, kInvalidWord);
        return DPU_EFAULT;
    }
}

}  // namespace

extern "C" {

int dpu_init(int width, int height)
{
    if (width <= 0 || height <= 0 || width > kMaxSide || height > kMaxSide) {
        return DPU_ESIZE;
    }
    std::lock_guard<std::mutex> lock(g_geometryMutex);
    g_geometry = Geometry{width, height};
    return DPU_OK;
}

int dpu_compute_grp0(unsigned char* left, unsigned char* right, unsigned short* out)
{
    return computeGroup(g_groups[0], left, right, out);
}

int dpu_compute_grp1(unsigned char* left, unsigned char* right, unsigned short* out)
{
    return computeGroup(g_groups[1], left, right, out);
}

}  // extern "C"
