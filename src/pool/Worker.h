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
// the idle period (60 s) without work, giving its stack back at once (see
// SableCommThread::Release); the next Assign or SetRTType starts a new one.
//
// Every task runs with the scheduling of its class (SableCommThread::SettingOf): 2 SCHED_FIFO
// 50, 1 SCHED_OTHER 0, 0 the scheduling of the process's ordinary threads. The thread switches
// itself before a task whose setting differs from the one it runs under, and only then: a run
// of tasks of one class costs no system call, and no task runs under the class of the one
// before it.
//
// Worker threads run on stacks of StackSize() bytes: 1 MiB unless SABLE_WORKER_STACK_KB says
// otherwise.
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
    // A queued task and the class it runs under.
    struct QueuedTask {
        TaskPtr task;
        SabloPriority prio;
    };
    using TaskQueue = std::deque<QueuedTask>;

    static constexpr size_t CAPACITY = 1000;
    static constexpr std::chrono::milliseconds IDLE_PERIOD{60000};
    static constexpr const char* THREAD_NAME_PREFIX = "sb_";
    // A callback's stack: the library's own frames on a worker take a few KiB (the logger's
    // line buffer is the largest), which leaves a callback about 1 MiB. Far below the C
    // library's default of 8 MiB, which 1044 workers would turn into 8 GB of address space,
    // too much for a device that does not overcommit memory.
    static constexpr size_t DEFAULT_STACK_KB = 1024;
    static constexpr size_t MIN_STACK_KB = 64;
    static constexpr size_t MAX_STACK_KB = 1024 * 1024;

    // The stack size of worker threads in bytes: SABLE_WORKER_STACK_KB (KiB, clamped to 64 ..
    // 1048576) when set to a number, else DEFAULT_STACK_KB; read once.
    static size_t StackSize();

    // No thread yet (Start creates it). `idle` is how long the thread waits for work
    // before it ends.
    explicit Worker(std::string workerName, std::chrono::milliseconds idle = IDLE_PERIOD);
    Worker(std::string workerName, std::chrono::milliseconds idle, size_t stackBytes);
    // Stops the loop, lets the queued tasks run, joins the thread.
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Starts the thread. false (logged) when it could not be created; the worker is then
    // marked exited so that the next Assign tries again. The previous thread, if any, must
    // have been joined (ThreadJoin).
    bool Start() EXCLUDES(startMutex);
    // Queues `task` (moved from on success) to run under the class `prio` (0, 1 or 2) and
    // wakes the thread, restarting it first if it ended by itself. 0: the task will run;
    // -EINVAL (logged) for another class; -EBUSY when 1000 tasks wait; -EACCES once the worker
    // is stopped (or was never started); -1 when the thread could not be restarted. On failure
    // the caller keeps the task. Never blocks on the running task.
    int Assign(TaskPtr& task, SabloPriority prio) EXCLUDES(workerMutex, startMutex);
    // The same under the worker's recorded class (GetRTType).
    int Assign(TaskPtr& task) EXCLUDES(workerMutex, startMutex) { return Assign(task, GetRTType()); }
    // Records `prio` (1 or 2) as the worker's class, the class of tasks assigned without one,
    // restarting the thread first if it ended: 0, -1 when the restart failed, -EINVAL (logged,
    // nothing recorded) for a value outside the table. The thread itself switches before the
    // next such task.
    int SetRTType(const SabloPriority& prio) EXCLUDES(workerMutex, startMutex);
    // The class last recorded by SetRTType or by an Assign of class 1 or 2
    // (SABLO_PRIORITY_NORMAL at first).
    SabloPriority GetRTType() const { return rtType.load(std::memory_order_relaxed); }

    // Drops the queued tasks (the running one finishes): for an owner that withdraws them,
    // e.g. the tasks of a name being freed.
    void Clear() EXCLUDES(workerMutex);
    // Removes and returns the queued tasks, for callers that must destroy them outside their
    // own locks.
    TaskQueue Drain() EXCLUDES(workerMutex);
    // Refuses every later Assign (-EACCES) and ends the loop once the tasks already queued
    // have run: what was accepted runs. Does not wait. A stopped worker is not restarted by
    // Assign or SetRTType.
    void StopRoutine() EXCLUDES(workerMutex);
    // The same as StopRoutine.
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

    // Pops the front task (empty task when none).
    QueuedTask GetNormalTask() REQUIRES(workerMutex);
    // True when no task waits.
    bool ExitCheck() const REQUIRES(workerMutex);

  private:
    void Routine();
    void NameThread();
    // Runs queued tasks until the queue is empty.
    void RunTasks() EXCLUDES(workerMutex);
    // Gives the worker's thread the scheduling of `prio` unless it already runs under it.
    void SwitchTo(SabloPriority prio);
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
    const size_t stackSize;
    // The setting the worker's thread runs under ({-1, -1}: not known yet). Only the worker's
    // thread touches it.
    SchedSetting runSetting{-1, -1};
};

#endif
