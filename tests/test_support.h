#pragma once
// Shared helpers of the test suite: a scratch root and working directory, a
// guard that removes System V objects, a log capture and a child-process runner.

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

#include "binolog.h"

namespace testsupport {

/// A fresh directory that becomes both $BINOCULAR_ROOT and the working
/// directory for the object's lifetime; both are restored and the directory
/// removed afterwards.
class ScratchRoot {
public:
    ScratchRoot();
    ~ScratchRoot();
    ScratchRoot(const ScratchRoot&) = delete;
    ScratchRoot& operator=(const ScratchRoot&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
    std::string m_oldCwd;
    std::string m_oldRoot;
    bool m_hadRoot = false;
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

    static void removeAll(int key);

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

struct ChildResult {
    bool exited = false;  ///< ended through exit() rather than a signal
    int exitCode = -1;    ///< exit status (0..255) when exited
    int signal = 0;       ///< terminating signal otherwise
    std::string output;   ///< everything the child wrote to stdout and stderr
};

/// Runs body in a forked child with stdout and stderr captured; the child
/// ends with _exit(0) when body returns. Waits at most timeoutSeconds, then
/// kills the child.
ChildResult runInChild(const std::function<void()>& body, int timeoutSeconds = 60);

}  // namespace testsupport
