#include "scenerender.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

namespace scene {

// Each plane's texture is a sum of kWaves unit-amplitude plane waves (below).
struct Texture {
    std::vector<double> fx;     // cycles per pixel along x
    std::vector<double> fy;     // cycles per pixel along y
    std::vector<double> phase;  // radians
};

namespace {

constexpr double kTwoPi = 6.283185307179586;

// Each plane's texture is a sum of kWaves unit-amplitude plane waves
//   s(x, y) = sum_k cos(2*pi*(fx_k*x + fy_k*y) + phase_k)
// with spatial frequencies between kMinCycles and kMaxCycles cycles per pixel:
// well below the 0.5 Nyquist limit, so sampling at any sub-pixel position is
// exact and interpolating matchers see a smooth signal; and high enough that
// a 9x9 block finds a unique match.
constexpr int kWaves = 48;
constexpr double kMinCycles = 0.02;
constexpr double kMaxCycles = 0.22;

// Grey level = kMidGrey + kSwing * tanh(s / (kSpread * sigma)), sigma being the
// standard deviation of s. tanh is smooth (keeps the texture continuous) and
// bounds the result to kMidGrey +- kSwing, i.e. 25..235 before rounding.
constexpr double kMidGrey = 130.0;
constexpr double kSwing = 105.0;
constexpr double kSpread = 1.5;

// Uniform in [0, 1) from the top 53 bits of two draws; std::mt19937 is
// specified bit-exactly, so the texture of a seed is the same on every platform.
double uniform(std::mt19937& rng)
{
    uint64_t high = rng() >> 5;
    uint64_t low = rng() >> 6;
    return (static_cast<double>(high) * 67108864.0 + static_cast<double>(low)) / 9007199254740992.0;
}

Texture makeTexture(uint32_t seed)
{
    std::mt19937 rng(seed);
    Texture texture;
    for (int k = 0; k < kWaves; ++k) {
        double radius = kMinCycles + (kMaxCycles - kMinCycles) * uniform(rng);
        double angle = kTwoPi * 0.5 * uniform(rng);
        texture.fx.push_back(radius * std::cos(angle));
        texture.fy.push_back(radius * std::sin(angle));
        texture.phase.push_back(kTwoPi * uniform(rng));
    }
    return texture;
}

// Grey levels (CV_32F) of the texture for the pixels (x, y) of `area`, each
// sampled at (x + shiftPx, y). cos(a + b) = cos a cos b - sin a sin b
// separates the row and column terms, so the sum over the waves is two matrix
// products. Phases are computed in double; the products in float keep the
// sum within 1e-5 of a grey level.
cv::Mat sample(const Texture& texture, cv::Rect area, double shiftPx)
{
    cv::Mat rowCos(area.height, kWaves, CV_32F);
    cv::Mat rowSin(area.height, kWaves, CV_32F);
    cv::Mat colCos(kWaves, area.width, CV_32F);
    cv::Mat colSin(kWaves, area.width, CV_32F);
    for (int k = 0; k < kWaves; ++k) {
        for (int row = 0; row < area.height; ++row) {
            double a = kTwoPi * texture.fy[k] * (area.y + row) + texture.phase[k];
            rowCos.at<float>(row, k) = static_cast<float>(std::cos(a));
            rowSin.at<float>(row, k) = static_cast<float>(std::sin(a));
        }
        for (int col = 0; col < area.width; ++col) {
            double b = kTwoPi * texture.fx[k] * (area.x + col + shiftPx);
            colCos.at<float>(k, col) = static_cast<float>(std::cos(b));
            colSin.at<float>(k, col) = static_cast<float>(std::sin(b));
        }
    }
    cv::Mat sum;
    cv::Mat sinPart;
    cv::gemm(rowCos, colCos, 1.0, cv::noArray(), 0.0, sum);
    cv::gemm(rowSin, colSin, 1.0, cv::noArray(), 0.0, sinPart);
    sum -= sinPart;

    const float scale = static_cast<float>(1.0 / (kSpread * std::sqrt(kWaves / 2.0)));
    for (int row = 0; row < area.height; ++row) {
        float* values = sum.ptr<float>(row);
        for (int col = 0; col < area.width; ++col) {
            values[col] = static_cast<float>(kMidGrey) + static_cast<float>(kSwing) * std::tanh(values[col] * scale);
        }
    }
    return sum;
}

// The obstacle's texture is a separate stream of the same seed, so the two
// planes never look alike.
uint32_t obstacleSeed(uint32_t seed) { return seed * 2654435761u + 0x9e3779b9u; }

}  // namespace

double disparityPx(const Rig& rig, double distanceM) { return rig.focalPx * (rig.baselineMm / 1000.0) / distanceM; }

cv::Rect obstacleExtent(const Rig& rig, const SceneLayout& layout)
{
    cv::Rect rect = layout.obstacleRect;
    if (rect.empty()) {
        rect = cv::Rect(rig.size.width / 4, rig.size.height / 4, rig.size.width / 2, rig.size.height / 2);
    }
    return rect & cv::Rect(cv::Point(0, 0), rig.size);
}

PairRenderer::PairRenderer(const Rig& rig, const SceneLayout& layout)
    : m_rig(rig),
      m_rect(obstacleExtent(rig, layout)),
      m_obstacle(std::make_shared<Texture>(makeTexture(obstacleSeed(layout.seed))))
{
    const cv::Rect whole(cv::Point(0, 0), rig.size);
    const Texture background = makeTexture(layout.seed);
    sample(background, whole, 0.0).convertTo(m_leftBare, CV_8U);
    sample(background, whole, disparityPx(rig, layout.backgroundM)).convertTo(m_rightBare, CV_8U);
    m_leftBare.copyTo(m_leftCovered);
    if (!m_rect.empty()) {
        cv::Mat covered = m_leftCovered(m_rect);
        sample(*m_obstacle, m_rect, 0.0).convertTo(covered, CV_8U);
    }
}

void PairRenderer::render(double obstacleM, cv::Mat& left, cv::Mat& right) const
{
    const bool obstacle = obstacleM > 0.0 && !m_rect.empty();
    // Fresh matrices, so no caller ever shares (and could change) the parts kept here.
    left = (obstacle ? m_leftCovered : m_leftBare).clone();
    right = m_rightBare.clone();
    if (!obstacle) {
        return;
    }
    const double shift = disparityPx(m_rig, obstacleM);
    // A right pixel x sees the obstacle exactly when x + shift lies in
    // [rect.x, rect.x + width): x from ceil(rect.x - shift) up to, not
    // including, ceil(rect.x + width - shift).
    const int first = std::max(0, static_cast<int>(std::ceil(m_rect.x - shift)));
    const int last = std::min(m_rig.size.width, static_cast<int>(std::ceil(m_rect.x + m_rect.width - shift)));
    if (last > first) {
        const cv::Rect seen(first, m_rect.y, last - first, m_rect.height);
        cv::Mat strip = right(seen);
        sample(*m_obstacle, seen, shift).convertTo(strip, CV_8U);
    }
}

void renderPair(const Rig& rig, const SceneLayout& layout, cv::Mat& left, cv::Mat& right)
{
    PairRenderer(rig, layout).render(layout.obstacleM, left, right);
}

}  // namespace scene
