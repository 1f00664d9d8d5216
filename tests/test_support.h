#pragma once
// Shared helpers of the test suite: a scratch root and working directory, a
// guard that removes System V objects, a log capture, file and wait helpers,
// a child-process runner and a runner for the tree's programs.

#include <sys/types.h>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "binolog.h"

namespace testsupport {

/// A fresh directory that is both $BINOCULAR_ROOT and the working directory
/// while the object lives; both are restored and the directory removed after.
class ScratchRoot {
public:
    ScratchRoot();
    ~ScratchRoot();
    ScratchRoot(const ScratchRoot&) = delete;
    ScratchRoot& operator=(const ScratchRoot&) = delete;

    /// The scratch directory: $BINOCULAR_ROOT and the working directory.
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
    std::string m_oldCwd;
    std::unique_ptr<class ScopedEnv> m_root;
};

/// Removes the shared-memory segment at each key and the semaphore sets at
/// key, key + 1 and key + 2 (the queue's lock keys), both when constructed
/// (leftovers of an aborted run) and when destroyed (also after a failed
/// assertion).
class SysvGuard {
public:
    SysvGuard(std::initializer_list<int> keys);
    ~SysvGuard();
    SysvGuard(const SysvGuard&) = delete;
    SysvGuard& operator=(const SysvGuard&) = delete;

private:
    std::vector<int> m_keys;
};

/// A System V key no other test process uses at the same time: derived from
/// the process id, with room for `slot` 0..15 (and the two lock keys above).
int uniqueKey(int slot = 0);

/// Collects the module's log lines while alive.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<binolog::Record> records() const;
    /// Number of captured messages containing `text`.
    size_t count(const std::string& text) const;
    bool contains(const std::string& text) const { return count(text) > 0; }
    void clear();

private:
    mutable std::mutex m_mutex;
    std::vector<binolog::Record> m_records;
};

/// A debug-stream packet as a viewer must receive it, built byte by byte:
/// head marker, payload length, type, payload, tail marker, little-endian.
std::vector<unsigned char> streamPacket(uint32_t type, const std::vector<unsigned char>& payload);

/// Polls `condition` every 5 ms until it holds or `seconds` have passed;
/// returns its last value.
bool waitUntil(const std::function<bool()>& condition, double seconds = 10.0);

/// The whole content of a file, "" when it cannot be read.
std::string readFile(const std::string& path);

/// Sets an environment variable (nullptr: unsets it) while alive, then
/// restores its previous state.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string m_name;
    std::optional<std::string> m_old;
};

struct ChildResult {
    bool exited = false;  ///< ended through exit() rather than a signal
    int exitCode = -1;    ///< exit status (0..255) when exited
    std::string output;   ///< everything the child wrote to stdout and stderr
};

/// Runs body in a forked child with stdout and stderr captured; the child
/// ends with _exit(0) when body returns, or by SIGALRM after timeoutSeconds.
ChildResult runInChild(const std::function<void()>& body, int timeoutSeconds = 60);

/// A program of the tree started as `program arguments` through /bin/sh,
/// prefixed with BINO_EMULATOR, its stdout and stderr appended to
/// `outputFile`. If it still runs when the object goes, it gets SIGTERM and
/// is reaped.
class Program {
public:
    Program(const std::string& program, const std::string& arguments, const std::string& outputFile);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// The exit status, or 128 + signal when killed; -1 while it runs (never
    /// when `block`).
    int status(bool block = true);
    void signal(int number) const;

private:
    pid_t m_pid;
    int m_status = -1;
};

}  // namespace testsupport
