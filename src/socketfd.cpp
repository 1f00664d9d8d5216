#include "socketfd.h"

#include <sys/socket.h>
#include <unistd.h>

SocketFd& SocketFd::operator=(SocketFd&& other) noexcept
{
    if (this != &other) {
        reset(other.release());
    }
    return *this;
}

int SocketFd::release() noexcept
{
    const int fd = m_fd;
    m_fd = -1;
    return fd;
}

void SocketFd::reset(int fd) noexcept
{
    if (m_fd >= 0) {
        // No retry on EINTR: on Linux the descriptor is released whatever
        // close() returns, and a retry could close a reused number.
        ::close(m_fd);
    }
    m_fd = fd;
}

void SocketFd::shutdownBoth() const noexcept
{
    if (m_fd >= 0) {
        ::shutdown(m_fd, SHUT_RDWR);
    }
}
