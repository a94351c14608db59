// Keeping SIGPIPE from ending the process when a FIFO's reader has gone.
//
// A write to a FIFO without a reader raises SIGPIPE, whose default action ends the whole
// process; the library promises -EPIPE instead. Library threads block SIGPIPE once, when they
// start (BlockSigpipeForThread), and so pay nothing per write. On an application thread a
// SigpipeHold blocks the signal for the one write and, when that write broke the pipe, takes the
// raised signal off again before restoring the mask. A thread that blocks SIGPIPE itself keeps
// its own handling of it (the signal then stays pending for it).
#ifndef SABLE_BASE_SIGPIPE_HOLD_H
#define SABLE_BASE_SIGPIPE_HOLD_H

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

namespace sable {

namespace detail {
inline thread_local bool sigpipeBlockedForLife = false;

inline sigset_t SigpipeSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

// Takes a pending SIGPIPE of the calling thread, if any, without waiting.
inline void DiscardPendingSigpipe() {
    const sigset_t set = SigpipeSet();
    const struct timespec now = {0, 0};
    while (sigtimedwait(&set, nullptr, &now) == -1 && errno == EINTR) {
    }
}
}  // namespace detail

// For the first thing a library thread does: SIGPIPE stays blocked for the thread's life.
inline void BlockSigpipeForThread() {
    const sigset_t set = detail::SigpipeSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    detail::sigpipeBlockedForLife = true;
}

// True on a thread that called BlockSigpipeForThread.
inline bool SigpipeBlockedForThread() {
    return detail::sigpipeBlockedForLife;
}

// Holds SIGPIPE back around one write. Free (no system call) on library threads.
class SigpipeHold {
  public:
    SigpipeHold() {
        if (detail::sigpipeBlockedForLife) {
            return;
        }
        const sigset_t set = detail::SigpipeSet();
        sigset_t old;
        pthread_sigmask(SIG_BLOCK, &set, &old);
        changedMask = sigismember(&old, SIGPIPE) != 1;
    }
    ~SigpipeHold() {
        if (changedMask) {
            const sigset_t set = detail::SigpipeSet();
            pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
        }
    }
    SigpipeHold(const SigpipeHold&) = delete;
    SigpipeHold& operator=(const SigpipeHold&) = delete;

    // The write failed with EPIPE: take the signal it raised, unless the application blocks
    // SIGPIPE itself and so handles it. Saves and restores errno.
    void Discard() {
        if (changedMask || detail::sigpipeBlockedForLife) {
            int savedErrno = errno;
            detail::DiscardPendingSigpipe();
            errno = savedErrno;
        }
    }

  private:
    bool changedMask = false;  // this hold blocked the signal and must unblock it
};

}  // namespace sable

#endif
