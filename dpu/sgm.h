#pragma once
// The substitute's matcher: 5x5 census costs, semi-global aggregation along
// three paths (left to right, right to left, top down) in saturating 8-bit
// arithmetic vectorised over the 64 disparities, winner-takes-all with a
// uniqueness test, an equiangular (V-shaped) sub-pixel fit to the census
// costs around the winner, and a left-right check.
// Output is the unit's word per pixel: 1/64 px, or 0xFFFF where invalid.

#include <cstdint>
#include <vector>

namespace dpu {

class SemiGlobalMatcher {
public:
    static constexpr int kDisparities = 64;  // search range 0..63 px

    /// Fills `out` (width * height words) from a rectified pair of 8-bit
    /// images with packed rows. Columns left of kDisparities - 1 (whose range
    /// would reach outside the right image) are invalid. Splits the rows
    /// between the calling thread and one helper (the caller does both when
    /// no thread can be started); the result depends on neither. Throws
    /// std::bad_alloc; `out` is then partly written.
    void compute(const uint8_t* left, const uint8_t* right, int width, int height, uint16_t* out);

    /// Working memory of one band of rows; one per thread, reused across calls.
    struct Band {
        std::vector<uint8_t> census;      // 3 byte planes for each image, one row
        std::vector<uint8_t> costs;       // per column: 64 census costs
        std::vector<uint8_t> topDown;     // per column: the top-down path's record of the last row
        std::vector<uint8_t> sums;        // per column: sum of the top-down and left-right paths
        std::vector<uint8_t> rightCost;   // per right-image column: its lowest sum so far
        std::vector<uint8_t> rightBest;   // per right-image column: the disparity of that sum, px
        std::vector<uint8_t> leftBest;    // per column: winning disparity, px, or 0xFF
        std::vector<uint16_t> leftWords;  // per column: the refined word of that winner
    };

private:
    Band bands_[2];
};

}  // namespace dpu
