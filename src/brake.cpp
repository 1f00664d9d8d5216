#include "brake.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <utility>

#include <opencv2/imgproc.hpp>

#include "binolog.h"

namespace {

constexpr double kDegreesToRadians = 0.017453292519943295;

// Front camera: square blocks of kFrontBlock px; a block counts when more
// than two thirds of its 1,600 pixels are points.
constexpr int kFrontBlock = 40;
constexpr double kFrontBlocksPerPx = 0.025;
constexpr double kFrontMinPoints = 1066.6667;
constexpr int kFirstColumnBlock = 2;      // and as many blocks are left out on the right
constexpr float kOneThird = 0.33333334f;  // the band rule's F/3 is F x this
constexpr int kCentreMinPoints = 400;
// The one frame size with its own field of view (rows x columns).
constexpr int kWideRows = 544;
constexpr int kWideColumns = 640;
constexpr float kWideFovVertical = 49.0f;  // degrees

// Down camera: 8 bands of 4 blocks, starting 4 blocks in from the top left.
constexpr int kDownFirstBlock = 4;
constexpr int kDownBands = 8;
constexpr int kDownBlocks = 4;

constexpr double kMinDistance = 1e-6;  // m; a block mean at or below is no obstacle
constexpr double kMmToM = 0.001;

// High-altitude mismatch check, on the map scaled to a quarter per side and
// read as unsigned 16-bit raw disparities.
constexpr int kMismatchScale = 4;
constexpr int kMismatchPatch = 5;
constexpr int kMismatchBins = 1026;  // values at or above go to bin 0
constexpr int kMismatchSolidLow = 65;
constexpr int kMismatchSolidHigh = 1024;
constexpr double kMismatchZeroFraction = 0.93;

// Flight state and filters.
constexpr float kSteepPitch = 25.0f;         // degrees
constexpr double kFastPitchRate = 50.0;      // degrees/s
constexpr double kFarDistance = 45.0;        // m
constexpr double kObstacleBand = 3.0;        // m around 60 that counts as no obstacle, and the jump limit
constexpr int kConfirmFrames = 4;            // a new obstacle is accepted once countmax exceeds this
constexpr int kInitFrames = 4;               // frames of 60 after construction: initCount 0..4
constexpr int kHoldFrames = 14;              // the last distance is held while holdCount <= this
constexpr float kSmoothScale = 0.16666667f;  // 1/6 per m of change
constexpr float kSmoothGain = 0.39904344f;
constexpr double kFaultJump = 2.0;  // m
constexpr int kFaultFrames = 14;
constexpr double kPredictBelow = 20.0;  // m
constexpr double kHover = 0.4;          // m/s
constexpr float kDominance = 3.0f;
constexpr float kMinTimeuse = 20.0f;  // ms
constexpr double kHorizontalWindowDistance = 10.0;
constexpr double kHorizontalWindowOffset = 3.0;
constexpr double kHorizontalWindowStep = 0.6;

constexpr const char* kColumns[] = {
    "pitch",
    "headSpeed",
    "rightSpeed",
    "verticalSpeed",
    "height",
    "armOrDisarm",
    "timeuse",
    "pitch_rate",
    "countmax",
    "dis_ori_z",
    "distance_ori",
    "distanceFiltered_poseoutlier",
    "distanceFiltered_outlier",
    "disRejectFaultDetect",
    "distanceFiltered_app",
    "meetSpeedFlag",
    "smallDistanceFlag",
    "faultDetectFlagOfTen",
    "angle_x",
    "angle_y",
    "is_passable",
    "timestampL",
    "timestampR",
};

std::string formatFloat(float value)
{
    char text[64];  // "%f" of the largest float takes 46 characters
    std::snprintf(text, sizeof text, "%f", static_cast<double>(value));
    return text;
}

std::string formatInt(int value) { return std::to_string(value); }

bool isFlying(uint32_t armOrDisarm) { return armOrDisarm == 1 || armOrDisarm == 2; }

// Distance flown at headSpeed (m/s) in timeuse (ms), as the filters compute it.
double flown(float headSpeed, float timeuse) { return headSpeed * timeuse * kMmToM; }

// Mean block depth in m, as the front search computes it.
float frontBlockDistance(const BlockDepth::BlockSum& block)
{
    return static_cast<float>(block.sum * (kMmToM / block.count));
}

// Mean block depth in m, as the centre window and the down grid compute it.
float blockDistance(const BlockDepth::BlockSum& block)
{
    return block.sum / static_cast<float>(static_cast<int64_t>(block.count) * 1000);
}

bool isNearer(float distance, float best) { return distance < best && distance > kMinDistance; }

}  // namespace

