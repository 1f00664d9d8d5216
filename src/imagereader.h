#pragma once
// The stereo frame reader of one camera pair: a polling thread takes whole
// frame messages from the camera's shared-memory queue, rotates the two grey
// images upright, optionally rectifies them, clips highlights at 240 and keeps
// at most two frames for the camera pipeline. With rectification on, the
// turn, the rectification and the clip are done in one remap of the raw
// images by the frame's consumer, which can ready the part it needs first
// (QueueData). It also holds the pair's calibration (the reprojection matrix
// Q and the rectification maps) and its health for the status report.
//
// The frame message layout is in framelayout.h.
//
// Thread-safety: one polling thread writes the image and detector fields;
// one consumer thread calls getImageBlock(); getBinoStatus() and getQ() may be
// called from any thread. Everything else is for the constructing thread.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "common.h"
#include "shmmqueue.h"
#include "stoppablethread.h"
#include "unnamedsemaphore.h"

class ImageReader {
public:
    enum Source : int {
        SHM = 0,     ///< frames from the camera's shared-memory queue
        SOCKET = 1,  ///< placeholder: a thread that only sleeps, no frames ever
        NONE = 2,    ///< no frame source: no thread, no queue (any other value acts alike)
    };

    /// First value of getBinoStatus(): the camera's health.
    enum HardwareStatus : int {
        FRAMES_ARRIVING = 0,
        NO_FRAMES = 1,  ///< 100 empty polls in a row; wins over LOW_LIGHT
        LOW_LIGHT = 2,  ///< seven dark frames in a row
    };

    /// Second value of getBinoStatus().
    enum CalibStatus : int {
        CALIB_PRESENT = 0,  ///< all four calibration files exist
        CALIB_MISSING = 1,
    };

    /// When the poller took a frame's message out of the queue and when it
    /// had queued the frame, CLOCK_MONOTONIC microseconds (the camera's clock).
    struct FrameTimes {
        uint64_t polledUs = 0;
        uint64_t queuedUs = 0;
    };

    /// One queued frame: images of its own, so the poller never touches them
    /// again. With rectification on, the poller only copies the raw images
    /// and the consumer rectifies: first the region it needs at once
    /// (rectifyRegion), the rest when it gets to them (complete). The bytes
    /// are those the poller would have made.
    struct QueueData {
        /// Rectified and clipped only in the region made ready so far; whole
        /// after complete().
        cv::Mat left;
        cv::Mat right;
        unsigned long long leftTimestamp = 0;
        unsigned long long rightTimestamp = 0;
        FrameTimes times;

        /// Raw images and the maps that read them, kept until every pixel is ready.
        struct Pending {
            std::array<cv::Mat, 2> raw;
            std::array<cv::Mat, 2> map1;
            std::array<cv::Mat, 2> map2;
            cv::Rect ready;  ///< the region made ready so far
        };
        std::shared_ptr<Pending> pending;  ///< null once every pixel is ready

        /// Makes `region` (clipped to the image) ready in left and right.
        /// Only one region is kept apart: asked for a second one that the
        /// first does not contain, it makes the whole images ready.
        void rectifyRegion(cv::Rect region);
        /// Makes every pixel ready.
        void complete();
    };

    /// The frame queue: two slots, one producer (the poller, under
    /// producerLock) and one consumer (getImageBlock, under consumerLock). Each
    /// side only advances its own counter, with release ordering after it has
    /// finished with the slot, and reads the other's with acquire ordering.
    class FrameRing {
    public:
        static constexpr uint64_t kCapacity = 2;

        /// Producer side: true when both slots hold unconsumed frames.
        bool full() const
        {
            return pushed.load(std::memory_order_relaxed) - popped.load(std::memory_order_acquire) >= kCapacity;
        }
        /// Producer side; the caller has checked full().
        void push(QueueData&& frame);
        /// Consumer side: the oldest frame, or an empty one if none is queued.
        QueueData pop();
        /// Unconsumed frames; exact only when neither side is active.
        uint64_t size() const
        {
            return pushed.load(std::memory_order_acquire) - popped.load(std::memory_order_acquire);
        }

    private:
        QueueData slots[kCapacity];
        std::atomic<uint64_t> pushed{0};
        std::atomic<uint64_t> popped{0};
    };

    /// Logs the configuration, loads the calibration and starts the source's
    /// thread. With SHM a failure to create the shared memory ends the process.
    ImageReader(Common::Direction direction, Source source, int width, int height);

    /// The module never destroys a reader: its thread runs until the process
    /// ends. For tests and tools the destructor stops the thread, waits until
    /// it has left this object, and deletes the queue, which removes the
    /// shared-memory segment. No consumer may be inside getImageBlock().
    ~ImageReader();

    ImageReader(const ImageReader&) = delete;
    ImageReader& operator=(const ImageReader&) = delete;

    void init();
    void initSource(Source source);
    void initShm();
    void initSocket();
    /// 9990 front, 9991 down, -1 (logged) otherwise.
    int getShmKey();

    /// Polling thread body: one poll every 5 ms until the reader is destroyed.
    void shmRun();
    /// Socket placeholder thread body: sleeps in 1 s steps.
    void socketRun();

