// Waiting and waking on one 32-bit word, without a mutex.
//
// A thread woken from a condition variable takes the variable's mutex again before it returns,
// and glibc marks that mutex contended when it does, so the woken thread pays a further system
// call to wake nobody. The hand-overs of a request's path (a task to its worker, a response to
// its caller) wait on a futex word instead: the waker makes one system call when a thread
// sleeps and none otherwise, and the woken thread returns without taking any lock.
#ifndef SABLE_BASE_FUTEX_H
#define SABLE_BASE_FUTEX_H

#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace sable {

static_assert(sizeof(std::atomic<int32_t>) == sizeof(int32_t), "a futex word is 32 bits");

// Sleeps while `word` holds `expected`, until woken or until `deadline` on the monotonic
// clock (null: no limit). Returns 0, or the errno: ETIMEDOUT once the deadline has passed,
// EAGAIN when the word did not hold `expected`, EINTR. Spurious returns are allowed; callers
// re-check their condition.
inline int FutexWait(std::atomic<int32_t>& word, int32_t expected, const timespec* deadline) {
    long ret = syscall(SYS_futex, reinterpret_cast<int32_t*>(&word), FUTEX_WAIT_BITSET_PRIVATE,
                       expected, deadline, nullptr, FUTEX_BITSET_MATCH_ANY);
    return ret == 0 ? 0 : errno;
}

inline void FutexWake(std::atomic<int32_t>& word, int count) {
    syscall(SYS_futex, reinterpret_cast<int32_t*>(&word), FUTEX_WAKE_PRIVATE, count, nullptr,
            nullptr, 0);
}

// A steady-clock time point as the monotonic timespec that FutexWait takes (the same clock on
// Linux).
// A duration as a timespec (a negative one as zero).
inline timespec ToTimespec(std::chrono::nanoseconds span) {
    if (span.count() < 0) {
        return timespec{0, 0};
    }
    return timespec{static_cast<time_t>(span.count() / 1000000000),
                    static_cast<long>(span.count() % 1000000000)};
}

inline timespec ToMonotonic(std::chrono::steady_clock::time_point when) {
    return ToTimespec(when.time_since_epoch());
}

// Counting semaphore: Post adds one, a wait takes one, sleeping while there is none. Any
// number of threads may post and wait. Post makes a system call only when a thread sleeps, and
// a woken thread returns without taking any lock.
class FutexSemaphore {
  public:
    void Post() {
        value.fetch_add(1);
        if (sleepers.load() > 0) {
            FutexWake(value, 1);
        }
    }

    // True with one taken, false when `timeout` passed with none taken. Reads the clock only
    // when it has to sleep.
    bool WaitFor(std::chrono::nanoseconds timeout) {
        if (TryTake()) {
            return true;
        }
        const timespec until = ToMonotonic(std::chrono::steady_clock::now() + timeout);
        return WaitUntil(&until);
    }

    // True with one taken, false at `until` (monotonic; null: no limit) with none taken.
    bool WaitUntil(const timespec* until) {
        for (;;) {
            if (TryTake()) {
                return true;
            }
            // Counted as a sleeper before the kernel looks at the word again: a Post either
            // sees the sleeper and wakes it, or lands before that look and the wait returns
            // at once.
            sleepers.fetch_add(1);
            int err = FutexWait(value, 0, until);
            sleepers.fetch_sub(1);
            if (err == ETIMEDOUT) {
                return TryTake();
            }
        }
    }

    // Takes one without waiting; false when there is none.
    bool TryTake() {
        int32_t v = value.load();
        while (v > 0) {
            if (value.compare_exchange_weak(v, v - 1)) {
                return true;
            }
        }
        return false;
    }

  private:
    std::atomic<int32_t> value{0};
    std::atomic<int32_t> sleepers{0};
};

}  // namespace sable

#endif
