#include "pool/WorkerPoolState.h"

int PoolIdleState::GetSlotEvent(WorkerPool& pool, unsigned int limit) const {
    int slot = pool.GetSlotAction(limit);
    // Working even when nothing was found: the next give-back decides about idle again.
    pool.SetState(&PoolWorkingState::Instance());
    return slot;
}

void PoolIdleState::StopEvent(WorkerPool& pool) const {
    pool.SetState(&PoolStoppingState::Instance());
    // Nothing is lent, so nothing needs to come back before the pool can go.
    pool.ReadyToDestroyAction();
}

int PoolWorkingState::GetSlotEvent(WorkerPool& pool, unsigned int limit) const {
    return pool.GetSlotAction(limit);
}

void PoolWorkingState::FreeSlotEvent(WorkerPool& pool, unsigned int slot) const {
    pool.FreeSlotAction(slot);
    if (!pool.HasAllocatedWorker()) {
        pool.SetState(&PoolIdleState::Instance());
    }
}

void PoolWorkingState::StopEvent(WorkerPool& pool) const {
    pool.SetState(&PoolStoppingState::Instance());
    pool.StopAction();
}

void PoolStoppingState::FreeSlotEvent(WorkerPool& pool, unsigned int slot) const {
    pool.FreeSlotAction(slot);
    if (!pool.HasAllocatedWorker()) {
        pool.ReadyToDestroyAction();
    }
}
