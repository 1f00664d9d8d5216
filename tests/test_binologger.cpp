// Record files and raw images of a camera pair. Start times come from an
// injected clock, so no test waits for the wall clock.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "binologger.h"
#include "paths.h"
#include "test_support.h"

namespace fs = std::filesystem;

namespace {

const cv::Size kSize(4, 3);  // 12 bytes per recorded image

std::time_t at(int hour, int minute, int second)  // local time on 2020-01-15
{
    std::tm local{};
    local.tm_year = 120, local.tm_mday = 15, local.tm_isdst = -1;
    local.tm_sec = (hour * 60 + minute) * 60 + second;  // mktime normalises
    return std::mktime(&local);
}

void putCounter(const char* text)
{
    fs::create_directories(fs::path(paths::resolve(paths::kZlogCountFile)).parent_path());
    std::ofstream(paths::resolve(paths::kZlogCountFile)) << text;
}

cv::Mat image(int value) { return cv::Mat(kSize, CV_8UC1, cv::Scalar(value)); }

/// The bytes of recorded images of these values (plus offset), in order.
std::string frames(const std::vector<int>& values, int offset = 0)
{
    std::string bytes;
    for (int value : values) {
        bytes += std::string(12, static_cast<char>(value + offset));
    }
    return bytes;
}

std::string front(const std::string& name) { return paths::resolve(paths::kFrontLogDir) + name; }

}  // namespace

// Given a direction, a counter file (nullptr: absent), a start time and the
// image settings, a run of `calls` frames has files named as listed, whose
// record file holds the header and each line as soon as it is written (a
// crash loses no complete line), and which records exactly the listed frames
// (W x H bytes each) beside an empty disparity file.
TEST(BinoLoggerRun, NamesLinesAndRecordedFrames)
{
    struct Case {
        Common::Direction direction;
        const char* counter;
        std::time_t start;
        int saveImage, saveInterval, calls;
        std::vector<int> recorded;
        const char* stem;  // below /data/log/
    } cases[] = {
        {Common::DOWN, "7", at(23, 59, 59), 1, 3, 10, {3, 6, 9}, "downBino/downBino_7_23_59_59_7"},
        {Common::FRONT, nullptr, at(9, 5, 7), 7, 0, 3, {1, 2, 3}, "frontBino/frontBino_-1_9_5_7_-1"},
        {Common::DOWN, " \n -12 9", at(1, 2, 3), 0, 5, 3, {}, "downBino/downBino_-12_1_2_3_-12"},  // no images
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.stem);
        testsupport::ScratchRoot scratch;
        if (c.counter) {
            putCounter(c.counter);
        }
        testsupport::LogCapture quiet;
        BinoLogger logger(c.direction, c.saveImage, c.saveInterval, kSize, [&c] { return c.start; });
        logger.open("h1\th2\t\n");
        logger.writeLog({"a", "b", "c"});
        logger.writeLog({});
        const std::string run = paths::resolve("/data/log/") + c.stem;
        EXPECT_EQ(testsupport::readFile(run + ".log"), "h1\th2\t\na\tb\tc\t\n\n");
        for (int frame = 1; frame <= c.calls; ++frame) {
            logger.writeImage(image(frame), image(100 + frame), image(0), {});
        }
        logger.close();
        EXPECT_EQ(fs::exists(run), c.saveImage != 0);
        EXPECT_EQ(fs::exists(run + "/gray_4x3_disparity.yuv") && fs::is_empty(run + "/gray_4x3_disparity.yuv"),
                  c.saveImage != 0);
        EXPECT_EQ(testsupport::readFile(run + "/gray_4x3_left.yuv"), frames(c.recorded));
        EXPECT_EQ(testsupport::readFile(run + "/gray_4x3_right.yuv"), frames(c.recorded, 100));
    }
}

// Within one second a new run continues the same files (header again); a
// second later it starts new ones. The image cadence ignores run boundaries.
TEST(BinoLoggerRun, RunsInTheSameSecondShareTheirFiles)
{
    testsupport::ScratchRoot scratch;
    putCounter("1");
    std::time_t now = at(10, 0, 0);
    BinoLogger logger(Common::FRONT, 1, 3, kSize, [&now] { return now; });
    for (int run = 0; run < 3; ++run) {
        now += run == 2 ? 1 : 0;
        logger.open("H\n");
        logger.writeLog({std::to_string(run)});
        for (int frame = 1; frame <= 4; ++frame) {
            logger.writeImage(image(run * 4 + frame), image(0), cv::Mat(), {});
        }
        logger.close();
    }
    EXPECT_EQ(testsupport::readFile(front("frontBino_1_10_0_0_1.log")), "H\n0\t\nH\n1\t\n");
    EXPECT_EQ(testsupport::readFile(front("frontBino_1_10_0_1_1.log")), "H\n2\t\n");
    EXPECT_EQ(testsupport::readFile(front("frontBino_1_10_0_0_1/gray_4x3_left.yuv")), frames({3, 6}));
    EXPECT_EQ(testsupport::readFile(front("frontBino_1_10_0_1_1/gray_4x3_left.yuv")), frames({9, 12}));
}
