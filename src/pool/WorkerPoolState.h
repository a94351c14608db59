// The states of a WorkerPool: whether slots may be taken and what giving one back means.
#ifndef SABLE_POOL_WORKER_POOL_STATE_H
#define SABLE_POOL_WORKER_POOL_STATE_H

#include <errno.h>

#include "pool/WorkerPool.h"

// Stateless; one shared instance per kind. Every event is called with the pool mutex held.
//
//            GetSlotEvent              FreeSlotEvent                     StopEvent
//   idle     take a slot; -> working   -                                 -> stopping, ready
//   working  take a slot               give back; none lent -> idle      -> stopping, stop all
//   stopping -EACCES                   give back; none lent -> ready     -
class WorkerPoolState {
  public:
    virtual ~WorkerPoolState() = default;
    // A free slot below `limit`, or a negative errno.
    virtual int GetSlotEvent(WorkerPool& pool, unsigned int limit) const
        REQUIRES(pool.poolMutex) = 0;
    virtual void FreeSlotEvent(WorkerPool& pool, unsigned int slot) const
        REQUIRES(pool.poolMutex) = 0;
    virtual void StopEvent(WorkerPool& pool) const REQUIRES(pool.poolMutex) = 0;
};

// Supplies the shared instance and the defaults: no slot (-EACCES), nothing on free and stop.
template <class T>
class WorkerPoolStateTemplate : public WorkerPoolState {
  public:
    // Never destroyed: pools owned by other statics still change state while the process
    // exits, after a function-local instance would already be gone.
    static const T& Instance() {
        static const T* instance = new T;
        return *instance;
    }

    int GetSlotEvent(WorkerPool&, unsigned int) const override { return -EACCES; }
    void FreeSlotEvent(WorkerPool&, unsigned int) const override {}
    void StopEvent(WorkerPool&) const override {}
};

class PoolIdleState : public WorkerPoolStateTemplate<PoolIdleState> {
  public:
    int GetSlotEvent(WorkerPool& pool, unsigned int limit) const override REQUIRES(pool.poolMutex);
    void StopEvent(WorkerPool& pool) const override REQUIRES(pool.poolMutex);
};

class PoolWorkingState : public WorkerPoolStateTemplate<PoolWorkingState> {
  public:
    int GetSlotEvent(WorkerPool& pool, unsigned int limit) const override REQUIRES(pool.poolMutex);
    void FreeSlotEvent(WorkerPool& pool, unsigned int slot) const override REQUIRES(pool.poolMutex);
    void StopEvent(WorkerPool& pool) const override REQUIRES(pool.poolMutex);
};

class PoolStoppingState : public WorkerPoolStateTemplate<PoolStoppingState> {
  public:
    void FreeSlotEvent(WorkerPool& pool, unsigned int slot) const override REQUIRES(pool.poolMutex);
};

#endif
