#include "pool/sable_comm_thread.h"

#include <errno.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <memory>
#include <mutex>

#include "base/safe_c.h"
#include "log/NuxSyslog.h"

namespace {

// Threads let go of and not yet joined. A leaf lock: nothing else is taken under it, and
// nobody joins while holding it.
std::mutex& EndedMutex() {
    static std::mutex* mu = new std::mutex;  // never destroyed: threads end during exit
    return *mu;
}
SableCommThread::EndedList& EndedThreads() {
    static auto* list = new SableCommThread::EndedList;
    return *list;
}

size_t PageSize() {
    static const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return size;
}

void UnmapStack(void* stack, size_t bytes) {
    if (stack != nullptr) {
        munmap(stack, bytes);
    }
}

bool Settable(int policy) {
    return policy == SCHED_OTHER || policy == SCHED_BATCH || policy == SCHED_IDLE ||
           policy == SCHED_FIFO || policy == SCHED_RR;
}

SchedSetting CaptureOrdinary() {
    // The main thread's (its id is the process's): threads of the application that raise
    // themselves to real-time, among them possibly the one that starts the library, are not
    // the process's ordinary threads.
    pid_t main = getpid();
    int policy = sched_getscheduler(main);
    struct sched_param param;
    memset_s(&param, sizeof(param), 0, sizeof(param));
    if (policy < 0 || sched_getparam(main, &param) != 0) {
        return SchedSetting{SCHED_OTHER, 0};
    }
    policy &= ~SCHED_RESET_ON_FORK;
    if (!Settable(policy)) {
        return SchedSetting{SCHED_OTHER, 0};
    }
    return SchedSetting{policy, param.sched_priority};
}

}  // namespace

SableCommThread::~SableCommThread() {
    if (!held) {
        return;
    }
    // Not joinable from here; it is joined by whoever reaps ended threads after it has ended.
    std::lock_guard<std::mutex> lock(EndedMutex());
    EndedThreads().push_back(Ended{handle, stack, stackBytes, false});
}

void* SableCommThread::Trampoline(void* arg) {
    std::unique_ptr<std::function<void()>> body(static_cast<std::function<void()>*>(arg));
    sable::BlockSigpipeForThread();
    (*body)();
    return nullptr;
}

void SableCommThread::Launch(std::function<void()> body, size_t stackSize) {
    pthread_attr_t attr;
    int ret = pthread_attr_init(&attr);
    if (ret != 0) {
        throw std::system_error(ret, std::generic_category(), "pthread_attr_init");
    }
    void* mapped = nullptr;
    size_t mappedBytes = 0;
    if (stackSize != 0) {
        // A stack of our own, so that it is unmapped when the thread is joined: the C library
        // keeps up to tens of MB of the stacks of ended threads cached for later threads.
        const size_t page = PageSize();
        size_t usable = (stackSize + page - 1) / page * page;
        mappedBytes = usable + page;  // the lowest page is the guard
        mapped = mmap(nullptr, mappedBytes, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
        if (mapped == MAP_FAILED) {
            int err = errno;
            pthread_attr_destroy(&attr);
            throw std::system_error(err, std::generic_category(), "mmap thread stack");
        }
        mprotect(mapped, page, PROT_NONE);
        pthread_attr_setstack(&attr, static_cast<char*>(mapped) + page, usable);
    }
    // Started with the scheduling of the process's ordinary threads, not its creator's.
    const SchedSetting& ordinary = OrdinarySetting();
    struct sched_param param;
    memset_s(&param, sizeof(param), 0, sizeof(param));
    param.sched_priority = ordinary.priority;
    pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&attr, ordinary.policy);
    pthread_attr_setschedparam(&attr, &param);

    auto* arg = new std::function<void()>(std::move(body));
    pthread_t created;
    ret = pthread_create(&created, &attr, &SableCommThread::Trampoline, arg);
    if (ret == EPERM) {
        // The ordinary setting is real-time and this thread may no longer give it: inherit.
        pthread_attr_setinheritsched(&attr, PTHREAD_INHERIT_SCHED);
        ret = pthread_create(&created, &attr, &SableCommThread::Trampoline, arg);
    }
    pthread_attr_destroy(&attr);
    if (ret != 0) {
        delete arg;
        UnmapStack(mapped, mappedBytes);
        throw std::system_error(ret, std::generic_category(), "pthread_create");
    }
    handle = created;
    held = true;
    stack = mapped;
    stackBytes = mappedBytes;
    rtType = ClassOf(handle);
}

void SableCommThread::Join() {
    int ret = pthread_join(handle, nullptr);
    if (ret != 0) {
        throw std::system_error(ret, std::generic_category(), "pthread_join");
    }
    UnmapStack(stack, stackBytes);
    held = false;
    stack = nullptr;
    stackBytes = 0;
}

bool SableCommThread::IsCallingThread() const {
    return held && pthread_equal(handle, pthread_self()) != 0;
}

SableCommThread::EndedList SableCommThread::Release() {
    EndedList earlier;
    if (!held) {
        return earlier;
    }
    held = false;
    Ended self{handle, stack, stackBytes, true};
    stack = nullptr;
    stackBytes = 0;
    // Taking the earlier ones and adding itself in one step orders the ending threads: each
    // joins only threads that ended before it, so no two ever wait for each other.
    std::lock_guard<std::mutex> lock(EndedMutex());
    EndedList& ended = EndedThreads();
    earlier.swap(ended);
    ended.push_back(self);
    return earlier;
}

