#include "socketfd.h"

#include <sys/socket.h>

void SocketFd::shutdownBoth() const noexcept
{
    if (get() >= 0) {
        ::shutdown(get(), SHUT_RDWR);
    }
}
