// A mutex lock with a time budget, whose rest can be handed on to the next blocking step.
#ifndef SABLE_PIPE_TIMED_LOCK_H
#define SABLE_PIPE_TIMED_LOCK_H

#include <mutex>

class TimedLock {
  public:
    // `timeoutMs` negative: no limit. Does not lock yet.
    TimedLock(std::timed_mutex* mu, int budgetMs) : mutex(mu), timeoutMs(budgetMs) {}
    ~TimedLock();
    TimedLock(const TimedLock&) = delete;
    TimedLock& operator=(const TimedLock&) = delete;

    // 0, or -ETIMEDOUT when the mutex stayed held for the whole budget (0 fails at once).
    int Lock();
    // What is left of the budget after Lock (the budget itself when it has no limit).
    int GetRemainingTime() const { return timeoutMs < 0 ? timeoutMs : remainingMs; }

  private:
    std::timed_mutex* mutex;
    int timeoutMs;
    int remainingMs = 0;
    bool locked = false;
};

#endif
