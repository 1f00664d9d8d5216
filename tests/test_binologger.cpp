// Record files and raw images of a camera pair. Time stamps come from an
// injected clock, so no test waits for the wall clock.

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "binologger.h"
#include "paths.h"
#include "test_support.h"

namespace fs = std::filesystem;

namespace {

const cv::Size kSize(4, 3);  // 12 bytes per recorded image

std::time_t at(int hour, int minute, int second)
{
    std::tm local{};
    local.tm_year = 120;
    local.tm_mday = 15;
    local.tm_hour = hour;
    local.tm_min = minute;
    local.tm_sec = second;
    local.tm_isdst = -1;
    return std::mktime(&local);
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void putCounter(const char* text)
{
    const fs::path path = paths::resolve(paths::kZlogCountFile);
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
}

cv::Mat image(int value) { return cv::Mat(kSize, CV_8UC1, cv::Scalar(value)); }

std::string frontRun(const std::string& stem) { return paths::resolve(paths::kFrontLogDir) + stem; }

}  // namespace

// Given a direction, a counter file (nullptr: absent) and a start time, the
// run's record file has the listed name and holds the header and every line
// as soon as it is written.
TEST(BinoLoggerRecord, NameHeaderAndLines)
{
    struct Case {
        Common::Direction direction;
        const char* counter;
        std::time_t start;
        const char* name;
        size_t counterErrors;
    } cases[] = {
        {Common::DOWN, "7", at(23, 59, 59), "downBino_7_23_59_59_7.log", 0},
        {Common::FRONT, nullptr, at(9, 5, 7), "frontBino_-1_9_5_7_-1.log", 1},
        {Common::FRONT, "text 5", at(0, 0, 0), "frontBino_0_0_0_0_0.log", 0},
        {Common::FRONT, "", at(12, 0, 1), "frontBino_0_12_0_1_0.log", 0},
        {Common::DOWN, " \n -12 9", at(1, 2, 3), "downBino_-12_1_2_3_-12.log", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        testsupport::ScratchRoot scratch;
        if (c.counter) {
            putCounter(c.counter);
        }
        BinoLogger logger(c.direction, 0, 5, kSize, [&c] { return c.start; });
        testsupport::LogCapture capture;
        logger.open("h1\th2\t\n");
        ASSERT_TRUE(logger.isOpen());
        logger.writeLog({"a", "b", "c"});
        logger.writeLog({});
        const std::string dir = paths::resolve(c.direction == Common::FRONT ? paths::kFrontLogDir : paths::kDownLogDir);
        EXPECT_EQ(slurp(dir + c.name), "h1\th2\t\na\tb\tc\t\n\n");
        logger.close();
        EXPECT_FALSE(logger.isOpen());
        ASSERT_EQ(capture.records().size(), c.counterErrors);
        if (c.counterErrors) {
            EXPECT_EQ(capture.records()[0].message, Common::logPrefix(c.direction) + " open zlog cnt file failed.");
            EXPECT_EQ(capture.records()[0].level, binolog::ERROR);
        }
    }
}

// Within one second a new run continues the same files (header again); a
// second later it starts new ones. The image cadence ignores run boundaries.
TEST(BinoLoggerRecord, RunsInTheSameSecondShareTheirFiles)
{
    testsupport::ScratchRoot scratch;
    putCounter("1");
    std::time_t now = at(10, 0, 0);
    BinoLogger logger(Common::FRONT, 1, 3, kSize, [&now] { return now; });
    logger.close();  // never opened: nothing to say
    logger.writeLog({"dropped"});
    testsupport::LogCapture capture;
    for (int run = 0; run < 3; ++run) {
        now += run == 2 ? 1 : 0;
        logger.open("H\n");
        logger.writeLog({std::to_string(run)});
        for (int frame = 1; frame <= 4; ++frame) {
            logger.writeImage(image(run * 4 + frame), image(0), cv::Mat(), {});
        }
        logger.close();
    }
    EXPECT_EQ(slurp(frontRun("frontBino_1_10_0_0_1.log")), "H\n0\t\nH\n1\t\n");
    EXPECT_EQ(slurp(frontRun("frontBino_1_10_0_1_1.log")), "H\n2\t\n");
    const auto pixels = [](std::initializer_list<int> frames) {
        std::string bytes;
        for (int frame : frames) {
            bytes += std::string(12, static_cast<char>(frame));
        }
        return bytes;
    };
    EXPECT_EQ(slurp(frontRun("frontBino_1_10_0_0_1/gray_4x3_left.yuv")), pixels({3, 6}));
    EXPECT_EQ(slurp(frontRun("frontBino_1_10_0_1_1/gray_4x3_left.yuv")), pixels({9, 12}));
    EXPECT_TRUE(capture.records().empty());
}

// Given saveImage and saveInterval, writeImage records exactly the listed
// frames, W x H bytes each, and nothing at all without saveImage.
TEST(BinoLoggerImages, IntervalPicksTheFrames)
{
    struct Case {
        int saveImage, saveInterval, frames;
        std::vector<int> recorded;
    } cases[] = {{1, 3, 10, {3, 6, 9}}, {7, 0, 3, {1, 2, 3}}, {1, -2, 2, {1, 2}}, {0, 1, 3, {}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.saveInterval);
        testsupport::ScratchRoot scratch;
        putCounter("4");
        testsupport::LogCapture capture;
        BinoLogger logger(Common::FRONT, c.saveImage, c.saveInterval, kSize, [] { return at(8, 0, 0); });
        logger.open("H\n");
        for (int frame = 1; frame <= c.frames; ++frame) {
            logger.writeImage(image(frame), image(100 + frame), image(0), {});
        }
        logger.close();
        ASSERT_EQ(capture.records().size(), 1u);
        EXPECT_EQ(capture.records()[0].message, "[BINOLIB] [front] BinoLogger saveImage: " +
                                                    std::to_string(c.saveImage) +
                                                    ", saveInterval: " + std::to_string(c.saveInterval));
        const std::string run = frontRun("frontBino_4_8_0_0_4");
        if (!c.saveImage) {
            EXPECT_FALSE(fs::exists(run));
            EXPECT_EQ(logger.imageCounter, 0);
            continue;
        }
        std::string left, right;
        for (int frame : c.recorded) {
            left += std::string(12, static_cast<char>(frame));
            right += std::string(12, static_cast<char>(100 + frame));
        }
        EXPECT_EQ(slurp(run + "/gray_4x3_left.yuv"), left);
        EXPECT_EQ(slurp(run + "/gray_4x3_right.yuv"), right);
        EXPECT_TRUE(fs::exists(run + "/gray_4x3_disparity.yuv"));
        EXPECT_EQ(fs::file_size(run + "/gray_4x3_disparity.yuv"), 0u);
    }
}

// Given something in the way of a directory or the record file, open fails
// as listed, twice (a second open while the image files are open drops
// their frames silently), and never makes image files it should not.
TEST(BinoLoggerImages, BlockedDirectoriesAndFiles)
{
    struct Case {
        const char* blocker;  // below the front log directory
        bool directory;       // the blocker is a directory rather than a file
        const char* logged;   // the ERROR line of each attempt, if any
        bool recordOpen;
        bool emptyImages;  // image files exist and stay empty; otherwise there are none
    } cases[] = {
        {"../../log", false, "[BINOLIB] [front] create bino log dir failed.", false, false},
        {"frontBino_1_10_0_0_1", false, nullptr, true, false},
        {"frontBino_1_10_0_0_1.log", true, "[BINOLIB] [front] open bino log failed.", false, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.blocker);
        testsupport::ScratchRoot scratch;
        putCounter("1");
        const fs::path blocker = fs::path(frontRun(c.blocker)).lexically_normal();
        fs::create_directories(c.directory ? blocker : blocker.parent_path());
        if (!c.directory) {
            std::ofstream(blocker.string()) << "x";
        }
        BinoLogger logger(Common::FRONT, 1, 1, kSize, [] { return at(10, 0, 0); });
        testsupport::LogCapture capture;
        for (int attempt = 0; attempt < 2; ++attempt) {
            logger.open("H\n");
        }
        EXPECT_EQ(logger.isOpen(), c.recordOpen);
        logger.writeImage(image(1), image(2), image(0), {});
        logger.close();
        EXPECT_EQ(capture.records().size(), c.logged ? 2u : 0u);
        EXPECT_EQ(capture.count(c.logged ? c.logged : "[BINOLIB]"), c.logged ? 2u : 0u);
        const std::string left = frontRun("frontBino_1_10_0_0_1/gray_4x3_left.yuv");
        EXPECT_EQ(fs::exists(left), c.emptyImages);
        EXPECT_EQ(fs::exists(left) && fs::file_size(left) == 0, c.emptyImages);
    }
}

// Every line that writeLog had returned from before a SIGKILL is in the file:
// the child reports each returned call through a pipe, the parent kills it
// after 50 and counts the lines on disk.
TEST(BinoLoggerDurability, KilledWriterLosesNoCompleteLine)
{
    testsupport::ScratchRoot scratch;
    putCounter("2");
    int progress[2];
    ASSERT_EQ(pipe(progress), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(progress[0]);
        BinoLogger logger(Common::FRONT, 0, 1, kSize, [] { return at(11, 0, 0); });
        logger.open("H\n");
        for (int line = 0; line < 100000; ++line) {  // killed long before the end
            logger.writeLog({std::to_string(line)});
            if (write(progress[1], "+", 1) != 1) {
                break;
            }
        }
        _exit(0);
    }
    close(progress[1]);
    size_t returned = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (auto now = std::chrono::steady_clock::now(); returned < 50 && now < deadline;
         now = std::chrono::steady_clock::now()) {
        pollfd ready{progress[0], POLLIN, 0};
        char mark;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count();
        if (poll(&ready, 1, static_cast<int>(left)) != 1 || read(progress[0], &mark, 1) != 1) {
            break;
        }
        ++returned;
    }
    kill(child, SIGKILL);
    close(progress[0]);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    ASSERT_EQ(returned, 50u);
    const std::string written = slurp(frontRun("frontBino_2_11_0_0_2.log"));
    std::string expected = "H\n";
    for (int line = 0; expected.size() < written.size(); ++line) {
        expected += std::to_string(line) + "\t\n";
    }
    EXPECT_EQ(written, expected);
    EXPECT_GE(static_cast<size_t>(std::count(written.begin(), written.end(), '\n')), returned + 1);
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
        for (const auto& record : capture.records()) {
            std::printf("%d|%s\n", record.level, record.message.c_str());
        }
    });
    ASSERT_TRUE(child.exited) << child.output;
    for (int second : {0, 1}) {
        const std::string stem = "frontBino_3_12_0_" + std::to_string(second) + "_3";
        for (const std::string& file : {stem + ".log", stem + "/gray_40x30_left.yuv", stem + "/gray_40x30_right.yuv"}) {
            const std::string line = "100|[BINOLIB] [front] write " + frontRun(file) + " failed.\n";
            size_t count = 0;
            for (size_t pos = child.output.find(line); pos != std::string::npos; pos = child.output.find(line, pos + 1)) {
                ++count;
            }
            EXPECT_EQ(count, 1u) << line << child.output;
        }
    }
}
