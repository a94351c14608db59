#include "pipe/OutRequest.h"

#include <errno.h>

#include <chrono>

#include "pipe/SablePipeImpl.h"

OutTimedRequest::OutTimedRequest(const std::shared_ptr<SablePipeImpl>& owner, unsigned int id,
                                 int budgetMs)
    : OutRequest(id), pipe(owner), timeoutMs(budgetMs) {}

void OutTimedRequest::Process(SabloResponse& /*response*/) {
    Cancel();
}

bool OutTimedRequest::CancelLocked() {
    count += 1;
    if (count < 1) {
        signalled = true;
        return true;
    }
    return false;
}

void OutTimedRequest::Cancel() {
    bool wake;
    {
        sable::MutexLock lock(mutex);
        wake = CancelLocked();
    }
    // The caller holds a reference to this request, so it outlives a waiter that returns now.
    if (wake) {
        woken.Post();
    }
}

int OutTimedRequest::Wait() {
    {
        sable::MutexLock lock(mutex);
        count -= 1;
        if (count >= 0) {
            return Outcome(0);  // a Cancel came first
        }
        signalled = false;
    }
    // Spurious wake-ups cannot end the wait early: the semaphore is posted only together with
    // `signalled`, so without limit this returns only once released (a late response could
    // otherwise still be written into the caller's record).
    if (timeoutMs < 0) {
        woken.WaitUntil(nullptr);
    } else {
        woken.WaitFor(std::chrono::milliseconds(timeoutMs));
    }
    sable::MutexLock lock(mutex);
    if (signalled) {
        return Outcome(0);  // also when the release came between the time-out and this lock
    }
    count += 1;  // the wait is withdrawn, so a late Cancel leaves no stale release
    withdrawn = true;
    const int rc = Outcome(-ETIMEDOUT);
    lock.Unlock();
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
    sable::MutexLock lock(mutex);
    if (withdrawn) {
        delete[] received.data;
        received.data = nullptr;
        return false;
    }
    *response = received;
    return CancelLocked();
}

int OutSyncTimedRequest::Outcome(int rc) {
    if (rc < 0) {
        // Withdrawn: a response that came anyway is not the caller's any more.
        if (response->data != nullptr) {
            delete[] response->data;
            response->data = nullptr;
            response->size = 0;
        }
        return rc;
    }
    return response->data != nullptr ? 0 : -EPIPE;
}
