#include "common.h"

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

}  // namespace Common
