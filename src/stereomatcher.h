#pragma once
// Disparity for one camera pair from rotated grey images, by the hardware
// stereo unit (DPU), by OpenCV block matching on a pitch-dependent band (BM),
// or not at all (NPU, reserved).
//
// Thread-bound: each camera's pipeline thread owns its matcher. The two
// cameras' matchers may compute at the same time; they use different groups
// of the stereo unit.

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "common.h"
#include "stripedblockmatcher.h"

class StereoMatcher {
public:
    /// Configuration value "matcher" of a camera section.
    enum Matcher : int {
        DPU = 0,  ///< hardware stereo unit; output CV_32F in px, 1/64 px steps, -1.0 invalid
        BM = 1,   ///< cv::StereoBM on a band; output CV_16S in whole px, -1 invalid, 0 outside the band
        NPU = 2,  ///< reserved: computes nothing and leaves the output as it was
    };

    /// Unused by every back end; the pipeline passes 0.
    using ParaType = int;

    /// Throws std::bad_array_new_length when `size` has no valid pixel count.
    StereoMatcher(Common::Direction direction, Matcher matcher, cv::Size size);

    void init();
    void initMatcher();
    void initBM();
    void initDPU();
    void initNPU();

    /// Pitch used to choose the band of the next BM computation, in the
    /// flight state's unit (degrees).
    void setPitch(float pitch);

    /// Always returns 0. With DPU, `disparity` becomes a view on this
    /// matcher's buffer that the next call overwrites.
    int compute(cv::Mat& left, cv::Mat& right, cv::Mat& disparity, ParaType type);
    void getDisparity(cv::Mat& left, cv::Mat& right, cv::Mat& disparity, ParaType type);
    void getDisparityBM(cv::Mat& left, cv::Mat& right, cv::Mat& disparity, ParaType type);
    void getDisparityDPU(cv::Mat& left, cv::Mat& right, cv::Mat& disparity, ParaType type);
    void getDisparityNPU(cv::Mat& left, cv::Mat& right, cv::Mat& disparity, ParaType type);

    /// Decodes `hwDisparity` into `disparityBuffer` (px; -1.0 where bit 15 is
    /// set, except that a bare 0x8000 gives -0.0) and makes `disparity` a
    /// size.height x size.width CV_32F view on it.
    void fixed2float(cv::Mat& disparity);

    /// Band of rows (in the rotated image) that BM searches, with 80 px
    /// margins left and right. Not clamped: valid for images of at least 400
    /// rows and more than 160 columns.
    cv::Rect decideROI(float pitch, int rows, int cols);

    /// The part of images of `rows` x `cols` px that the next compute reads:
    /// the band for the pitch set with BM, all of them otherwise.
    cv::Rect regionRead(int rows, int cols);

    std::string name;  ///< log prefix "[BINOLIB] [front]" or "[BINOLIB] [down]"
    Common::Direction direction;
    Matcher matcher;
    cv::Size size;  ///< rotated image size in px
    /// Raw unit output, row-major with rows of size.width words; never
    /// shorter than the 640 x 480 words the dump writes. DPU only.
    std::unique_ptr<uint16_t[]> hwDisparity;
    /// Decoded disparity in px, same layout. DPU only.
    std::unique_ptr<float[]> disparityBuffer;
    cv::Ptr<cv::StereoBM> bm;  ///< BM only: the settings
    /// BM only: computes with bm's settings as they were at initBM, in
    /// parallel stripes, with bm's very result.
    std::unique_ptr<StripedBlockMatcher> stripedBm;
    float pitch = 0.0f;
    /// BM only: the band's disparity in 1/16 px, kept between calls.
    cv::Mat bandDisparity;

    /// Whether the dump of the first front frame is still to be written.
    /// Process-wide; only front matchers touch it.
    static std::atomic<bool> first;

private:
    /// True when the stereo unit's last successful dpu_init in this process
    /// was for `size`. The unit knows one image size for both groups, so a
    /// camera of another size must not use it: the unit would write that
    /// size's pixel count into this camera's buffer.
    bool unitHasOurSize() const;

    /// Set while the unit is refused, so the reason is logged once per
    /// refusal, not once per frame.
    bool unitRefusalLogged = false;
};