SableCommThread::Ended SableCommThread::Take() {
    Ended taken{handle, stack, stackBytes, true};
    held = false;
    stack = nullptr;
    stackBytes = 0;
    return taken;
}

void SableCommThread::JoinTaken(const Ended& thread) {
    int ret = pthread_join(thread.handle, nullptr);
    if (ret != 0) {
        throw std::system_error(ret, std::generic_category(), "pthread_join");
    }
    UnmapStack(thread.stack, thread.stackBytes);
}

void SableCommThread::JoinEnded(EndedList& list) {
    EndedList running;
    for (const Ended& thread : list) {
        int ret = thread.ending ? pthread_join(thread.handle, nullptr)
                                : pthread_tryjoin_np(thread.handle, nullptr);
        if (ret == 0) {
            UnmapStack(thread.stack, thread.stackBytes);
        } else {
            running.push_back(thread);
        }
    }
    list.clear();
    if (!running.empty()) {
        std::lock_guard<std::mutex> lock(EndedMutex());
        EndedList& ended = EndedThreads();
        ended.insert(ended.end(), running.begin(), running.end());
    }
}

void SableCommThread::ReapEnded() {
    EndedList taken;
    {
        std::lock_guard<std::mutex> lock(EndedMutex());
        taken.swap(EndedThreads());
    }
    EndedList running;
    for (const Ended& thread : taken) {
        if (pthread_tryjoin_np(thread.handle, nullptr) == 0) {
            UnmapStack(thread.stack, thread.stackBytes);
        } else {
            running.push_back(thread);
        }
    }
    if (!running.empty()) {
        std::lock_guard<std::mutex> lock(EndedMutex());
        EndedList& ended = EndedThreads();
        ended.insert(ended.end(), running.begin(), running.end());
    }
}

const SchedSetting& SableCommThread::OrdinarySetting() {
    static const SchedSetting setting = CaptureOrdinary();
    return setting;
}

bool SableCommThread::SettingOf(SabloPriority prio, SchedSetting& setting) {
    switch (prio) {
        case SABLO_PRIORITY_DEFAULT:
            setting = OrdinarySetting();
            return true;
        case SABLO_PRIORITY_NORMAL:
            setting = SchedSetting{SCHED_OTHER, 0};
            return true;
        case SABLO_PRIORITY_REALTIME:
            setting = SchedSetting{SCHED_FIFO, REALTIME_PRIORITY};
            return true;
        default:
            return false;
    }
}

int SableCommThread::ApplyToSelf(const SchedSetting& setting, SabloPriority prio) {
    struct sched_param param;
    memset_s(&param, sizeof(param), 0, sizeof(param));
    param.sched_priority = setting.priority;
    pthread_t self = pthread_self();
    int ret = pthread_setschedparam(self, setting.policy, &param);
    if (ret != 0) {
        LOGE("Pthread_setschedparam failed for thread(%lu), setSchedParam %d ret(%d).\n",
             static_cast<unsigned long>(self), static_cast<int>(prio), ret);
    }
    return ret;
}

SabloPriority SableCommThread::ClassOf(pthread_t thread) {
    int policy = 0;
    struct sched_param param;
    memset_s(&param, sizeof(param), 0, sizeof(param));
    if (pthread_getschedparam(thread, &policy, &param) != 0) {
        return SABLO_PRIORITY_DEFAULT;
    }
    if (policy == SCHED_OTHER) {
        return SABLO_PRIORITY_NORMAL;
    }
    if (policy == SCHED_FIFO && param.sched_priority == REALTIME_PRIORITY) {
        return SABLO_PRIORITY_REALTIME;
    }
    return SABLO_PRIORITY_DEFAULT;
}

int SableCommThread::SetRTType(const SabloPriority& prio) {
    struct sched_param param;
    memset_s(&param, sizeof(param), 0, sizeof(param));
    int policy;
    // The value is checked before the stored one is compared: a class outside the table is
    // refused even when it happens to be stored (a thread of unknown scheduling stores 0).
    switch (prio) {
        case SABLO_PRIORITY_NORMAL:
            policy = SCHED_OTHER;
            param.sched_priority = 0;
            break;
        case SABLO_PRIORITY_REALTIME:
            policy = SCHED_FIFO;
            param.sched_priority = REALTIME_PRIORITY;
            break;
        default:
            LOGE("No such SabloPriority, input is %d\n", static_cast<int>(prio));
            return -EINVAL;
    }
    if (prio == rtType) {
        return 0;
    }
    if (!held) {
        LOGE("No thread to set SabloPriority %d on\n", static_cast<int>(prio));
        return -ESRCH;
    }
    int ret = pthread_setschedparam(handle, policy, &param);
    if (ret != 0) {
        // Deliberately not an error for the caller: without the right to real-time scheduling
        // the thread keeps running at its present class.
        LOGE("Pthread_setschedparam failed for thread(%lu), setSchedParam %d ret(%d).\n",
             static_cast<unsigned long>(handle), static_cast<int>(prio), ret);
        return 0;
    }
    rtType = prio;
    return 0;
}
