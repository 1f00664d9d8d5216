// Arbitrary point images through the avoidance search: any size from 1 x 1 to
// 100 x 100 px, depths near, far, missing, negative, infinite or NaN. The
// images own exactly their pixels, so any read past the frame is an
// AddressSanitizer error. Every result must stay inside the frame, and both
// region searches must equal the literal per-pixel search.
//
// Input: width and height bytes, then runs of two bytes each (depth choice,
// run length) filling the depth image row by row; the rest stays near.

#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "target_region.h"
#include "target_region_reference.h"

namespace {

constexpr float kDepths_mm[8] = {1000.0f, 5000.0f, 200000.0f, -300.0f, 3000.0f, 3000.5f, INFINITY, NAN};

void check(bool condition)
{
    if (!condition) {
        std::abort();
    }
}

void checkSame(const Region& a, const Region& b)
{
    check(a.value == b.value && a.centre == b.centre && a.box == b.box);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    const cv::Size frame(1 + data[0] % 100, 1 + data[1] % 100);
    cv::Mat depth(frame, CV_32FC1, cv::Scalar(kDepths_mm[0]));
    auto* z = depth.ptr<float>();
    size_t at = 0;
    for (size_t i = 2; i + 1 < size && at < depth.total(); i += 2) {
        for (int run = 1 + data[i + 1] % 64; run > 0 && at < depth.total(); --run) {
            z[at++] = kDepths_mm[data[i] % 8];
        }
    }
    cv::Mat points;
    cv::merge(std::vector<cv::Mat>{cv::Mat::zeros(frame, CV_32FC1), cv::Mat::zeros(frame, CV_32FC1), depth}, points);

    bool passable = false;
    const cv::Vec3f target = TargetRegion::getTargetPt(points, passable);
    check(std::abs(target[0]) <= 20.001f && std::abs(target[1]) <= 15.001f * frame.height / frame.width);
    check(!(target[2] > TargetRegion::kNoDistanceMm));

    cv::Mat mask;
    cv::threshold(depth, mask, 3000.0, 255.0, cv::THRESH_BINARY);
    mask.convertTo(mask, CV_8U);
    const Region circle = TargetRegion::getTargetCircleRegion(mask);
    check(cv::Rect(cv::Point(), frame).contains(circle.centre) && circle.value >= 0);
    checkSame(circle, reference::circleRegion(mask));
    checkSame(TargetRegion::getTargetRectRegion(mask), reference::rectRegion(mask));
    return 0;
}
