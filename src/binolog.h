#pragma once
// The module's one way to log. Every line goes to zlog's default category
// (dzlog) with the source file as "src/<file>.cpp", the function name, the
// line and one of three levels. Tests install a hook to see the formatted
// lines whichever zlog backend is linked.

#include <functional>
#include <string>

namespace binolog {

enum Level : int {
    DEBUG = 20,
    INFO = 40,
    ERROR = 100,
};

/// One formatted log line as handed to zlog.
struct Record {
    int level;
    std::string file;
    std::string function;
    long line;
    std::string message;
};

using Hook = std::function<void(const Record&)>;

/// Installs a hook that sees every line after it has gone to zlog; an empty
/// hook removes it. Thread-safe; the hook runs on the logging thread, one
/// call at a time.
void setHook(Hook hook);

/// Formats the message printf-style and hands it to dzlog. Thread-safe.
void write(const char* file, const char* function, long line, int level, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

}  // namespace binolog

#define BINO_LOG(level, ...) ::binolog::write(__FILE__, __func__, __LINE__, (level), __VA_ARGS__)
#define BINO_DEBUG(...) BINO_LOG(::binolog::DEBUG, __VA_ARGS__)
#define BINO_INFO(...) BINO_LOG(::binolog::INFO, __VA_ARGS__)
#define BINO_ERROR(...) BINO_LOG(::binolog::ERROR, __VA_ARGS__)