    /// One poll: takes a message from the queue (an empty or corrupt ring
    /// counts towards noImage) and processes it.
    void pollOnce();
    /// Everything the poller does with a message of `length` bytes that has
    /// arrived in frameBuffer. Never reads frameBuffer beyond `length` and
    /// never queues an empty image.
    void processMessage(size_t length);

    /// Points leftRaw/rightRaw at the message in frameBuffer and reads the
    /// timestamps when the message carries the configured size; otherwise logs
    /// and keeps the previous views and timestamps.
    void getBinoMat();
    /// Updates the low-light detector from leftRaw's mean; returns lowLight.
    bool checkLowLight();
    void rotateImage();
    /// Queues left/right unless two frames are waiting, and leaves the
    /// members empty, so the next frame is made in new buffers; posts
    /// frameReady only for a queued frame.
    void matEnqueue();

    /// Blocks until a frame is queued and hands out the oldest one, whole.
    /// Returns 0.
    int getImageBlock(cv::Mat& left, cv::Mat& right, unsigned long long& leftTimestamp,
                      unsigned long long& rightTimestamp);
    /// As getImageBlock, but the frame may still have parts to rectify: the
    /// caller makes ready what it reads first, and completes the rest later.
    /// Sets takenFrameTimes() as well.
    QueueData getFrameBlock();

    cv::Size getUsedSize();
    /// Header copy of Q: the 4x4 CV_64F reprojection matrix (depth in the unit
    /// of the calibration's T), or the CV_32S identity while uncalibrated.
    cv::Mat getQ();
    void enableRemap(bool enable);
    /// first: 0 frames arriving, 1 no frames (wins), 2 low light;
    /// second: 0 calibration files present, 1 otherwise.
    std::pair<int, int> getBinoStatus();

    bool isFileExists(const std::string& path);
    void checkCalib();
    /// 0 when Q and the maps were computed; -1 (logged) with Q and the maps
    /// left as they were.
    int loadCalibParams();
    /// Rectifies left/right in place; without maps the images stay as they are.
    void calibImage();

    /// The times of the frame the last getImageBlock handed out. For the
    /// caller of getImageBlock only.
    FrameTimes takenFrameTimes() const { return takenTimes; }

    /// Completed polls since the thread started. Lets a caller wait until the
    /// poller has seen what it sent, instead of guessing with sleeps.
    uint64_t pollCount() const { return polls.load(std::memory_order_acquire); }

    std::string name;
    Common::Direction direction;
    Source source;
    int width;          ///< configured camera image width, pixels
    int height;         ///< configured camera image height, pixels
    cv::Size usedSize;  ///< size after rotation: (height, width)
    uint32_t imageSize;
    uint32_t blockSize;
    std::unique_ptr<UnnamedSemaphore> frameReady;  ///< counts queued frames
    std::mutex consumerLock;
    std::mutex producerLock;
    shmmqueue::CMessageQueue* queue = nullptr;
    /// Receives one message. As large as the ring, so no payload the queue
    /// can deliver, even from a corrupt ring, overruns it.
    std::vector<unsigned char> frameBuffer;
    cv::Mat leftRaw;   ///< view into frameBuffer, configured orientation
    cv::Mat rightRaw;  ///< view into frameBuffer, configured orientation
    cv::Mat left;      ///< rotated (and rectified, clipped) image being queued
    cv::Mat right;
    FrameRing frames;
    std::atomic<bool> noImage{false};
    int failLimit = 100;
    int failCount = 0;
    std::atomic<bool> lowLight{false};
    bool darkStarted = false;
    int darkCount = 0;
    cv::Mat Q;
    cv::Mat leftMap1;
    cv::Mat leftMap2;
    cv::Mat rightMap1;
    cv::Mat rightMap2;
    std::atomic<bool> calibOk{false};
    std::atomic<bool> remapEnabled{false};
    unsigned long long leftTimestamp = 0;
    unsigned long long rightTimestamp = 0;

private:
    /// Path of one calibration file of this direction; empty for an unknown
    /// direction.
    std::string calibFile(const char* fileName) const;
    void startThread(void (ImageReader::*body)());

    /// Readies the frame for rotateImage() then calibImage() in one remap of
    /// the raw images by its consumer, with the same result to the byte:
    /// copies the raw images into `pending` and sets left/right to the
    /// unfilled results. False (nothing done) without maps of the usual form.
    bool deferRectification();

    size_t messageLength = 0;  ///< bytes of the message now in frameBuffer
    uint64_t polledUs = 0;     ///< when the message now in frameBuffer was taken
    FrameTimes takenTimes;     ///< of the frame getImageBlock handed out last
    /// Raw copies and maps of the frame in left/right, when its rectification
    /// is left to the consumer.
    std::shared_ptr<QueueData::Pending> pending;
    /// The rectification maps with the quarter turn folded in, read the raw
    /// images; the poller's own, made from the maps whose data foldedFrom names.
    cv::Mat leftRawMap1;
    cv::Mat leftRawMap2;
    cv::Mat rightRawMap1;
    cv::Mat rightRawMap2;
    std::array<const uchar*, 2> foldedFrom{};
    std::atomic<uint64_t> polls{0};
    StoppableThread worker;  ///< the source's thread; declared last, stopped first
};
