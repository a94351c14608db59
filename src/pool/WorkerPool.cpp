#include "pool/WorkerPool.h"

#include <errno.h>
#include <pthread.h>
#include <time.h>

#include "log/NuxSyslog.h"
#include "pool/WorkerPoolState.h"

namespace {

constexpr unsigned int BITS_PER_WORD = 64;
// How often a destroyer waiting for running tasks looks again at workers that cannot give
// their slot back by themselves (a worker bound to a name keeps its slot after its task).
constexpr long DESTROY_RECHECK_NS = 50L * 1000 * 1000;

}  // namespace

uint64_t WorkerPool::NextId() {
    static std::atomic<uint64_t> next{1};
    return next.fetch_add(1);
}

WorkerPool::WorkerPool(uint32_t ordinary, uint32_t urgent, std::chrono::milliseconds idle)
    : maxWorkers(ordinary + urgent),
      capacity(ordinary),
      freeSlots(maxWorkers / BITS_PER_WORD + 1, ~uint64_t{0}),
      state(&PoolIdleState::Instance()),
      workerIdlePeriod(idle) {
    sem_init(&ordinarySem, 0, 0);
    sem_init(&urgentSem, 0, 0);
    sem_init(&destroySem, 0, 0);
    // Read now, before any task asks for the ordinary scheduling.
    SableCommThread::OrdinarySetting();
}

WorkerPool::~WorkerPool() {
    std::vector<std::unique_ptr<Worker>> all;
    {
        sable::MutexLock lock(workersMutex);
        all.swap(workers);
        for (auto& worker : retired) {
            all.push_back(std::move(worker));
        }
        retired.clear();
    }
    // Each destructor lets the accepted tasks run and joins its thread.
    for (auto& worker : all) {
        worker->Stop();
    }
    all.clear();
    sem_destroy(&ordinarySem);
    sem_destroy(&urgentSem);
    sem_destroy(&destroySem);
}

void WorkerPool::PostRetrying(sem_t* sem) {
    while (sem_post(sem) != 0 && errno == EINTR) {
    }
}

int WorkerPool::TakeSlotIn(unsigned int from, unsigned int to) {
    // Bits past the pool are set too; the bound keeps them from being handed out.
    for (size_t word = from / BITS_PER_WORD; word < freeSlots.size(); ++word) {
        uint64_t bits = freeSlots[word];
        if (word == from / BITS_PER_WORD) {
            bits &= ~uint64_t{0} << (from % BITS_PER_WORD);
        }
        if (bits == 0) {
            continue;
        }
        unsigned int bit = static_cast<unsigned int>(__builtin_ctzll(bits));
        size_t slot = word * BITS_PER_WORD + bit;
        if (slot >= to) {
            return -1;
        }
        freeSlots[word] &= ~(uint64_t{1} << bit);
        return static_cast<int>(slot);
    }
    return -1;
}

int WorkerPool::GetSlotAction(unsigned int limit) {
    if (limit > maxWorkers) {
        limit = maxWorkers;
    }
    int slot = -1;
    if (limit > capacity) {
        // An urgent caller: its own slots first, so that ordinary slots stay with ordinary
        // callers.
        slot = TakeSlotIn(capacity, limit);
        if (slot < 0) {
            slot = TakeSlotIn(0, capacity);
        }
    } else {
        slot = TakeSlotIn(0, limit);
    }
    return slot >= 0 ? slot : -ENOSPC;
}

void WorkerPool::WakeWaiterFor(unsigned int slot) {
    if (slot < capacity && ordinaryWaiters > 0) {
        --ordinaryWaiters;
        PostRetrying(&ordinarySem);
    } else if (urgentWaiters > 0) {
        // An urgent slot, or an ordinary one no ordinary caller waits for.
        --urgentWaiters;
        PostRetrying(&urgentSem);
    }
}

void WorkerPool::FreeSlotAction(unsigned int slot) {
    LOGI("free action slot worker=%u", slot);
    if (slot < maxWorkers) {
        freeSlots[slot / BITS_PER_WORD] |= uint64_t{1} << (slot % BITS_PER_WORD);
        WakeWaiterFor(slot);
    }
}

void WorkerPool::StopAction() {
    sable::MutexLock lock(workersMutex);
    for (auto& worker : workers) {
        // Refuses new tasks from now on; those it accepted still run.
        worker->StopRoutine();
    }
}

void WorkerPool::ReadyToDestroyAction() {
    PostRetrying(&destroySem);
}

void WorkerPool::SetState(const WorkerPoolState* newState) {
    state = newState;
}

bool WorkerPool::HasAllocatedWorker() const {
    uint32_t full = maxWorkers / BITS_PER_WORD;
    for (uint32_t word = 0; word < full; ++word) {
        if (freeSlots[word] != ~uint64_t{0}) {
            return true;
        }
    }
    uint32_t rest = maxWorkers % BITS_PER_WORD;
    if (rest == 0) {
        return false;
    }
    uint64_t mask = (uint64_t{1} << rest) - 1;
    return (freeSlots[full] & mask) != mask;
}

