// Keeping SIGPIPE from ending the process when a FIFO's reader has gone.
//
// A write to a FIFO without a reader raises SIGPIPE in the writing thread, and its default
// action ends the whole process; the library promises -EPIPE instead. How a write is kept safe
// depends on the thread and on the process's SIGPIPE disposition:
//
//  - Library threads block SIGPIPE once, when they start (BlockSigpipeForThread); a signal a
//    write raises is taken off again (Discard).
//  - On application threads, when the disposition is the default action, the library puts its
//    own handler in its place (once): the handler lets a SIGPIPE raised by a library write
//    pass and ends the process, exactly as the default action would, for any other SIGPIPE.
//    When the disposition is "ignore", nothing is needed. Either way a write costs no system
//    call of its own.
//  - When the application has a handler of its own, the write blocks SIGPIPE around itself and
//    takes the raised signal off again, so that the handler never hears of the library's
//    writes (two more system calls per write).
//
// The disposition is looked at again at most every CHECK_PERIOD_MS on the write path and on
// every pipe open, so a later change by the application (to a handler, to "ignore", or back to
// the default action, over which the library's handler goes again) is followed.
//
// A thread that blocks SIGPIPE itself keeps its own handling of it: the signal then stays
// pending for it, as it would without the library.
#ifndef SABLE_BASE_SIGPIPE_HOLD_H
#define SABLE_BASE_SIGPIPE_HOLD_H

#include <signal.h>

#include <atomic>
#include <cstdint>

namespace sable {

namespace detail {
// Set for a library thread's whole life. (__thread: plain static TLS, read without a call.)
extern __thread bool sigpipeBlockedForLife __attribute__((tls_model("initial-exec")));
// Set while the thread is in a library write (read by the library's SIGPIPE handler).
extern __thread volatile sig_atomic_t inLibraryWrite __attribute__((tls_model("initial-exec")));
// The process's SIGPIPE disposition as last looked at, and when it is due to be looked at
// again (monotonic milliseconds).
enum SigpipeDisposition : int {
    SIGPIPE_UNKNOWN = 0,
    SIGPIPE_IGNORED,      // SIG_IGN: a write's SIGPIPE is discarded by the kernel
    SIGPIPE_GUARDED,      // the library's handler stands in for the default action
    SIGPIPE_APPLICATION,  // the application's own handler: writes hold the signal back themselves
};
extern std::atomic<int> sigpipeDisposition;
extern std::atomic<int64_t> sigpipeNextCheckMs;
// WriteMustHoldSigpipe's own path when the disposition is due (or `nowMs` is not given).
bool RecheckSigpipe(int64_t nowMs);
// True when an application thread's write must hold SIGPIPE back itself (the application has
// a handler of its own); looks at the disposition again when it is due. `nowMs`: the monotonic
// clock in milliseconds, when the caller has read it already (negative: read here). Inline: on
// an application thread's send it is all there is to do besides the write.
inline bool WriteMustHoldSigpipe(int64_t nowMs = -1) {
    if (nowMs < 0 || nowMs >= sigpipeNextCheckMs.load(std::memory_order_relaxed)) {
        return RecheckSigpipe(nowMs);
    }
    return sigpipeDisposition.load(std::memory_order_relaxed) == SIGPIPE_APPLICATION;
}
}  // namespace detail

// For the first thing a library thread does: SIGPIPE stays blocked for the thread's life.
void BlockSigpipeForThread();
// True on a thread that called BlockSigpipeForThread.
inline bool SigpipeBlockedForThread() {
    return detail::sigpipeBlockedForLife;
}
// Looks at the process's SIGPIPE disposition now (and puts the library's handler in place of
// the default action). For the open of a pipe: a disposition changed since is followed before
// the pipe's first write.
void CheckSigpipeDisposition();

// Keeps SIGPIPE from one write from reaching the process. Free (no system call) on library
// threads and, unless the application has its own SIGPIPE handler, on application threads.
class SigpipeHold {
  public:
    // `nowMs`: the monotonic clock in milliseconds if the caller has it (see WriteMustHoldSigpipe).
    explicit SigpipeHold(int64_t nowMs = -1) {
        if (detail::sigpipeBlockedForLife) {
            return;
        }
        if (!detail::WriteMustHoldSigpipe(nowMs)) {
            detail::inLibraryWrite = 1;
            marked = true;
            return;
        }
        Block();
    }
    ~SigpipeHold() {
        if (marked) {
            detail::inLibraryWrite = 0;
        }
        if (changedMask) {
            Unblock();
        }
    }
    SigpipeHold(const SigpipeHold&) = delete;
    SigpipeHold& operator=(const SigpipeHold&) = delete;

    // The write failed with EPIPE: take the signal it raised off again, unless the application
    // blocks SIGPIPE itself and so handles it. Saves and restores errno.
    void Discard();

  private:
    void Block();
    void Unblock();

    bool changedMask = false;  // this hold blocked the signal and must unblock it
    bool marked = false;       // this hold set inLibraryWrite
};

}  // namespace sable

#endif
