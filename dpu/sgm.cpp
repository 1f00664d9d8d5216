#include "sgm.h"

#include <opencv2/core/hal/intrin.hpp>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <exception>
#include <system_error>
#include <thread>

#if !CV_SIMD128
#error "the matcher needs 128-bit vectors (SSE2 or NEON)"
#endif

namespace dpu {
namespace {

using cv::v_uint8x16;

constexpr int kD = SemiGlobalMatcher::kDisparities;
constexpr int kLanes = 16;
constexpr int kRegs = kD / kLanes;  // vectors per pixel's disparity range
// The first column whose whole range 0..63 px lies inside the right image.
constexpr int kFirstColumn = kD - 1;

constexpr int kCensusRadius = 2;  // 5x5 window: 24 comparisons with the centre
constexpr int kCensusPlanes = 3;  // 24 bits as 3 byte planes

// Path penalties in census bits (a cost is 0..24): kP1 for a 1 px step in
// disparity, kP2 for a larger jump. A path's cost stays below 24 + kP2, so
// the sum of three paths fits a byte.
constexpr uint8_t kP1 = 3;
constexpr uint8_t kP2 = 20;
// A winner counts only when every disparity more than 1 px away costs more
// than 100 / (100 - kUniquenessPercent) times as much.
constexpr int kUniquenessPercent = 10;
// Half width of the row window whose census costs give the sub-pixel fit.
constexpr int kSubPixelRadius = 2;
// A helper's band starts this many rows early to settle its top-down path.
constexpr int kWarmUpRows = 24;
// Images lower than this are matched in one band.
constexpr int kMinRowsToSplit = 4 * kWarmUpRows;

constexpr uint16_t kInvalidWord = 0xFFFF;
constexpr uint8_t kNoWinner = 0xFF;

// One pixel's costs over the range. Slot j = 16k + l (vector k, lane l) holds
// disparity 63 - j, which is right pixel x - 63 + j for left pixel x: the
// right image's columns load in ascending order without a lane shuffle.
using Costs = std::array<v_uint8x16, kRegs>;

inline Costs loadCosts(const uint8_t* p)
{
    Costs c;
    for (int k = 0; k < kRegs; ++k) {
        c[k] = cv::v_load(p + k * kLanes);
    }
    return c;
}

inline void storeCosts(uint8_t* p, const Costs& c)
{
    for (int k = 0; k < kRegs; ++k) {
        cv::v_store(p + k * kLanes, c[k]);
    }
}

// The minimum of all lanes, in every lane.
inline v_uint8x16 minOf(const Costs& c)
{
    v_uint8x16 m = cv::v_min(cv::v_min(c[0], c[1]), cv::v_min(c[2], c[3]));
    m = cv::v_min(m, cv::v_extract<8>(m, m));
    m = cv::v_min(m, cv::v_extract<4>(m, m));
    m = cv::v_min(m, cv::v_extract<2>(m, m));
    return cv::v_min(m, cv::v_extract<1>(m, m));
}

// A path's costs at one pixel as kept in memory: 64 slots between guard bytes
// of 0xFF, so the neighbours of every slot load without shuffles, and the
// minimum in 16 copies. A reset record is the state before a path's first pixel.
constexpr int kRecordGuard = 16;
constexpr int kRecordMin = kRecordGuard + kD + kRecordGuard;
constexpr int kRecordSize = kRecordMin + kLanes;

inline void resetRecord(uint8_t* record)
{
    std::fill(record, record + kRecordMin, 0xFF);
    std::fill(record + kRecordGuard, record + kRecordGuard + kD, 0);
    std::fill(record + kRecordMin, record + kRecordSize, 0);
}

// One step along a path: L(d) = C(d) + min(L'(d), L'(d -+ 1) + P1, min L' + P2) - min L',
// L' being the path's costs at the previous pixel, read from `record`, which
// then holds L. Saturating arithmetic; every term of the min is at least min L'.
inline Costs pathStepInRecord(const Costs& cost, uint8_t* record)
{
    const uint8_t* prev = record + kRecordGuard;
    const v_uint8x16 prevMin = cv::v_load(record + kRecordMin);
    const v_uint8x16 p1 = cv::v_setall_u8(kP1);
    const v_uint8x16 jump = prevMin + cv::v_setall_u8(kP2);
    Costs out;
    for (int k = 0; k < kRegs; ++k) {
        const v_uint8x16 below = cv::v_load(prev + kLanes * k - 1);
        const v_uint8x16 above = cv::v_load(prev + kLanes * k + 1);
        const v_uint8x16 best = cv::v_min(cv::v_min(cv::v_load(prev + kLanes * k), jump), cv::v_min(below, above) + p1);
        out[k] = cost[k] + (best - prevMin);
    }
    storeCosts(record + kRecordGuard, out);
    cv::v_store(record + kRecordMin, minOf(out));
    return out;
}

inline Costs add(const Costs& a, const Costs& b)
{
    Costs sum;
    for (int k = 0; k < kRegs; ++k) {
        sum[k] = a[k] + b[k];
    }
    return sum;
}

// Bit b of the census is set when the b-th pixel of the 5x5 window (centre
// left out, row by row) is darker than the centre.
struct CensusOffsets {
    int dy[24];
    int dx[24];
};

constexpr CensusOffsets makeCensusOffsets()
{
    CensusOffsets offsets{};
    int bit = 0;
    for (int dy = -kCensusRadius; dy <= kCensusRadius; ++dy) {
        for (int dx = -kCensusRadius; dx <= kCensusRadius; ++dx) {
            if (dy != 0 || dx != 0) {
                offsets.dy[bit] = dy;
                offsets.dx[bit] = dx;
                ++bit;
            }
        }
    }
    return offsets;
}

constexpr CensusOffsets kCensus = makeCensusOffsets();

// Census of row y of `image` into 3 planes of `width` bytes; pixels outside
// the image repeat the nearest border pixel.
void censusRow(const uint8_t* image, int width, int height, int y, uint8_t* planes)
{
    const uint8_t* rows[2 * kCensusRadius + 1];
    for (int dy = -kCensusRadius; dy <= kCensusRadius; ++dy) {
        rows[dy + kCensusRadius] = image + static_cast<size_t>(std::clamp(y + dy, 0, height - 1)) * width;
    }
    const auto scalar = [&](int x) {
        const int centre = rows[kCensusRadius][x];
        uint32_t bits = 0;
        for (int b = 0; b < 24; ++b) {
            const int xx = std::clamp(x + kCensus.dx[b], 0, width - 1);
            bits |= static_cast<uint32_t>(rows[kCensus.dy[b] + kCensusRadius][xx] < centre) << b;
        }
        for (int p = 0; p < kCensusPlanes; ++p) {
            planes[p * width + x] = static_cast<uint8_t>(bits >> (8 * p));
        }
    };
    // Pixels x .. x + 15, all at least kCensusRadius inside the row.
    const auto block = [&](int x) {
        const v_uint8x16 centre = cv::v_load(rows[kCensusRadius] + x);
        for (int p = 0; p < kCensusPlanes; ++p) {
            v_uint8x16 notDarker = cv::v_setzero_u8();
#pragma GCC unroll 8
            for (int i = 0; i < 8; ++i) {
                const int b = 8 * p + i;
                // max(n, c) == n: n >= c, one op fewer than an unsigned
                // less-than on SSE2.
                const v_uint8x16 n = cv::v_load(rows[kCensus.dy[b] + kCensusRadius] + x + kCensus.dx[b]);
                notDarker = notDarker | ((cv::v_max(n, centre) == n) & cv::v_setall_u8(static_cast<uint8_t>(1u << i)));
            }
            cv::v_store(planes + p * width + x, cv::v_setall_u8(0xFF) ^ notDarker);
        }
    };
    int x = 0;
    for (; x < std::min(kCensusRadius, width); ++x) {
        scalar(x);
    }
    const int vectorEnd = width - kCensusRadius - kLanes;  // last start of a whole block
    for (; x <= vectorEnd; x += kLanes) {
        block(x);
    }
    if (x < width - kCensusRadius && vectorEnd >= kCensusRadius) {
        block(vectorEnd);  // overlaps the previous block; same values
        x = width - kCensusRadius;
    }
    for (; x < width; ++x) {
        scalar(x);
    }
}

// Hamming distances between the census of left pixel x and of right pixels
// x - 63 .. x (x >= 63), slot j for right pixel x - 63 + j.
inline Costs censusCosts(const uint8_t* left, const uint8_t* right, int width, int x)
{
    const v_uint8x16 m1 = cv::v_setall_u8(0x55);
    const v_uint8x16 m2 = cv::v_setall_u8(0x33);
    const v_uint8x16 m4 = cv::v_setall_u8(0x0F);
    v_uint8x16 centre[kCensusPlanes];
    for (int p = 0; p < kCensusPlanes; ++p) {
        centre[p] = cv::v_setall_u8(left[p * width + x]);
    }
    Costs costs;
    for (int k = 0; k < kRegs; ++k) {
        v_uint8x16 nibbles = cv::v_setzero_u8();
        for (int p = 0; p < kCensusPlanes; ++p) {
            const v_uint8x16 v = centre[p] ^ cv::v_load(right + p * width + x - (kD - 1) + kLanes * k);
            // Bit counts per 2 bits, then per 4 bits (at most 4; three planes sum to 12).
            const v_uint8x16 pairs = cv::v_sub_wrap(v, cv::v_reinterpret_as_u8(cv::v_reinterpret_as_u16(v) >> 1) & m1);
            nibbles = nibbles + (pairs & m2) + (cv::v_reinterpret_as_u8(cv::v_reinterpret_as_u16(pairs) >> 2) & m2);
        }
        costs[k] = (nibbles & m4) + (cv::v_reinterpret_as_u8(cv::v_reinterpret_as_u16(nibbles) >> 4) & m4);
    }
    return costs;
}

// For each j: 0xFF in slots j - 1 .. j + 1, 0 elsewhere.
struct NeighbourMasks {
    alignas(16) uint8_t mask[kD][kD];
};

const NeighbourMasks& neighbourMasks()
{
    static const NeighbourMasks masks = [] {
        NeighbourMasks m{};
        for (int j = 0; j < kD; ++j) {
            for (int i = std::max(j - 1, 0); i <= std::min(j + 1, kD - 1); ++i) {
                m.mask[j][i] = 0xFF;
            }
        }
        return m;
    }();
    return masks;
}

struct Frame {
    const uint8_t* left;
    const uint8_t* right;
    int width;
    int height;
    uint16_t* out;
};

class BandMatcher {
public:
    BandMatcher(SemiGlobalMatcher::Band& band, const Frame& frame) : b_(band), f_(frame)
    {
        const size_t columns = static_cast<size_t>(f_.width - kFirstColumn);
        b_.census.resize(2 * kCensusPlanes * static_cast<size_t>(f_.width));
        b_.costs.resize(columns * kD);
        b_.topDown.resize(columns * kRecordSize);
        for (size_t column = 0; column < columns; ++column) {
            resetRecord(b_.topDown.data() + column * kRecordSize);
        }
        b_.sums.resize(columns * kD);
        b_.rightCost.resize(static_cast<size_t>(f_.width));
        b_.rightBest.resize(static_cast<size_t>(f_.width));
        b_.leftBest.resize(static_cast<size_t>(f_.width));
        b_.leftWords.resize(static_cast<size_t>(f_.width));
    }

