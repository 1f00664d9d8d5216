#include "scenerender.h"

#include <cmath>
#include <random>
#include <vector>

namespace scene {
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

struct Texture {
    std::vector<double> fx;     // cycles per pixel along x
    std::vector<double> fy;     // cycles per pixel along y
    std::vector<double> phase;  // radians
};

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

// Grey levels (CV_32F, size) of the texture sampled at (x + shiftPx, y) for
// every pixel (x, y). cos(a + b) = cos a cos b - sin a sin b separates the row
// and column terms, so the sum over the waves is two matrix products.
cv::Mat sample(const Texture& texture, cv::Size size, double shiftPx)
{
    cv::Mat rowCos(size.height, kWaves, CV_64F);
    cv::Mat rowSin(size.height, kWaves, CV_64F);
    cv::Mat colCos(kWaves, size.width, CV_64F);
    cv::Mat colSin(kWaves, size.width, CV_64F);
    for (int k = 0; k < kWaves; ++k) {
        for (int y = 0; y < size.height; ++y) {
            double a = kTwoPi * texture.fy[k] * y + texture.phase[k];
            rowCos.at<double>(y, k) = std::cos(a);
            rowSin.at<double>(y, k) = std::sin(a);
        }
        for (int x = 0; x < size.width; ++x) {
            double b = kTwoPi * texture.fx[k] * (x + shiftPx);
            colCos.at<double>(k, x) = std::cos(b);
            colSin.at<double>(k, x) = std::sin(b);
        }
    }
    cv::Mat sum;
    cv::Mat sinPart;
    cv::gemm(rowCos, colCos, 1.0, cv::noArray(), 0.0, sum);
    cv::gemm(rowSin, colSin, 1.0, cv::noArray(), 0.0, sinPart);
    sum -= sinPart;

    const double scale = 1.0 / (kSpread * std::sqrt(kWaves / 2.0));
    cv::Mat grey(size, CV_32F);
    for (int y = 0; y < size.height; ++y) {
        const double* in = sum.ptr<double>(y);
        float* out = grey.ptr<float>(y);
        for (int x = 0; x < size.width; ++x) {
            out[x] = static_cast<float>(kMidGrey + kSwing * std::tanh(in[x] * scale));
        }
    }
    return grey;
}

// The obstacle's texture is a separate stream of the same seed, so the two
// planes never look alike.
uint32_t obstacleSeed(uint32_t seed)
{
    return seed * 2654435761u + 0x9e3779b9u;
}

}  // namespace

double disparityPx(const Rig& rig, double distanceM)
{
    return rig.focalPx * (rig.baselineMm / 1000.0) / distanceM;
}

cv::Rect obstacleExtent(const Rig& rig, const SceneSpec& spec)
{
    cv::Rect rect = spec.obstacleRect;
    if (rect.empty()) {
        rect = cv::Rect(rig.size.width / 4, rig.size.height / 4, rig.size.width / 2, rig.size.height / 2);
    }
    return rect & cv::Rect(cv::Point(0, 0), rig.size);
}

void renderPair(const Rig& rig, const SceneSpec& spec, cv::Mat& left, cv::Mat& right)
{
    const Texture background = makeTexture(spec.seed);
    const double backgroundShift = disparityPx(rig, spec.backgroundM);

    cv::Mat leftGrey = sample(background, rig.size, 0.0);
    cv::Mat rightGrey = sample(background, rig.size, backgroundShift);

    const cv::Rect rect = obstacleExtent(rig, spec);
    if (spec.obstacleM > 0.0 && !rect.empty()) {
        const Texture obstacle = makeTexture(obstacleSeed(spec.seed));
        const double obstacleShift = disparityPx(rig, spec.obstacleM);
        cv::Mat leftObstacle = sample(obstacle, rig.size, 0.0);
        cv::Mat rightObstacle = sample(obstacle, rig.size, obstacleShift);
        leftObstacle(rect).copyTo(leftGrey(rect));
        // A right pixel x sees the obstacle where x + d lies on it in left
        // coordinates: [rect.x, rect.x + width) shifted left by d, boundaries
        // taken at the pixel's exact position.
        for (int y = rect.y; y < rect.y + rect.height; ++y) {
            const float* in = rightObstacle.ptr<float>(y);
            float* out = rightGrey.ptr<float>(y);
            for (int x = 0; x < rig.size.width; ++x) {
                double u = x + obstacleShift;
                if (u >= rect.x && u < rect.x + rect.width) {
                    out[x] = in[x];
                }
            }
        }
    }
    leftGrey.convertTo(left, CV_8U);
    rightGrey.convertTo(right, CV_8U);
}

}  // namespace scene
