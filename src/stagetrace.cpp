#include "stagetrace.h"

#include <time.h>

#include <cstdlib>

StageTrace::StageTrace(const std::string& pair)
{
    const char* directory = std::getenv(kVariable);
    if (directory == nullptr || *directory == '\0') {
        return;
    }
    m_file = std::fopen((std::string(directory) + "/" + pair + ".stages").c_str(), "a");
}

StageTrace::~StageTrace()
{
    if (m_file != nullptr) {
        std::fclose(m_file);
    }
}

void StageTrace::begin(unsigned long long frameStamp)
{
    m_stamp = frameStamp;
    m_times.fill(0);
}

void StageTrace::mark(Stage stage)
{
    if (m_file != nullptr) {
        set(stage, nowUs());
    }
}

void StageTrace::set(Stage stage, uint64_t timeUs)
{
    if (m_file != nullptr && stage >= 0 && stage < STAGES) {
        m_times[stage] = timeUs;
    }
}

void StageTrace::end()
{
    if (m_file == nullptr) {
        return;
    }
    std::fprintf(m_file, "%llu", m_stamp);
    for (uint64_t time : m_times) {
        std::fprintf(m_file, " %llu", static_cast<unsigned long long>(time));
    }
    std::fputc('\n', m_file);
    std::fflush(m_file);
}

uint64_t StageTrace::nowUs()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}
