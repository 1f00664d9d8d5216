#pragma once
// Sole owner of one socket descriptor: closed when the owner goes, moved but
// never copied. shutdown() may be called from another thread while the owner
// blocks in accept/recv/send on it, to wake that call; closing may not, which
// is why the descriptor is only closed by the destructor or reset().

class SocketFd {
public:
    /// Takes ownership of `fd`; -1 owns nothing.
    explicit SocketFd(int fd = -1) noexcept : m_fd(fd) {}
    ~SocketFd() { reset(); }

    SocketFd(SocketFd&& other) noexcept : m_fd(other.release()) {}
    SocketFd& operator=(SocketFd&& other) noexcept;
    SocketFd(const SocketFd&) = delete;
    SocketFd& operator=(const SocketFd&) = delete;

    /// The descriptor, -1 when none; still owned by this object.
    int get() const noexcept { return m_fd; }
    bool isValid() const noexcept { return m_fd >= 0; }

    /// Gives up ownership without closing; returns the descriptor.
    int release() noexcept;
    /// Closes the owned descriptor (if any) and takes `fd` instead.
    void reset(int fd = -1) noexcept;

    /// Stops both directions of the connection: a blocked accept, recv or
    /// send on it returns. The descriptor stays open and owned. Safe to call
    /// from any thread while this object is alive.
    void shutdownBoth() const noexcept;

private:
    int m_fd;
};
