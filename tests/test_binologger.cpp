// Record files and raw images of a camera pair. Start times come from an
// injected clock, so no test waits for the wall clock.

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>

#include "binologger.h"
#include "paths.h"
#include "test_support.h"

namespace fs = std::filesystem;

namespace {

const cv::Size kSize(4, 3);  // 12 bytes per recorded image

std::time_t at(int hour, int minute, int second)  // local time on 2020-01-15
{
    std::tm local{};
    local.tm_year = 120;
    local.tm_mday = 15;
    local.tm_sec = (hour * 60 + minute) * 60 + second;  // mktime normalises
    local.tm_isdst = -1;
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
// record file holds the header and each line as soon as it is written, and
// which records exactly the listed frames (W x H bytes each) beside an empty
// disparity file. The settings are logged, and so is a missing counter.
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
        {Common::FRONT, "text 5", at(0, 0, 0), 1, -2, 2, {1, 2}, "frontBino/frontBino_0_0_0_0_0"},
        {Common::DOWN, "", at(12, 0, 1), 0, 1, 3, {}, "downBino/downBino_0_12_0_1_0"},
        {Common::DOWN, " \n -12 9", at(1, 2, 3), 0, 5, 0, {}, "downBino/downBino_-12_1_2_3_-12"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.stem);
        testsupport::ScratchRoot scratch;
        if (c.counter) {
            putCounter(c.counter);
        }
        testsupport::LogCapture capture;
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
        EXPECT_EQ(logger.imageCounter, c.saveImage ? c.calls % std::max(c.saveInterval, 1) : 0);
        const std::string prefix = c.direction == Common::FRONT ? "[BINOLIB] [front]" : "[BINOLIB] [down]";
        std::string expected = "40 " + prefix + " BinoLogger saveImage: " + std::to_string(c.saveImage) +
                               ", saveInterval: " + std::to_string(c.saveInterval) + "\n";
        expected += c.counter ? "" : "100 " + prefix + " open zlog cnt file failed.\n";
        std::string logged;
        for (const binolog::Record& record : capture.records()) {
            logged += std::to_string(record.level) + " " + record.message + "\n";
        }
        EXPECT_EQ(logged, expected);
    }
}

// Within one second a new run continues the same files (header again); a
// second later it starts new ones. The image cadence ignores run boundaries.
// Closing a logger never opened, or writing to it, says and makes nothing.
TEST(BinoLoggerRun, RunsInTheSameSecondShareTheirFiles)
{
    testsupport::ScratchRoot scratch;
    putCounter("1");
    std::time_t now = at(10, 0, 0);
    BinoLogger logger(Common::FRONT, 1, 3, kSize, [&now] { return now; });
    testsupport::LogCapture capture;
    logger.close();
    logger.writeLog({"dropped"});
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
    EXPECT_TRUE(capture.records().empty());
}

// Given something in the way of a directory or the record file, two opens
// (the second while the image files are open, which drops their frames
// silently) fail as listed and make no image file they should not.
TEST(BinoLoggerImages, BlockedDirectoriesAndFiles)
{
    struct Case {
        const char* blocker;  // below the front log directory; a directory if it ends in "/"
        const char* logged;   // the ERROR line of each open, if any
        bool recordOpen;
        int rightBytes;  // the right image file's size, -1 for no file
    } cases[] = {
        {"../../log", "[BINOLIB] [front] create bino log dir failed.", false, -1},
        {"frontBino_1_10_0_0_1", nullptr, true, -1},
        {"frontBino_1_10_0_0_1.log/", "[BINOLIB] [front] open bino log failed.", false, 0},
        {"frontBino_1_10_0_0_1/gray_4x3_left.yuv/", "[BINOLIB] [front] open left.yuv failed.", true, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.blocker);
        testsupport::ScratchRoot scratch;
        putCounter("1");
        const fs::path blocker = fs::path(front(c.blocker)).lexically_normal();
        fs::create_directories(blocker.has_filename() ? blocker.parent_path() : blocker);
        if (blocker.has_filename()) {
            std::ofstream(blocker) << "x";
        }
        BinoLogger logger(Common::FRONT, 1, 1, kSize, [] { return at(10, 0, 0); });
        testsupport::LogCapture capture;
        logger.open("H\n");
        logger.open("H\n");
        EXPECT_EQ(logger.isOpen(), c.recordOpen);
        logger.writeImage(image(1), image(2), image(0), {});
        logger.close();
        EXPECT_EQ(capture.records().size(), c.logged ? 2u : 0u);
        EXPECT_EQ(capture.count(c.logged ? c.logged : "[BINOLIB]"), c.logged ? 2u : 0u);
        const std::string right = front("frontBino_1_10_0_0_1/gray_4x3_right.yuv");
        EXPECT_EQ(fs::exists(right) ? static_cast<int>(fs::file_size(right)) : -1, c.rightBytes);
    }
}

// A writer killed with SIGKILL in the middle of a run, right after writeLog
// returned for the 50th time, has all 50 lines in the file.
TEST(BinoLoggerDurability, KilledWriterLosesNoCompleteLine)
{
    testsupport::ScratchRoot scratch;
    putCounter("2");
    const auto child = testsupport::runInChild([] {
        BinoLogger logger(Common::FRONT, 0, 1, kSize, [] { return at(11, 0, 0); });
        logger.open("H\n");
        for (int line = 0; line < 50; ++line) {
            logger.writeLog({std::to_string(line)});
        }
        raise(SIGKILL);
    });
    EXPECT_FALSE(child.exited);
    std::string expected = "H\n";
    for (int line = 0; line < 50; ++line) {
        expected += std::to_string(line) + "\t\n";
    }
    EXPECT_EQ(testsupport::readFile(front("frontBino_2_11_0_0_2.log")), expected);
}

// Files that hit the size limit: each stream says so once per run, the
// process keeps going, and the next run tries again.
TEST(BinoLoggerDurability, FullFileIsReportedOncePerStreamAndRun)
{
    testsupport::ScratchRoot scratch;
    putCounter("3");
    const auto child = testsupport::runInChild([] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{1000, 1000};
        setrlimit(RLIMIT_FSIZE, &limit);
        testsupport::LogCapture capture;
        std::time_t now = at(12, 0, 0);
        BinoLogger logger(Common::FRONT, 1, 1, cv::Size(40, 30), [&now] { return now; });
        const cv::Mat frame(30, 40, CV_8UC1, cv::Scalar(5));
        for (int run = 0; run < 2; ++run, ++now) {
            logger.open("H\n");
            for (int line = 0; line < 300; ++line) {
                logger.writeLog({"0123456789"});
                logger.writeImage(frame, frame, frame, {});
            }
            logger.close();
        }
        std::vector<std::string> errors;
        for (const auto& record : capture.records()) {
            if (record.level == binolog::ERROR) {
                errors.push_back(record.message + "|");
            }
        }
        std::sort(errors.begin(), errors.end());
        std::printf("errors: %s\n", std::accumulate(errors.begin(), errors.end(), std::string()).c_str());
    });
    ASSERT_TRUE(child.exited && child.exitCode == 0) << child.output;
    std::string expected = "errors: ";  // in sorted order
    for (const char* stem : {"frontBino_3_12_0_0_3", "frontBino_3_12_0_1_3"}) {
        for (const char* file : {".log", "/gray_40x30_left.yuv", "/gray_40x30_right.yuv"}) {
            expected += "[BINOLIB] [front] write " + front(stem) + file + " failed.|";
        }
    }
    EXPECT_NE(child.output.find(expected + "\n"), std::string::npos) << child.output;
}
