#include "brake_reference.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

namespace brakeref {

namespace {

bool flying(const Brake& brake) { return brake.flyInfo.armOrDisarm == 1 || brake.flyInfo.armOrDisarm == 2; }

float zAt(const cv::Mat& points, int row, int column)
{
    return points.empty() ? 0.0f : points.at<cv::Vec3f>(row, column)[2];
}

}  // namespace

cv::Mat reproject(const cv::Mat& disparity, const cv::Mat& Q)
{
    cv::Mat points;
    if (disparity.empty() || (disparity.type() != CV_16SC1 && disparity.type() != CV_32FC1)) {
        return points;
    }
    try {
        cv::reprojectImageTo3D(disparity, points, Q, false, -1);
    } catch (const cv::Exception&) {
        points.release();
    }
    return points;
}

Measurement measureFront(const Brake& before, const cv::Mat& disparity, const cv::Mat& Q)
{
    Measurement result;
    std::vector<cv::Point2f> blockPoints;
    result.frontArea = blockPoints;
    const cv::Mat points3d = reproject(disparity, Q);
    const int H = disparity.rows;
    const int W = disparity.cols;
    const float colBlocks = static_cast<float>(W * 0.025);
    const float rowBlocks = static_cast<float>(H * 0.025);
    result.fovVertical = before.fovVertical;
    if (H == 544 && W == 640) {
        result.fovVertical = 49.0f;
    }
    const float p = before.flyInfo.pitch;
    const float F = result.fovVertical;
    int first = 1;
    int last = 7;
    if (p > 0 && p >= F * 0.33333334f) {
        first = 3;
        last = 9;
    } else if (p > 0 && p < F * 0.33333334f) {
        first = 2;
        last = 8;
        if (p >= 2 * F / rowBlocks) {
            first = 3;
        }
    } else if (p < 0 && p > -(F * 0.33333334f)) {
        first = 1;
        last = 7;
    } else if (p < 0 && p <= -(F * 0.33333334f)) {
        first = 0;
        last = 6;
    }
    result.targetY = static_cast<float>(W / 2);
    result.targetX = static_cast<float>(H / 2);

    if (flying(before)) {
        float best = 60.0f;
        if (colBlocks > 4) {
            for (int i = first; i <= last; ++i) {
                for (int j = 2; j < colBlocks - 2; ++j) {
                    const int r0 = std::clamp(40 * i, 0, H);
                    const int r1 = std::clamp(40 * i + 40, 0, H);
                    const int c0 = std::clamp(40 * j, 0, W);
                    const int c1 = std::clamp(40 * j + 40, 0, W);
                    blockPoints.clear();
                    int count = 0;
                    int columnSum = 0;
                    int rowSum = 0;
                    float sum = 0.0f;
                    for (int r = r0; r < r1; ++r) {
                        for (int c = c0; c < c1; ++c) {
                            const float Z = zAt(points3d, r, c);
                            if (Z > 0 && Z < 100000) {
                                ++count;
                                columnSum += c;
                                rowSum += r;
                                sum += Z * std::cos(p * 0.017453292519943295);
                                blockPoints.push_back(cv::Point2f(static_cast<float>(c), static_cast<float>(r)));
                            }
                        }
                    }
                    if (count > 1066.6667) {
                        const float d = static_cast<float>(sum * (0.001 / count));
                        if (d < best && d > 1e-6) {
                            best = d;
                            result.frontArea = blockPoints;
                            result.targetX = static_cast<float>(columnSum / count);
                            result.targetY = static_cast<float>(rowSum / count);
                        }
                    }
                }
            }
        }
        result.disOriZ = best;
    } else {
        const int r0 = std::clamp(H / 2 - 40, 0, H);
        const int r1 = std::clamp(H / 2, 0, H);
        const int c0 = std::clamp(W / 2 - 40, 0, W);
        const int c1 = std::clamp(W / 2, 0, W);
        blockPoints.clear();
        int count = 0;
        float sum = 0.0f;
        for (int r = r0; r < r1; ++r) {
            for (int c = c0; c < c1; ++c) {
                const float Z = zAt(points3d, r, c);
                if (Z > 0 && Z < 100000) {
                    ++count;
                    sum += Z * std::cos(p * 0.017453292519943295);
                    blockPoints.push_back(cv::Point2f(static_cast<float>(c), static_cast<float>(r)));
                }
            }
        }
        result.disOriZ = 60.0f;
        if (count > 400) {
            const float d = sum / (count * 1000);
            if (d < 60 && d > 1e-6) {
                result.frontArea = blockPoints;
                result.disOriZ = d;
            }
        }
    }
    return result;
}

Measurement measureDown(const Brake& before, const cv::Mat& disparity, const cv::Mat& Q)
{
    Measurement result;
    result.targetX = before.targetX;
    result.targetY = before.targetY;
    result.fovVertical = before.fovVertical;
    const int H = disparity.rows;
    const int W = disparity.cols;
    const int s = static_cast<int>(H / before.gridCount);
    const int threshold = (s * s / 3) * 2;
    const cv::Mat points3d = reproject(disparity, Q);
    std::vector<cv::Point2f> blockPoints;
    const float p = before.flyInfo.pitch;
    float best = 60.0f;
    for (int k = 0; k < 8; ++k) {
        for (int m = 0; m < 4; ++m) {
            const int r0 = std::clamp((4 + k) * s, 0, H);
            const int r1 = std::clamp((5 + k) * s, 0, H);
            const int c0 = std::clamp((4 + m) * s, 0, W);
            const int c1 = std::clamp((5 + m) * s, 0, W);
            blockPoints.clear();
            float sum = 0.0f;
            for (int r = r0; r < r1; ++r) {
                for (int c = c0; c < c1; ++c) {
                    const float Z = zAt(points3d, r, c);
                    if (Z > 0 && Z < 100000) {
                        sum += Z * std::cos(p * 0.017453292519943295);
                        blockPoints.push_back(cv::Point2f(static_cast<float>(c), static_cast<float>(r)));
                    }
                }
            }
            const int count = static_cast<int>(blockPoints.size());
            if (count > threshold) {
                const float d = sum / (count * 1000);
                if (d < best && d > 1e-6) {
                    best = d;
                    result.frontArea = blockPoints;
                }
            }
        }
    }
    result.disOriZ = best;
    return result;
}

bool highAltitudeMismatch(const cv::Mat& disparity)
{
    const int type = disparity.type();
    const cv::Size size(disparity.cols / 4, disparity.rows / 4);
    if ((type != CV_16SC1 && type != CV_32FC1) || size.width < 5 || size.height < 5) {
        return false;
    }
    cv::Mat copy;
    cv::resize(disparity, copy, size, 0, 0, cv::INTER_LINEAR);
    std::vector<int> histogram(1026, 0);
    cv::Mat mask(size, CV_8UC1);
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
            const uint16_t v = type == CV_16SC1 ? static_cast<uint16_t>(copy.at<int16_t>(y, x))
                                                : cv::saturate_cast<uint16_t>(copy.at<float>(y, x));
            if (v < 1026) {
                ++histogram[v];
                mask.at<uint8_t>(y, x) = (v >= 65 && v <= 1024) ? 1 : 0;
            } else {
                if (type == CV_16SC1) {
                    copy.at<int16_t>(y, x) = 0;
                } else {
                    copy.at<float>(y, x) = 0.0f;
                }
                ++histogram[0];
                mask.at<uint8_t>(y, x) = 0;
            }
        }
    }
    const int zero = histogram[0];
    int small = 0;
    int large = 0;
    for (int v = 1; v <= 64; ++v) {
        small += histogram[v];
    }
    for (int v = 65; v <= 1025; ++v) {
        large += histogram[v];
    }
    cv::Mat result;
    cv::matchTemplate(mask, cv::Mat(5, 5, CV_8UC1, cv::Scalar(1)), result, cv::TM_SQDIFF);
    double minimum = 0;
    cv::minMaxLoc(result, &minimum);
    const float ratio = static_cast<float>(zero) / static_cast<float>(zero + small + large);
    return minimum <= 1e-6 && 0.93 < ratio && ratio < 1.0;
}

