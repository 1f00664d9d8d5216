#include <gtest/gtest.h>

#include "paths.h"
#include "test_support.h"

// An unset or empty root keeps the fixed path exactly; a root is prefixed
// without doubled separators, and "/" is no prefix at all.
TEST(Paths, RootIsPrefixedToTheFixedPath)
{
    const struct {
        const char* root;
        const char* fixed;
        const char* resolved;
    } cases[] = {
        {nullptr, paths::kVisionSwitchFile, "/run/visionSwitch.ini"},
        {"", paths::kFrontCalibDir, "/home/linaro/calib/frontBino/"},
        {"/tmp/scratch", paths::kConfigFile, "/tmp/scratch/home/tarnwick/component/vision_cmp/binocular.ini"},
        {"/tmp/scratch//", paths::kDownLogDir, "/tmp/scratch/data/log/downBino/"},
        {"/", paths::kZlogCountFile, "/home/tarnwick/scripts/zlog_count.cfg"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.root ? c.root : "(unset)");
        testsupport::ScopedEnv root(paths::kRootVariable, c.root);
        EXPECT_EQ(paths::resolve(c.fixed), c.resolved);
    }
}
