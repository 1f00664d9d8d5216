// BlockDepth against cv::reprojectImageTo3D: every pixel's Z bit for bit on
// random maps of both types with the special float values (also views with a
// stride), under the rig's Q, the identity and random matrices of every depth;
// block sums and points against a plain row-major loop over that Z.

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include <opencv2/calib3d.hpp>

#include "blockdepth.h"
#include "brake_maps.h"

namespace {

// Equal bits, or both NaN.
bool same(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0 || (std::isnan(a) && std::isnan(b)); }

cv::Mat randomMap(cv::RNG& rng, int type, cv::Size size)
{
    cv::Mat map(size, type);
    if (type == CV_16S) {
        rng.fill(map, cv::RNG::UNIFORM, rng.uniform(0, 2) ? -32768 : -2, rng.uniform(0, 2) ? 32768 : 200);
        return map;
    }
    rng.fill(map, cv::RNG::UNIFORM, -2.0, rng.uniform(0, 2) ? 300.0 : 1e6);
    const float specials[] = {std::numeric_limits<float>::quiet_NaN(),
                              std::numeric_limits<float>::infinity(),
                              -std::numeric_limits<float>::infinity(),
                              FLT_MAX,
                              -FLT_MAX,
                              std::nextafter(FLT_MAX, 0.0f),
                              -0.0f,
                              -1.0f,
                              std::numeric_limits<float>::denorm_min(),
                              1e-30f,
                              1e30f};
    for (int i = 0; i < static_cast<int>(map.total()) / 20; ++i) {
        map.at<float>(rng.uniform(0, size.height), rng.uniform(0, size.width)) =
            specials[rng.uniform(0, static_cast<int>(std::size(specials)))];
    }
    return map;
}

TEST(BlockDepth, DepthIsBitIdenticalToReprojectImageTo3D)
{
    cv::RNG rng(20240614);
    for (int round = 0; round < 6; ++round) {
        const cv::Size size(rng.uniform(1, 90), rng.uniform(1, 90));
        std::vector<cv::Mat> matrices = {brakemaps::rigQ(size), cv::Mat::eye(4, 4, CV_32S)};
        for (int depth : {CV_64F, CV_32F, CV_32S, CV_16S}) {
            cv::Mat q(4, 4, CV_64F);
            rng.fill(q, cv::RNG::UNIFORM, -3.0, 3.0);
            q.convertTo(matrices.emplace_back(), depth);
        }
        matrices.push_back(brakemaps::rigQ(size));
        matrices.back().at<double>(2, 0) = 1e-3;  // depth that depends on the column and row
        matrices.back().at<double>(3, 1) = -2e-5;
        // A view into a larger map is read through its stride.
        const cv::Mat maps[] = {randomMap(rng, CV_16S, size),
                                randomMap(rng, CV_32F, size + cv::Size(7, 3))(cv::Rect(cv::Point(5, 2), size))};
        for (const cv::Mat& map : maps) {
            for (const cv::Mat& q : matrices) {
                cv::Mat points;
                cv::reprojectImageTo3D(map, points, q, false, -1);
                BlockDepth depth;
                ASSERT_TRUE(depth.setFrame(map, q));
                int mismatches = 0;
                for (int y = 0; y < size.height; ++y) {
                    for (int x = 0; x < size.width; ++x) {
                        mismatches += same(depth.depthAt(y, x), points.at<cv::Vec3f>(y, x)[2]) ? 0 : 1;
                    }
                }
                EXPECT_EQ(mismatches, 0) << "type " << map.type() << ", Q depth " << q.depth() << ", " << size;
            }
        }
    }
}

TEST(BlockDepth, SumsAndPointsFollowRowMajorOrderInSinglePrecision)
{
    // Blocks of uneven widths, some clipped by the map edge or empty, and
    // more blocks than are summed side by side; row ranges clipped at the
    // top, inside and at the bottom.
    cv::RNG rng(7);
    const cv::Size size(203, 61);
    const std::vector<int> bounds = {-5, 3, 17, 17, 40, 41, 80, 120, 121, 150, 190, 200, 230, 260};
    const int blocks = static_cast<int>(bounds.size()) - 1;
    const double weight = std::cos(17.5f * 0.017453292519943295);
    for (int type : {CV_16S, CV_32F}) {
        const cv::Mat map = randomMap(rng, type, size);
        for (const cv::Mat& q : {brakemaps::rigQ(size), cv::Mat(cv::Mat::eye(4, 4, CV_32S))}) {
            cv::Mat points;
            cv::reprojectImageTo3D(map, points, q, false, -1);
            for (const auto& [rowBegin, rowEnd] : {std::pair(-3, 20), std::pair(10, 61), std::pair(50, 90)}) {
                BlockDepth depth;
                ASSERT_TRUE(depth.setFrame(map, q));
                std::vector<BlockDepth::BlockSum> sums(static_cast<size_t>(blocks));
                depth.sumBlocks(rowBegin, rowEnd, bounds.data(), blocks, weight, sums.data());
                std::vector<cv::Point2f> collected;
                depth.collectPoints(cv::Rect(-4, rowBegin, 300, rowEnd - rowBegin), collected);
                std::vector<BlockDepth::BlockSum> expected(static_cast<size_t>(blocks));
                std::vector<cv::Point2f> expectedPoints;
                for (int y = std::max(rowBegin, 0); y < std::min(rowEnd, size.height); ++y) {
                    for (int x = 0; x < size.width; ++x) {
                        const float z = points.at<cv::Vec3f>(y, x)[2];
                        if (z > 0 && z < 100000) {
                            expectedPoints.emplace_back(static_cast<float>(x), static_cast<float>(y));
                            for (int k = 0; k < blocks; ++k) {
                                if (x >= bounds[k] && x < bounds[k + 1]) {
                                    expected[k].sum += z * weight;
                                    ++expected[k].count;
                                }
                            }
                        }
                    }
                }
                for (int k = 0; k < blocks; ++k) {
                    EXPECT_EQ(sums[k].count, expected[k].count) << "block " << k;
                    EXPECT_TRUE(same(sums[k].sum, expected[k].sum)) << "block " << k << ": " << sums[k].sum;
                }
                EXPECT_EQ(collected, expectedPoints);
            }
        }
    }
}

TEST(BlockDepth, UnusableFrameHasNoPoint)
{
    const cv::Size size(50, 40);
    const cv::Mat good = cv::Mat(size, CV_32F, cv::Scalar(10));
    const cv::Mat q = brakemaps::rigQ(size);
    const struct {
        const char* name;
        cv::Mat map;
        cv::Mat q;
    } cases[] = {
        {"empty map", cv::Mat(), q},
        {"8-bit map", cv::Mat(size, CV_8U, cv::Scalar(10)), q},
        {"double map", cv::Mat(size, CV_64F, cv::Scalar(10)), q},
        {"two-channel map", cv::Mat(size, CV_32FC2, cv::Scalar(10, 10)), q},
        {"empty Q", good, cv::Mat()},
        {"4 x 3 Q", good, cv::Mat::eye(4, 3, CV_64F)},
        {"two-channel Q", good, cv::Mat(4, 4, CV_64FC2, cv::Scalar(1, 1))},
    };
    BlockDepth depth;
    for (const auto& c : cases) {
        EXPECT_FALSE(depth.setFrame(c.map, c.q)) << c.name;
        BlockDepth::BlockSum sum;
        const int bounds[2] = {0, size.width};
        depth.sumBlocks(0, size.height, bounds, 1, 1.0, &sum);
        EXPECT_EQ(sum.count, 0) << c.name;
        EXPECT_EQ(depth.depthAt(1, 1), 0.0f) << c.name;
        std::vector<cv::Point2f> points;
        depth.collectPoints(cv::Rect(0, 0, 50, 40), points);
        EXPECT_TRUE(points.empty()) << c.name;
        // A usable frame after an unusable one is read again; outside it nothing is.
        EXPECT_TRUE(depth.setFrame(good, q));
        EXPECT_EQ(depth.depthAt(0, 0), 4000.0f);
        EXPECT_EQ(depth.depthAt(-1, 0), 0.0f);
        EXPECT_EQ(depth.depthAt(0, 50), 0.0f);
    }
}

}  // namespace
