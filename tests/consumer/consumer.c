/* Compiled against the installed header, linked against the installed
 * library: calls an entry point that has no side effect beyond a log line. */
#include <binocular/binocular.h>
#include <stdio.h>

int main(void)
{
    const int64_t result = binocularUninit();
    printf("binocularUninit returned %lld\n", (long long)result);
    return result == 0 ? 0 : 1;
}
