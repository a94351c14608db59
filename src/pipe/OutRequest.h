// Requests sent on a pipe that wait for their response.
#ifndef SABLE_PIPE_OUT_REQUEST_H
#define SABLE_PIPE_OUT_REQUEST_H

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <memory>

#include "base/Futex.h"
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
    // For a waiter that reads the pipe itself (see OutTimedRequest); by default it cannot.
    virtual bool StartPolling(int /*kickFd*/) { return false; }
    virtual void StopPolling() {}
    virtual bool Released() const { return false; }
    virtual int WaitUntil(const timespec* /*deadline*/) { return Wait(); }
    // The wait's budget in milliseconds (negative: no limit).
    virtual int BudgetMs() const { return -1; }

    unsigned int Id() const { return request.id; }
    const SabloRequest& Header() const { return request; }

  protected:
    SabloRequest request;  // only the id is filled
};

// A one-shot wait with a time budget in milliseconds (negative: no limit), released once by a
// response or a cancel. Its whole state is one atomic word, which is also the futex the waiter
// sleeps on: a release takes no lock, and wakes the waiter only when it sleeps.
class OutTimedRequest : public OutRequest {
  public:
    OutTimedRequest(const std::shared_ptr<SablePipeImpl>& pipe, unsigned int id, int timeoutMs);

    void Process(SabloResponse& response) override;
    // 0 when released by Cancel, -ETIMEDOUT when the budget ran out (the entry is then
    // removed from the pipe's out-request list). Blocks; call with no lock held. One waiter.
    int Wait() override;
    // Wait with an absolute deadline on the monotonic clock (null: no limit).
    int WaitUntil(const timespec* until) override;
    int BudgetMs() const override { return timeoutMs; }
    void Init() override {}
    void Cancel() override;
    // Wakes the waiter: on its futex, or through `kickFd` while it polls the pipe's FIFO
    // itself (not when the release runs on the polling thread, which looks by itself).
    void Wake() override;

    // The waiter reads the pipe itself until StopPolling: a release from another thread is
    // told to it by one eventfd write to `kickFd`. False when released already.
    bool StartPolling(int kickFd) override;
    // Back to waiting on the futex (the state a release finds next).
    void StopPolling() override;
    // Released (by a response or a cancel): a following Wait returns at once.
    bool Released() const override { return state.load(std::memory_order_acquire) == DONE; }

  protected:
    // The word's values. A release moves PENDING or SLEEPING to DONE, through CLAIMED when it
    // first fills the caller's record; a waiter whose budget ran out moves PENDING or SLEEPING
    // to WITHDRAWN, after which nothing touches the record any more. A waiter sleeps on
    // SLEEPING, or on CLAIMED_SLEEPING while a release it cannot withdraw from finishes.
    // POLLING: the waiter reads the FIFO itself (StartPolling).
    enum : int32_t { PENDING, SLEEPING, CLAIMED, CLAIMED_SLEEPING, DONE, WITHDRAWN, POLLING };

    // Claims the release: true (the state is then CLAIMED) unless the request was released or
    // withdrawn already. `slept` tells whether the waiter was asleep or polling.
    bool Claim(bool& slept);
    // Ends a claimed release; true when the waiter must be woken, which the caller does with
    // Wake once its own locks are released (a waiter woken under a lock would only block on it).
    bool Finish(bool slept);
    // What Wait returns for `rc` (0 released, -ETIMEDOUT withdrawn).
    virtual int Outcome(int rc) { return rc; }
    // The wait, until `deadline` or (`ownBudget`) for timeoutMs from the first sleep.
    int WaitUntil(const timespec* deadline, bool ownBudget);

    std::weak_ptr<SablePipeImpl> pipe;  // a pending request never keeps a closed pipe alive
    std::atomic<int32_t> state{PENDING};
    const int timeoutMs;
    // While POLLING: the polling thread and its eventfd (written before the state, read after).
    int kickFd = -1;
    pthread_t poller{};
    // Written by the one release that claimed the request and read by its Wake, on the same
    // thread: the waiter was polling when the claim came, and it sleeps on the word by the end.
    bool polled = false;
    bool wakeFutex = false;
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
    // Wait: 0 with the response filled, -ETIMEDOUT, or -EPIPE when released without a
    // response (the pipe was closed).

  protected:
    int Outcome(int rc) override;

  private:
    SabloResponse* response;  // written only by the release that claimed the request
};

#endif
