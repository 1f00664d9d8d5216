#pragma once
// The obstacle distance of one camera pair. Per frame the pipeline hands over
// the flight state, then the disparity map and the reprojection matrix Q;
// Brake measures a raw distance (front camera: a pitch-dependent search of
// 40 x 40 blocks; down camera: a fixed grid), applies the blind area and the
// high-altitude mismatch check, filters the result (attitude correction, jump
// and drop-out filter, fault rejection, dead reckoning) and supplies the
// per-frame record.
//
// Depth is the Z of cv::reprojectImageTo3D(disparity, Q, false, -1) in the
// calibration's unit (mm), computed bit for bit as OpenCV does but only for
// the pixels the searches read (BlockDepth). Distances are metres; 60 m means
// no obstacle.
//
// Disparity maps: CV_16SC1 in whole px (-1 invalid, block matching) or
// CV_32FC1 in px (-1.0 invalid, stereo unit), any size. Q: the 4 x 4
// reprojection matrix of any depth (the CV_32S identity while uncalibrated).
// A map of another type or a Q of another shape holds no valid point.
//
// Thread-bound: the pipeline's worker thread calls every operation, except
// getDistance(), which any thread may call at any time (lock-free).

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "blockdepth.h"
#include "common.h"

class Brake {
public:
    /// Where the chain's time comes from (timeuse, pitch_rate, dead
    /// reckoning). Production uses cv::getTickCount and cv::getTickFrequency;
    /// tests hand in a clock they advance themselves.
    struct Clock {
        std::function<int64_t()> ticks;
        double ticksPerSecond = 1.0;

        static Clock tickCounter();
    };

    /// Result of analysisFlyDirect: the dominant axis of motion.
    enum FlyDirect : int {
        MIXED = 1,              ///< no dominant axis, |headSpeed| >= 0.4 m/s
        FORWARD = 2,            ///< forward, or |headSpeed| < 0.4 m/s (hovering)
        BACKWARD = 3,           ///< forward axis, headSpeed <= 0
        SIDEWAYS_NEGATIVE = 4,  ///< right axis, rightSpeed <= 0
        SIDEWAYS_POSITIVE = 5,  ///< right axis, rightSpeed > 0
        VERTICAL_POSITIVE = 6,  ///< vertical axis, verticalSpeed > 0
        VERTICAL_NEGATIVE = 7,  ///< vertical axis, verticalSpeed <= 0
    };

    static constexpr float kNoObstacle = 60.0f;  ///< m

    /// Logs "<prefix> Brake: start " at INFO. A clock without ticks is
    /// replaced by the tick counter.
    explicit Brake(Common::Direction direction, Clock clock = Clock::tickCounter());
    ~Brake();
    Brake(const Brake&) = delete;
    Brake& operator=(const Brake&) = delete;

    // The frame, in the pipeline's order.

    /// Copies the flight state, sets pitchDelta and flyInfoTick, then
    /// checkSpeed() and checkSmallDistance().
    void setFlyInfo(const Common::FlyInfo& info);
    bool meetSpeed() const { return meetSpeedFlag; }
    /// The per-frame chain: measure, blind area, mismatch check, timing,
    /// filters; ends in distanceFiltered_app. `disparity` is read only.
    void setDisparity(const cv::Mat& disparity, cv::Mat Q);
    /// Instead of setDisparity when meetSpeed() is false: every stage output
    /// and both history values to 60; dis_ori_z, counters and flags stay.
    void reset();
    /// Copies the pipeline's avoidance target (angle_x, angle_y, is_passable).
    void getTargetRegionFromBrake(const cv::Vec3f& target);
    /// 23 column names, each followed by a tab, then one line feed.
    std::string getLogHeader() const;
    /// Columns 1 to 21 of the record ("%f" or "%d"), without separators.
    std::vector<std::string> getLogline() const;
    /// (column, row) of every valid point of the block that gave dis_ori_z.
    std::vector<cv::Point2f> getFrountArea() const;
    /// Shifts lastPitch, lastDistanceOri and lastPoseOutlier.
    void update();
    /// distanceFiltered_app, m. Any thread.
    /// Relaxed: the distance is a single value that guards no other data; the
    /// reporter reads it after the frame semaphore, which orders the frame.
    float getDistance() const { return distanceFiltered_app.load(std::memory_order_relaxed); }

    // Measurement: each writes dis_ori_z and frontArea.
    void getDistance_front(const cv::Mat& disparity);
    void getDistance_down(const cv::Mat& disparity);
    /// Not in the chain: distance_ori from the lateral offset of the block.
    void dealHorizontalWindow();
    void dealBlindArea();
    /// Degrees per second; 0 when timeuse <= 20 ms.
    float getPitchRate();
    /// Sets mismatchFlag and faultDetectFlagOfTen.
    void dealHighAltitudeMismatch(const cv::Mat& disparity);

