#pragma once
// Where camsim's frames come from. Every source yields upright pairs, in the
// orientation and size the module works in after its rotation.

#include <fstream>
#include <map>
#include <memory>
#include <string>

#include <opencv2/core.hpp>

#include "camsimoptions.h"
#include "scenerender.h"

namespace camsim {

class FrameSource {
public:
    virtual ~FrameSource() = default;

    /// The pair to send `elapsedS` seconds after the start, CV_8UC1 of the
    /// rotated size. False when the source has no more frames.
    virtual bool next(double elapsedS, cv::Mat& left, cv::Mat& right) = 0;

    /// Obstacle distance of the last pair, m; negative when the source does
    /// not know it.
    virtual double distanceM() const { return -1.0; }
};

/// Obstacle distance `elapsedS` after the start, m. Approaches from `startM`
/// at `speedMps` and stops at `minM`; with `bounce` it turns back there,
/// turns again at `startM`, and so on. Without motion (start or speed not
/// positive) it stays at `startM`.
double obstacleDistanceAt(double startM, double speedMps, double minM, bool bounce, double elapsedS);

/// The synthetic scene, with the obstacle approaching at a constant speed
/// until it reaches the minimum distance. A pair is rendered again only when
/// the distance has changed; the background is rendered once.
class SceneSource : public FrameSource {
public:
    SceneSource(const scene::Rig& rig, const scene::SceneLayout& layout, double speedMps, double minDistanceM,
                bool bounce = false, double stepM = 0.0);
    bool next(double elapsedS, cv::Mat& left, cv::Mat& right) override;
    double distanceM() const override { return m_spec.obstacleM; }

private:
    scene::PairRenderer m_renderer;
    scene::SceneLayout m_spec;
    double m_startM;
    double m_speedMps;
    double m_minDistanceM;
    bool m_bounce;
    double m_stepM;
    /// Pairs rendered at rounded distances, by distance in steps; at most
    /// kMaxCached, so memory stays bounded whatever the motion.
    std::map<long, std::pair<cv::Mat, cv::Mat>> m_cache;
    static constexpr size_t kMaxCached = 256;
    bool m_rendered = false;
    cv::Mat m_left;
    cv::Mat m_right;
};

/// One pair of image files, read as grey and resized to the rotated size;
/// sent again and again.
class ImagePairSource : public FrameSource {
public:
    /// Empty images when a file cannot be read as an image (see valid()).
    ImagePairSource(const std::string& leftFile, const std::string& rightFile, cv::Size size);
    bool valid() const { return !m_left.empty() && !m_right.empty(); }
    bool next(double elapsedS, cv::Mat& left, cv::Mat& right) override;

private:
    cv::Mat m_left;
    cv::Mat m_right;
};

/// Raw recordings: files of 8-bit planes of the rotated size, one after
/// another. Frames are read in order and replay starts over after the last
/// whole frame of the shorter file.
class ReplaySource : public FrameSource {
public:
    ReplaySource(const std::string& leftFile, const std::string& rightFile, cv::Size size);
    /// Number of whole frames both files hold; 0 when a file is missing or
    /// shorter than one frame.
    uint64_t frameCount() const { return m_frames; }
    bool next(double elapsedS, cv::Mat& left, cv::Mat& right) override;

private:
    std::ifstream m_leftFile;
    std::ifstream m_rightFile;
    cv::Size m_size;
    uint64_t m_frames = 0;
    uint64_t m_nextFrame = 0;
};

/// The source the options select, or null with `error` set.
std::unique_ptr<FrameSource> makeSource(const Options& options, std::string& error);

/// The rig the options describe, in the rotated frame (height x width).
scene::Rig rigOf(const Options& options);

}  // namespace camsim
