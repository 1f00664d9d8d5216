#include "binocular.h"

#include <string>

#include "binolog.h"
#include "inifile.h"
#include "paths.h"

bool enableFront = true;
bool enableDown = true;
bool visionSwitch = false;

void loadCfg()
{
    const std::string path = paths::resolve(paths::kConfigFile);
    IniFile ini;
    if (!ini.read(path)) {
        BINO_INFO("[BINOLIB] mINI: read %s failed.", path.c_str());
    }
    const IniFile::Section& common = ini["common"];
    visionSwitch = std::stoi(common.get("visionSwitch")) != 0;
    enableFront = std::stoi(common.get("enableFront")) != 0;
    enableDown = std::stoi(common.get("enableDown")) != 0;
    loadVisionSwitch();
}

int loadVisionSwitch()
{
    const std::string path = paths::resolve(paths::kVisionSwitchFile);
    IniFile ini;
    if (!ini.read(path) || !ini["common"].has("visionSwitch")) {
        BINO_ERROR("[BINOLIB] read %s failed", path.c_str());
        return -1;
    }
    visionSwitch = std::stoi(ini["common"].get("visionSwitch")) != 0;
    return visionSwitch ? 1 : 0;
}

void saveVisionSwitch()
{
    const std::string path = paths::resolve(paths::kVisionSwitchFile);
    IniFile ini;
    ini["common"].set("visionSwitch", visionSwitch ? "1" : "0");
    if (!ini.write(path)) {
        BINO_ERROR("[BINOLIB] save %s failed", path.c_str());
    }
}
