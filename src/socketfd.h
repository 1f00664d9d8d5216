#pragma once
// Sole owner of one socket descriptor: a UniqueFd that can also be shut down.
// shutdown() may be called from another thread while the owner blocks in
// accept/recv/send on it, to wake that call; closing may not, which is why the
// descriptor is only closed by the destructor or reset().

#include "uniquefd.h"

class SocketFd : public UniqueFd {
public:
    using UniqueFd::UniqueFd;

    /// Stops both directions of the connection: a blocked accept, recv or
    /// send on it returns. The descriptor stays open and owned. Safe to call
    /// from any thread while this object is alive.
    void shutdownBoth() const noexcept;
};