Brake::Clock Brake::Clock::tickCounter()
{
    return Clock{[] { return static_cast<int64_t>(cv::getTickCount()); }, cv::getTickFrequency()};
}

Brake::Brake(Common::Direction direction_, Clock clock_)
    : logPrefix(Common::logPrefix(direction_)), direction(direction_), clock(std::move(clock_))
{
    static_assert(std::atomic<float>::is_always_lock_free, "getDistance must not take a lock");
    if (!clock.ticks) {
        clock = Clock::tickCounter();
    }
    BINO_INFO("%s Brake: start ", logPrefix.c_str());
}

Brake::~Brake() = default;

void Brake::setFlyInfo(const Common::FlyInfo& info)
{
    flyInfo = info;
    pitchDelta = info.pitch - lastPitch;
    flyInfoTick = clock.ticks();
    checkSpeed();
    checkSmallDistance();
}

void Brake::checkSpeed() { meetSpeedFlag = flyInfo.headSpeed > -backSpeedLimit; }

void Brake::checkSmallDistance()
{
    if (std::fabs(flyInfo.headSpeed) <= smallDisSpeed && getDistance() <= smallDisDistance) {
        if (smallDisCount < std::numeric_limits<int32_t>::max()) {
            ++smallDisCount;
        }
        smallDistanceFlag = static_cast<float>(smallDisCount) >= smallDisFrames;
    } else {
        smallDisCount = 0;
        smallDistanceFlag = false;
    }
}

void Brake::setDisparity(const cv::Mat& disparity, cv::Mat reprojection)
{
    Q = reprojection;
    imageWidth = disparity.cols;
    imageHeight = disparity.rows;
    if (direction == Common::FRONT) {
        getDistance_front(disparity);
    } else if (direction == Common::DOWN) {
        getDistance_down(disparity);
    }
    if (direction == Common::FRONT || direction == Common::DOWN) {
        distance_ori = dis_ori_z;
    }
    dealBlindArea();
    dealHighAltitudeMismatch(disparity);
    frameTick = clock.ticks();
    timeuse = static_cast<float>((frameTick - flyInfoTick) * 1000 / clock.ticksPerSecond);
    pitch_rate = getPitchRate();
    poseOutlierProcess();
    outlier();
    rejectFaultDetection();
    obstacleMissedPredict();
}

void Brake::getDistance_front(const cv::Mat& disparity)
{
    blockPoints.clear();
    frontArea = blockPoints;
    depth.setFrame(disparity, Q);
    const int rows = disparity.rows;
    const int columns = disparity.cols;
    if (rows == kWideRows && columns == kWideColumns) {
        fovVertical = kWideFovVertical;
    }
    const float rowBlocks = static_cast<float>(rows * kFrontBlocksPerPx);

    // Bands of 40 rows, numbered from the top. Pitch NaN takes the level band.
    const float pitch = flyInfo.pitch;
    const float third = fovVertical * kOneThird;
    int firstBand = 1;
    int lastBand = 7;
    if (pitch > 0) {
        if (pitch >= third) {
            firstBand = 3;
            lastBand = 9;
        } else {
            firstBand = pitch >= 2 * fovVertical / rowBlocks ? 3 : 2;
            lastBand = 8;
        }
    } else if (pitch < 0) {
        firstBand = pitch > -third ? 1 : 0;
        lastBand = pitch > -third ? 7 : 6;
    }

    // Halves of the other axis, as the measurement has always done.
    targetY = static_cast<float>(columns / 2);
    targetX = static_cast<float>(rows / 2);

    const double cosFactor = std::cos(pitch * kDegreesToRadians);
    if (isFlying(flyInfo.armOrDisarm)) {
        searchFrontBlocks(rows, columns, firstBand, lastBand, cosFactor);
    } else {
        measureCentreWindow(rows, columns, cosFactor);
    }
}