int WorkerPool::GetFreeSlot(unsigned int limit) {
    sable::MutexLock lock(poolMutex);
    return state->GetSlotEvent(*this, limit);
}

void WorkerPool::FreeWorkerSlot(unsigned int slot) {
    sable::MutexLock lock(poolMutex);
    state->FreeSlotEvent(*this, slot);
}

int WorkerPool::PickupWorker(unsigned int limit) {
    int slot = GetFreeSlot(limit);
    if (slot < 0) {
        LOGE_R("Find free slot failed: err = %d\n", slot);
        return slot;
    }
    FillWorkersTo(slot + 1);
    return slot;
}

void WorkerPool::FillWorkersTo(int n) {
    sable::MutexLock lock(workersMutex);
    int created = static_cast<int>(workers.size());
    if (n <= created) {
        return;
    }
    if (static_cast<int64_t>(n) > static_cast<int64_t>(maxWorkers)) {
        LOGE("Extended size %d(total new size %d) exceeds max workers %u\n", n - created, n,
             maxWorkers);
        return;
    }
    if (outOfService) {
        return;  // after Destroy: the slot's caller finds no worker and fails
    }
    for (int slot = created; slot < n; ++slot) {
        workers.push_back(std::make_unique<Worker>(std::to_string(slot), workerIdlePeriod));
    }
    for (int slot = created; slot < n; ++slot) {
        // A worker that cannot start is retried by its next Assign.
        workers[slot]->Start();
    }
}

Worker* WorkerPool::WorkerAt(unsigned int slot) {
    sable::MutexLock lock(workersMutex);
    return slot < workers.size() ? workers[slot].get() : nullptr;
}

int WorkerPool::SlotOf(const Worker& worker) {
    sable::MutexLock lock(workersMutex);
    for (size_t slot = 0; slot < workers.size(); ++slot) {
        if (workers[slot].get() == &worker) {
            return static_cast<int>(slot);
        }
    }
    return -1;
}

int WorkerPool::WaitForFreeWorker(bool urgent) {
    sem_t* sem = urgent ? &urgentSem : &ordinarySem;
    int oldState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &oldState);
    int ret;
    do {
        ret = sem_wait(sem);
    } while (ret != 0 && errno == EINTR);
    int savedErrno = ret != 0 ? errno : 0;
    pthread_setcancelstate(oldState, nullptr);
    return -savedErrno;
}

Worker* WorkerPool::GetWorker(unsigned int limit) {
    const bool urgent = limit > capacity;
    for (;;) {
        int slot;
        {
            // Looking and counting oneself as a waiter are one step: a slot given back after
            // the look finds the waiter counted and posts for it.
            sable::MutexLock lock(poolMutex);
            slot = state->GetSlotEvent(*this, limit);
            if (slot == -ENOSPC) {
                ++(urgent ? urgentWaiters : ordinaryWaiters);
            }
        }
        if (slot >= 0) {
            FillWorkersTo(slot + 1);
            // Null when the workers were taken out of service meanwhile (Destroy).
            return WorkerAt(static_cast<unsigned int>(slot));
        }
        LOGE_R("Find free slot failed: err = %d\n", slot);
        if (slot != -ENOSPC) {
            return nullptr;  // only "all lent" is worth waiting for; a stopping pool never lends
        }
        int ret = WaitForFreeWorker(urgent);
        if (ret != 0) {
            LOGE("Wait for free worker failed: err = %d\n", ret);
            // Not woken by a post: no longer counted once the count is taken back.
            sable::MutexLock lock(poolMutex);
            uint32_t& waiters = urgent ? urgentWaiters : ordinaryWaiters;
            if (waiters > 0) {
                --waiters;
            }
        }
    }
}

int WorkerPool::AllocWorker(const std::string& name) {
    int slot = PickupWorker(capacity);
    if (slot < 0) {
        LOGE("Pickup worker failed: %d\n", slot);
        return slot;
    }
    bool inserted;
    {
        sable::MutexLock lock(namedMutex);
        inserted = namedSlots.emplace(name, static_cast<uint32_t>(slot)).second;
    }
    if (!inserted) {
        // The name keeps its worker; the slot just taken would otherwise stay lent for good.
        FreeWorkerSlot(static_cast<unsigned int>(slot));
    }
    return 0;
}

Worker* WorkerPool::TryGetNamedWorker(const std::string& name) {
    int slot = PickupWorker(capacity);
    if (slot < 0) {
        return nullptr;
    }
    Worker* worker = nullptr;
    bool inserted;
    {
        sable::MutexLock lock(namedMutex);
        auto result = namedSlots.emplace(name, static_cast<uint32_t>(slot));
        inserted = result.second;
        sable::MutexLock workersLock(workersMutex);
        uint32_t bound = result.first->second;
        worker = bound < workers.size() ? workers[bound].get() : nullptr;
    }
    if (!inserted) {
        FreeWorkerSlot(static_cast<unsigned int>(slot));
    }
    return worker;
}

