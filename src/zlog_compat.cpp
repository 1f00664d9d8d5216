#include "zlog_compat.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace {

const char* levelName(int level)
{
    switch (level) {
        case ZLOG_LEVEL_DEBUG:
            return "DEBUG";
        case ZLOG_LEVEL_INFO:
            return "INFO";
        case ZLOG_LEVEL_NOTICE:
            return "NOTICE";
        case ZLOG_LEVEL_WARN:
            return "WARN";
        case ZLOG_LEVEL_ERROR:
            return "ERROR";
        case ZLOG_LEVEL_FATAL:
            return "FATAL";
        default:
            return "LEVEL";
    }
}

}  // namespace

extern "C" int dzlog_init(const char*, const char*) { return 0; }

extern "C" void zlog_fini(void) {}

// One write(2) per line, so lines of concurrent threads never interleave.
extern "C" void dzlog(const char* file, size_t filelen, const char* func, size_t funclen, long line, int level,
                      const char* format, ...)
{
    char buffer[2048];
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    int used = std::snprintf(buffer, sizeof buffer,
                             "%04d-%02d-%02d %02d:%02d:%02d.%03ld %-5s %.*s:%ld %.*s: ", local.tm_year + 1900,
                             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                             static_cast<long>(now.tv_usec / 1000), levelName(level), static_cast<int>(filelen), file,
                             line, static_cast<int>(funclen), func);
    if (used < 0) {
        return;
    }
    size_t length = static_cast<size_t>(used) < sizeof buffer ? static_cast<size_t>(used) : sizeof buffer - 1;
    va_list args;
    va_start(args, format);
    int body = std::vsnprintf(buffer + length, sizeof buffer - length, format, args);
    va_end(args);
    if (body > 0) {
        length += static_cast<size_t>(body);
    }
    if (length > sizeof buffer - 2) {
        length = sizeof buffer - 2;  // truncated; keep room for the newline
    }
    buffer[length++] = '\n';
    ssize_t ignored = ::write(STDERR_FILENO, buffer, length);
    (void)ignored;
}
