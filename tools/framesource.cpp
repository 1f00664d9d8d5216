#include "framesource.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace camsim {
namespace {

uint64_t fileSize(std::ifstream& file)
{
    file.seekg(0, std::ios::end);
    std::streamoff size = file.tellg();
    file.seekg(0, std::ios::beg);
    return size > 0 ? static_cast<uint64_t>(size) : 0;
}

bool readPlane(std::ifstream& file, uint64_t frame, cv::Mat& plane)
{
    file.clear();
    file.seekg(static_cast<std::streamoff>(frame * plane.total()), std::ios::beg);
    file.read(reinterpret_cast<char*>(plane.data), static_cast<std::streamsize>(plane.total()));
    return static_cast<size_t>(file.gcount()) == plane.total();
}

}  // namespace

double obstacleDistanceAt(double startM, double speedMps, double minM, bool bounce, double elapsedS)
{
    if (!(startM > 0.0 && speedMps > 0.0)) {
        return startM;
    }
    const double span = startM - minM;
    if (!bounce || span <= 0.0) {
        return std::max(std::min(startM, minM), startM - speedMps * elapsedS);
    }
    // A triangle wave: `travelled` runs over one round trip, out then back.
    const double travelled = std::fmod(std::max(0.0, speedMps * elapsedS), 2.0 * span);
    return travelled <= span ? startM - travelled : minM + (travelled - span);
}

SceneSource::SceneSource(const scene::Rig& rig, const scene::SceneLayout& layout, double speedMps, double minDistanceM,
                         bool bounce, double stepM)
    : m_renderer(rig, layout),
      m_spec(layout),
      m_startM(layout.obstacleM),
      m_speedMps(speedMps),
      m_minDistanceM(minDistanceM),
      m_bounce(bounce),
      m_stepM(stepM)
{
}

bool SceneSource::next(double elapsedS, cv::Mat& left, cv::Mat& right)
{
    double distance = obstacleDistanceAt(m_startM, m_speedMps, m_minDistanceM, m_bounce, elapsedS);
    if (m_stepM > 0.0 && m_speedMps > 0.0 && distance > 0.0) {
        const long steps = std::lround(distance / m_stepM);
        distance = std::max(m_stepM, static_cast<double>(steps) * m_stepM);
        if (!m_rendered || distance != m_spec.obstacleM) {
            auto cached = m_cache.find(steps);
            m_spec.obstacleM = distance;
            if (cached == m_cache.end()) {
                m_renderer.render(distance, m_left, m_right);
                if (m_cache.size() < kMaxCached) {
                    m_cache.emplace(steps, std::make_pair(m_left.clone(), m_right.clone()));
                }
            } else {
                m_left = cached->second.first;
                m_right = cached->second.second;
            }
            m_rendered = true;
        }
        left = m_left;
        right = m_right;
        return true;
    }
    if (!m_rendered || distance != m_spec.obstacleM) {
        m_spec.obstacleM = distance;
        m_renderer.render(distance, m_left, m_right);
        m_rendered = true;
    }
    left = m_left;
    right = m_right;
    return true;
}

ImagePairSource::ImagePairSource(const std::string& leftFile, const std::string& rightFile, cv::Size size)
{
    cv::Mat leftImage = cv::imread(leftFile, cv::IMREAD_GRAYSCALE);
    cv::Mat rightImage = cv::imread(rightFile, cv::IMREAD_GRAYSCALE);
    if (leftImage.empty() || rightImage.empty()) {
        return;
    }
    cv::resize(leftImage, m_left, size, 0, 0, cv::INTER_AREA);
    cv::resize(rightImage, m_right, size, 0, 0, cv::INTER_AREA);
}

bool ImagePairSource::next(double, cv::Mat& left, cv::Mat& right)
{
    left = m_left;
    right = m_right;
    return valid();
}

ReplaySource::ReplaySource(const std::string& leftFile, const std::string& rightFile, cv::Size size)
    : m_leftFile(leftFile, std::ios::binary), m_rightFile(rightFile, std::ios::binary), m_size(size)
{
    if (!m_leftFile || !m_rightFile || size.area() <= 0) {
        return;
    }
    const uint64_t plane = static_cast<uint64_t>(size.area());
    m_frames = std::min(fileSize(m_leftFile), fileSize(m_rightFile)) / plane;
}

bool ReplaySource::next(double, cv::Mat& left, cv::Mat& right)
{
    if (m_frames == 0) {
        return false;
    }
    // Fresh matrices: the caller may still hold the previous pair.
    left = cv::Mat(m_size, CV_8UC1);
    right = cv::Mat(m_size, CV_8UC1);
    bool complete = readPlane(m_leftFile, m_nextFrame, left) && readPlane(m_rightFile, m_nextFrame, right);
    m_nextFrame = (m_nextFrame + 1) % m_frames;
    return complete;
}

scene::Rig rigOf(const Options& options)
{
    scene::Rig rig;
    rig.focalPx = options.focalPx;
    rig.baselineMm = options.baselineMm;
    rig.size = cv::Size(options.height, options.width);
    return rig;
}

std::unique_ptr<FrameSource> makeSource(const Options& options, std::string& error)
{
    const scene::Rig rig = rigOf(options);
    switch (options.source) {
        case SourceKind::Scene: {
            scene::SceneLayout layout;
            layout.backgroundM = options.backgroundM;
            layout.obstacleM = options.distanceM;
            layout.seed = options.seed;
            return std::make_unique<SceneSource>(rig, layout, options.speedMps, options.minDistanceM, options.bounce,
                                                 options.stepM);
        }
        case SourceKind::ImagePair: {
            auto source = std::make_unique<ImagePairSource>(options.leftFile, options.rightFile, rig.size);
            if (!source->valid()) {
                error = "cannot read '" + options.leftFile + "' and '" + options.rightFile + "' as images";
                return nullptr;
            }
            return source;
        }
        case SourceKind::Replay: {
            auto source = std::make_unique<ReplaySource>(options.leftFile, options.rightFile, rig.size);
            if (source->frameCount() == 0) {
                error = "'" + options.leftFile + "' and '" + options.rightFile + "' hold no whole " +
                        std::to_string(rig.size.width) + "x" + std::to_string(rig.size.height) + " frame";
                return nullptr;
            }
            return source;
        }
    }
    error = "unknown source";
    return nullptr;
}

}  // namespace camsim
