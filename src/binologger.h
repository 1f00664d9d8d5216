#pragma once
// One camera pair's recorder: a tab-separated record file per sensing run and,
// when wanted, the run's raw left and right images.
//
// Files of a run started with counter value I at local time H:M:S (no leading
// zeros), below the pair's log directory (paths::resolve of
// /data/log/frontBino/ or /data/log/downBino/), stem S = "frontBino" or
// "downBino":
//   S_I_H_M_S_I.log                        header, then one line per frame
//   S_I_H_M_S_I/gray_WxH_left.yuv          W x H bytes per recorded frame,
//   S_I_H_M_S_I/gray_WxH_right.yuv         8-bit grey, no header
//   S_I_H_M_S_I/gray_WxH_disparity.yuv     always empty
// Every file is opened for appending: a run started in the same second with
// the same counter value continues the previous run's files.
//
// A record line is flushed as soon as it is written, so a crash loses no
// complete line; image frames are not flushed. A write to a stream that was
// good and fails (a full disk, a file size limit) is logged once, and the
// stream drops everything until the next run opens it again.
//
// Thread-bound: only the owning pipeline's worker thread uses the object.

#include <ctime>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "common.h"

class BinoLogger {
public:
    /// Seconds since the epoch, as std::time gives them.
    using Clock = std::function<std::time_t()>;

    /// Logs the settings and sets the directory and stem of the direction;
    /// touches no file. size: the images handed to writeImage, in pixels.
    /// clock: the time of a run's names; empty means std::time.
    BinoLogger(Common::Direction direction, int saveImage, int saveInterval, cv::Size size, Clock clock = {});

    void init();
    void initFront();
    void initDown();

    /// Starts a run: reads the counter, creates the log directory (a failure
    /// is logged and ends the call), opens the record file and writes header
    /// unchanged (isOpen() turns true), and with saveImage opens the image
    /// files whether or not the record file opened.
    void open(const std::string& header);
    bool isOpen();
    /// One record line: every column followed by a tab, then a line feed;
    /// flushed. Dropped when no record file is open.
    void writeLog(const std::vector<std::string>& columns);
    /// Ends the run: closes the record file and the open image files.
    void close();

    /// First integer of the counter file; 0 when it does not start with one
    /// (or is empty), -1 (logged) when it cannot be opened.
    int getZlogCnt();
    /// Local time of day of clock(): "H_M_S" without leading zeros.
    std::string getCurrentTimeString();
    /// Makes logDir and its parents. False only when that fails.
    bool createLogDir();
    /// Opens the run's record file for appending; false (logged) if it fails.
    bool createLog(int index, const std::string& time);
    /// Writes header to the record file unchanged, without flushing.
    void fillLogHeader(const std::string& header);
    /// Makes the run's image directory and opens the three image files in it.
    /// A directory that cannot be made means no image files, silently.
    void createImageDirAndFile(int index, const std::string& time);
    /// With saveImage, records left and right on every saveInterval-th call
    /// (counted across runs): the first imageSize.area() bytes of each
    /// image's pixel data, appended without a flush. An image that does not
    /// hold that many continuous bytes is skipped, so the file never holds a
    /// frame of the wrong size. disparity and area are unused.
    void writeImage(const cv::Mat& left, const cv::Mat& right, const cv::Mat& disparity,
                    const std::vector<cv::Point2f>& area);

    std::string logHeader;  ///< "[BINOLIB] [front]" or "[BINOLIB] [down]"
    Common::Direction direction;
    bool logOpen = false;  ///< a record file is open for this run
    bool saveImage;
    int imageCounter = 0;  ///< calls of writeImage since the last recorded frame
    int saveInterval = 5;  ///< frames per recorded image set
    std::string logDir;    ///< absolute, with a final "/"; empty for an unknown direction
    std::string logName;   ///< stem of every file name of the pair
    cv::Size imageSize;    ///< pixels of the recorded images
    std::ofstream logFile;
    std::ofstream leftFile;
    std::ofstream rightFile;
    std::ofstream disparityFile;

    Clock clock;
    std::string logPath;    ///< file of logFile, for the write failure line
    std::string leftPath;   ///< file of leftFile
    std::string rightPath;  ///< file of rightFile

private:
    /// Logs "%s write %s failed." when stream was writable before an
    /// operation (wasWritable) and is not any more.
    void reportWriteFailure(const std::ofstream& stream, bool wasWritable, const std::string& path);
    /// Closes stream; a close that loses buffered bytes counts as a failed write.
    void closeStream(std::ofstream& stream, const std::string& path);
    void writeFrame(std::ofstream& stream, const cv::Mat& image, const std::string& path);
};
