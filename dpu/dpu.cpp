// Stand-in for the stereo unit's vendor library on machines without the unit:
// our census semi-global matcher (sgm.h), written out in the unit's word
// format. It is built as its own shared library so the vendor's libdpu
// replaces it at link time without a source change.

#include "dpu.h"

#include <algorithm>
#include <cstdint>
#include <mutex>

#include "sgm.h"

namespace {

constexpr int kMaxSide = 8192;  // largest width or height dpu_init accepts
// Invalid pixels carry the largest magnitude as well as the flag, so a reader
// that only tests the sign of the decoded value also rejects them.
constexpr uint16_t kInvalidWord = 0xFFFF;

struct Geometry {
    int width = 0;   // px, 0 until the first successful dpu_init
    int height = 0;  // px
};

std::mutex g_geometryMutex;
Geometry g_geometry;

// One processing group: its own matcher and working memory, so the two groups
// never share memory and can run at the same time.
struct Group {
    std::mutex mutex;
    dpu::SemiGlobalMatcher matcher;
};

Group g_groups[2];

Geometry currentGeometry()
{
    std::lock_guard<std::mutex> lock(g_geometryMutex);
    return g_geometry;
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
        group.matcher.compute(left, right, geometry.width, geometry.height, out);
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
