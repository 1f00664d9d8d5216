/* The public header stands alone in C as well as in C++: a host written in
 * either compiles against it, with every record size and offset asserted. */
#include "binocular/binocular.h"

int binocular_header_check_c(void) { return (int)sizeof(BinoDistanceReport); }