    // Rows warmFrom..from-1 only advance the top-down path; rows from..to-1
    // are written to the output.
    void run(int warmFrom, int from, int to)
    {
        for (int y = warmFrom; y < to; ++y) {
            censusRow(f_.left, f_.width, f_.height, y, leftCensus());
            censusRow(f_.right, f_.width, f_.height, y, rightCensus());
            if (y < from) {
                topDownOnly();
            } else {
                forwardPass();
                backwardPass();
                writeRow(f_.out + static_cast<size_t>(y) * f_.width);
            }
        }
    }

private:
    // The hot loops keep buffer addresses in locals: byte stores may alias
    // anything, so addresses read through b_ would be reloaded after each.
    uint8_t* leftCensus() { return b_.census.data(); }
    uint8_t* rightCensus() { return b_.census.data() + kCensusPlanes * static_cast<size_t>(f_.width); }

    void topDownOnly()
    {
        const uint8_t* left = leftCensus();
        const uint8_t* right = rightCensus();
        uint8_t* topDown = b_.topDown.data();
        const int width = f_.width;
        for (int x = kFirstColumn; x < width; ++x) {
            pathStepInRecord(censusCosts(left, right, width, x),
                             topDown + static_cast<size_t>(x - kFirstColumn) * kRecordSize);
        }
    }

