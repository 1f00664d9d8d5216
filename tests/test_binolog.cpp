#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "binolog.h"
#include "test_support.h"

TEST(Binolog, HookSeesFormattedLineWithSourceFunctionAndLevel)
{
    testsupport::LogCapture capture;
    const long line = __LINE__ + 1;
    BINO_ERROR("%s shm size do not match bino size!", "[BINOLIB] [front]");
    BINO_DEBUG("%s StereoMatcher matcher: %d", "[BINOLIB] [down]", 1);

    auto records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].message, "[BINOLIB] [front] shm size do not match bino size!");
    EXPECT_EQ(records[0].level, 100);
    EXPECT_EQ(records[0].file, "tests/test_binolog.cpp");  // no build-machine prefix
    EXPECT_EQ(records[0].line, line);
    EXPECT_EQ(records[0].function, "TestBody");
    EXPECT_EQ(records[1].message, "[BINOLIB] [down] StereoMatcher matcher: 1");
    EXPECT_EQ(records[1].level, 20);
}

TEST(Binolog, LongMessagesAreNotTruncatedAndRemovedHookSeesNothing)
{
    std::string big(5000, 'x');
    {
        testsupport::LogCapture capture;
        BINO_INFO("[BINOLIB] %s|", big.c_str());
        auto records = capture.records();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].message.size(), big.size() + 11);
        EXPECT_EQ(records[0].level, 40);
    }
    testsupport::LogCapture later;
    later.clear();
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
