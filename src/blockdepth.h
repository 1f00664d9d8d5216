#pragma once
// Depth of chosen pixels of a disparity map, bit for bit the Z channel of
// cv::reprojectImageTo3D(disparity, Q, false, -1), and single-precision sums of
// that depth over rows of adjacent blocks, without reprojecting the whole map.
//
// OpenCV (4.x, calib3d) computes each pixel (x, y) with disparity d (the map
// value as float, then double) as
//   hz = ((q20 x + q21 y) + q22 d) + q23,  hw = ((q30 x + q31 y) + q32 d) + q33
//   Z  = float(double(float(hz)) * (1.0 / hw))
// in double precision, Q converted to double, and Z = 10000 where d is FLT_MAX;
// this class evaluates the same expression in the same order. Both differ
// only in the sign of zeros, which never makes a point valid.
//
// Thread-bound: one object per Brake.

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

class BlockDepth {
public:
    /// A point is valid when 0 < Z < kMaxDepth (calibration unit, mm).
    static constexpr float kMaxDepth = 100000.0f;

    /// Valid points of one block and the sum of Z x weight over them, added
    /// one point at a time in row-major order into a float
    /// (sum = float(double(sum) + double(Z) x weight)).
    struct BlockSum {
        float sum = 0.0f;
        int count = 0;
    };

    /// Takes the map of the next queries (a header copy; the caller keeps the
    /// data alive and unchanged) and Q. Returns false, and reports no valid
    /// point until the next call, unless the map is CV_16SC1 or CV_32FC1 and Q
    /// is a 4 x 4 one-channel matrix.
    bool setFrame(const cv::Mat& disparity, const cv::Mat& Q);

    /// Z of one pixel of the map; 0 for a pixel outside it or an unusable
    /// frame.
    float depthAt(int row, int column) const;

    /// For the rows [rowBegin, rowEnd) and the adjacent column ranges
    /// [bounds[k], bounds[k + 1]), k < blocks, adds each block's valid points
    /// to sums[k] (in row-major order within the block). Ranges are clipped to
    /// the map; bounds must ascend.
    void sumBlocks(int rowBegin, int rowEnd, const int* bounds, int blocks, double weight, BlockSum* sums);

    /// Appends (column, row) of every valid pixel of `block` (clipped to the
    /// map) in row-major order.
    void collectPoints(const cv::Rect& block, std::vector<cv::Point2f>& points);

private:
    /// Z of the columns [begin, end) of one row into z[0 .. end - begin).
    void depthRow(int row, int begin, int end, float* z) const;
    template <typename T>
    void depthRowOf(int row, int begin, int end, float* z) const;

    cv::Mat map;  ///< the current disparity map; empty when unusable
    double q[4][4] = {};
    std::vector<double> columnTermZ;  ///< q20 x per column
    std::vector<double> columnTermW;  ///< q30 x per column
    std::vector<float> rowDepth;      ///< scratch: Z of one row segment
    std::vector<double> lanes;        ///< scratch: weighted Z, interleaved by block
};
