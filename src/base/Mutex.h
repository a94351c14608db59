// Annotated lock wrappers: clang's -Wthread-safety checks every GUARDED_BY / ACQUIRED_AFTER
// below against these; with g++ the annotations compile away.
#ifndef SABLE_BASE_MUTEX_H
#define SABLE_BASE_MUTEX_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define SABLE_TSA(x) __attribute__((x))
#else
#define SABLE_TSA(x)
#endif

#define CAPABILITY(x) SABLE_TSA(capability(x))
#define SCOPED_CAPABILITY SABLE_TSA(scoped_lockable)
#define GUARDED_BY(x) SABLE_TSA(guarded_by(x))
#define PT_GUARDED_BY(x) SABLE_TSA(pt_guarded_by(x))
#define ACQUIRED_AFTER(...) SABLE_TSA(acquired_after(__VA_ARGS__))
#define ACQUIRED_BEFORE(...) SABLE_TSA(acquired_before(__VA_ARGS__))
#define REQUIRES(...) SABLE_TSA(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) SABLE_TSA(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) SABLE_TSA(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) SABLE_TSA(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) SABLE_TSA(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) SABLE_TSA(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) SABLE_TSA(release_generic_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) SABLE_TSA(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) SABLE_TSA(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS SABLE_TSA(no_thread_safety_analysis)

namespace sable {

class CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock() ACQUIRE() { mu.lock(); }
    void Unlock() RELEASE() { mu.unlock(); }
    bool TryLock() TRY_ACQUIRE(true) { return mu.try_lock(); }
    std::mutex& Native() { return mu; }

  private:
    std::mutex mu;
};

class SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& m) ACQUIRE(m) : lock(m.Native()) {}
    ~MutexLock() RELEASE() {}
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void Unlock() RELEASE() { lock.unlock(); }
    void Lock() ACQUIRE() { lock.lock(); }
    std::unique_lock<std::mutex>& Native() { return lock; }

  private:
    std::unique_lock<std::mutex> lock;
};

// Condition variable over Mutex; waits take the scoped lock that holds it.
class CondVar {
  public:
    void Wait(MutexLock& l) { cv.wait(l.Native()); }
    template <class Clock, class Dur>
    std::cv_status WaitUntil(MutexLock& l, const std::chrono::time_point<Clock, Dur>& t) {
        return cv.wait_until(l.Native(), t);
    }
    void NotifyOne() { cv.notify_one(); }
    void NotifyAll() { cv.notify_all(); }

  private:
    std::condition_variable cv;
};

class CAPABILITY("shared_mutex") SharedMutex {
  public:
    void Lock() ACQUIRE() { mu.lock(); }
    void Unlock() RELEASE() { mu.unlock(); }
    void LockShared() ACQUIRE_SHARED() { mu.lock_shared(); }
    void UnlockShared() RELEASE_SHARED() { mu.unlock_shared(); }

  private:
    std::shared_mutex mu;
};

class SCOPED_CAPABILITY WriterLock {
  public:
    explicit WriterLock(SharedMutex& m) ACQUIRE(m) : mu(m) { mu.Lock(); }
    ~WriterLock() RELEASE() {
        if (held) mu.Unlock();
    }
    void Unlock() RELEASE() {
        held = false;
        mu.Unlock();
    }
    WriterLock(const WriterLock&) = delete;
    WriterLock& operator=(const WriterLock&) = delete;

  private:
    SharedMutex& mu;
    bool held = true;
};

class SCOPED_CAPABILITY ReaderLock {
  public:
    explicit ReaderLock(SharedMutex& m) ACQUIRE_SHARED(m) : mu(m) { mu.LockShared(); }
    ~ReaderLock() RELEASE() { mu.UnlockShared(); }
    ReaderLock(const ReaderLock&) = delete;
    ReaderLock& operator=(const ReaderLock&) = delete;

  private:
    SharedMutex& mu;
};

}  // namespace sable

#endif
