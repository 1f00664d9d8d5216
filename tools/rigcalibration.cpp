#include "rigcalibration.h"

#include <filesystem>
#include <fstream>

#include "paths.h"

namespace camsim {

std::string calibrationDirectory(Common::Direction direction)
{
    return paths::resolve(direction == Common::FRONT ? paths::kFrontCalibDir : paths::kDownCalibDir);
}

bool writeRigCalibration(const std::string& directory, const scene::Rig& rig, std::string& error)
{
    namespace fs = std::filesystem;
    std::error_code failure;
    fs::create_directories(directory, failure);
    if (failure) {
        error = "cannot create " + directory + ": " + failure.message();
        return false;
    }
    const fs::path folder(directory);

    const double cx = (rig.size.width - 1) / 2.0;
    const double cy = (rig.size.height - 1) / 2.0;
    const cv::Mat camera = (cv::Mat_<double>(3, 3) << rig.focalPx, 0, cx, 0, rig.focalPx, cy, 0, 0, 1);
    const cv::Mat distortion = cv::Mat::zeros(1, 5, CV_64F);
    const cv::Mat rotation = cv::Mat::eye(3, 3, CV_64F);
    const cv::Mat translation = (cv::Mat_<double>(3, 1) << -rig.baselineMm, 0, 0);

    try {
        cv::FileStorage intrinsics((folder / "intrinsicsBino.yml").string(), cv::FileStorage::WRITE);
        cv::FileStorage extrinsics((folder / "extrinsicsBino.yml").string(), cv::FileStorage::WRITE);
        if (!intrinsics.isOpened() || !extrinsics.isOpened()) {
            error = "cannot write the calibration files in " + directory;
            return false;
        }
        intrinsics << "M1" << camera << "D1" << distortion << "M2" << camera << "D2" << distortion;
        extrinsics << "R" << rotation << "T" << translation;
    } catch (const cv::Exception& exception) {
        error = "cannot write the calibration files in " + directory + ": " + exception.err;
        return false;
    }
    for (const char* table : {"leftLut.dat", "rightLut.dat"}) {
        std::ofstream out(folder / table, std::ios::binary | std::ios::trunc);
        if (!out) {
            error = "cannot write " + (folder / table).string();
            return false;
        }
    }
    return true;
}

}  // namespace camsim
