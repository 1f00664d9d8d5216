// The host tool's flight profile: every command with its arguments, comments
// and blank lines, and every malformed line refused with its line number.

#include <gtest/gtest.h>

#include <string>

#include "hostprofile.h"

namespace {

using Kind = host::ProfileEvent::Kind;

TEST(HostProfile, ReadsEveryCommand)
{
    host::Profile profile;
    std::string error;
    ASSERT_TRUE(
        host::parseProfile("# a flight\n"
                           "\n"
                           "0 sensing on   # trailing comment\n"
                           "0.5 armed 2\n"
                           "1e0 height -1.25\n"
                           "2 pitch 3\n"
                           "  3\tspeed 1.5 -0.5\n"
                           "every 5 version\n"
                           "every 17.333 from 8.667 speed 0 0 0\n"
                           "20 sensing off\n"
                           "30 end",
                           profile, error))
        << error;
    ASSERT_EQ(profile.events.size(), 9u);
    const struct {
        double at, every;
        Kind kind;
        int valueCount;
        double first;
        int line;
    } expected[] = {
        {0, 0, Kind::Sensing, 0, 0, 3},        {0.5, 0, Kind::Armed, 1, 2, 4},   {1, 0, Kind::Height, 1, -1.25, 5},
        {2, 0, Kind::Pitch, 1, 3, 6},          {3, 0, Kind::Speed, 2, 1.5, 7},   {0, 5, Kind::Version, 0, 0, 8},
        {8.667, 17.333, Kind::Speed, 3, 0, 9}, {20, 0, Kind::Sensing, 0, 0, 10}, {30, 0, Kind::End, 0, 0, 11},
    };
    for (size_t i = 0; i < profile.events.size(); ++i) {
        SCOPED_TRACE(i);
        const host::ProfileEvent& e = profile.events[i];
        EXPECT_DOUBLE_EQ(e.atS, expected[i].at);
        EXPECT_DOUBLE_EQ(e.everyS, expected[i].every);
        EXPECT_EQ(e.kind, expected[i].kind);
        EXPECT_EQ(e.valueCount, expected[i].valueCount);
        EXPECT_DOUBLE_EQ(e.values[0], expected[i].first);
        EXPECT_EQ(e.line, expected[i].line);
    }
    EXPECT_TRUE(profile.events[0].on);
    EXPECT_FALSE(profile.events[7].on);
    EXPECT_DOUBLE_EQ(profile.events[4].values[1], -0.5);

    host::Profile builtIn;
    ASSERT_TRUE(host::parseProfile(host::defaultProfileText(), builtIn, error)) << error;
    ASSERT_FALSE(builtIn.events.empty());
    EXPECT_EQ(builtIn.events.front().kind, Kind::Sensing);
}

TEST(HostProfile, RefusesMalformedLinesNamingThem)
{
    // One line per reason; fuzz_hostprofile covers arbitrary bytes.
    const std::pair<const char*, const char*> bad[] = {
        {"sensing on", "line 1: a line starts with a time"},
        {"nan version", "line 1: a line starts with a time"},
        {"0 version\n1", "line 2: missing command"},
        {"0 fly", "unknown command 'fly'"},
        {"0 sensing maybe", "sensing takes on or off"},
        {"0 version now", "'version' takes 0"},
        {"0 armed 1.5", "0..255"},
        {"0 height 1e999", "not a finite number"},
        {"0 speed 1 2 3 4", "'speed' takes 1 to 3"},
        {"every 0 version", "period > 0"},
        {"every 1 from -1 version", "from takes a time"},
        {"every 1 end", "end cannot repeat"},
    };
    for (const auto& [text, expected] : bad) {
        SCOPED_TRACE(text);
        host::Profile profile;
        std::string error;
        EXPECT_FALSE(host::parseProfile(text, profile, error));
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
}

}  // namespace