void Brake::searchFrontBlocks(int rows, int columns, int firstBand, int lastBand, double cosFactor)
{
    const float colBlocks = static_cast<float>(columns * kFrontBlocksPerPx);
    float best = kNoObstacle;
    cv::Rect bestBlock;
    if (colBlocks > 4) {
        // Column blocks 2, 3, ... while j < colBlocks - 2: all inside the frame.
        blockBounds.clear();
        int j = kFirstColumnBlock;
        for (; static_cast<float>(j) < colBlocks - 2; ++j) {
            blockBounds.push_back(std::clamp(j * kFrontBlock, 0, columns));
        }
        blockBounds.push_back(std::clamp(j * kFrontBlock, 0, columns));
        const int blocks = static_cast<int>(blockBounds.size()) - 1;
        blockSums.resize(static_cast<size_t>(blocks));
        for (int band = firstBand; band <= lastBand; ++band) {
            const int top = std::clamp(band * kFrontBlock, 0, rows);
            const int bottom = std::clamp(band * kFrontBlock + kFrontBlock, 0, rows);
            std::fill(blockSums.begin(), blockSums.end(), BlockDepth::BlockSum());
            depth.sumBlocks(top, bottom, blockBounds.data(), blocks, cosFactor, blockSums.data());
            for (int k = 0; k < blocks; ++k) {
                const BlockDepth::BlockSum& block = blockSums[static_cast<size_t>(k)];
                if (block.count > kFrontMinPoints) {
                    const float distance = frontBlockDistance(block);
                    if (isNearer(distance, best)) {
                        best = distance;
                        bestBlock =
                            cv::Rect(blockBounds[static_cast<size_t>(k)], top,
                                     blockBounds[static_cast<size_t>(k) + 1] - blockBounds[static_cast<size_t>(k)],
                                     bottom - top);
                    }
                }
            }
        }
    }
    if (best < kNoObstacle) {
        // Only the winner's points are kept: collect them once, at the end.
        blockPoints.clear();
        depth.collectPoints(bestBlock, blockPoints);
        frontArea = blockPoints;
        int64_t columnSum = 0;
        int64_t rowSum = 0;
        for (const cv::Point2f& point : blockPoints) {
            columnSum += static_cast<int64_t>(point.x);
            rowSum += static_cast<int64_t>(point.y);
        }
        const auto count = static_cast<int64_t>(blockPoints.size());
        targetX = static_cast<float>(columnSum / count);
        targetY = static_cast<float>(rowSum / count);
    }
    dis_ori_z = best;
}

void Brake::measureCentreWindow(int rows, int columns, double cosFactor)
{
    // A 40 x 40 window whose lower right corner touches the centre.
    const int top = std::clamp(rows / 2 - kFrontBlock, 0, rows);
    const int bottom = std::clamp(rows / 2, 0, rows);
    const int bounds[2] = {std::clamp(columns / 2 - kFrontBlock, 0, columns), std::clamp(columns / 2, 0, columns)};
    BlockDepth::BlockSum window;
    depth.sumBlocks(top, bottom, bounds, 1, cosFactor, &window);
    dis_ori_z = kNoObstacle;
    if (window.count > kCentreMinPoints) {
        const float distance = blockDistance(window);
        if (isNearer(distance, kNoObstacle)) {
            blockPoints.clear();
            depth.collectPoints(cv::Rect(bounds[0], top, bounds[1] - bounds[0], bottom - top), blockPoints);
            frontArea = blockPoints;
            dis_ori_z = distance;
        }
    }
}

