#include <gtest/gtest.h>

#include "common.h"

// Every log line of a pair carries its name; an out-of-range direction names
// no pair rather than reading past the table.
TEST(Common, PairNamesAndLogPrefixes)
{
    EXPECT_EQ(Common::binoString(Common::FRONT), "front");
    EXPECT_EQ(Common::logPrefix(Common::DOWN), "[BINOLIB] [down]");
    for (int outside : {-1, 2, 7}) {
        EXPECT_EQ(Common::logPrefix(static_cast<Common::Direction>(outside)), "[BINOLIB] []") << outside;
    }
}