void setDisparity(Brake& brake, const cv::Mat& disparity, const cv::Mat& Q, int64_t frameTick, double ticksPerSecond)
{
    brake.Q = Q;
    brake.imageWidth = disparity.cols;
    brake.imageHeight = disparity.rows;
    const Measurement measured =
        brake.direction == Common::FRONT ? measureFront(brake, disparity, Q) : measureDown(brake, disparity, Q);
    brake.dis_ori_z = measured.disOriZ;
    brake.frontArea = measured.frontArea;
    brake.targetX = measured.targetX;
    brake.targetY = measured.targetY;
    brake.fovVertical = measured.fovVertical;
    brake.distance_ori = brake.dis_ori_z;
    brake.dealBlindArea();
    brake.mismatchFlag = highAltitudeMismatch(disparity);
    brake.faultDetectFlagOfTen = brake.mismatchFlag;
    brake.frameTick = frameTick;
    brake.timeuse = static_cast<float>((brake.frameTick - brake.flyInfoTick) * 1000 / ticksPerSecond);
    brake.pitch_rate = brake.getPitchRate();
    brake.poseOutlierProcess();
    brake.outlier();
    brake.rejectFaultDetection();
    brake.obstacleMissedPredict();
}

namespace {

void compareBits(std::ostringstream& out, const char* name, float a, float b)
{
    if (std::memcmp(&a, &b, sizeof a) != 0) {
        out << name << " " << a << " != " << b << "; ";
    }
}

template <typename T>
void compareValues(std::ostringstream& out, const char* name, T a, T b)
{
    if (a != b) {
        out << name << " " << a << " != " << b << "; ";
    }
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
        setDisparity(reference, disparity, Q, time.now, brakemaps::ManualClock::kTicksPerSecond);
    } else {
        fast.reset();
        reference.reset();
    }
    const cv::Vec3f target(0, 0, 0);
    fast.getTargetRegionFromBrake(target);
    reference.getTargetRegionFromBrake(target);

