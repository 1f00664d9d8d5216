#include "common.h"

#include <pthread.h>

namespace Common {

std::string binoString(Direction direction)
{
    switch (direction) {
        case FRONT:
            return "front";
        case DOWN:
            return "down";
    }
    return std::string();
}

std::string logPrefix(Direction direction) { return "[BINOLIB] [" + binoString(direction) + "]"; }

void nameThisThread(const std::string& name) { pthread_setname_np(pthread_self(), name.substr(0, 15).c_str()); }

}  // namespace Common
