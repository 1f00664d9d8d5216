// Arbitrary point images through the avoidance search: any size from 1 x 1 to
// 100 x 100 px, depths near, far, missing, negative, infinite or NaN. The
// images own exactly their pixels, so any read past the frame is an
// AddressSanitizer error. Every result must stay inside the frame, and the
// pruned circle search must equal the literal per-pixel one on every outline.
//
// Input: width and height bytes, then runs of two bytes each (depth choice,
// run length) filling the depth image row by row; the rest stays near.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "fuzzcheck.h"
#include "target_region.h"
#include "target_region_reference.h"

namespace {

constexpr float kDepths_mm[9] = {1000.0f, 5000.0f, 200000.0f, -300.0f, 3000.0f, 3000.5f, INFINITY, -INFINITY, NAN};

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
            z[at++] = kDepths_mm[data[i] % 9];
        }
    }
    cv::Mat points;
    cv::merge(std::vector<cv::Mat>{cv::Mat::zeros(frame, CV_32FC1), cv::Mat::zeros(frame, CV_32FC1), depth}, points);

    bool passable = false;
    const cv::Vec3f target = TargetRegion::getTargetPt(points, passable);
    check(std::abs(target[0]) <= 20.001f && std::abs(target[1]) <= 15.001f * frame.height / frame.width);
    check(target[2] <= TargetRegion::kNoDistanceMm);  // a NaN block mean never wins

    cv::Mat mask;
    cv::threshold(depth, mask, 3000.0, 255.0, cv::THRESH_BINARY);
    mask.convertTo(mask, CV_8U);
    std::vector<std::vector<cv::Point>> outlines;
    cv::findContours(mask, outlines, cv::RETR_TREE, cv::CHAIN_APPROX_SIMPLE);
    for (const auto& outline : outlines) {
        const Region pruned = TargetRegion::inscribedCircle(outline, frame);
        const Region literal = reference::perPixelMaximum(outline, frame);
        check(pruned.value == literal.value && pruned.centre == literal.centre && pruned.value >= 0);
    }
    const Region circle = TargetRegion::getTargetCircleRegion(mask);
    check(cv::Rect(cv::Point(), frame).contains(circle.centre) && circle.value >= 0);
    const Region rect = TargetRegion::getTargetRectRegion(mask);
    const int r = static_cast<int>(rect.value);
    check(rect.value == 0 ? rect.box.empty()
                          : r > 5 && rect.box == cv::Rect(rect.centre - cv::Point(r, r), cv::Size(2 * r, 2 * r)));
    return 0;
}
