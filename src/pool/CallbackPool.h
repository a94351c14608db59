// Runs callbacks on the workers of a WorkerPool: in order per name, or on any free worker.
#ifndef SABLE_POOL_CALLBACK_POOL_H
#define SABLE_POOL_CALLBACK_POOL_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "base/Mutex.h"
#include "pool/SableTask.h"
#include "pool/WorkerPool.h"
#include "sable_comm.h"

// DropTo runs a callback on the worker bound to a name (one worker per name, so the callbacks
// of one name run one after the other, in the order dropped); the name stays bound until
// FreeWorker(name). DropAsyncTask borrows any free worker for one callback and gives it back
// when the callback has run; priority 2 may use the urgent workers.
//
// Priorities: each callback runs under the scheduling of its class, whichever class the
// worker's previous task had: 2 SCHED_FIFO 50, 1 SCHED_OTHER 0, 0 the scheduling of the
// process's ordinary threads (see Worker); anything else is refused (-EINVAL).
//
// A drop that returns 0 has queued a callback that will run, also when Destroy comes next;
// a drop that cannot queue returns an error.
//
// Thread-safe; callbacks run with no lock of the pools held. Borrowed workers report back to
// this object, so its destructor destroys the worker pool (stopping and joining its workers).
class CallbackPool : public SableTaskObserver {
  public:
    explicit CallbackPool(std::shared_ptr<WorkerPool> workerPool);
    ~CallbackPool() override;
    CallbackPool(const CallbackPool&) = delete;
    CallbackPool& operator=(const CallbackPool&) = delete;

    // Queues `callback` on a borrowed worker. Blocks while every slot it may use is lent.
    // 0; -EINVAL for an empty callback or a class outside 0..2; -EACCES after (or during)
    // Destroy; -EBUSY or -1 from Worker::Assign. On failure the worker is given back.
    int DropAsyncTask(const std::function<void()>& callback, SabloPriority prio)
        EXCLUDES(findMutex);
    // Queues `callback` on the worker bound to `name`, binding one first if needed (without
    // waiting). 0; -EINVAL for an empty callback or a class outside 0..2; -ENOSPC when no
    // ordinary slot is free; -EACCES once Destroy has begun; -EBUSY or -1 from
    // Worker::Assign. Nothing is queued on failure.
    int DropTo(const std::string& name, const std::function<void()>& callback, SabloPriority prio)
        EXCLUDES(findMutex);
    // The same for a task built by the caller (a null task is refused with -EINVAL), so that a
    // hot path can queue work without a further allocation. On success `task` is moved from.
    int DropTo(const std::string& name, std::shared_ptr<const SableTask>& task, SabloPriority prio)
        EXCLUDES(findMutex);
    // The worker bound to `name`, binding a free one when there is none; null when no slot is
    // free or the pool is stopping. Two threads asking for a new name get the same worker.
    Worker* FindWorker(const std::string& name) EXCLUDES(findMutex);
    // Unbinds `name`, drops its queued callbacks and gives its worker back. 0.
    int FreeWorker(const std::string& name);
    // A borrowed worker's callback has run: give the worker back.
    void OnTaskFinished(const SableTask& task) override;
    // Waits until every borrowed worker is back (running callbacks finish), stops the
    // workers, and refuses every later DropAsyncTask. Called from a callback, it does not
    // wait for that callback. Repeatable.
    void Destroy();

    size_t NumWorkers() const;
    size_t NumUrgentWorkers() const;

  private:
    Worker* FindWorker(const std::string& name, int& error) EXCLUDES(findMutex);

    std::shared_ptr<WorkerPool> pool;
    // Makes find-or-bind of a name atomic. Taken before any lock of the worker pool.
    sable::Mutex findMutex;
    std::atomic<bool> destroyed{false};
};

#endif
