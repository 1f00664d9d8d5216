#include "uniquefd.h"

#include <unistd.h>

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept
{
    if (this != &other) {
        reset(other.release());
    }
    return *this;
}

int UniqueFd::release() noexcept
{
    const int fd = m_fd;
    m_fd = -1;
    return fd;
}

void UniqueFd::reset(int fd) noexcept
{
    if (m_fd >= 0) {
        // No retry on EINTR: on Linux the descriptor is released whatever
        // close() returns, and a retry could close a reused number.
        ::close(m_fd);
    }
    m_fd = fd;
}

int UniqueFd::close()
{
    // Linux releases the descriptor even when close() fails (EINTR included),
    // so it is never retried.
    const int fd = release();
    return fd >= 0 ? ::close(fd) : 0;
}
