// The pipeline's stage trace: silent unless asked for, then one line per
// frame with the frame's stamp and each stage's time, in stage order.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "stagetrace.h"
#include "test_support.h"

namespace {

std::vector<std::vector<unsigned long long>> linesOf(const std::string& path)
{
    std::vector<std::vector<unsigned long long>> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        std::istringstream split(line);
        std::vector<unsigned long long> values;
        for (unsigned long long value; split >> value;) {
            values.push_back(value);
        }
        lines.push_back(values);
    }
    return lines;
}

class StageTraceTest : public ::testing::Test {
protected:
    void TearDown() override { unsetenv(StageTrace::kVariable); }
    testsupport::ScratchRoot root;
};

TEST_F(StageTraceTest, SilentWithoutTheVariableOrAWritableDirectory)
{
    for (const char* value : {static_cast<const char*>(nullptr), "", "/nonexistent/directory"}) {
        SCOPED_TRACE(value == nullptr ? "(unset)" : value);
        if (value == nullptr) {
            unsetenv(StageTrace::kVariable);
        } else {
            setenv(StageTrace::kVariable, value, 1);
        }
        StageTrace trace("front");
        EXPECT_FALSE(trace.enabled());
        trace.begin(7);
        trace.mark(StageTrace::GOT);
        trace.end();
    }
    EXPECT_FALSE(std::ifstream("front.stages").good());
}

// Given two frames, when stages are marked in order (one left out), then each
// frame is one line: its stamp, then non-decreasing times, 0 where unmarked;
// a second trace appends rather than truncates.
TEST_F(StageTraceTest, OneLinePerFrameInStageOrder)
{
    setenv(StageTrace::kVariable, ".", 1);
    {
        StageTrace trace("down");
        ASSERT_TRUE(trace.enabled());
        trace.begin(123456789012ull);
        trace.set(StageTrace::POLLED, 1);  // timed by another thread
        trace.set(StageTrace::QUEUED, 2);
        for (StageTrace::Stage stage : {StageTrace::GOT, StageTrace::MATCHED, StageTrace::CHAINED, StageTrace::POSTED,
                                        StageTrace::RECORDED, StageTrace::STREAMED}) {
            trace.mark(stage);
        }
        trace.end();
        trace.begin(5);
        trace.mark(StageTrace::GOT);  // MATCHED left out: the matcher did not run
        trace.mark(StageTrace::CHAINED);
        trace.end();
    }
    StageTrace("down").end();  // appends a third line (stamp 0, no stage)

    const auto lines = linesOf("down.stages");
    ASSERT_EQ(lines.size(), 3u);
    for (const auto& line : lines) {
        ASSERT_EQ(line.size(), 1u + StageTrace::STAGES);
    }
    EXPECT_EQ(lines[0][0], 123456789012ull);
    const unsigned long long now = StageTrace::nowUs();
    for (int i = 1; i <= StageTrace::STAGES; ++i) {
        EXPECT_GT(lines[0][i], 0u);
        EXPECT_LE(lines[0][i], now);
        if (i > 1) {
            EXPECT_LE(lines[0][i - 1], lines[0][i]);
        }
    }
    EXPECT_EQ(lines[1][0], 5u);
    EXPECT_GT(lines[1][1 + StageTrace::GOT], 0u);
    EXPECT_EQ(lines[1][1 + StageTrace::MATCHED], 0u);
    EXPECT_GT(lines[1][1 + StageTrace::CHAINED], 0u);
    EXPECT_EQ(lines[1][1 + StageTrace::STREAMED], 0u);
    EXPECT_EQ(lines[2], std::vector<unsigned long long>(1 + StageTrace::STAGES, 0));
}

}  // namespace
