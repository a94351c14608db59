#include "base/SigpipeHold.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <mutex>

namespace sable {

namespace detail {
__thread bool sigpipeBlockedForLife __attribute__((tls_model("initial-exec"))) = false;
__thread volatile sig_atomic_t inLibraryWrite __attribute__((tls_model("initial-exec"))) = 0;
std::atomic<int> sigpipeDisposition{SIGPIPE_UNKNOWN};
std::atomic<int64_t> sigpipeNextCheckMs{0};
}  // namespace detail

namespace {

// How often the write path looks at the disposition again, at most.
constexpr int64_t kCheckPeriodMs = 100;

using detail::sigpipeDisposition;
using detail::sigpipeNextCheckMs;

sigset_t SigpipeSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

// Async-signal context. A SIGPIPE that a library write raised in this thread (the kernel sends
// it to the writing thread, as coming from this process) is let pass: the write returns
// EPIPE. Anything else gets what the default action does: the process ends by SIGPIPE.
void OnSigpipe(int sig, siginfo_t* info, void* /*context*/) {
    int savedErrno = errno;
    if (detail::inLibraryWrite != 0 && info != nullptr && info->si_code == SI_USER &&
        info->si_pid == getpid()) {
        errno = savedErrno;
        return;
    }
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(sig, &dfl, nullptr);
    // Blocked while this handler runs: delivered, with the default action, as it returns.
    raise(sig);
    errno = savedErrno;
}

bool IsLibraryHandler(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == OnSigpipe;
}

// Serialises looking at and replacing the disposition; a leaf lock, never taken in a handler.
std::mutex& CheckMutex() {
    static std::mutex* mu = new std::mutex;  // never destroyed: writes may run during exit
    return *mu;
}

int64_t CoarseNowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void Check() {
    std::lock_guard<std::mutex> lock(CheckMutex());
    struct sigaction current {};
    if (sigaction(SIGPIPE, nullptr, &current) != 0) {
        sigpipeDisposition.store(detail::SIGPIPE_APPLICATION);  // unknown: the safe way
        return;
    }
    if ((current.sa_flags & SA_SIGINFO) == 0 && current.sa_handler == SIG_IGN) {
        sigpipeDisposition.store(detail::SIGPIPE_IGNORED);
    } else if (IsLibraryHandler(current)) {
        sigpipeDisposition.store(detail::SIGPIPE_GUARDED);
    } else if ((current.sa_flags & SA_SIGINFO) == 0 && current.sa_handler == SIG_DFL) {
        struct sigaction guard {};
        guard.sa_sigaction = OnSigpipe;
        guard.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
        sigemptyset(&guard.sa_mask);
        sigpipeDisposition.store(sigaction(SIGPIPE, &guard, nullptr) == 0
                                     ? detail::SIGPIPE_GUARDED
                                     : detail::SIGPIPE_APPLICATION);
    } else {
        sigpipeDisposition.store(detail::SIGPIPE_APPLICATION);
    }
    sigpipeNextCheckMs.store(CoarseNowMs() + kCheckPeriodMs);
}

}  // namespace

namespace detail {

bool RecheckSigpipe(int64_t nowMs) {
    if ((nowMs >= 0 ? nowMs : CoarseNowMs()) >= sigpipeNextCheckMs.load(std::memory_order_relaxed)) {
        Check();
    }
    return sigpipeDisposition.load(std::memory_order_relaxed) == SIGPIPE_APPLICATION;
}

}  // namespace detail

void BlockSigpipeForThread() {
    const sigset_t set = SigpipeSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    detail::sigpipeBlockedForLife = true;
}

void CheckSigpipeDisposition() {
    Check();
}

void SigpipeHold::Block() {
    const sigset_t set = SigpipeSet();
    sigset_t old;
    pthread_sigmask(SIG_BLOCK, &set, &old);
    changedMask = sigismember(&old, SIGPIPE) != 1;
}

void SigpipeHold::Unblock() {
    const sigset_t set = SigpipeSet();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void SigpipeHold::Discard() {
    if (!changedMask && !detail::sigpipeBlockedForLife) {
        return;  // handled by the library's handler or ignored, or the application's to take
    }
    int savedErrno = errno;
    const sigset_t set = SigpipeSet();
    const struct timespec now = {0, 0};
    while (sigtimedwait(&set, nullptr, &now) == -1 && errno == EINTR) {
    }
    errno = savedErrno;
}

}  // namespace sable
