// Host messages of any type with any content, each buffer at least the record
// its type needs and allocated as the host allocates it: nothing may crash,
// read past the buffer or leak it, and every reply reaches the callback,
// which frees it as the host does.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "binocular/binocular.h"
#include "paths.h"

namespace {

int64_t freeReply(void* message, uint32_t type, uint64_t)
{
    switch (type) {
        case BINO_MSG_VERSION_REPLY:
            delete static_cast<BinoVersionReply*>(message);
            break;
        case BINO_MSG_SWITCH_REPLY:
            delete static_cast<BinoSwitchReply*>(message);
            break;
        default:
            std::abort();  // no pipeline runs here: only replies can come
    }
    return 0;
}

size_t recordSize(uint32_t type)
{
    switch (type) {
        case HOST_MSG_BASIC_STATE:
            return sizeof(AircraftBasicState);
        case HOST_MSG_ATTITUDE:
            return sizeof(AircraftAttitudeInfo);
        case HOST_MSG_SPEED:
            return sizeof(AircraftSpeedInfo);
        case HOST_MSG_SENSOR_SWITCH:
            return 1;
        default:
            return 0;
    }
}

}  // namespace

// The switch file goes to a scratch root; the callback is installed through a
// start that finds no configuration and so starts nothing.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    const std::string root = (std::filesystem::temp_directory_path() / "binocular-fuzz-hostmessage").string();
    std::filesystem::create_directories(root + "/run");
    setenv(paths::kRootVariable, root.c_str(), 1);
    try {
        binocularInit(freeReply, 1);
    } catch (...) {
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) {
        return 0;
    }
    const uint32_t type = data[0] % 9;  // every known type and a few unknown ones
    const size_t length = std::max(recordSize(type), size - 1);
    auto* buffer = new uint8_t[length]();
    std::copy(data + 1, data + size, buffer);
    binocular_getInfoFromVM(buffer, type);
    return 0;
}
