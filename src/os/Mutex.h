#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// The attributes of Clang's thread-safety analysis, under the names that its documentation uses. Other
// compilers don't know them.
// NOLINTBEGIN(cppcoreguidelines-macro-usage): an attribute can't be anything else
#ifdef __clang__
#define THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define THREAD_ATTRIBUTE(attribute)
#endif
/// The member is only used while the mutex is held.
#define GUARDED_BY(mutex) THREAD_ATTRIBUTE(guarded_by(mutex))
/// The object that the pointer member points to is only used while the mutex is held.
#define PT_GUARDED_BY(mutex) THREAD_ATTRIBUTE(pt_guarded_by(mutex))
/// The caller holds the mutex.
#define REQUIRES(mutex) THREAD_ATTRIBUTE(requires_capability(mutex))
/// The caller doesn't hold the mutex, because the function locks it.
#define EXCLUDES(mutex) THREAD_ATTRIBUTE(locks_excluded(mutex))
// NOLINTEND(cppcoreguidelines-macro-usage)

namespace os {

/// A std::mutex that the thread-safety analysis recognises as a lock.
/// Owns:    the mutex.
/// Threads: any; the thread that calls `lock` must also call `unlock`.
/// Fails:   `lock` throws std::system_error if the mutex can't be locked; `unlock` doesn't fail.
class THREAD_ATTRIBUTE(capability("mutex")) Mutex {
public:
    void lock() THREAD_ATTRIBUTE(acquire_capability()) { mutex.lock(); }
    void unlock() THREAD_ATTRIBUTE(release_capability()) { mutex.unlock(); }

private:
    friend class Lock;
    std::mutex mutex;
};

/// Holds a Mutex for its own lifetime, except between a call of `unlock` and the next call of `lock`.
/// Owns:    the lock on the mutex; the mutex must outlive it.
/// Threads: only the thread that creates it.
/// Fails:   the constructor and `lock` throw std::system_error if the mutex can't be locked. So do `lock`
///          while the mutex is held and `unlock` while it isn't.
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

    /// Releases the mutex while it waits to be notified. May also wake up spuriously, without a notification.
    void wait(std::condition_variable& notified) { notified.wait(held); }
    /// Like `wait`, but gives up at the time `end`; returns false if that time has come.
    bool waitUntil(std::condition_variable& notified, std::chrono::steady_clock::time_point end) {
        return notified.wait_until(held, end) == std::cv_status::no_timeout;
    }

private:
    std::unique_lock<std::mutex> held;
};

/// Releases a Mutex that the thread holds for its own lifetime, and locks it again at the end.
/// Owns:    nothing; the mutex, and the Lock that holds it, must outlive it.
/// Threads: only the thread that holds the mutex.
/// Fails:   ends the process if the mutex can't be locked again.
class THREAD_ATTRIBUTE(scoped_lockable) Unlock {
public:
    explicit Unlock(Mutex& mutex) THREAD_ATTRIBUTE(release_capability(mutex)) : mutex(mutex) {
        mutex.unlock();
    }
    Unlock(const Unlock&) = delete;
    Unlock& operator=(const Unlock&) = delete;
    Unlock(Unlock&&) = delete;
    Unlock& operator=(Unlock&&) = delete;
    ~Unlock() THREAD_ATTRIBUTE(release_capability()) { mutex.lock(); }

private:
    Mutex& mutex;
};

} // namespace os