    // Left to right: census costs, the top-down and left-right paths.
    void forwardPass()
    {
        const uint8_t* left = leftCensus();
        const uint8_t* right = rightCensus();
        uint8_t* topDown = b_.topDown.data();
        uint8_t* costs = b_.costs.data();
        uint8_t* sums = b_.sums.data();
        const int width = f_.width;
        alignas(16) uint8_t path[kRecordSize];
        resetRecord(path);
        for (int x = kFirstColumn; x < width; ++x) {
            const size_t column = static_cast<size_t>(x - kFirstColumn);
            const Costs cost = censusCosts(left, right, width, x);
            storeCosts(costs + column * kD, cost);
            const Costs td = pathStepInRecord(cost, topDown + column * kRecordSize);
            storeCosts(sums + column * kD, add(td, pathStepInRecord(cost, path)));
        }
    }

    // Right to left: the right-left path completes each column's sum, which
    // gives the left winner and feeds the right image's winners: right pixel
    // r has its cost for disparity d in left column r + d, so column x offers
    // right pixels x - 63 .. x, in slot order. rightCost/rightBest keep, per
    // right pixel, the lowest sum offered so far and its disparity.
    void backwardPass()
    {
        Costs disparity;  // slot j: 63 - j
        for (int k = 0; k < kRegs; ++k) {
            alignas(16) uint8_t lanes[kLanes];
            for (int l = 0; l < kLanes; ++l) {
                lanes[l] = static_cast<uint8_t>(kD - 1 - (kLanes * k + l));
            }
            disparity[k] = cv::v_load(lanes);
        }
        const uint8_t* costs = b_.costs.data();
        const uint8_t* sums = b_.sums.data();
        uint8_t* rightCost = b_.rightCost.data();
        uint8_t* rightBest = b_.rightBest.data();
        Winners winners{costs, b_.leftBest.data(), b_.leftWords.data(), f_.width};
        std::fill(rightCost, rightCost + f_.width, 0xFF);
        std::fill(rightBest, rightBest + f_.width, kNoWinner);
        alignas(16) uint8_t path[kRecordSize];
        resetRecord(path);
        for (int x = f_.width - 1; x >= kFirstColumn; --x) {
            const size_t column = static_cast<size_t>(x - kFirstColumn);
            const Costs sum =
                add(loadCosts(sums + column * kD), pathStepInRecord(loadCosts(costs + column * kD), path));
            // Strictly lower only: of equal costs the larger disparity, seen first, stays.
            const size_t firstRight = static_cast<size_t>(x - (kD - 1));
            for (int k = 0; k < kRegs; ++k) {
                const v_uint8x16 cost = cv::v_load(rightCost + firstRight + kLanes * k);
                const v_uint8x16 better = sum[k] < cost;
                cv::v_store(rightCost + firstRight + kLanes * k, cv::v_min(cost, sum[k]));
                cv::v_store(rightBest + firstRight + kLanes * k,
                            cv::v_select(better, disparity[k], cv::v_load(rightBest + firstRight + kLanes * k)));
            }
            pickWinner(winners, x, sum);
        }
    }

