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
        cond.NotifyOne();
    }
}

int OutTimedRequest::Wait() {
    sable::MutexLock lock(mutex);
    count -= 1;
    if (count >= 0) {
        return 0;  // a Cancel came first
    }
    signalled = false;
    if (timeoutMs < 0) {
        // Spurious wake-ups must not end the wait: the caller would return while a late
        // response could still be written into its record.
        while (!signalled) {
            cond.Wait(lock);
        }
        return 0;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!signalled) {
        if (cond.WaitUntil(lock, deadline) == std::cv_status::timeout && !signalled) {
            break;
        }
    }
    if (signalled) {
        return 0;
    }
    count += 1;  // the wait is withdrawn, so a late Cancel leaves no stale release
    withdrawn = true;
    lock.Unlock();
    if (auto owner = pipe.lock()) {
        owner->OnRequestCancelled(request);
    }
    return -ETIMEDOUT;
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

int OutSyncTimedRequest::Wait() {
    int rc = OutTimedRequest::Wait();
    sable::MutexLock lock(mutex);
    if (rc < 0) {
        if (response->data != nullptr) {
            delete[] response->data;
            response->data = nullptr;
            response->size = 0;
        }
        return rc;
    }
    return response->data != nullptr ? 0 : -EPIPE;
}
