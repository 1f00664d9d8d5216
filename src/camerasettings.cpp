#include "camerasettings.h"

#include <string>

#include "inifile.h"
#include "paths.h"

const CameraSettings::Key CameraSettings::kKeys[8] = {
    {"imageType", &CameraSettings::imageType, 0, "Image type; kept by the pipeline, read by none of its steps."},
    {"width", &CameraSettings::width, 640, "Image width in pixels as the camera delivers it."},
    {"height", &CameraSettings::height, 480, "Image height in pixels as the camera delivers it."},
    {"source", &CameraSettings::source, 0, "Frame source: 0 shared memory, 1 socket placeholder, 2 none."},
    {"matcher", &CameraSettings::matcher, 0, "Disparity back end: 0 hardware stereo unit, 1 block matching, 2 reserved (none)."},
    {"processor", &CameraSettings::processor, 0, "Processor: 0 brake (distance and braking), 1 avoid."},
    {"saveImage", &CameraSettings::saveImage, 0, "Raw image recording: non-zero on, 0 off."},
    {"saveInterval", &CameraSettings::saveInterval, 5, "Record one image set every this many frames (1 or less: every frame)."},
};

CameraSettings::CameraSettings()
{
    for (const Key& key : kKeys) {
        this->*key.member = key.defaultValue;
    }
}

bool CameraSettings::load(Common::Direction direction, bool& visionSwitch)
{
    *this = CameraSettings();
    IniFile ini;
    if (!ini.read(paths::resolve(paths::kConfigFile))) {
        return false;
    }
    visionSwitch = std::stoi(ini["common"].get("visionSwitch")) != 0;
    const IniFile::Section& camera = ini[Common::binoString(direction)];
    for (const Key& key : kKeys) {
        this->*key.member = std::stoi(camera.get(key.name));
    }
    return true;
}
