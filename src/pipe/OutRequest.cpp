#include "pipe/OutRequest.h"

#include <errno.h>
#include <unistd.h>

#include <chrono>

#include "pipe/SablePipeImpl.h"

OutTimedRequest::OutTimedRequest(const std::shared_ptr<SablePipeImpl>& owner, unsigned int id,
                                 int budgetMs)
    : OutRequest(id), pipe(owner), timeoutMs(budgetMs) {}

void OutTimedRequest::Process(SabloResponse& /*response*/) {
    Cancel();
}

bool OutTimedRequest::Claim(bool& slept) {
    int32_t seen = state.load(std::memory_order_acquire);
    while (seen == PENDING || seen == SLEEPING || seen == POLLING) {
        if (state.compare_exchange_weak(seen, CLAIMED, std::memory_order_acquire)) {
            polled = seen == POLLING;
            slept = seen != PENDING;
            return true;
        }
    }
    return false;
}

void OutTimedRequest::Wake() {
    // Both can be due: a waiter that was polling when the release began, then stopped and went
    // to sleep on the word until the release ended.
    if (wakeFutex) {
        sable::FutexWake(state, 1);
    }
    if (!polled || pthread_equal(poller, pthread_self())) {
        return;  // not polling, or released while reading the FIFO itself: it looks next
    }
    const uint64_t one = 1;
    if (write(kickFd, &one, sizeof(one)) < 0) {
        // Only a full counter refuses, and the poller is woken already then.
    }
}

bool OutTimedRequest::StartPolling(int fd) {
    kickFd = fd;
    poller = pthread_self();
    int32_t seen = PENDING;
    return state.compare_exchange_strong(seen, POLLING, std::memory_order_acq_rel);
}

void OutTimedRequest::StopPolling() {
    int32_t seen = POLLING;
    state.compare_exchange_strong(seen, PENDING, std::memory_order_acq_rel);
}

bool OutTimedRequest::Finish(bool slept) {
    // Release: the record written before this is what the waiter reads after seeing DONE.
    const int32_t before = state.exchange(DONE, std::memory_order_acq_rel);
    wakeFutex = before == CLAIMED_SLEEPING || (slept && !polled);
    return slept || wakeFutex;
}

void OutTimedRequest::Cancel() {
    bool slept = false;
    if (Claim(slept) && Finish(slept)) {
        // The caller holds a reference to this request, so it outlives a waiter that returns.
        Wake();
    }
}

int OutTimedRequest::Wait() {
    return WaitUntil(nullptr, true);
}

int OutTimedRequest::WaitUntil(const timespec* deadline) {
    return WaitUntil(deadline, false);
}

int OutTimedRequest::WaitUntil(const timespec* deadline, bool ownBudget) {
    timespec until{};
    bool haveDeadline = deadline != nullptr;
    if (haveDeadline) {
        until = *deadline;
    }
    int32_t seen = state.load(std::memory_order_acquire);
    for (;;) {
        switch (seen) {
            case DONE:
                return Outcome(0);
            case WITHDRAWN:
                return Outcome(-ETIMEDOUT);  // a second wait after giving up
            case POLLING:  // not reading the FIFO any more: sleeps instead
            case PENDING:
                // Marked before sleeping, so that a release knows to wake this thread.
                if (state.compare_exchange_weak(seen, SLEEPING, std::memory_order_acquire)) {
                    seen = SLEEPING;
                }
                continue;
            case CLAIMED:
                if (state.compare_exchange_weak(seen, CLAIMED_SLEEPING,
                                                std::memory_order_acquire)) {
                    seen = CLAIMED_SLEEPING;
                }
                continue;
            case CLAIMED_SLEEPING:
                // A release is filling the record: it ends soon and cannot be withdrawn from,
                // whatever the budget says.
                sable::FutexWait(state, CLAIMED_SLEEPING, nullptr);
                seen = state.load(std::memory_order_acquire);
                continue;
            default:
                break;  // SLEEPING
        }
        // The clock is read only when the thread has to sleep.
        if (ownBudget && timeoutMs >= 0 && !haveDeadline) {
            until = sable::ToMonotonic(std::chrono::steady_clock::now() +
                                       std::chrono::milliseconds(timeoutMs));
            haveDeadline = true;
        }
        // Spurious wake-ups cannot end the wait early: only a release or the deadline does.
        const int err = sable::FutexWait(state, SLEEPING, haveDeadline ? &until : nullptr);
        seen = state.load(std::memory_order_acquire);
        if (err == ETIMEDOUT && seen == SLEEPING &&
            state.compare_exchange_strong(seen, WITHDRAWN, std::memory_order_acq_rel)) {
            break;
        }
        // Otherwise released meanwhile (also between the time-out and this look), or woken
        // early: look again.
    }
    const int rc = Outcome(-ETIMEDOUT);
    if (auto owner = pipe.lock()) {
        owner->OnRequestCancelled(request);
    }
    return rc;
}

OutSyncTimedRequest::OutSyncTimedRequest(std::shared_ptr<SablePipeImpl> owner, unsigned int id,
                                         SabloResponse& resp, int budgetMs)
    : OutTimedRequest(owner, id, budgetMs), response(&resp) {
    response->data = nullptr;
    response->size = 0;
}

void OutSyncTimedRequest::Process(SabloResponse& received) {
    if (Deliver(received)) {
        Wake();
    }
}

bool OutSyncTimedRequest::Deliver(SabloResponse& received) {
    bool slept = false;
    if (!Claim(slept)) {
        // Given up on (or released) already: the caller's record is not ours to touch.
        delete[] received.data;
        received.data = nullptr;
        return false;
    }
    *response = received;
    return Finish(slept);
}

int OutSyncTimedRequest::Outcome(int rc) {
    if (rc < 0) {
        return rc;  // withdrawn before any release could fill the record
    }
    return response->data != nullptr ? 0 : -EPIPE;
}
