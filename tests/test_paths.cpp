#include <gtest/gtest.h>

#include <cstdlib>

#include "paths.h"

namespace {

// Sets or clears BINOCULAR_ROOT for one test and restores it afterwards.
class RootVariable {
public:
    explicit RootVariable(const char* value)
    {
        if (const char* old = std::getenv(paths::kRootVariable)) {
            m_old = old;
            m_had = true;
        }
        value ? setenv(paths::kRootVariable, value, 1) : unsetenv(paths::kRootVariable);
    }
    ~RootVariable() { m_had ? setenv(paths::kRootVariable, m_old.c_str(), 1) : unsetenv(paths::kRootVariable); }

private:
    std::string m_old;
    bool m_had = false;
};

}  // namespace

TEST(Paths, UnsetOrEmptyRootKeepsTheFixedPathExactly)
{
    {
        RootVariable root(nullptr);
        EXPECT_EQ(paths::resolve(paths::kVisionSwitchFile), "/run/visionSwitch.ini");
    }
    {
        RootVariable root("");
        EXPECT_EQ(paths::resolve(paths::kFrontCalibDir), "/home/linaro/calib/frontBino/");
    }
}

TEST(Paths, RootIsPrefixedWithoutDoubledSeparators)
{
    {
        RootVariable root("/tmp/scratch");
        EXPECT_EQ(paths::resolve(paths::kConfigFile), "/tmp/scratch/home/tarnwick/component/vision_cmp/binocular.ini");
    }
    {
        RootVariable root("/tmp/scratch//");
        EXPECT_EQ(paths::resolve(paths::kDownLogDir), "/tmp/scratch/data/log/downBino/");
    }
    {
        RootVariable root("/");
        EXPECT_EQ(paths::resolve(paths::kZlogCountFile), "/home/tarnwick/scripts/zlog_count.cfg");
    }
}