void Brake::getDistance_down(const cv::Mat& disparity)
{
    const int rows = disparity.rows;
    const int columns = disparity.cols;
    const int size = static_cast<int>(static_cast<float>(rows) / gridCount);  // px, truncated
    const int64_t minPoints = (static_cast<int64_t>(size) * size / 3) * 2;
    depth.setFrame(disparity, Q);
    blockPoints.clear();
    frontArea.clear();

    int bounds[kDownBlocks + 1];
    for (int m = 0; m <= kDownBlocks; ++m) {
        bounds[m] = static_cast<int>(std::clamp<int64_t>(static_cast<int64_t>(kDownFirstBlock + m) * size, 0, columns));
    }
    const double cosFactor = std::cos(flyInfo.pitch * kDegreesToRadians);
    float best = kNoObstacle;
    cv::Rect bestBlock;
    for (int band = 0; band < kDownBands; ++band) {
        const int top =
            static_cast<int>(std::clamp<int64_t>(static_cast<int64_t>(kDownFirstBlock + band) * size, 0, rows));
        const int bottom =
            static_cast<int>(std::clamp<int64_t>(static_cast<int64_t>(kDownFirstBlock + band + 1) * size, 0, rows));
        BlockDepth::BlockSum sums[kDownBlocks];
        depth.sumBlocks(top, bottom, bounds, kDownBlocks, cosFactor, sums);
        for (int m = 0; m < kDownBlocks; ++m) {
            if (sums[m].count > minPoints) {
                const float distance = blockDistance(sums[m]);
                if (isNearer(distance, best)) {
                    best = distance;
                    bestBlock = cv::Rect(bounds[m], top, bounds[m + 1] - bounds[m], bottom - top);
                }
            }
        }
    }
    if (best < kNoObstacle) {
        depth.collectPoints(bestBlock, blockPoints);
        frontArea = blockPoints;
    }
    dis_ori_z = best;
}

void Brake::dealBlindArea()
{
    if (distance_ori < blindDistance || (flyInfo.headSpeed < 0 && flyInfo.pitch < -10)) {
        distance_ori = kNoObstacle;
    }
}

void Brake::dealHighAltitudeMismatch(const cv::Mat& disparity)
{
    mismatchFlag = false;
    const int type = disparity.type();
    const cv::Size scaled(disparity.cols / kMismatchScale, disparity.rows / kMismatchScale);
    if ((type == CV_16SC1 || type == CV_32FC1) && scaled.width >= kMismatchPatch && scaled.height >= kMismatchPatch) {
        cv::resize(disparity, mismatchScaled, scaled, 0, 0, cv::INTER_LINEAR);
        mismatchMask.create(scaled, CV_8UC1);
        // Bin 0 takes 0 and every raw value of 1,026 or more; the other bins
        // together are the rest of the pixels, so only bin 0 is counted.
        int64_t zero = 0;
        for (int y = 0; y < scaled.height; ++y) {
            uint8_t* mask = mismatchMask.ptr<uint8_t>(y);
            for (int x = 0; x < scaled.width; ++x) {
                const int raw = type == CV_16SC1 ? static_cast<uint16_t>(mismatchScaled.at<int16_t>(y, x))
                                                 : cv::saturate_cast<uint16_t>(mismatchScaled.at<float>(y, x));
                zero += (raw == 0 || raw >= kMismatchBins) ? 1 : 0;
                mask[x] = (raw >= kMismatchSolidLow && raw <= kMismatchSolidHigh) ? 1 : 0;
            }
        }
        const float zeroFraction = static_cast<float>(zero) / static_cast<float>(scaled.area());
        // The template search only matters when the ratio condition holds.
        if (kMismatchZeroFraction < zeroFraction && zeroFraction < 1.0) {
            const cv::Mat patch(kMismatchPatch, kMismatchPatch, CV_8UC1, cv::Scalar(1));
            cv::Mat result;
            cv::matchTemplate(mismatchMask, patch, result, cv::TM_SQDIFF);
            double minimum = 0.0;
            cv::minMaxLoc(result, &minimum);
            mismatchFlag = minimum <= kMinDistance;
        }
    }
    faultDetectFlagOfTen = mismatchFlag;
}

float Brake::getPitchRate()
{
    if (timeuse <= kMinTimeuse) {
        return 0.0f;
    }
    return static_cast<float>(std::fabs(pitchDelta) / (timeuse * kMmToM));
}

