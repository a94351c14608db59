// One named thread with its own FIFO queue of tasks.
#ifndef SABLE_POOL_WORKER_H
#define SABLE_POOL_WORKER_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>

#include "base/Futex.h"
#include "base/Mutex.h"
#include "pool/SableTask.h"
#include "pool/sable_comm_thread.h"
#include "sable_comm.h"

// Tasks are posted with Assign and run one by one, in order, on the worker's thread, named
// "sb_" + the process name. The thread sleeps while the queue is empty and ends by itself after
// the idle period (60 s) without work; the next Assign or SetRTType starts a new one, with the
// scheduling class last asked for.
//
// Every method may be called from any thread. Tasks run with no lock of the worker held, so a
// task may post further tasks to its own worker. Dropped tasks are destroyed outside the
// worker's locks (their captures may run arbitrary destructors).
//
// Lock order (pool side first): WorkerPool's workers mutex -> workerMutex -> startMutex. The
// thread sleeps on a futex semaphore, which takes no lock.
class Worker {
  public:
    using TaskPtr = std::shared_ptr<const SableTask>;
    using TaskQueue = std::deque<TaskPtr>;

    static constexpr size_t CAPACITY = 1000;
    static constexpr std::chrono::milliseconds IDLE_PERIOD{60000};
    static constexpr const char* THREAD_NAME_PREFIX = "sb_";

    // No thread yet (Start creates it). `idle` is how long the thread waits for work
    // before it ends.
    explicit Worker(std::string workerName, std::chrono::milliseconds idle = IDLE_PERIOD);
    // Stops the loop (queued tasks are not run), joins the thread, frees the queue. A running
    // task is finished first.
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Starts the thread. false (logged) when it could not be created; the worker is then
    // marked exited so that the next Assign tries again. The previous thread, if any, must
    // have been joined (ThreadJoin).
    bool Start() EXCLUDES(startMutex);
    // Queues `task` (moved from on success) and wakes the thread, restarting it first if it
    // ended by itself. 0; -EBUSY when 1000 tasks wait (the caller keeps the task); -1 when the
    // thread could not be restarted. Never blocks on the running task.
    int Assign(TaskPtr& task) EXCLUDES(workerMutex, startMutex);
    // Records `prio` as the worker's class and switches its thread (restarting it first if it
    // ended): SableCommThread::SetRTType's result, or -1 when the restart failed. A value
    // outside the table is refused (-EINVAL) and not recorded.
    int SetRTType(const SabloPriority& prio) EXCLUDES(workerMutex, startMutex);
    // The class last recorded by SetRTType (SABLO_PRIORITY_NORMAL at first).
    SabloPriority GetRTType() const { return rtType.load(std::memory_order_relaxed); }

    // Drops the queued tasks (the running one finishes).
    void Clear() EXCLUDES(workerMutex);
    // Removes and returns the queued tasks, for callers that must destroy them outside their
    // own locks.
    TaskQueue Drain() EXCLUDES(workerMutex);
    // Ends the loop after the present pass; queued tasks still run. Does not wait. A stopped
    // worker is not restarted by Assign or SetRTType.
    void StopRoutine() EXCLUDES(workerMutex);
    // Clear() and StopRoutine().
    void Stop() EXCLUDES(workerMutex);
    // Joins the thread if there is one; a failed join (e.g. from the worker's own thread) is
    // logged.
    void ThreadJoin() EXCLUDES(startMutex);

    size_t WaitingTasks() EXCLUDES(workerMutex);
    // True while a task runs.
    bool IsWorking() EXCLUDES(workerMutex);
    // True when called from this worker's own thread.
    bool RunsOnCallingThread() EXCLUDES(startMutex);
    const std::string& Name() const { return name; }

    // Pops the front task, or empty.
    TaskPtr GetNormalTask() REQUIRES(workerMutex);
    // True when no task waits.
    bool ExitCheck() const REQUIRES(workerMutex);

  private:
    void Routine();
    void NameThread();
    // Runs queued tasks until the queue is empty.
    void RunTasks() EXCLUDES(workerMutex);
    // Joins the thread that ended by itself and starts a new one; false (logged) on failure.
    bool Restart() REQUIRES(workerMutex) EXCLUDES(startMutex);

    const std::string name;
    TaskPtr currentTask GUARDED_BY(workerMutex);
    std::atomic<bool> running{false};
    // One post per queued task (and per stop); the worker thread is its only waiter.
    sable::FutexSemaphore sem;
    // Guards the queue, the current task and thread restarts. After the pool's workers mutex,
    // before startMutex.
    sable::Mutex workerMutex;
    TaskQueue tasks GUARDED_BY(workerMutex);
    SableCommThread thread GUARDED_BY(startMutex);  // starts as SABLO_PRIORITY_NORMAL
    // Serialises creating, joining and switching the thread. Taken after workerMutex.
    sable::Mutex startMutex ACQUIRED_AFTER(workerMutex);
    std::atomic<SabloPriority> rtType{SABLO_PRIORITY_NORMAL};
    // Set when the thread ended by itself (idle) or could not start; cleared by Start.
    std::atomic<bool> exited{false};
    const std::chrono::milliseconds idlePeriod;
};

#endif
