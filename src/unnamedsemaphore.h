#pragma once
// An unnamed POSIX semaphore private to this process, alive exactly as long as
// the object. Threads share it by address, so it is neither copyable nor
// movable.

#include <semaphore.h>

#include <cerrno>

class UnnamedSemaphore {
public:
    explicit UnnamedSemaphore(unsigned int initialCount = 0) { sem_init(&m_sem, 0, initialCount); }
    ~UnnamedSemaphore() { sem_destroy(&m_sem); }

    UnnamedSemaphore(const UnnamedSemaphore&) = delete;
    UnnamedSemaphore& operator=(const UnnamedSemaphore&) = delete;

    void post() { sem_post(&m_sem); }

    /// Blocks until the count is positive, then takes one. A signal delivered
    /// to the waiting thread does not end the wait.
    void wait()
    {
        while (sem_wait(&m_sem) == -1 && errno == EINTR) {
        }
    }

    /// Takes one without blocking; false when the count is zero.
    bool tryWait()
    {
        int result;
        do {
            result = sem_trywait(&m_sem);
        } while (result == -1 && errno == EINTR);
        return result == 0;
    }

    /// The current count; already stale when it returns unless the caller
    /// is the only thread that posts and waits.
    int value()
    {
        int count = 0;
        sem_getvalue(&m_sem, &count);
        return count;
    }

private:
    sem_t m_sem;
};
