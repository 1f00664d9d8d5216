#include "blockdepth.h"

#include <algorithm>
#include <cfloat>
#include <type_traits>

namespace {

// cv::reprojectImageTo3D without handleMissingValues compares every
// disparity with FLT_MAX (within FLT_EPSILON, which among floats only
// FLT_MAX itself meets) and gives such a pixel this depth.
constexpr double kMissingDisparity = FLT_MAX;
constexpr float kMissingDepth = 10000.0f;

// Blocks whose sums advance side by side: independent dependency chains,
// so the serial float additions of one block overlap those of the others.
constexpr int kLanes = 8;

bool isPoint(float z) { return z > 0.0f && z < BlockDepth::kMaxDepth; }

}  // namespace

bool BlockDepth::setFrame(const cv::Mat& disparity, const cv::Mat& Q)
{
    map.release();
    const int type = disparity.type();
    if (disparity.empty() || (type != CV_16SC1 && type != CV_32FC1) || Q.rows != 4 || Q.cols != 4 ||
        Q.channels() != 1) {
        return false;
    }
    cv::Matx44d reprojection;
    Q.convertTo(reprojection, CV_64F);
    for (int i = 0; i < 4; ++i) {
        for (int j = 0; j < 4; ++j) {
            q[i][j] = reprojection(i, j);
        }
    }
    const size_t columns = static_cast<size_t>(disparity.cols);
    columnTermZ.resize(columns);
    columnTermW.resize(columns);
    for (size_t x = 0; x < columns; ++x) {
        columnTermZ[x] = q[2][0] * static_cast<double>(x);
        columnTermW[x] = q[3][0] * static_cast<double>(x);
    }
    rowDepth.resize(columns);
    map = disparity;
    return true;
}

template <typename T>
void BlockDepth::depthRowOf(int row, int begin, int end, float* z) const
{
    const T* source = map.ptr<T>(row);
    const double rowTermZ = q[2][1] * static_cast<double>(row);
    const double rowTermW = q[3][1] * static_cast<double>(row);
    const double qz2 = q[2][2];
    const double qz3 = q[2][3];
    const double qw2 = q[3][2];
    const double qw3 = q[3][3];
    for (int x = begin; x < end; ++x) {
        const double d = static_cast<double>(static_cast<float>(source[x]));
        const double hz = ((columnTermZ[x] + rowTermZ) + qz2 * d) + qz3;
        const double hw = ((columnTermW[x] + rowTermW) + qw2 * d) + qw3;
        float depth = static_cast<float>(static_cast<double>(static_cast<float>(hz)) * (1.0 / hw));
        if (std::is_same<T, float>::value && d == kMissingDisparity) {
            depth = kMissingDepth;
        }
        z[x - begin] = depth;
    }
}

void BlockDepth::depthRow(int row, int begin, int end, float* z) const
{
    if (map.type() == CV_16SC1) {
        depthRowOf<int16_t>(row, begin, end, z);
    } else {
        depthRowOf<float>(row, begin, end, z);
    }
}

float BlockDepth::depthAt(int row, int column) const
{
    if (map.empty() || row < 0 || row >= map.rows || column < 0 || column >= map.cols) {
        return 0.0f;
    }
    float z = 0.0f;
    depthRow(row, column, column + 1, &z);
    return z;
}

void BlockDepth::sumBlocks(int rowBegin, int rowEnd, const int* bounds, int blocks, double weight, BlockSum* sums)
{
    if (map.empty() || blocks <= 0) {
        return;
    }
    rowBegin = std::clamp(rowBegin, 0, map.rows);
    rowEnd = std::clamp(rowEnd, rowBegin, map.rows);
    for (int first = 0; first < blocks; first += kLanes) {
        const int used = std::min(kLanes, blocks - first);
        int begin[kLanes] = {};
        int width[kLanes] = {};
        int widest = 0;
        for (int k = 0; k < used; ++k) {
            begin[k] = std::clamp(bounds[first + k], 0, map.cols);
            width[k] = std::clamp(bounds[first + k + 1], begin[k], map.cols) - begin[k];
            widest = std::max(widest, width[k]);
        }
        if (widest == 0 || rowBegin == rowEnd) {
            continue;
        }
        const int spanBegin = begin[0];
        const int spanEnd = begin[used - 1] + width[used - 1];
        // Lanes past a block's width stay 0.0: adding +0.0 to a float sum
        // that is never -0.0 leaves it unchanged.
        lanes.assign(static_cast<size_t>(widest) * kLanes, 0.0);
        float sum[kLanes] = {};
        int count[kLanes] = {};
        for (int k = 0; k < used; ++k) {
            sum[k] = sums[first + k].sum;
            count[k] = sums[first + k].count;
        }
        for (int y = rowBegin; y < rowEnd; ++y) {
            depthRow(y, spanBegin, spanEnd, rowDepth.data());
            for (int k = 0; k < used; ++k) {
                const float* z = rowDepth.data() + (begin[k] - spanBegin);
                double* lane = lanes.data() + k;
                int valid = 0;
                for (int i = 0; i < width[k]; ++i) {
                    const bool point = isPoint(z[i]);
                    lane[static_cast<size_t>(i) * kLanes] = point ? static_cast<double>(z[i]) * weight : 0.0;
                    valid += point ? 1 : 0;
                }
                count[k] += valid;
            }
            const double* lane = lanes.data();
            for (int i = 0; i < widest; ++i, lane += kLanes) {
                for (int k = 0; k < kLanes; ++k) {
                    sum[k] = static_cast<float>(static_cast<double>(sum[k]) + lane[k]);
                }
            }
        }
        for (int k = 0; k < used; ++k) {
            sums[first + k].sum = sum[k];
            sums[first + k].count = count[k];
        }
    }
}

void BlockDepth::collectPoints(const cv::Rect& block, std::vector<cv::Point2f>& points)
{
    if (map.empty()) {
        return;
    }
    const cv::Rect clipped = block & cv::Rect(0, 0, map.cols, map.rows);
    for (int y = clipped.y; y < clipped.y + clipped.height; ++y) {
        depthRow(y, clipped.x, clipped.x + clipped.width, rowDepth.data());
        for (int i = 0; i < clipped.width; ++i) {
            if (isPoint(rowDepth[static_cast<size_t>(i)])) {
                points.emplace_back(static_cast<float>(clipped.x + i), static_cast<float>(y));
            }
        }
    }
}
