#include "pipe/TimedLock.h"

#include <errno.h>

#include <chrono>

TimedLock::~TimedLock() {
    if (locked) {
        mutex->unlock();
    }
}

int TimedLock::Lock() {
    if (timeoutMs < 0) {
        mutex->lock();
        locked = true;
        return 0;
    }
    auto start = std::chrono::steady_clock::now();
    if (!mutex->try_lock_until(std::chrono::system_clock::now() +
                               std::chrono::milliseconds(timeoutMs))) {
        locked = false;
        return -ETIMEDOUT;
    }
    auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - start)
                      .count();
    remainingMs = waited > 0 ? timeoutMs - static_cast<int>(waited) : timeoutMs;
    if (remainingMs < 0) {
        remainingMs = 0;
    }
    locked = true;
    return 0;
}