void Brake::dealHorizontalWindow()
{
    if (dis_ori_z < kHorizontalWindowDistance) {
        const float offset = std::trunc(targetX - static_cast<float>(imageWidth / 2)) * dis_ori_z / focalLength;
        distance_ori = std::fabs(offset) > kHorizontalWindowOffset
                           ? static_cast<float>(lastDistanceOri - kHorizontalWindowStep)
                           : dis_ori_z;
    } else {
        distance_ori = dis_ori_z;
    }
}

void Brake::poseOutlierProcess()
{
    const float pitch = flyInfo.pitch;
    if (distance_ori > kFarDistance && ((pitch > 0 && pitch_rate > kFastPitchRate) || pitch > kSteepPitch)) {
        distanceFiltered_poseoutlier = static_cast<float>(lastDistanceOri - flown(flyInfo.headSpeed, timeuse));
    } else {
        distanceFiltered_poseoutlier = distance_ori;
    }
}

void Brake::outlier()
{
    float previous = lastPoseOutlier;
    if (mismatchRelease) {
        previous = kNoObstacle;
        mismatchRelease = false;
    }
    if (mismatchHold) {
        previous = kNoObstacle;
        mismatchHold = false;
        mismatchRelease = true;
    }
    float d = distanceFiltered_poseoutlier;
    if (mismatchFlag) {
        mismatchHold = true;
        d = kNoObstacle;
    }
    if (!mismatchFlag && outlierTracking && std::fabs(d - kNoObstacle) > kObstacleBand) {
        // An obstacle is seen.
        if (std::fabs(outlierRef - kNoObstacle) <= kObstacleBand) {
            if (countmax > kConfirmFrames) {
                outlierRef = d;
                outlierLast = d;
                countmax = 0;
            } else {
                d = kNoObstacle;
                outlierRef = kNoObstacle;
                outlierLast = kNoObstacle;
                ++countmax;
            }
            holdCount = 0;
        } else if (std::fabs(d - previous) > kObstacleBand) {
            outlierRef = previous;
            outlierLast = d;
            countmax = 0;
            holdCount = 0;
        } else {
            const float change = d - previous;
            const float scaled = change * kSmoothScale;
            const float gain = std::exp(-0.5f * (scaled * scaled));
            d = std::fabs(previous + change * kSmoothGain * gain);
            outlierRef = previous;
            outlierLast = d;
            countmax = 0;
            holdCount = 0;
        }
    } else if (!outlierTracking) {
        if (initCount <= kInitFrames) {
            d = kNoObstacle;
            outlierRef = kNoObstacle;
            outlierLast = kNoObstacle;
            ++initCount;
        } else {
            initCount = 0;
            outlierTracking = true;
            outlierRef = d;
            outlierLast = d;
        }
        countmax = 0;
        holdCount = 0;
    } else {
        // Tracking, and a mismatch frame or no obstacle.
        if (holdCount <= kHoldFrames) {
            d = previous;
            outlierRef = previous;
            outlierLast = previous;
            ++holdCount;
        } else {
            holdCount = 0;
            outlierRef = d;
            outlierLast = d;
        }
        countmax = 0;
    }
    distanceFiltered_outlier = d;
    distanceFiltered_poseoutlier = d;
}

void Brake::rejectFaultDetection()
{
    const float input = distanceFiltered_outlier;
    // Dormant: faultCount starts at 0 and only the armed branch advances it.
    if (faultCount == 0) {
        faultRef = input;
    } else if (analysisFlyDirect(flyInfo.headSpeed, flyInfo.rightSpeed, flyInfo.verticalSpeed) == FORWARD &&
               std::fabs(input - faultRef) > kFaultJump) {
        ++faultCount;
        if (faultCount > kFaultFrames) {
            faultCount = 0;
            faultRef = input;
            disRejectFaultDetect = input;
        } else {
            faultRef = static_cast<float>(faultRef - flown(flyInfo.headSpeed, timeuse));
            disRejectFaultDetect = faultRef;
        }
        return;
    }
    faultCount = 0;
    faultRef = input;
    disRejectFaultDetect = input;
}

