// Annotated lock wrappers: clang's -Wthread-safety checks every GUARDED_BY / ACQUIRED_AFTER
// below against these; with g++ the annotations compile away.
#ifndef SABLE_BASE_MUTEX_H
#define SABLE_BASE_MUTEX_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "base/Futex.h"

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

// Readers-writer lock on one futex word: a shared lock and its release are one atomic addition
// each when no writer holds the lock (the common case: every frame written or read takes one).
// Readers go first, as with the C library's default: a reader never waits for a writer that
// only waits, so a thread may take the shared side again while it holds it. Writers take turns
// on a mutex of their own, then wait for the readers to leave.
class CAPABILITY("shared_mutex") SharedMutex {
  public:
    void Lock() ACQUIRE() {
        writers.lock();
        int32_t seen = state.load(std::memory_order_relaxed);
        for (;;) {
            if ((seen & kReaders) == 0) {
                if (state.compare_exchange_weak(seen, kHeld, std::memory_order_acquire)) {
                    return;
                }
                continue;
            }
            // Announced before sleeping, so that the last reader to leave wakes this writer.
            if ((seen & kWaiting) == 0 &&
                !state.compare_exchange_weak(seen, seen | kWaiting, std::memory_order_relaxed)) {
                continue;
            }
            FutexWait(state, seen | kWaiting, nullptr);
            seen = state.load(std::memory_order_relaxed);
        }
    }
    void Unlock() RELEASE() {
        state.fetch_and(~kHeld, std::memory_order_release);
        writers.unlock();
        FutexWake(state, INT32_MAX);  // readers that came while it was held
    }
    void LockShared() ACQUIRE_SHARED() {
        for (;;) {
            const int32_t before = state.fetch_add(1, std::memory_order_acquire);
            if ((before & kHeld) == 0) {
                return;
            }
            const int32_t now = state.fetch_sub(1, std::memory_order_relaxed) - 1;
            if ((now & kHeld) != 0) {
                FutexWait(state, now, nullptr);
            }
        }
    }
    void UnlockShared() RELEASE_SHARED() {
        const int32_t now = state.fetch_sub(1, std::memory_order_release) - 1;
        if (now == kWaiting) {
            FutexWake(state, INT32_MAX);  // the last reader, and a writer waits
        }
    }

  private:
    static constexpr int32_t kHeld = 1 << 30;     // a writer holds the lock
    static constexpr int32_t kWaiting = 1 << 29;  // a writer waits for the readers to leave
    static constexpr int32_t kReaders = kWaiting - 1;

    std::atomic<int32_t> state{0};
    std::mutex writers;
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
