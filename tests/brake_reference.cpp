#include "brake_reference.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <sstream>
#include <utility>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

namespace brakeref {

namespace {

// The valid points (0 < Z < 100000) of rows [r0, r1) and columns [c0, c1),
// bounds clamped to the map, row-major, with Z x cos(pitch) summed in float.
struct Block {
    int count = 0, columnSum = 0, rowSum = 0;
    float sum = 0.0f;
    std::vector<cv::Point2f> points;
};

Block gather(const cv::Mat& points3d, int r0, int r1, int c0, int c1, float pitch)
{
    Block block;
    for (int r = std::clamp(r0, 0, points3d.rows); r < std::clamp(r1, 0, points3d.rows); ++r) {
        for (int c = std::clamp(c0, 0, points3d.cols); c < std::clamp(c1, 0, points3d.cols); ++c) {
            const float Z = points3d.at<cv::Vec3f>(r, c)[2];
            if (Z > 0 && Z < 100000) {
                ++block.count;
                block.columnSum += c;
                block.rowSum += r;
                block.sum += Z * std::cos(pitch * 0.017453292519943295);
                block.points.emplace_back(static_cast<float>(c), static_cast<float>(r));
            }
        }
    }
    return block;
}

void measureFront(Brake& b, const cv::Mat& disparity, const cv::Mat& points3d)
{
    const int H = disparity.rows, W = disparity.cols;
    const float colBlocks = static_cast<float>(W * 0.025), rowBlocks = static_cast<float>(H * 0.025);
    if (H == 544 && W == 640) {
        b.fovVertical = 49.0f;
    }
    const float p = b.flyInfo.pitch;
    const float third = b.fovVertical * 0.33333334f;
    // The first and last band searched (NaN: neither above nor below 0).
    const auto [first, last] = p > 0 && p >= third    ? std::pair(3, 9)
                               : p > 0                ? std::pair(p >= 2 * b.fovVertical / rowBlocks ? 3 : 2, 8)
                               : p < 0 && p <= -third ? std::pair(0, 6)
                                                      : std::pair(1, 7);
    b.targetY = static_cast<float>(W / 2);
    b.targetX = static_cast<float>(H / 2);
    if (b.flyInfo.armOrDisarm == 1 || b.flyInfo.armOrDisarm == 2) {
        for (int i = first; colBlocks > 4 && i <= last; ++i) {
            for (int j = 2; j < colBlocks - 2; ++j) {
                const Block block = gather(points3d, 40 * i, 40 * i + 40, 40 * j, 40 * j + 40, p);
                if (block.count > 1066.6667) {
                    const float d = static_cast<float>(block.sum * (0.001 / block.count));
                    if (d < b.dis_ori_z && d > 1e-6) {
                        b.dis_ori_z = d;
                        b.frontArea = block.points;
                        b.targetX = static_cast<float>(block.columnSum / block.count);
                        b.targetY = static_cast<float>(block.rowSum / block.count);
                    }
                }
            }
        }
    } else {
        const Block block = gather(points3d, H / 2 - 40, H / 2, W / 2 - 40, W / 2, p);
        if (block.count > 400) {
            const float d = block.sum / (block.count * 1000);
            if (d < 60 && d > 1e-6) {
                b.frontArea = block.points;
                b.dis_ori_z = d;
            }
        }
    }
}

void measureDown(Brake& b, const cv::Mat& disparity, const cv::Mat& points3d)
{
    const int s = static_cast<int>(disparity.rows / b.gridCount);
    for (int k = 0; k < 8; ++k) {
        for (int m = 0; m < 4; ++m) {
            const Block block = gather(points3d, (4 + k) * s, (5 + k) * s, (4 + m) * s, (5 + m) * s, b.flyInfo.pitch);
            if (block.count > (s * s / 3) * 2) {
                const float d = block.sum / (block.count * 1000);
                if (d < b.dis_ori_z && d > 1e-6) {
                    b.dis_ori_z = d;
                    b.frontArea = block.points;
                }
            }
        }
    }
}

bool highAltitudeMismatch(const cv::Mat& disparity)
{
    const int type = disparity.type();
    const cv::Size size(disparity.cols / 4, disparity.rows / 4);
    if ((type != CV_16SC1 && type != CV_32FC1) || size.width < 5 || size.height < 5) {
        return false;
    }
    cv::Mat scaled;
    cv::resize(disparity, scaled, size, 0, 0, cv::INTER_LINEAR);
    // Raw values of 1,026 and above count with 0 (the histogram's bin 0).
    int zero = 0;
    cv::Mat mask(size, CV_8UC1);
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
            const uint16_t v = type == CV_16SC1 ? static_cast<uint16_t>(scaled.at<int16_t>(y, x))
                                                : cv::saturate_cast<uint16_t>(scaled.at<float>(y, x));
            zero += v == 0 || v >= 1026 ? 1 : 0;
            mask.at<uint8_t>(y, x) = v >= 65 && v <= 1024 ? 1 : 0;
        }
    }
    cv::Mat result;
    cv::matchTemplate(mask, cv::Mat(5, 5, CV_8UC1, cv::Scalar(1)), result, cv::TM_SQDIFF);
    double minimum = 0;
    cv::minMaxLoc(result, &minimum);
    const float ratio = static_cast<float>(zero) / static_cast<float>(size.area());
    return minimum <= 1e-6 && 0.93 < ratio && ratio < 1.0;
}

