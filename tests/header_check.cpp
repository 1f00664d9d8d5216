// The public header stands alone in C++ (see header_check.c).
#include "binocular/binocular.h"

int binocular_header_check_cpp() { return static_cast<int>(sizeof(BinoDistanceReport)); }
