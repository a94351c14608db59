#include "pool/Worker.h"

#include <errno.h>
#include <sys/prctl.h>

#include <algorithm>
#include <system_error>
#include <typeinfo>

#include "env/EnvManager.h"
#include "log/NuxSyslog.h"

namespace {

bool IsTableClass(SabloPriority prio) {
    return prio == SABLO_PRIORITY_NORMAL || prio == SABLO_PRIORITY_REALTIME;
}

bool SameSetting(const SchedSetting& a, const SchedSetting& b) {
    return a.policy == b.policy && a.priority == b.priority;
}

}  // namespace

size_t Worker::StackSize() {
    static const size_t bytes = [] {
        size_t kb = EnvManager::GetWorkerStackKb();
        if (kb == 0) {
            kb = DEFAULT_STACK_KB;
        }
        kb = std::max(MIN_STACK_KB, std::min(MAX_STACK_KB, kb));
        return kb * 1024;
    }();
    return bytes;
}

Worker::Worker(std::string workerName, std::chrono::milliseconds idle)
    : Worker(std::move(workerName), idle, StackSize()) {}

Worker::Worker(std::string workerName, std::chrono::milliseconds idle, size_t stackBytes)
    : name(std::move(workerName)), idlePeriod(idle), stackSize(stackBytes) {}

Worker::~Worker() {
    StopRoutine();
    ThreadJoin();
    SableCommThread::ReapEnded();
}

bool Worker::Start() {
    running.store(true);
    exited.store(false);
    // Threads of ended workers that are still mapped are let go of first.
    SableCommThread::ReapEnded();
    try {
        sable::MutexLock lock(startMutex);
        if (running.load()) {
            thread.Create(&Worker::Routine, this, stackSize);
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

int Worker::Assign(TaskPtr& task, SabloPriority prio) {
    SchedSetting setting;
    if (!SableCommThread::SettingOf(prio, setting)) {
        LOGE("No such SabloPriority, input is %d\n", static_cast<int>(prio));
        return -EINVAL;
    }
    {
        sable::MutexLock lock(workerMutex);
        if (!running.load()) {
            // Stopped: its loop may already have ended, and nothing would run the task.
            LOGW_R("Task refused by stopped worker=%s\n", name.c_str());
            return -EACCES;
        }
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
        tasks.push_back(QueuedTask{std::move(task), prio});
        if (IsTableClass(prio)) {
            rtType.store(prio, std::memory_order_relaxed);
        }
    }
    // Posted after the unlock: the thread it wakes takes this mutex first thing, and on a busy
    // CPU would otherwise preempt this thread only to block on it. A running thread may take
    // the task before the post; the post then finds the queue empty and is simply passed.
    sem.Post();
    LOGI("task posted to worker=%s", name.c_str());
    return 0;
}

int Worker::SetRTType(const SabloPriority& prio) {
    if (!IsTableClass(prio)) {
        LOGE("No such SabloPriority, input is %d\n", static_cast<int>(prio));
        return -EINVAL;
    }
    sable::MutexLock lock(workerMutex);
    if (exited.load()) {
        LOGI("restart thread by set rt type\n");
        if (!Restart()) {
            return -1;
        }
    }
    // The thread is not switched from here: it may be running a task of another class. It
    // switches itself before the next task of this class.
    rtType.store(prio, std::memory_order_relaxed);
    return 0;
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
    StopRoutine();
}

void Worker::ThreadJoin() {
    sable::MutexLock lock(startMutex);
    if (!thread.Joinable()) {
        return;
    }
    if (thread.IsCallingThread()) {
        LOGE("Join worker failed\n");
        return;
    }
    // Joined outside startMutex: a thread ending idle at this moment takes it to let go of
    // itself, and would otherwise wait for this join while this join waits for it.
    SableCommThread::Ended taken = thread.Take();
    lock.Unlock();
    try {
        SableCommThread::JoinTaken(taken);
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
    return thread.IsCallingThread();
}

Worker::QueuedTask Worker::GetNormalTask() {
    if (tasks.empty()) {
        return QueuedTask{nullptr, SABLO_PRIORITY_DEFAULT};
    }
    QueuedTask task = std::move(tasks.front());
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
    runSetting = SchedSetting{-1, -1};
    while (running.load()) {
        LOGI("worker=%s sleep!", name.c_str());
        int ret = sem.WaitFor(idlePeriod) ? 0 : -ETIMEDOUT;
        LOGI("worker=%s awake!", name.c_str());
        if (ret == -ETIMEDOUT) {
            SableCommThread::EndedList earlier;
            sable::MutexLock lock(workerMutex);
            if (ExitCheck()) {
                currentTask.reset();
                exited.store(running.load());
                LOGI("thread exit after waitting 60s, no task to process\n");
                {
                    // Let go of by the worker now, so that its stack goes as soon as the
                    // thread has ended instead of at the next restart.
                    sable::MutexLock startLock(startMutex);
                    earlier = thread.Release();
                }
                lock.Unlock();
                // From here on the worker is not touched: it may be restarted or destroyed.
                SableCommThread::JoinEnded(earlier);
                return;
            }
        }
        RunTasks();
    }
    // Stopped: what was accepted before the stop still runs (Assign refuses from the stop on).
    RunTasks();
}

void Worker::SwitchTo(SabloPriority prio) {
    SchedSetting wanted;
    if (!SableCommThread::SettingOf(prio, wanted) || SameSetting(wanted, runSetting)) {
        return;
    }
    if (SableCommThread::ApplyToSelf(wanted, prio) == 0) {
        runSetting = wanted;
    }
    // Refused (no right to real-time scheduling): the thread keeps the setting it had, and
    // the next task of this class tries again.
}

void Worker::RunTasks() {
    for (;;) {
        QueuedTask next;
        {
            sable::MutexLock lock(workerMutex);
            next = GetNormalTask();
            if (!next.task) {
                return;
            }
            currentTask = next.task;
        }
        TaskPtr task = std::move(next.task);
        SwitchTo(next.prio);
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