    struct Winners {
        const uint8_t* costs;  // the row's census costs, per column
        uint8_t* best;         // per column: winning disparity, px, or kNoWinner
        uint16_t* words;       // per column: the refined word of that winner
        int width;
    };

    static void pickWinner(const Winners& winners, int x, const Costs& sum)
    {
        const v_uint8x16 minimum = minOf(sum);
        uint64_t atMinimum = 0;
        for (int k = 0; k < kRegs; ++k) {
            atMinimum |= static_cast<uint64_t>(cv::v_signmask(sum[k] == minimum) & 0xFFFF) << (kLanes * k);
        }
        // Ties go to the lowest slot, the largest disparity: the nearer surface.
        const int best = __builtin_ctzll(atMinimum);
        const uint8_t* mask = neighbourMasks().mask[best];
        v_uint8x16 others = cv::v_setall_u8(0xFF);
        for (int k = 0; k < kRegs; ++k) {
            others = cv::v_min(others, sum[k] | cv::v_load(mask + k * kLanes));
        }
        const int bestCost = cv::v_extract_n<0>(minimum);
        const int secondCost = cv::v_reduce_min(others);
        const size_t at = static_cast<size_t>(x);
        // A tie with a distant disparity (a flat area: all costs equal) is no winner.
        if (100 * bestCost >= (100 - kUniquenessPercent) * secondCost) {
            winners.best[at] = kNoWinner;
            return;
        }
        winners.best[at] = static_cast<uint8_t>(kD - 1 - best);
        float slot = static_cast<float>(best);
        if (best > 0 && best < kD - 1) {
            slot += subPixelOffset(winners, x, best, sum);
        }
        // Rounded to the nearest 1/64 px; the value is at least 0.
        winners.words[at] = static_cast<uint16_t>((static_cast<float>(kD - 1) - slot) * 64.0f + 0.5f);
    }

