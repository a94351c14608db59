// Requests sent on a pipe that wait for their response.
#ifndef SABLE_PIPE_OUT_REQUEST_H
#define SABLE_PIPE_OUT_REQUEST_H

#include <memory>

#include "base/Futex.h"
#include "base/Mutex.h"
#include "sable_comm.h"

class SablePipeImpl;

class OutRequest {
  public:
    explicit OutRequest(unsigned int id) : request{id, nullptr, 0} {}
    virtual ~OutRequest() = default;
    OutRequest(const OutRequest&) = delete;
    OutRequest& operator=(const OutRequest&) = delete;

    // Delivers the response (ownership of its data passes on).
    virtual void Process(SabloResponse& response) = 0;
    // Process in two steps, so that the waiter is woken after the caller's own locks are
    // released: Deliver hands the response over and tells whether Wake must follow.
    virtual bool Deliver(SabloResponse& response) {
        Process(response);
        return false;
    }
    virtual void Wake() {}
    virtual int Wait() = 0;
    virtual void Init() {}
    // Releases a waiter; remembered when it comes before Wait.
    virtual void Cancel() = 0;

    unsigned int Id() const { return request.id; }
    const SabloRequest& Header() const { return request; }

  protected:
    SabloRequest request;  // only the id is filled
};

// A one-shot, semaphore-like wait with a time budget in milliseconds (negative: no limit).
class OutTimedRequest : public OutRequest {
  public:
    OutTimedRequest(const std::shared_ptr<SablePipeImpl>& pipe, unsigned int id, int timeoutMs);

    void Process(SabloResponse& response) override;
    // 0 when released by Cancel, -ETIMEDOUT when the budget ran out (the entry is then
    // removed from the pipe's out-request list). Blocks; call with no lock held.
    int Wait() override;
    void Init() override {}
    void Cancel() override;

  protected:
    // Counts the release; true when a waiter must be woken, which the caller does after
    // unlocking (a waiter woken under the lock would only block on it again).
    bool CancelLocked() REQUIRES(mutex);
    // What Wait returns for `rc` (0 released, -ETIMEDOUT withdrawn); still under the mutex.
    virtual int Outcome(int rc) REQUIRES(mutex) { return rc; }

    std::weak_ptr<SablePipeImpl> pipe;  // a pending request never keeps a closed pipe alive
    // Posted once `signalled` is set, after `mutex` is released: the one waiter sleeps on it
    // and returns without taking any lock (it takes `mutex` afterwards only to read the
    // outcome).
    sable::FutexSemaphore woken;
    sable::Mutex mutex;  // guards the fields below; taken after the list's and the pipe's locks
    bool signalled GUARDED_BY(mutex) = false;
    int count GUARDED_BY(mutex) = 0;  // negative while a thread waits
    // Set when Wait gave up: a late response must not touch the caller's record any more.
    bool withdrawn GUARDED_BY(mutex) = false;
    const int timeoutMs;
};

// A synchronous RPC: the response lands in the caller's record.
class OutSyncTimedRequest : public OutTimedRequest {
  public:
    OutSyncTimedRequest(std::shared_ptr<SablePipeImpl> pipe, unsigned int id,
                        SabloResponse& response, int timeoutMs);

    // Copies the response into the caller's record and releases the waiter; a response that
    // comes after the waiter gave up is freed here instead.
    void Process(SabloResponse& received) override;
    bool Deliver(SabloResponse& received) override;
    void Wake() override { woken.Post(); }
    // Wait: 0 with the response filled, -ETIMEDOUT, or -EPIPE when released without a
    // response (the pipe was closed).

  protected:
    int Outcome(int rc) override REQUIRES(mutex);

  private:
    SabloResponse* response;  // written under `mutex` only while not withdrawn
};

#endif
