#include "test_support.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
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
    m_root.emplace(paths::kRootVariable, m_path.c_str());
    fs::current_path(m_path);
}

ScratchRoot::~ScratchRoot()
{
    std::error_code ignored;
    fs::current_path(m_oldCwd, ignored);
    m_root.reset();
    fs::remove_all(m_path, ignored);
}

void SysvGuard::removeAll() const
{
    for (int key : m_keys) {
        shmctl(shmget(key, 0, 0), IPC_RMID, nullptr);  // an absent object: id -1, nothing removed
        for (int semKey : {key, key + 1, key + 2}) {
            semctl(semget(semKey, 0, 0), 0, IPC_RMID);
        }
    }
}

int uniqueKey(int slot) { return 0x5B000000 | ((static_cast<int>(getpid()) & 0x3FFFF) << 6) | ((slot & 15) << 2); }

size_t LogCapture::count(const std::string& text) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<size_t>(std::count_if(m_records.begin(), m_records.end(), [&](const binolog::Record& record) {
        return record.message.find(text) != std::string::npos;
    }));
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
    for (; !condition(); std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
    }
    return true;
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

ChildResult runInChild(const std::function<void()>& body, int timeoutSeconds)
{
    // A file rather than a pipe: nothing the child leaves running can hold
    // the parent's read open.
    std::FILE* capture = std::tmpfile();
    std::fflush(nullptr);
    const pid_t pid = capture ? fork() : -1;
    if (pid < 0) {
        throw std::runtime_error("tmpfile or fork failed");
    }
    if (pid == 0) {
        alarm(static_cast<unsigned>(timeoutSeconds));
        dup2(fileno(capture), STDOUT_FILENO);
        dup2(fileno(capture), STDERR_FILENO);
        body();
        std::fflush(nullptr);
        _exit(0);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    ChildResult result;
    result.exited = WIFEXITED(status);
    result.exitCode = result.exited ? WEXITSTATUS(status) : -1;
    std::rewind(capture);
    for (int c; (c = std::fgetc(capture)) != EOF;) {
        result.output += static_cast<char>(c);
    }
    std::fclose(capture);
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

}  // namespace testsupport