    // Flight state and filters.
    void checkSpeed();
    void checkSmallDistance();
    void poseOutlierProcess();
    void outlier();
    void rejectFaultDetection();
    void obstacleMissedPredict();
    static FlyDirect analysisFlyDirect(float headSpeed, float rightSpeed, float verticalSpeed);

    /// Not filled: the chain computes depth only where it reads it
    /// (BlockDepth). Kept as the data model's first member.
    cv::Mat points3d;
    std::string logPrefix;  ///< "[BINOLIB] [front]" or "[BINOLIB] [down]"
    Common::Direction direction;
    Common::FlyInfo flyInfo;                               ///< last flight state; all zero before setFlyInfo
    cv::Mat Q;                                             ///< reprojection matrix of the current frame
    float dis_ori_z = kNoObstacle;                         ///< m, raw distance of this frame
    float distance_ori = kNoObstacle;                      ///< m, after the blind area
    float lastDistanceOri = kNoObstacle;                   ///< m, distance_ori of the previous frame
    float distanceFiltered_poseoutlier = kNoObstacle;      ///< m, attitude correction (then outlier's result)
    float lastPoseOutlier = kNoObstacle;                   ///< m, previous frame's distanceFiltered_poseoutlier
    float distanceFiltered_outlier = kNoObstacle;          ///< m
    float disRejectFaultDetect = kNoObstacle;              ///< m
    std::atomic<float> distanceFiltered_app{kNoObstacle};  ///< m, the final distance
    float pitchDelta = 0.0f;                               ///< degrees, pitch - lastPitch
    float lastPitch = 0.0f;                                ///< degrees, at the last update()
    bool meetSpeedFlag = false;
    int64_t flyInfoTick = 0;      ///< clock ticks at the last setFlyInfo
    int64_t frameTick = 0;        ///< clock ticks when the frame was measured
    float backSpeedLimit = 1.0f;  ///< m/s: no measuring when flying backwards faster
    bool smallDistanceFlag = false;
    int32_t smallDisCount = 0;      ///< consecutive qualifying setFlyInfo calls
    float smallDisSpeed = 3.0f;     ///< m/s
    float smallDisDistance = 6.0f;  ///< m
    float smallDisFrames = 3.0f;
    float timeuse = 0.0f;                  ///< ms from setFlyInfo to the measurement
    float pitch_rate = 0.0f;               ///< degrees/s
    std::vector<cv::Point2f> blockPoints;  ///< scratch: valid points of a block
    std::vector<cv::Point2f> frontArea;    ///< valid points of the block that gave dis_ori_z
    float gridCount = 16.0f;               ///< blocks along the height (down camera)
    float fovVertical = 65.0f;             ///< degrees; 49 once a 544 x 640 frame was measured
    float focalLength = 505.0f;            ///< px, dealHorizontalWindow only
    float targetX = 0.0f;                  ///< px, column of the chosen block's centre
    float targetY = 0.0f;                  ///< px, row of the chosen block's centre
    int32_t imageWidth = 0;                ///< disparity columns
    int32_t imageHeight = 0;               ///< disparity rows
    float blindDistance = 0.6f;            ///< m
    bool faultDetectFlagOfTen = false;     ///< logged high-altitude mismatch result
    bool mismatchFlag = false;             ///< this frame's high-altitude mismatch
    bool mismatchHold = false;
    bool mismatchRelease = false;
    bool outlierTracking = false;
    float outlierRef = kNoObstacle;   ///< m
    float outlierLast = kNoObstacle;  ///< m
    int32_t countmax = 0;             ///< frames a new obstacle has been suppressed
    int32_t holdCount = 0;
    int32_t initCount = 0;
    int32_t faultCount = 0;
    float faultRef = kNoObstacle;  ///< m
    bool missedPredictActive = false;
    bool missedPredictIdle = true;
    float angle_x = 0.0f;  ///< avoidance target, record only
    float angle_y = 0.0f;
    float is_passable = 0.0f;

private:
    /// The 40 x 40 block search of a flying front camera over bands
    /// firstBand..lastBand of a rows x columns map: the nearest qualifying
    /// block's distance, points and centre.
    void searchFrontBlocks(int rows, int columns, int firstBand, int lastBand, double cosFactor);
    /// The front camera's window when not flying.
    void measureCentreWindow(int rows, int columns, double cosFactor);

    Clock clock;
    BlockDepth depth;
    // Scratch, reused from frame to frame.
    std::vector<int> blockBounds;
    std::vector<BlockDepth::BlockSum> blockSums;
    cv::Mat mismatchScaled;
    cv::Mat mismatchMask;
};
