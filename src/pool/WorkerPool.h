// A fixed number of lazily created workers lent out by slot.
#ifndef SABLE_POOL_WORKER_POOL_H
#define SABLE_POOL_WORKER_POOL_H

#include <semaphore.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/Mutex.h"
#include "pool/Worker.h"

class WorkerPoolState;
class PoolIdleState;
class PoolWorkingState;
class PoolStoppingState;

// Slots 0 .. capacity-1 serve ordinary requests; the further urgentCapacity slots only urgent
// ones, so urgent work finds a worker when ordinary work has taken the rest. An urgent caller
// takes a free urgent slot before an ordinary one, leaving the ordinary slots to ordinary
// callers. Callers that wait for a slot wait by kind: a slot given back wakes a caller that
// may use it (an ordinary slot an ordinary caller first, else an urgent one; an urgent slot an
// urgent caller), so no caller waits while a slot it may use is free. A slot is lent
// anonymously (GetWorker, GetUrgentWorker; given back with FreeWorker(const Worker&)) or under
// a name (AllocWorker / TryGetNamedWorker, then WorkerOf; given back with FreeWorker(name)).
// The worker of slot n is named "n" and created when the slot is first lent.
//
// Destroy moves the pool to its stopping state for good: every later grant fails with
// -EACCES, and the workers refuse new tasks while those they accepted still run. Worker
// pointers handed out stay valid until the pool itself is destroyed.
//
// The pool records, when it is built, the scheduling of the process's ordinary threads
// (SableCommThread::OrdinarySetting), under which its workers run the tasks of class 0.
//
// Thread-safe. Lock order (first to last): CallbackPool's find mutex, poolMutex, namedMutex,
// workersMutex, then a Worker's own locks. No lock is held while waiting for a free worker.
class WorkerPool {
  public:
    // `ordinary` slots for every request and `urgent` more for urgent ones; workers end their
    // thread after `idle` without work.
    WorkerPool(uint32_t ordinary, uint32_t urgent,
               std::chrono::milliseconds idle = Worker::IDLE_PERIOD);
    // Stops and joins every worker (a running task is finished first).
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Takes a free slot below `limit` (the lowest; for a limit beyond the ordinary slots the
    // lowest urgent one first): the slot, -ENOSPC when none, -EACCES once the pool is
    // stopping.
    int GetFreeSlot(unsigned int limit) EXCLUDES(poolMutex);
    // Gives a slot back and wakes one waiting GetWorker that may use it.
    void FreeWorkerSlot(unsigned int slot) EXCLUDES(poolMutex);
    // GetFreeSlot, then makes sure the slot's worker exists: the slot or a negative errno.
    int PickupWorker(unsigned int limit) EXCLUDES(poolMutex, workersMutex);
    // Creates and starts the workers of the slots below `n` that do not exist yet; logs and
    // creates nothing when `n` exceeds the pool.
    void FillWorkersTo(int n) EXCLUDES(workersMutex);

    // Borrows a worker of a slot below `limit` (as GetFreeSlot), blocking (no lock held) while
    // all are lent. Null once the pool is stopping (a caller blocked at that moment is woken).
    Worker* GetWorker(unsigned int limit) EXCLUDES(poolMutex, workersMutex);
    // An ordinary slot.
    Worker* GetWorker() { return GetWorker(capacity); }
    // Any slot, the urgent ones included.
    Worker* GetUrgentWorker() { return GetWorker(maxWorkers); }
    // Waits until a slot that an urgent (or an ordinary) caller may use is given back to this
    // caller, which the pool counted as waiting: 0 or a negative errno. A cancellation point.
    int WaitForFreeWorker(bool urgent);

    // Lends an ordinary slot under `name` without waiting: 0 or the error. When the name is
    // already bound it keeps its worker and the new slot is given back.
    int AllocWorker(const std::string& name) EXCLUDES(poolMutex, namedMutex, workersMutex);
    // AllocWorker returning the bound worker; null when no slot is free or the pool stops.
    Worker* TryGetNamedWorker(const std::string& name)
        EXCLUDES(poolMutex, namedMutex, workersMutex);
    // The worker bound to `name`, or null.
    Worker* WorkerOf(const std::string& name) EXCLUDES(namedMutex, workersMutex);

    // Unbinds the first name bound to `slot` (nothing else); the caller holds namedMutex.
    int FreeWorker(unsigned int slot) REQUIRES(namedMutex);
    // Unbinds `name`, drops the tasks still queued for it and gives its slot back. An unknown
    // name is logged and ignored. 0.
    int FreeWorker(const std::string& name) EXCLUDES(poolMutex, namedMutex, workersMutex);
    // Gives back the slot of a borrowed worker (unbinding any name of it). A worker not in the
    // pool is ignored. 0.
    int FreeWorker(const Worker& worker) EXCLUDES(poolMutex, namedMutex, workersMutex);

    // Counts every unbinding of a name (and Destroy): a name found bound to a worker is still
    // bound to it while this has not changed. A new binding does not count (names are bound
    // once until freed).
    uint64_t BindingChanges() const { return bindingChanges.load(std::memory_order_acquire); }
    // This pool's number, unique in the process (never reused, unlike its address).
    uint64_t Id() const { return id; }

    // Workers created so far.
    size_t NumWorkers() EXCLUDES(workersMutex);
    // Created workers whose recorded class is SABLO_PRIORITY_REALTIME.
    size_t NumUrgentWorkers() EXCLUDES(workersMutex);

    // Some slot is lent.
    bool HasAllocatedWorker() const REQUIRES(poolMutex);
    // Whether a worker runs a task; gives back the slot of every worker that does not (names
    // stay bound), so that a stopping pool need not wait for idle lent workers.
    bool HasBusyWorker() EXCLUDES(poolMutex, workersMutex);

    // Refuses every later grant, stops the workers (they refuse new tasks and run the ones
    // already queued), waits only while some worker still runs a task, then joins all worker
    // threads once their queues are done. Called from a worker's own task it does not wait
    // for that task.
    void Destroy() EXCLUDES(poolMutex, namedMutex, workersMutex);

  private:
    static uint64_t NextId();

    std::atomic<uint64_t> bindingChanges{0};
    const uint64_t id = NextId();

    friend class WorkerPoolState;
    friend class PoolIdleState;
    friend class PoolWorkingState;
    friend class PoolStoppingState;

    // Actions of the state objects.
    int GetSlotAction(unsigned int limit) REQUIRES(poolMutex);
    // The lowest free slot in [from, to) taken, or -1.
    int TakeSlotIn(unsigned int from, unsigned int to) REQUIRES(poolMutex);
    // Wakes one waiting caller of the kind that `slot` serves first.
    void WakeWaiterFor(unsigned int slot) REQUIRES(poolMutex);
    void FreeSlotAction(unsigned int slot) REQUIRES(poolMutex);
    void StopAction() REQUIRES(poolMutex) EXCLUDES(workersMutex);
    void ReadyToDestroyAction() REQUIRES(poolMutex);
    void SetState(const WorkerPoolState* newState) REQUIRES(poolMutex);

    static void PostRetrying(sem_t* sem);
    // The slot of `worker`, or -1.
    int SlotOf(const Worker& worker) EXCLUDES(workersMutex);
    Worker* WorkerAt(unsigned int slot) EXCLUDES(workersMutex);
    // Waits for the destroy semaphore while a worker other than the caller's runs a task.
    void WaitForBusyWorkers() EXCLUDES(poolMutex, workersMutex);
    bool HasBusyWorker(bool skipCallingThread) EXCLUDES(poolMutex, workersMutex);

    const uint32_t maxWorkers;
    const uint32_t capacity;
    // Name -> slot. After poolMutex, before workersMutex.
    std::map<std::string, uint32_t> namedSlots GUARDED_BY(namedMutex);
    sable::Mutex namedMutex ACQUIRED_AFTER(poolMutex);
    // Index = slot. Last of the pool's locks; a Worker's own locks come after it.
    std::vector<std::unique_ptr<Worker>> workers GUARDED_BY(workersMutex);
    sable::Mutex workersMutex ACQUIRED_AFTER(namedMutex);
    // One bit per slot, 1 = free.
    std::vector<uint64_t> freeSlots GUARDED_BY(poolMutex);
    // Callers waiting for a slot, by kind, each counted until a post is made for it; a post
    // is kept by its semaphore, so a wake-up made before the caller sleeps is not lost.
    sem_t ordinarySem;
    sem_t urgentSem;
    uint32_t ordinaryWaiters GUARDED_BY(poolMutex) = 0;
    uint32_t urgentWaiters GUARDED_BY(poolMutex) = 0;
    const WorkerPoolState* state GUARDED_BY(poolMutex);
    // Guards the state and the bitmap. First of the pool's locks.
    sable::Mutex poolMutex;
    sem_t destroySem;

    const std::chrono::milliseconds workerIdlePeriod;
    // Workers taken out of service by Destroy; kept so that pointers handed out stay valid.
    std::vector<std::unique_ptr<Worker>> retired GUARDED_BY(workersMutex);
    // Set by Destroy once the workers are retired: no worker is created any more.
    bool outOfService GUARDED_BY(workersMutex) = false;
};

#endif
