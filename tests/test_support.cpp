#include "test_support.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include "paths.h"

namespace fs = std::filesystem;

namespace testsupport {

ScratchRoot::ScratchRoot()
{
    std::string pattern = (fs::temp_directory_path() / "binocular-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_path = pattern;
    m_oldCwd = fs::current_path().string();
    m_root = std::make_unique<ScopedEnv>(paths::kRootVariable, m_path.c_str());
    fs::current_path(m_path);
}

ScratchRoot::~ScratchRoot()
{
    std::error_code ignored;
    fs::current_path(m_oldCwd, ignored);
    m_root.reset();
    fs::remove_all(m_path, ignored);
}

namespace {

void removeAll(int key)
{
    const int shmId = shmget(key, 0, 0);
    if (shmId != -1) {
        shmctl(shmId, IPC_RMID, nullptr);
    }
    for (int semKey : {key, key + 1, key + 2}) {
        const int semId = semget(semKey, 0, 0);
        if (semId != -1) {
            semctl(semId, 0, IPC_RMID);
        }
    }
}

}  // namespace

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
        n += record.message.find(text) != std::string::npos;
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

bool waitUntil(const std::function<bool()>& condition, double seconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : m_name(name)
{
    if (const char* old = std::getenv(name)) {
        m_old = old;
    }
    value ? setenv(name, value, 1) : unsetenv(name);
}

ScopedEnv::~ScopedEnv() { m_old ? setenv(m_name.c_str(), m_old->c_str(), 1) : unsetenv(m_name.c_str()); }

ChildResult runInChild(const std::function<void()>& body, int timeoutSeconds)
{
    int fds[2];
    if (pipe(fds) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t pid = fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        alarm(static_cast<unsigned>(timeoutSeconds));  // bounds the read and the wait below
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
    char chunk[4096];
    for (ssize_t n; (n = read(fds[0], chunk, sizeof chunk)) != 0;) {
        if (n > 0) {
            result.output.append(chunk, static_cast<size_t>(n));
        } else if (errno != EINTR) {
            break;
        }
    }
    close(fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exited = WIFEXITED(status);
    result.exitCode = result.exited ? WEXITSTATUS(status) : -1;
    return result;
}

Program::Program(const std::string& program, const std::string& arguments, const std::string& outputFile)
{
    const std::string command = "exec " BINO_EMULATOR + program + " " + arguments + " >>" + outputFile + " 2>&1";
    std::fflush(stdout);
    std::fflush(stderr);
    m_pid = fork();
    if (m_pid == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    if (m_pid < 0) {
        throw std::runtime_error("fork failed");
    }
}

Program::~Program()
{
    if (m_status == -1) {
        signal(SIGTERM);
        status(true);
    }
}

int Program::status(bool block)
{
    int raw = 0;
    if (m_status == -1 && waitpid(m_pid, &raw, block ? 0 : WNOHANG) == m_pid) {
        m_status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    }
    return m_status;
}

void Program::signal(int number) const { kill(m_pid, number); }

}  // namespace testsupport
