#pragma once

#include <mutex>

// What clang's -Wthread-safety checks, as macros that are empty for every other compiler.
#if defined(__clang__)
#define VINTREL_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define VINTREL_THREAD_ATTRIBUTE(attribute)
#endif

/// A class whose objects can be held, and one whose objects hold another as long as they live.
#define CAPABILITY(name) VINTREL_THREAD_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY VINTREL_THREAD_ATTRIBUTE(scoped_lockable)
/// A member that is only touched by those who hold this mutex.
#define GUARDED_BY(mutex) VINTREL_THREAD_ATTRIBUTE(guarded_by(mutex))
/// A function that is only called by those who hold these.
#define REQUIRES(...) VINTREL_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
/// A function that takes these, or gives them back.
#define ACQUIRE(...) VINTREL_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VINTREL_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

namespace CVintrel {

/// A mutex that the compiler knows: clang checks that what a mutex guards is only touched by those
/// who hold it.
class CAPABILITY("mutex") Mutex {
public:
    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

/// Holds a mutex for as long as it lives.
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex)
        : mutex_(mutex)
    {
        mutex_.lock();
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    ~MutexLock() RELEASE() { mutex_.unlock(); }

private:
    Mutex& mutex_;
};

} // namespace CVintrel
