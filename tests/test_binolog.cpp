#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "binolog.h"
#include "test_support.h"

// The hook gets the formatted line, its level, the source path without the
// build machine's prefix, line and function; long lines are not cut; a
// removed hook sees nothing.
TEST(Binolog, HookSeesWholeFormattedLinesWithTheirOrigin)
{
    const std::string big(5000, 'x');
    {
        testsupport::LogCapture capture;
        const long line = __LINE__ + 1;
        BINO_ERROR("%s shm size do not match bino size!", "[BINOLIB] [front]");
        BINO_DEBUG("%s StereoMatcher matcher: %d", "[BINOLIB] [down]", 1);
        BINO_INFO("[BINOLIB] %s|", big.c_str());
        const auto records = capture.records();
        ASSERT_EQ(records.size(), 3u);
        EXPECT_EQ(records[0].message, "[BINOLIB] [front] shm size do not match bino size!");
        EXPECT_EQ(std::make_tuple(records[0].level, records[0].file, records[0].line, records[0].function),
                  std::make_tuple(100, std::string("tests/test_binolog.cpp"), line, std::string("TestBody")));
        EXPECT_EQ(records[1].message, "[BINOLIB] [down] StereoMatcher matcher: 1");
        EXPECT_EQ(records[1].level, 20);
        EXPECT_EQ(records[2].message, "[BINOLIB] " + big + "|");
        EXPECT_EQ(records[2].level, 40);
    }
    testsupport::LogCapture later;
    binolog::setHook(nullptr);
    BINO_INFO("after removal");
    EXPECT_TRUE(later.records().empty());
}

TEST(Binolog, ConcurrentWritersLoseNoLine)
{
    testsupport::LogCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) {
                BINO_INFO("writer %d line %d", t, i);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(capture.records().size(), 800u);
    EXPECT_EQ(capture.count("writer 3 line 199"), 1u);
}
