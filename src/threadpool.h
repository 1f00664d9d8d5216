#pragma once
// Runs a few pieces of one job on OpenCV's thread pool, the pool the library's
// own parallel work (remap, block matching) already uses, so the module adds
// no threads of its own.
//
// OpenCV's pool synchronises inside a library ThreadSanitizer does not see.
// run() tells it what the pool guarantees: every piece starts after run() is
// called, and run() returns after every piece has ended. The loop object
// lives in run()'s frame, not inside OpenCV, so it is destroyed only after
// the end of the pieces has been seen.

#include <opencv2/core/utility.hpp>

#if defined(__SANITIZE_THREAD__)
#define BINO_THREADPOOL_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define BINO_THREADPOOL_TSAN 1
#endif
#endif
#ifdef BINO_THREADPOOL_TSAN
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#endif

namespace threadpool {
namespace detail {

inline void release([[maybe_unused]] const void* token)
{
#ifdef BINO_THREADPOOL_TSAN
    __tsan_release(const_cast<void*>(token));
#endif
}

inline void acquire([[maybe_unused]] const void* token)
{
#ifdef BINO_THREADPOOL_TSAN
    __tsan_acquire(const_cast<void*>(token));
#endif
}

template <class Body>
class Loop : public cv::ParallelLoopBody {
public:
    explicit Loop(Body& body) : m_body(body) {}
    void operator()(const cv::Range& range) const override
    {
        acquire(this);
        for (int i = range.start; i < range.end; ++i) {
            m_body(i);
        }
        release(this);
    }

private:
    Body& m_body;
};

}  // namespace detail

/// Calls body(0) .. body(count - 1), in parallel as far as the pool has free
/// threads (the calling thread takes part), and returns when all are done.
template <class Body>
void run(int count, Body&& body)
{
    detail::Loop<Body> loop(body);
    detail::release(&loop);
    cv::parallel_for_(cv::Range(0, count), loop, count);
    detail::acquire(&loop);
}

}  // namespace threadpool