// setDisparity step by step; `frameTick` is what the clock reads at step 6.
void setDisparity(Brake& b, const cv::Mat& disparity, const cv::Mat& Q, const cv::Mat& points3d, int64_t frameTick)
{
    b.Q = Q;
    b.imageWidth = disparity.cols;
    b.imageHeight = disparity.rows;
    b.frontArea.clear();
    b.dis_ori_z = 60.0f;
    if (b.direction == Common::FRONT) {
        measureFront(b, disparity, points3d);
    } else {
        measureDown(b, disparity, points3d);
    }
    b.distance_ori = b.dis_ori_z;
    b.dealBlindArea();
    b.mismatchFlag = highAltitudeMismatch(disparity);
    b.faultDetectFlagOfTen = b.mismatchFlag;
    b.frameTick = frameTick;
    b.timeuse = static_cast<float>((frameTick - b.flyInfoTick) * 1000 / brakemaps::ManualClock::kTicksPerSecond);
    b.pitch_rate = b.getPitchRate();
    b.poseOutlierProcess();
    b.outlier();
    b.rejectFaultDetection();
    b.obstacleMissedPredict();
}

}  // namespace

Twin::Twin(Common::Direction direction) : fast(direction, time.clock()), reference(direction, time.clock()) {}

std::string Twin::frame(const Common::FlyInfo& info, const cv::Mat& disparity, const cv::Mat& Q)
{
    fast.setFlyInfo(info);
    reference.setFlyInfo(info);
    time.now += 37;
    if (fast.meetSpeed()) {
        fast.setDisparity(disparity, Q);
        if (disparity.data != lastMap.data || disparity.size != lastMap.size || Q.data != lastQ.data) {
            lastMap = disparity;  // held, so its buffer cannot come back as another map's
            lastQ = Q;
            lastPoints.release();  // no point at all for another map type or a Q OpenCV refuses
            try {
                if (!disparity.empty() && (disparity.type() == CV_16SC1 || disparity.type() == CV_32FC1)) {
                    cv::reprojectImageTo3D(disparity, lastPoints, Q, false, -1);
                }
            } catch (const cv::Exception&) {
                lastPoints.release();
            }
        }
        setDisparity(reference, disparity, Q, lastPoints, time.now);
    } else {
        fast.reset();
        reference.reset();
    }

    // The filters are the chain's own functions in both: equal inputs, equal
    // state. Compared is what the reading computes and the distances that result.
    // clang-format off
    const auto values = [](const Brake& b) {
        const auto n = [](auto v) { return static_cast<float>(v); };
        return std::array<float, 13>{b.dis_ori_z, b.distance_ori, b.timeuse, b.pitch_rate, b.targetX, b.targetY,
            b.fovVertical, n(b.imageWidth), n(b.imageHeight), n(b.mismatchFlag), n(b.faultDetectFlagOfTen),
            b.distanceFiltered_outlier, b.getDistance()};
    };
    static const char* const names[] = {"dis_ori_z", "distance_ori", "timeuse", "pitch_rate", "targetX", "targetY",
        "fovVertical", "imageWidth", "imageHeight", "mismatchFlag", "faultDetectFlagOfTen",
        "distanceFiltered_outlier", "distanceFiltered_app"};
    // clang-format on
    std::ostringstream out;
    if (fast.getFrountArea() != reference.getFrountArea()) {
        out << "front area (" << fast.frontArea.size() << " vs " << reference.frontArea.size() << " points); ";
    }
    const auto f = values(fast), r = values(reference);
    for (size_t i = 0; i < f.size(); ++i) {
        if (std::memcmp(&f[i], &r[i], sizeof(float)) != 0) {
            out << names[i] << " " << f[i] << " != " << r[i] << "; ";
        }
    }

    fast.update();
    reference.update();
    time.now += 13;
    return out.str();
}

}  // namespace brakeref