Worker* WorkerPool::WorkerOf(const std::string& name) {
    sable::MutexLock lock(namedMutex);
    auto it = namedSlots.find(name);
    if (it == namedSlots.end()) {
        return nullptr;
    }
    sable::MutexLock workersLock(workersMutex);
    // After Destroy the workers are out of service while names may still be recorded.
    return it->second < workers.size() ? workers[it->second].get() : nullptr;
}

int WorkerPool::FreeWorker(unsigned int slot) {
    for (auto it = namedSlots.begin(); it != namedSlots.end(); ++it) {
        if (it->second == slot) {
            namedSlots.erase(it);
            bindingChanges.fetch_add(1);
            break;
        }
    }
    return 0;
}

int WorkerPool::FreeWorker(const std::string& name) {
    uint32_t slot;
    {
        sable::MutexLock lock(namedMutex);
        auto it = namedSlots.find(name);
        if (it == namedSlots.end()) {
            LOGI("Free unexisting worker for %s\n", name.c_str());
            return 0;
        }
        slot = it->second;
        namedSlots.erase(it);
        bindingChanges.fetch_add(1);
    }
    // Cleared with none of the pool's locks held: the dropped tasks' captures may run any
    // destructor. The slot is still lent here, so nobody else can be given this worker yet.
    Worker* worker = WorkerAt(slot);
    if (worker != nullptr) {
        worker->Clear();
    }
    FreeWorkerSlot(slot);
    return 0;
}

int WorkerPool::FreeWorker(const Worker& worker) {
    int slot = SlotOf(worker);
    if (slot < 0) {
        return 0;
    }
    {
        sable::MutexLock lock(namedMutex);
        FreeWorker(static_cast<unsigned int>(slot));
    }
    FreeWorkerSlot(static_cast<unsigned int>(slot));
    return 0;
}

size_t WorkerPool::NumWorkers() {
    sable::MutexLock lock(workersMutex);
    return workers.size();
}

size_t WorkerPool::NumUrgentWorkers() {
    sable::MutexLock lock(workersMutex);
    size_t count = 0;
    for (const auto& worker : workers) {
        if (worker->GetRTType() == SABLO_PRIORITY_REALTIME) {
            ++count;
        }
    }
    return count;
}

bool WorkerPool::HasBusyWorker() {
    return HasBusyWorker(false);
}

bool WorkerPool::HasBusyWorker(bool skipCallingThread) {
    bool busy = false;
    std::vector<unsigned int> idleSlots;
    {
        sable::MutexLock lock(workersMutex);
        for (size_t slot = 0; slot < workers.size(); ++slot) {
            Worker& worker = *workers[slot];
            if (worker.IsWorking() && !(skipCallingThread && worker.RunsOnCallingThread())) {
                busy = true;
            } else {
                idleSlots.push_back(static_cast<unsigned int>(slot));
            }
        }
    }
    // Given back after workersMutex is released: poolMutex comes first in the lock order.
    for (unsigned int slot : idleSlots) {
        FreeWorkerSlot(slot);
    }
    return busy;
}

void WorkerPool::WaitForBusyWorkers() {
    // The caller's own worker (Destroy from inside a task) is not waited for: it cannot
    // finish before Destroy returns.
    while (HasBusyWorker(true)) {
        struct timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_nsec += DESTROY_RECHECK_NS;
        if (deadline.tv_nsec >= 1000L * 1000 * 1000) {
            deadline.tv_sec += 1;
            deadline.tv_nsec -= 1000L * 1000 * 1000;
        }
        if (sem_timedwait(&destroySem, &deadline) == 0) {
            return;  // the last lent slot came back
        }
        // Interrupted or timed out: sweep again, which gives back the slots of workers that
        // have finished meanwhile.
    }
}

void WorkerPool::Destroy() {
    bindingChanges.fetch_add(1);  // workers go out of service: no binding may be trusted
    {
        sable::MutexLock lock(poolMutex);
        state->StopEvent(*this);
        // Callers waiting for a slot would otherwise wait for one that is never lent; woken,
        // they find the pool stopping.
        for (; ordinaryWaiters > 0; --ordinaryWaiters) {
            PostRetrying(&ordinarySem);
        }
        for (; urgentWaiters > 0; --urgentWaiters) {
            PostRetrying(&urgentSem);
        }
    }
    WaitForBusyWorkers();

    std::vector<Worker*> stopping;
    {
        sable::MutexLock lock(workersMutex);
        for (auto& worker : workers) {
            retired.push_back(std::move(worker));
        }
        workers.clear();
        outOfService = true;
        // Workers retired earlier are joined again: one that ran an earlier Destroy from its
        // own task could not be joined then.
        for (auto& worker : retired) {
            stopping.push_back(worker.get());
        }
    }
    // Joined with no lock held: a finishing task may still call back into the pool. Each
    // thread ends once the tasks its worker accepted have run.
    for (Worker* worker : stopping) {
        worker->Stop();
        if (!worker->RunsOnCallingThread()) {
            worker->ThreadJoin();
        }
    }
}
