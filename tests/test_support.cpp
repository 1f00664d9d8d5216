#include "test_support.h"

#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "paths.h"

namespace fs = std::filesystem;

namespace testsupport {

ScratchRoot::ScratchRoot()
{
    std::string pattern = (fs::temp_directory_path() / "binocular-test-XXXXXX").string();
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_path = buffer.data();
    m_oldCwd = fs::current_path().string();
    if (const char* old = std::getenv(paths::kRootVariable)) {
        m_hadRoot = true;
        m_oldRoot = old;
    }
    setenv(paths::kRootVariable, m_path.c_str(), 1);
    fs::current_path(m_path);
}

ScratchRoot::~ScratchRoot()
{
    std::error_code ignored;
    fs::current_path(m_oldCwd, ignored);
    if (m_hadRoot) {
        setenv(paths::kRootVariable, m_oldRoot.c_str(), 1);
    } else {
        unsetenv(paths::kRootVariable);
    }
    fs::remove_all(m_path, ignored);
}

SysvGuard::SysvGuard(std::initializer_list<int> keys) : m_keys(keys)
{
    for (int key : m_keys) {
        removeAll(key);
    }
}

SysvGuard::~SysvGuard()
{
    for (int key : m_keys) {
        removeAll(key);
    }
}

void SysvGuard::removeAll(int key)
{
    int shmId = shmget(key, 0, 0);
    if (shmId != -1) {
        shmctl(shmId, IPC_RMID, nullptr);
    }
    for (int semKey : {key, key + 1, key + 2}) {
        int semId = semget(semKey, 0, 0);
        if (semId != -1) {
            semctl(semId, 0, IPC_RMID);
        }
    }
}

int uniqueKey(int slot)
{
    // 0x5B000000 | pid bits | slot * 4: lock keys (key + 1, key + 2) stay
    // inside the slot's own group of four.
    return 0x5B000000 | ((static_cast<int>(getpid()) & 0x3FFFF) << 6) | ((slot & 15) << 2);
}

LogCapture::LogCapture()
{
    binolog::setHook([this](const binolog::Record& record) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_records.push_back(record);
    });
}

LogCapture::~LogCapture() { binolog::setHook(nullptr); }

std::vector<binolog::Record> LogCapture::records() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_records;
}

size_t LogCapture::count(const std::string& text) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t n = 0;
    for (const auto& record : m_records) {
        if (record.message.find(text) != std::string::npos) {
            ++n;
        }
    }
    return n;
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_records.clear();
}

std::vector<unsigned char> streamPacket(uint32_t type, const std::vector<unsigned char>& payload)
{
    std::vector<unsigned char> packet;
    auto word = [&packet](uint32_t value) {
        for (int shift = 0; shift < 32; shift += 8) {
            packet.push_back(static_cast<unsigned char>(value >> shift));
        }
    };
    word(0x11223344);
    word(static_cast<uint32_t>(payload.size()));
    word(type);
    packet.insert(packet.end(), payload.begin(), payload.end());
    word(0x55667788);
    return packet;
}

ChildResult runInChild(const std::function<void()>& body, int timeoutSeconds)
{
    int fds[2];
    if (pipe(fds) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::fflush(stdout);
    std::fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        close(fds[0]);
        dup2(fds[1], STDOUT_FILENO);
        dup2(fds[1], STDERR_FILENO);
        close(fds[1]);
        body();
        std::fflush(stdout);
        std::fflush(stderr);
        _exit(0);
    }
    close(fds[1]);
    ChildResult result;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
    char chunk[4096];
    bool timedOut = false;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            timedOut = true;
            break;
        }
        pollfd pfd{fds[0], POLLIN, 0};
        int ready = poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            timedOut = ready == 0;
            break;
        }
        ssize_t n = read(fds[0], chunk, sizeof chunk);
        if (n > 0) {
            result.output.append(chunk, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            break;
        }
    }
    close(fds[0]);
    if (timedOut) {
        kill(pid, SIGKILL);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        result.exited = true;
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

}  // namespace testsupport
