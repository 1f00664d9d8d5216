#pragma once
// One stereo camera pair's pipeline: its frame reader, disparity matcher,
// distance chain, record files and debug stream, and the worker thread that
// takes each frame through them. The module entry reads the pair's distance,
// target region and camera status from it, and hands it the flight state.
//
// Thread contract:
//   - constructor, destructor: the module entry's (host) thread;
//   - setFlyInfo(): the thread that delivers host messages, any time;
//   - getDistance(): the pair's reporter thread only (it consumes frames);
//   - getTargetRegion(), getBinoStatus(), getServerInfo(): any thread;
//   - everything else: the worker thread.
// Nothing on the frame path takes a lock: the flight state is handed over
// field by field through atomics, so the worker may see one frame's state
// half updated, which the filters accept.

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "binologger.h"
#include "brake.h"
#include "common.h"
#include "imagereader.h"
#include "server.h"
#include "stagetrace.h"
#include "stereomatcher.h"
#include "stoppablethread.h"
#include "unnamedsemaphore.h"

class DroneBino {
public:
    enum Processor : int {
        BRAKE = 0,  ///< distance chain and braking
        AVOID = 1,  ///< placeholder: a thread that only sleeps; no distance ever
    };

    /// The flight state as two threads share it: written whole by
    /// setFlyInfo(), read whole by the worker once per frame.
    class SharedFlyInfo {
    public:
        void store(const Common::FlyInfo& info);
        Common::FlyInfo load() const;
        bool visionSwitch() const { return m_visionSwitch.load(std::memory_order_relaxed); }
        void setVisionSwitch(bool on) { m_visionSwitch.store(on, std::memory_order_relaxed); }

    private:
        std::atomic<bool> m_visionSwitch{false};
        std::atomic<float> m_pitch{0.0f};
        std::atomic<float> m_headSpeed{0.0f};
        std::atomic<float> m_rightSpeed{0.0f};
        std::atomic<float> m_verticalSpeed{0.0f};
        std::atomic<float> m_height{0.0f};
        std::atomic<uint32_t> m_armOrDisarm{0};
    };

    /// Reads the pair's settings, refusing (std::invalid_argument, naming the
    /// section, key and value) any the pipeline cannot process, then builds
    /// the parts and starts the worker. A missing or non-numeric key throws
    /// as std::stoi does. Nothing has started when it throws.
    explicit DroneBino(Common::Direction direction);
    /// The module never destroys a pipeline. Tests do: the worker is stopped
    /// and joined first; no reporter may be inside getDistance().
    ~DroneBino();

    DroneBino(const DroneBino&) = delete;
    DroneBino& operator=(const DroneBino&) = delete;

    void loadCfg();
    void init();
    void initProcessor(Processor which);
    void initBrake();
    void initAvoid();
    void brakeRun();
    void avoidRun();

    /// Blocks until the worker has finished one more frame's distance step,
    /// then returns the filtered distance in m (60: nothing within range).
    float getDistance();
    /// (x, y, passable); stays 0, 0, 0: no target-region search is wired in.
    std::array<float, 3> getTargetRegion() const;
    /// The reader's (hardware, calibration) status.
    std::pair<int, int> getBinoStatus();
    void setFlyInfo(const Common::FlyInfo& info);
    /// The debug server's address and port of this pair (front 8883, down
    /// 8884); other directions leave both unchanged.
    void getServerInfo(std::string& address, int& port) const;
    /// One stereo-pair packet and one colour-disparity packet to the viewer.
    /// Scales `disparity` by 16 in place.
    void sendToSever(Server& to, const cv::Mat& left, const cv::Mat& right, cv::Mat& disparity,
                     const std::vector<cv::Point2f>& area, float distance);

    SharedFlyInfo flyInfo;
    std::string logHeader;  ///< "[BINOLIB] [front]" or "[BINOLIB] [down]"
    Common::Direction direction;
    int imageType = 0;
    int width = 640;   ///< camera image width, px (before rotation)
    int height = 480;  ///< camera image height, px
    ImageReader::Source source = ImageReader::SHM;
    StereoMatcher::Matcher matcher = StereoMatcher::DPU;
    Processor processor = BRAKE;
    int saveImage = 0;
    int saveInterval = 5;
    std::unique_ptr<UnnamedSemaphore> frameReady;  ///< one post per processed frame
    std::unique_ptr<ImageReader> reader;
    std::unique_ptr<StereoMatcher> stereo;
    std::unique_ptr<BinoLogger> logger;
    std::unique_ptr<Brake> brake;
    std::unique_ptr<Server> server;         ///< created by the worker
    std::vector<unsigned char> sendBuffer;  ///< left then right image, for the stream
    const std::array<float, 3> targetRegion{0.0f, 0.0f, 0.0f};

private:
    /// Refuses settings the reader or the matcher cannot process; a pipeline
    /// on the stereo unit claims the unit's one image size.
    void checkSettings();
    /// Steps of one frame, from taking it off the reader's queue to the
    /// debug stream. `disparity` is the worker's, kept from frame to frame.
    void runPass(cv::Mat& disparity);
    /// Closes the record file and sleeps in 5 ms steps while sensing is off;
    /// false once the worker is asked to stop.
    bool waitWhileSensingOff();

    bool unitClaimed = false;            ///< holds a claim on the stereo unit's size
    std::unique_ptr<StageTrace> stages;  ///< created by the worker; off unless asked for
    StoppableThread worker;              ///< declared last: stopped before the parts go
};
