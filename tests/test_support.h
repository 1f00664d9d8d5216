#pragma once
// Shared helpers of the test suite: scratch root, System V cleanup, log
// capture, file and wait helpers, child processes and the tree's programs.

#include <sys/types.h>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "binolog.h"

namespace testsupport {

/// Sets an environment variable (nullptr: unsets it) while alive, then
/// restores its previous state.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : m_name(name)
    {
        if (const char* old = std::getenv(name)) {
            m_old = old;
        }
        value ? setenv(name, value, 1) : unsetenv(name);
    }
    ~ScopedEnv() { m_old ? setenv(m_name.c_str(), m_old->c_str(), 1) : unsetenv(m_name.c_str()); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string m_name;
    std::optional<std::string> m_old;
};

/// A fresh directory that is both $BINOCULAR_ROOT and the working directory
/// while the object lives; both are restored and the directory removed after.
class ScratchRoot {
public:
    ScratchRoot();
    ~ScratchRoot();
    ScratchRoot(const ScratchRoot&) = delete;
    ScratchRoot& operator=(const ScratchRoot&) = delete;

private:
    std::string m_path;
    std::string m_oldCwd;
    std::optional<ScopedEnv> m_root;
};

/// Removes the shared-memory segment at each key and the semaphore sets at
/// key, key + 1 and key + 2 (the queue's lock keys) when constructed
/// (leftovers of an aborted run) and when destroyed (also after a failure).
class SysvGuard {
public:
    SysvGuard(std::initializer_list<int> keys) : m_keys(keys) { removeAll(); }
    ~SysvGuard() { removeAll(); }

private:
    void removeAll() const;
    std::vector<int> m_keys;
};

/// A System V key no other test process uses at the same time: 0x5B000000,
/// the process id's low bits, then `slot` (0..15) times 4, so the two lock
/// keys above it stay inside the slot's own group of four.
int uniqueKey(int slot = 0);

/// Collects the module's log lines while alive.
class LogCapture {
public:
    LogCapture()
    {
        binolog::setHook([this](const binolog::Record& record) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_records.push_back(record);
        });
    }
    ~LogCapture() { binolog::setHook(nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<binolog::Record> records() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_records;
    }
    size_t count(const std::string& text) const;  ///< messages containing `text`
    bool contains(const std::string& text) const { return count(text) > 0; }

private:
    mutable std::mutex m_mutex;
    std::vector<binolog::Record> m_records;
};

/// A debug-stream packet as a viewer must receive it, built byte by byte:
/// head marker, payload length, type, payload, tail marker, little-endian.
std::vector<unsigned char> streamPacket(uint32_t type, const std::vector<unsigned char>& payload);

/// Polls `condition` every 5 ms until it holds (true) or `seconds` pass (false).
bool waitUntil(const std::function<bool()>& condition, double seconds = 10.0);

/// The whole content of a file, "" when it cannot be read.
std::string readFile(const std::string& path);

struct ChildResult {
    bool exited = false;  ///< ended through exit() rather than a signal
    int exitCode = -1;    ///< exit status (0..255) when exited
    std::string output;   ///< all the child wrote to stdout and stderr
};

/// Runs body in a forked child with stdout and stderr captured; the child
/// ends with _exit(0) when body returns, or by SIGALRM after timeoutSeconds.
ChildResult runInChild(const std::function<void()>& body, int timeoutSeconds = 60);

/// A program of the tree started as `program arguments` through /bin/sh,
/// prefixed with BINO_EMULATOR, its stdout and stderr appended to
/// `outputFile`; one still running when the object goes gets SIGTERM.
class Program {
public:
    Program(const std::string& program, const std::string& arguments, const std::string& outputFile);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// The exit status, or 128 + signal when killed; -1 while it runs.
    int status(bool block = true);
    void signal(int number) const { kill(m_pid, number); }

private:
    pid_t m_pid;
    int m_status = -1;
};

}  // namespace testsupport
