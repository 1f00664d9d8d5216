// The host tool's schedule: one-off events once at their time, repeating
// events once per period passed, in time order with file order for ties.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hostschedule.h"

namespace {

host::ProfileSchedule scheduleOf(const std::string& text)
{
    host::Profile profile;
    std::string error;
    EXPECT_TRUE(host::parseProfile(text, profile, error)) << error;
    return host::ProfileSchedule(profile.events);
}

TEST(HostSchedule, OnceRepeatingAndTiesInFileOrder)
{
    host::ProfileSchedule schedule = scheduleOf(
        "2 version\n"                 // line 1
        "every 1 from 0.5 pitch 1\n"  // line 2: 0.5, 1.5, 2.5, ...
        "0 armed 1\n"                 // line 3
        "0 height 2\n"                // line 4
        "every 10 sensing on\n");     // line 5: 0, 10, ...
    const struct {
        double at;
        std::vector<int> lines;
    } steps[] = {
        {0.0, {3, 4, 5}},  // equal times: file order
        {0.0, {}},         // nothing twice
        {0.49, {}},
        {0.5, {2}},
        {2.6, {2, 1, 2}},               // 1.5, 2.0, 2.5: each occurrence, in time order
        {9.99, {2, 2, 2, 2, 2, 2, 2}},  // 3.5 .. 9.5
        {10.0, {5}},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.at);
        std::vector<int> lines;
        for (const host::ProfileEvent& event : schedule.takeDue(step.at)) {
            lines.push_back(event.line);
        }
        EXPECT_EQ(lines, step.lines);
    }
    EXPECT_TRUE(scheduleOf("# nothing\n").takeDue(1e9).empty());
}

}  // namespace
