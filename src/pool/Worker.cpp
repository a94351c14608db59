#include "pool/Worker.h"

#include <errno.h>
#include <sys/prctl.h>

#include <system_error>
#include <typeinfo>

#include "env/EnvManager.h"
#include "log/NuxSyslog.h"

namespace {

bool IsTableClass(SabloPriority prio) {
    return prio == SABLO_PRIORITY_NORMAL || prio == SABLO_PRIORITY_REALTIME;
}

}  // namespace

Worker::Worker(std::string workerName, std::chrono::milliseconds idle)
    : name(std::move(workerName)), idlePeriod(idle) {}

Worker::~Worker() {
    StopRoutine();
    ThreadJoin();
}

bool Worker::Start() {
    running.store(true);
    exited.store(false);
    try {
        sable::MutexLock lock(startMutex);
        if (running.load()) {
            thread.Create(&Worker::Routine, this);
            // A new thread starts with its creator's scheduling; give it the worker's own.
            SabloPriority wanted = rtType.load(std::memory_order_relaxed);
            if (IsTableClass(wanted)) {
                thread.SetRTType(wanted);
            }
        }
    } catch (const std::system_error& e) {
        LOGE("start thread failed, system error: %s.\n", e.what());
        exited.store(true);
        return false;
    } catch (...) {
        LOGE("start thread failed\n");
        exited.store(true);
        return false;
    }
    LOGI("start thread\n");
    return true;
}

bool Worker::Restart() {
    // The ended thread must be joined before a new one can be held.
    ThreadJoin();
    if (!Start()) {
        LOGE("restart thread failed\n");
        return false;
    }
    return true;
}

int Worker::Assign(TaskPtr& task) {
    {
        sable::MutexLock lock(workerMutex);
        if (exited.load()) {
            LOGI("restart thread by assign\n");
            if (!Restart()) {
                return -1;
            }
        }
        if (tasks.size() >= CAPACITY) {
            LOGW_R("Tasks exceeds worker's capacity(%lu)\n", static_cast<unsigned long>(CAPACITY));
            return -EBUSY;
        }
        tasks.push_back(std::move(task));
    }
    // Posted after the unlock: the thread it wakes takes this mutex first thing, and on a busy
    // CPU would otherwise preempt this thread only to block on it. A running thread may take
    // the task before the post; the post then finds the queue empty and is simply passed.
    sem.Post();
    LOGI("task posted to worker=%s", name.c_str());
    return 0;
}

int Worker::SetRTType(const SabloPriority& prio) {
    sable::MutexLock lock(workerMutex);
    if (exited.load()) {
        LOGI("restart thread by set rt type\n");
        if (!Restart()) {
            return -1;
        }
    }
    if (IsTableClass(prio)) {
        rtType.store(prio, std::memory_order_relaxed);
    }
    sable::MutexLock startLock(startMutex);
    return thread.SetRTType(prio);
}

Worker::TaskQueue Worker::Drain() {
    TaskQueue dropped;
    sable::MutexLock lock(workerMutex);
    dropped.swap(tasks);
    return dropped;
}

void Worker::Clear() {
    // Destroyed here, after the worker mutex is released.
    TaskQueue dropped = Drain();
}

void Worker::StopRoutine() {
    {
        // Under the worker mutex so that a thread ending by idle time-out at this moment
        // cannot mark the stopped worker as exited (which would let an Assign restart it).
        sable::MutexLock lock(workerMutex);
        running.store(false);
        exited.store(false);
    }
    sem.Post();
}

void Worker::Stop() {
    Clear();
    StopRoutine();
}

void Worker::ThreadJoin() {
    sable::MutexLock lock(startMutex);
    if (!thread.Joinable()) {
        return;
    }
    try {
        thread.Join();
    } catch (const std::system_error&) {
        LOGE("Join worker failed\n");
    }
}

size_t Worker::WaitingTasks() {
    sable::MutexLock lock(workerMutex);
    return tasks.size();
}

bool Worker::IsWorking() {
    sable::MutexLock lock(workerMutex);
    return currentTask != nullptr;
}

bool Worker::RunsOnCallingThread() {
    sable::MutexLock lock(startMutex);
    return thread.GetId() == std::this_thread::get_id();
}

Worker::TaskPtr Worker::GetNormalTask() {
    if (tasks.empty()) {
        return nullptr;
    }
    TaskPtr task = std::move(tasks.front());
    tasks.pop_front();
    return task;
}

bool Worker::ExitCheck() const {
    return tasks.empty();
}

void Worker::NameThread() {
    // The kernel keeps the first 15 characters.
    std::string threadName = std::string(THREAD_NAME_PREFIX) + EnvManager::ProcName();
    if (prctl(PR_SET_NAME, threadName.c_str()) != 0) {
        LOGI("Set worker thread name unfinished, errno = %d\n", errno);
    }
}

void Worker::Routine() {
    NameThread();
    KorCoreSetaffinity();
    while (running.load()) {
        LOGI("worker=%s sleep!", name.c_str());
        int ret = sem.WaitFor(idlePeriod) ? 0 : -ETIMEDOUT;
        LOGI("worker=%s awake!", name.c_str());
        if (ret == -ETIMEDOUT) {
            sable::MutexLock lock(workerMutex);
            if (ExitCheck()) {
                currentTask.reset();
                exited.store(running.load());
                LOGI("thread exit after waitting 60s, no task to process\n");
                return;
            }
        }
        RunTasks();
    }
}

void Worker::RunTasks() {
    for (;;) {
        TaskPtr task;
        {
            sable::MutexLock lock(workerMutex);
            task = GetNormalTask();
            if (!task) {
                return;
            }
            currentTask = task;
        }
        const SableTask& current = *task;
        LOGD("Calling %s\n", typeid(current).name());
        current();
        LOGD("Finish %s\n", typeid(current).name());
        {
            sable::MutexLock lock(workerMutex);
            currentTask.reset();
            LOGI("worker=%s task finish!", name.c_str());
        }
        // The last reference usually goes here, with no lock held: the task's captures may run
        // any destructor.
        task.reset();
    }
}
