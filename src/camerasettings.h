#pragma once
// One camera pair's settings from binocular.ini: the pipeline's image size,
// frame source, disparity back end, processor and raw image recording. The
// keys, their defaults and their meaning live in one table, kKeys, which the
// loader walks and which config/binocular.ini documents line by line.
//
// Thread-safety: none; the pipeline's constructing thread fills it once.

#include <cstddef>

#include "common.h"

struct CameraSettings {
    int imageType;     ///< stored by the pipeline; no step reads it
    int width;         ///< pixels, as the camera delivers them (before rotation)
    int height;        ///< pixels, as the camera delivers them
    int source;        ///< ImageReader::Source
    int matcher;       ///< StereoMatcher::Matcher
    int processor;     ///< DroneBino::Processor: 0 brake, 1 avoid
    int saveImage;     ///< raw image recording: non-zero on
    int saveInterval;  ///< frames per recorded image set; <= 1 records every frame

    /// A key of the camera's section: "name = default" in the documented file.
    struct Key {
        const char* name;
        int CameraSettings::*member;
        int defaultValue;
        const char* meaning;
    };
    /// The eight keys in the order the loader reads them.
    static const Key kKeys[8];

    /// Every member at its default.
    CameraSettings();

    /// Assigns the defaults, then reads binocular.ini (through paths::resolve):
    /// visionSwitch = "visionSwitch" of section "common" != 0, then every key
    /// of kKeys from the section named Common::binoString(direction), in
    /// order. Returns false, defaults kept and visionSwitch untouched, when
    /// the file cannot be read; the caller logs that.
    ///
    /// Each value goes through std::stoi: a missing key or a value that does
    /// not start with a decimal integer throws std::invalid_argument, one
    /// outside int std::out_of_range. A missing section behaves as an empty
    /// one. Settings assigned before the failing key keep their new values.
    bool load(Common::Direction direction, bool& visionSwitch);
};
