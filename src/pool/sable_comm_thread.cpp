#include "pool/sable_comm_thread.h"

#include <errno.h>
#include <sched.h>

#include "base/safe_c.h"
#include "log/NuxSyslog.h"

SabloPriority SableCommThread::ClassOf(pthread_t handle) {
    int policy = 0;
    struct sched_param param;
    memset_s(&param, sizeof(param), 0, sizeof(param));
    if (pthread_getschedparam(handle, &policy, &param) != 0) {
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
    if (!Joinable()) {
        // A default std::thread has no pthread handle to act on.
        LOGE("No thread to set SabloPriority %d on\n", static_cast<int>(prio));
        return -ESRCH;
    }
    pthread_t handle = thread.native_handle();
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
