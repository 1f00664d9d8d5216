#pragma once
// A zlog-compatible logging backend for machines without zlog. It offers the
// part of zlog's C interface that the module calls, with the same signatures
// and level numbers, and writes one timestamped line per call to stderr.
// When the real library is found at configure time this file is not built and
// <zlog.h> is used instead.

#include <cstddef>

#define ZLOG_LEVEL_DEBUG 20
#define ZLOG_LEVEL_INFO 40
#define ZLOG_LEVEL_NOTICE 60
#define ZLOG_LEVEL_WARN 80
#define ZLOG_LEVEL_ERROR 100
#define ZLOG_LEVEL_FATAL 120

extern "C" {
int dzlog_init(const char* confpath, const char* cname);
void zlog_fini(void);
void dzlog(const char* file, size_t filelen, const char* func, size_t funclen, long line, int level, const char* format,
           ...) __attribute__((format(printf, 7, 8)));
}
