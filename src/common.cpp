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

}  // namespace Common
