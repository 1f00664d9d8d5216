#include "binolog.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#ifdef BINOCULAR_HAVE_ZLOG
#include <zlog.h>
#else
#include "zlog_compat.h"
#endif

namespace binolog {
namespace {

std::mutex& hookMutex()
{
    static std::mutex mutex;
    return mutex;
}

Hook& currentHook()
{
    static Hook hook;
    return hook;
}

std::string formatMessage(const char* format, va_list args)
{
    char small[512];
    va_list copy;
    va_copy(copy, args);
    int needed = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (needed < 0) {
        return std::string();
    }
    if (static_cast<size_t>(needed) < sizeof small) {
        return std::string(small, static_cast<size_t>(needed));
    }
    std::vector<char> large(static_cast<size_t>(needed) + 1);
    std::vsnprintf(large.data(), large.size(), format, args);
    return std::string(large.data(), static_cast<size_t>(needed));
}

}  // namespace

void setHook(Hook hook)
{
    std::lock_guard<std::mutex> lock(hookMutex());
    currentHook() = std::move(hook);
}

void write(const char* file, const char* function, long line, int level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string message = formatMessage(format, args);
    va_end(args);

    dzlog(file, std::strlen(file), function, std::strlen(function), line, level, "%s", message.c_str());

    std::lock_guard<std::mutex> lock(hookMutex());
    if (currentHook()) {
        currentHook()(Record{level, file, function, line, std::move(message)});
    }
}

}  // namespace binolog