    std::ostringstream out;
    const std::vector<std::string> fastLine = fast.getLogline();
    const std::vector<std::string> referenceLine = reference.getLogline();
    for (size_t i = 0; i < std::max(fastLine.size(), referenceLine.size()); ++i) {
        if (i >= fastLine.size() || i >= referenceLine.size() || fastLine[i] != referenceLine[i]) {
            out << "record column " << i + 1 << "; ";
        }
    }
    if (fast.getFrountArea() != reference.getFrountArea()) {
        out << "front area (" << fast.frontArea.size() << " vs " << reference.frontArea.size() << " points); ";
    }
    const Brake& a = fast;
    const Brake& b = reference;
    compareBits(out, "dis_ori_z", a.dis_ori_z, b.dis_ori_z);
    compareBits(out, "distance_ori", a.distance_ori, b.distance_ori);
    compareBits(out, "distanceFiltered_poseoutlier", a.distanceFiltered_poseoutlier, b.distanceFiltered_poseoutlier);
    compareBits(out, "distanceFiltered_outlier", a.distanceFiltered_outlier, b.distanceFiltered_outlier);
    compareBits(out, "disRejectFaultDetect", a.disRejectFaultDetect, b.disRejectFaultDetect);
    compareBits(out, "distanceFiltered_app", a.getDistance(), b.getDistance());
    compareBits(out, "timeuse", a.timeuse, b.timeuse);
    compareBits(out, "pitch_rate", a.pitch_rate, b.pitch_rate);
    compareBits(out, "targetX", a.targetX, b.targetX);
    compareBits(out, "targetY", a.targetY, b.targetY);
    compareBits(out, "fovVertical", a.fovVertical, b.fovVertical);
    compareBits(out, "outlierRef", a.outlierRef, b.outlierRef);
    compareBits(out, "outlierLast", a.outlierLast, b.outlierLast);
    compareBits(out, "faultRef", a.faultRef, b.faultRef);
    compareValues(out, "imageWidth", a.imageWidth, b.imageWidth);
    compareValues(out, "imageHeight", a.imageHeight, b.imageHeight);
    compareValues(out, "mismatchFlag", a.mismatchFlag, b.mismatchFlag);
    compareValues(out, "faultDetectFlagOfTen", a.faultDetectFlagOfTen, b.faultDetectFlagOfTen);
    compareValues(out, "mismatchHold", a.mismatchHold, b.mismatchHold);
    compareValues(out, "mismatchRelease", a.mismatchRelease, b.mismatchRelease);
    compareValues(out, "outlierTracking", a.outlierTracking, b.outlierTracking);
    compareValues(out, "countmax", a.countmax, b.countmax);
    compareValues(out, "holdCount", a.holdCount, b.holdCount);
    compareValues(out, "initCount", a.initCount, b.initCount);
    compareValues(out, "faultCount", a.faultCount, b.faultCount);
    compareValues(out, "missedPredictActive", a.missedPredictActive, b.missedPredictActive);
    compareValues(out, "missedPredictIdle", a.missedPredictIdle, b.missedPredictIdle);
    compareValues(out, "smallDisCount", a.smallDisCount, b.smallDisCount);

    fast.update();
    reference.update();
    time.now += 13;
    return out.str();
}

}  // namespace brakeref
