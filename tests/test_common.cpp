#include <gtest/gtest.h>

#include "common.h"

TEST(BinoString, NamesEachCameraPairAndNothingElse)
{
    EXPECT_EQ(Common::binoString(Common::FRONT), "front");
    EXPECT_EQ(Common::binoString(Common::DOWN), "down");
    EXPECT_EQ(Common::binoString(static_cast<Common::Direction>(2)), "");
    EXPECT_EQ(Common::binoString(static_cast<Common::Direction>(-1)), "");
}

TEST(LogPrefix, WrapsTheCameraNameInTheModuleTag)
{
    EXPECT_EQ(Common::logPrefix(Common::FRONT), "[BINOLIB] [front]");
    EXPECT_EQ(Common::logPrefix(Common::DOWN), "[BINOLIB] [down]");
    EXPECT_EQ(Common::logPrefix(static_cast<Common::Direction>(7)), "[BINOLIB] []");
}
