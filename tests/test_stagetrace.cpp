// The pipeline's stage trace: silent unless asked for, then one line per
// frame with the frame's stamp and each stage's time, in stage order.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "stagetrace.h"
#include "test_support.h"

TEST(StageTrace, SilentWithoutTheVariableOrAWritableDirectory)
{
    testsupport::ScratchRoot root;
    for (const char* value : {static_cast<const char*>(nullptr), "", "/nonexistent/directory"}) {
        SCOPED_TRACE(value == nullptr ? "(unset)" : value);
        testsupport::ScopedEnv variable(StageTrace::kVariable, value);
        StageTrace trace("front");
        EXPECT_FALSE(trace.enabled());
        trace.begin(7);
        trace.mark(StageTrace::GOT);
        trace.end();
    }
    EXPECT_FALSE(std::ifstream("front.stages").good());
}

// Each frame is one line: its stamp, then non-decreasing times, 0 where a
// stage was not marked; a second trace appends rather than truncates.
TEST(StageTrace, OneLinePerFrameInStageOrder)
{
    testsupport::ScratchRoot root;
    testsupport::ScopedEnv variable(StageTrace::kVariable, ".");
    {
        StageTrace trace("down");
        ASSERT_TRUE(trace.enabled());
        trace.begin(123456789012ull);
        for (int stage = 0; stage < StageTrace::STAGES; ++stage) {
            trace.mark(static_cast<StageTrace::Stage>(stage));
        }
        trace.end();
        trace.begin(5);
        trace.set(StageTrace::POLLED, 3);  // timed by another thread
        trace.mark(StageTrace::GOT);       // the matcher did not run
        trace.mark(StageTrace::CHAINED);
        trace.end();
    }
    StageTrace("down").end();  // a third line: stamp 0, no stage

    std::vector<std::vector<unsigned long long>> lines;
    std::istringstream text(testsupport::readFile("down.stages"));
    for (std::string line; std::getline(text, line);) {
        std::istringstream split(line);
        lines.emplace_back(std::istream_iterator<unsigned long long>(split),
                           std::istream_iterator<unsigned long long>());
        ASSERT_EQ(lines.back().size(), 1u + StageTrace::STAGES) << line;
    }
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0][0], 123456789012ull);
    for (int i = 1; i <= StageTrace::STAGES; ++i) {
        EXPECT_GT(lines[0][i], 0u);
        EXPECT_LE(lines[0][i], StageTrace::nowUs());
        if (i > 1) {
            EXPECT_LE(lines[0][i - 1], lines[0][i]);
        }
    }
    EXPECT_EQ(lines[1][0], 5u);
    EXPECT_EQ(lines[1][1 + StageTrace::POLLED], 3u);
    EXPECT_GT(lines[1][1 + StageTrace::GOT], 0u);
    EXPECT_EQ(lines[1][1 + StageTrace::MATCHED], 0u);
    EXPECT_GT(lines[1][1 + StageTrace::CHAINED], 0u);
    EXPECT_EQ(lines[1][1 + StageTrace::STREAMED], 0u);
    EXPECT_EQ(lines[2], std::vector<unsigned long long>(1 + StageTrace::STAGES, 0));
}