    // Where between slots best - 1 and best + 1 the cost minimum lies, in
    // slots (-0.5 .. 0.5): the equiangular fit to the census costs of these
    // slots summed over columns x - 2 .. x + 2 of this row. These carry no
    // path penalties, which flatten the sums' flanks and pull a fit on them
    // toward whole pixels (on a rendered plane at 13.33 px: median error
    // 0.12 px fitting the sums, 0.07 px fitting these); where the window's
    // lowest cost is not at `best`, the sums are fitted instead.
    static float subPixelOffset(const Winners& winners, int x, int best, const Costs& sum)
    {
        int below = 0;
        int centre = 0;
        int above = 0;
        const int last = std::min(x + kSubPixelRadius, winners.width - 1);
        for (int column = std::max(x - kSubPixelRadius, kFirstColumn); column <= last; ++column) {
            const uint8_t* costs = winners.costs + static_cast<size_t>(column - kFirstColumn) * kD;
            below += costs[best - 1];
            centre += costs[best];
            above += costs[best + 1];
        }
        if (centre > std::min(below, above)) {
            alignas(16) uint8_t sums[kD];
            storeCosts(sums, sum);
            below = sums[best - 1];
            centre = sums[best];
            above = sums[best + 1];
        }
        const int rise = std::max(below, above) - centre;
        return rise > 0 ? static_cast<float>(below - above) / static_cast<float>(2 * rise) : 0.0f;
    }

    // A left winner stands when the right pixel it points at picks the same
    // disparity within 1 px; occluded pixels fail this.
    void writeRow(uint16_t* out)
    {
        std::fill(out, out + std::min(kFirstColumn, f_.width), kInvalidWord);
        for (int x = kFirstColumn; x < f_.width; ++x) {
            const int best = b_.leftBest[static_cast<size_t>(x)];
            bool valid = best != kNoWinner;
            if (valid) {
                const int fromRight = b_.rightBest[static_cast<size_t>(x - best)];
                valid = std::abs(fromRight - best) <= 1;
            }
            out[x] = valid ? b_.leftWords[static_cast<size_t>(x)] : kInvalidWord;
        }
    }

    SemiGlobalMatcher::Band& b_;
    const Frame& f_;
};

}  // namespace

void SemiGlobalMatcher::compute(const uint8_t* left, const uint8_t* right, int width, int height, uint16_t* out)
{
    const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    if (width < kD) {
        std::fill(out, out + pixels, kInvalidWord);
        return;
    }
    const Frame frame{left, right, width, height, out};
    if (height < kMinRowsToSplit) {
        BandMatcher(bands_[0], frame).run(0, 0, height);
        return;
    }
    // The helper's warm-up rows cost about half a full row each: the caller's
    // band is longer by half of that.
    const int middle = (height + kWarmUpRows / 2) / 2;
    const auto lowerBand = [&] { BandMatcher(bands_[1], frame).run(middle - kWarmUpRows, middle, height); };
    std::exception_ptr helperFailure;
    std::thread helper;
    try {
        helper = std::thread([&] {
            try {
                lowerBand();
            } catch (...) {
                helperFailure = std::current_exception();
            }
        });
    } catch (const std::system_error&) {
        // No thread to be had: the caller matches both bands, same result.
    }
    try {
        BandMatcher(bands_[0], frame).run(0, 0, middle);
    } catch (...) {
        if (helper.joinable()) {
            helper.join();
        }
        throw;
    }
    if (!helper.joinable()) {
        lowerBand();
        return;
    }
    helper.join();
    if (helperFailure) {
        std::rethrow_exception(helperFailure);
    }
}

}  // namespace dpu
