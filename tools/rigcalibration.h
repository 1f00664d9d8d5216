#pragma once
// Calibration files of an ideal rectified rig, in the form the module reads
// from a camera pair's calibration folder.

#include <string>

#include "common.h"
#include "scenerender.h"

namespace camsim {

/// The calibration folder of `direction` (under $BINOCULAR_ROOT when set).
std::string calibrationDirectory(Common::Direction direction);

/// Writes into `directory` (created when missing):
///   intrinsicsBino.yml  M1, M2 = [f 0 cx; 0 f cy; 0 0 1] for images of rig.size
///                       (cx, cy at the image centre), D1, D2 = five zeros;
///   extrinsicsBino.yml  R = identity, T = (-baselineMm, 0, 0): the right camera
///                       sits baselineMm to the left camera's right; T in mm, so
///                       the module's Q yields depth in mm;
///   leftLut.dat, rightLut.dat  empty: an ideal rig needs no correction table.
/// False with `error` set when a file cannot be written.
bool writeRigCalibration(const std::string& directory, const scene::Rig& rig, std::string& error);

}  // namespace camsim
