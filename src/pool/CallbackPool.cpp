#include "pool/CallbackPool.h"

#include <errno.h>

#include "log/NuxSyslog.h"

namespace {

// 0 for the classes a task may run under; otherwise the scheduling table's refusal.
int CheckClass(SabloPriority prio) {
    if (prio == SABLO_PRIORITY_DEFAULT || prio == SABLO_PRIORITY_NORMAL ||
        prio == SABLO_PRIORITY_REALTIME) {
        return 0;
    }
    LOGE("No such SabloPriority, input is %d\n", static_cast<int>(prio));
    LOGE("Set worker attribute failed, ret = %d\n", -EINVAL);
    return -EINVAL;
}

}  // namespace

CallbackPool::CallbackPool(std::shared_ptr<WorkerPool> workerPool) : pool(std::move(workerPool)) {}

CallbackPool::~CallbackPool() {
    // Borrowed workers report back to this object: none may still be running when it goes.
    // Also after an earlier Destroy, which could not join a worker that called it from its
    // own callback.
    Destroy();
}

int CallbackPool::DropAsyncTask(const std::function<void()>& callback, SabloPriority prio) {
    if (!callback) {
        LOGE("Input parameter invalid\n");
        return -EINVAL;
    }
    if (destroyed.load()) {
        LOGW("Using thread pool after destroy.");
        return -EACCES;
    }
    int ret = CheckClass(prio);
    if (ret != 0) {
        return ret;
    }
    Worker* worker = prio == SABLO_PRIORITY_REALTIME ? pool->GetUrgentWorker() : pool->GetWorker();
    if (worker == nullptr) {
        // Destroy began while this caller waited for a worker.
        LOGW("Using thread pool after destroy.");
        return -EACCES;
    }
    // The worker's thread takes the task's class itself when it comes to run it.
    std::shared_ptr<const SableTask> task = std::make_shared<OneShotTask>(callback, *this, *worker);
    ret = worker->Assign(task, prio);
    if (ret != 0) {
        // Not queued (a worker stopped by a Destroy under way refuses it), so OnTaskFinished
        // will never give the worker back.
        pool->FreeWorker(*worker);
    }
    return ret;
}

int CallbackPool::DropTo(const std::string& name, const std::function<void()>& callback,
                         SabloPriority prio) {
    if (!callback) {
        LOGE("Input parameter invalid\n");
        return -EINVAL;
    }
    std::shared_ptr<const SableTask> task = std::make_shared<SyncTask>(callback);
    return DropTo(name, task, prio);
}

int CallbackPool::DropTo(const std::string& name, std::shared_ptr<const SableTask>& task,
                         SabloPriority prio) {
    if (!task) {
        LOGE("Input parameter invalid\n");
        return -EINVAL;
    }
    int ret = CheckClass(prio);
    if (ret != 0) {
        return ret;
    }
    int error = 0;
    Worker* worker = FindWorker(name, error);
    if (worker == nullptr) {
        return error;
    }
    // -EACCES from a worker stopped by Destroy: nothing is queued that would not run.
    return worker->Assign(task, prio);
}

Worker* CallbackPool::FindWorker(const std::string& name) {
    int error = 0;
    return FindWorker(name, error);
}

namespace {

// The worker this thread last found for a name, while no name of its pool has been unbound
// since (see WorkerPool::BindingChanges): a receive thread handing every turn of a pipe to the
// pipe's worker finds it without the pool's two locks and its name lookup.
struct NamedWorkerCache {
    uint64_t poolId = 0;
    uint64_t changes = 0;
    std::string name;
    Worker* worker = nullptr;
};
thread_local NamedWorkerCache namedWorkerCache __attribute__((tls_model("initial-exec")));

}  // namespace

Worker* CallbackPool::FindWorker(const std::string& name, int& error) {
    // Read before the lookup: an unbinding that comes after it leaves the entry stale, never
    // trusted.
    const uint64_t changes = pool->BindingChanges();
    NamedWorkerCache& cache = namedWorkerCache;
    if (cache.worker != nullptr && cache.poolId == pool->Id() && cache.changes == changes &&
        cache.name == name) {
        return cache.worker;
    }
    Worker* worker = pool->WorkerOf(name);
    if (worker != nullptr) {
        cache.poolId = pool->Id();
        cache.changes = changes;
        cache.name = name;
        cache.worker = worker;
        return worker;
    }
    sable::MutexLock lock(findMutex);
    // Another thread may have bound the name while this one waited for the lock.
    worker = pool->WorkerOf(name);
    if (worker != nullptr) {
        return worker;
    }
    int ret = pool->AllocWorker(name);
    if (ret != 0) {
        error = ret;
        return nullptr;
    }
    worker = pool->WorkerOf(name);
    if (worker == nullptr) {
        // Bound, but the workers were taken out of service (Destroy) or the name freed since.
        error = -EACCES;
    }
    return worker;
}

int CallbackPool::FreeWorker(const std::string& name) {
    return pool->FreeWorker(name);
}

void CallbackPool::OnTaskFinished(const SableTask& task) {
    const Worker* executor = task.GetExecutor();
    if (executor != nullptr) {
        pool->FreeWorker(*executor);
    }
}

void CallbackPool::Destroy() {
    pool->Destroy();
    destroyed.store(true);
}

size_t CallbackPool::NumWorkers() const {
    return pool->NumWorkers();
}

size_t CallbackPool::NumUrgentWorkers() const {
    return pool->NumUrgentWorkers();
}
