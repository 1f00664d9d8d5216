#pragma once
// Sole owner of one open file descriptor: closed when the owner goes away,
// handed on only by moving. -1 means "owns nothing".
//
// Thread-safety: none; one owner uses it at a time.

class UniqueFd {
public:
    UniqueFd() = default;
    /// Takes ownership of fd (-1 allowed).
    explicit UniqueFd(int fd) : m_fd(fd) {}
    ~UniqueFd() { reset(); }

    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const noexcept { return m_fd; }
    bool isValid() const noexcept { return m_fd >= 0; }

    /// Gives up ownership without closing; returns the descriptor.
    int release() noexcept;

    /// Closes the owned descriptor (its result is ignored) and owns fd instead.
    void reset(int fd = -1) noexcept;

    /// Closes now and reports the result: 0, or -1 with errno set. For a file
    /// that was written, -1 can mean that buffered data did not reach it.
    /// Owns nothing afterwards, whatever the result.
    int close();

private:
    int m_fd = -1;
};
