#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// What Clang's thread-safety analysis is told, by the names of its documentation. Other compilers don't know
// these attributes.
// NOLINTBEGIN(cppcoreguidelines-macro-usage): an attribute can't be anything else
#ifdef __clang__
#define THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define THREAD_ATTRIBUTE(attribute)
#endif
/// The member is only used while the mutex is held.
#define GUARDED_BY(mutex) THREAD_ATTRIBUTE(guarded_by(mutex))
/// What the pointer member points to is only used while the mutex is held.
#define PT_GUARDED_BY(mutex) THREAD_ATTRIBUTE(pt_guarded_by(mutex))
/// The caller holds the mutex.
#define REQUIRES(mutex) THREAD_ATTRIBUTE(requires_capability(mutex))
/// The caller doesn't hold the mutex, because the function locks it.
#define EXCLUDES(mutex) THREAD_ATTRIBUTE(locks_excluded(mutex))
// NOLINTEND(cppcoreguidelines-macro-usage)

namespace os {

/// std::mutex, known to the analysis.
/// Owns:    the mutex.
/// Threads: any.
/// Fails:   as std::mutex does.
class THREAD_ATTRIBUTE(capability("mutex")) Mutex {
public:
    void lock() THREAD_ATTRIBUTE(acquire_capability()) { mutex.lock(); }
    void unlock() THREAD_ATTRIBUTE(release_capability()) { mutex.unlock(); }

private:
    friend class Lock;
    std::mutex mutex;
};

/// Holds a Mutex from its construction to its destruction, but for the time between `unlock` and `lock`.
/// Owns:    the right to what the mutex guards.
/// Threads: the one that has made it.
/// Fails:   as std::unique_lock does.
class THREAD_ATTRIBUTE(scoped_lockable) Lock {
public:
    explicit Lock(Mutex& mutex) THREAD_ATTRIBUTE(acquire_capability(mutex)) : held(mutex.mutex) {}
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    Lock(Lock&&) = delete;
    Lock& operator=(Lock&&) = delete;
    ~Lock() THREAD_ATTRIBUTE(release_capability()) = default;

    void lock() THREAD_ATTRIBUTE(acquire_capability()) { held.lock(); }
    void unlock() THREAD_ATTRIBUTE(release_capability()) { held.unlock(); }

    /// Releases the mutex while it waits to be notified. As every wait, it may also end for no reason.
    void wait(std::condition_variable& notified) { notified.wait(held); }
    /// The same, until a point in time; returns false if that has come.
    bool waitUntil(std::condition_variable& notified, std::chrono::steady_clock::time_point end) {
        return notified.wait_until(held, end) == std::cv_status::no_timeout;
    }

private:
    std::unique_lock<std::mutex> held;
};

} // namespace os