void Brake::obstacleMissedPredict()
{
    const float input = disRejectFaultDetect;
    const float previous = getDistance();
    const float pitch = flyInfo.pitch;
    float output = input;
    if (analysisFlyDirect(flyInfo.headSpeed, flyInfo.rightSpeed, flyInfo.verticalSpeed) != FORWARD) {
        missedPredictActive = false;
        missedPredictIdle = true;
    } else if (!missedPredictActive) {
        missedPredictIdle = true;
        if (input < kPredictBelow && pitch > kSteepPitch) {
            missedPredictActive = true;
            missedPredictIdle = false;
            output = static_cast<float>(input - flown(flyInfo.headSpeed, timeuse));
        }
    } else if (pitch > kSteepPitch) {
        missedPredictIdle = false;
        output = static_cast<float>(previous - flown(flyInfo.headSpeed, timeuse));
    } else {
        missedPredictActive = false;
        missedPredictIdle = true;
    }
    distanceFiltered_app.store(output, std::memory_order_relaxed);
}

Brake::FlyDirect Brake::analysisFlyDirect(float headSpeed, float rightSpeed, float verticalSpeed)
{
    const float a = std::fabs(headSpeed);
    const float b = std::fabs(rightSpeed);
    const float c = std::fabs(verticalSpeed);
    if (a > kDominance * b && a > kDominance * c && b < kHover && c < kHover && a > kHover) {
        return headSpeed > 0 ? FORWARD : BACKWARD;
    }
    if (b > kDominance * a && b > kDominance * c && a < kHover && c < kHover && b > kHover) {
        return rightSpeed > 0 ? SIDEWAYS_POSITIVE : SIDEWAYS_NEGATIVE;
    }
    if (c > kDominance * b && c > kDominance * a && b < kHover && a < kHover && c > kHover) {
        return verticalSpeed > 0 ? VERTICAL_POSITIVE : VERTICAL_NEGATIVE;
    }
    return (headSpeed > -kHover && headSpeed < kHover) ? FORWARD : MIXED;
}

void Brake::reset()
{
    distance_ori = kNoObstacle;
    lastDistanceOri = kNoObstacle;
    distanceFiltered_poseoutlier = kNoObstacle;
    lastPoseOutlier = kNoObstacle;
    distanceFiltered_outlier = kNoObstacle;
    disRejectFaultDetect = kNoObstacle;
    distanceFiltered_app.store(kNoObstacle, std::memory_order_relaxed);
}

void Brake::update()
{
    lastPitch = flyInfo.pitch;
    lastDistanceOri = distance_ori;
    lastPoseOutlier = distanceFiltered_poseoutlier;
}

void Brake::getTargetRegionFromBrake(const cv::Vec3f& target)
{
    angle_x = target[0];
    angle_y = target[1];
    is_passable = target[2];
}

std::vector<cv::Point2f> Brake::getFrountArea() const { return frontArea; }

std::string Brake::getLogHeader() const
{
    std::string header;
    for (const char* column : kColumns) {
        header += column;
        header += '\t';
    }
    header += '\n';
    return header;
}

std::vector<std::string> Brake::getLogline() const
{
    return {
        formatFloat(flyInfo.pitch),
        formatFloat(flyInfo.headSpeed),
        formatFloat(flyInfo.rightSpeed),
        formatFloat(flyInfo.verticalSpeed),
        formatFloat(flyInfo.height),
        formatInt(static_cast<int>(flyInfo.armOrDisarm)),
        formatFloat(timeuse),
        formatFloat(pitch_rate),
        formatInt(countmax),
        formatFloat(dis_ori_z),
        formatFloat(distance_ori),
        formatFloat(distanceFiltered_poseoutlier),
        formatFloat(distanceFiltered_outlier),
        formatFloat(disRejectFaultDetect),
        formatFloat(getDistance()),
        formatInt(meetSpeedFlag ? 1 : 0),
        formatInt(smallDistanceFlag ? 1 : 0),
        formatInt(faultDetectFlagOfTen ? 1 : 0),
        formatFloat(angle_x),
        formatFloat(angle_y),
        formatFloat(is_passable),
    };
}
