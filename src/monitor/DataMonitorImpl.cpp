#include "monitor/DataMonitorImpl.h"

#include <errno.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <system_error>

#include "fifo/nux_fifo.h"
#include "log/NuxSyslog.h"
#include "log/run_time_record.h"
#include "pipe/SablePipeImpl.h"

DataMonitorImpl::~DataMonitorImpl() {
    Destroy();
}

int DataMonitorImpl::Init(const SabloPriority& priority, int eventIdx,
                          const DataMonitorType& monitorType) {
    type = monitorType;
    if (epollFd.load() < 0) {
        int fd = epoll_create1(EPOLL_CLOEXEC);
        if (fd < 0) {
            int savedErrno = errno;
            LOGE("Create epoll instance failed, err = %d, errno = %d\n", fd, savedErrno);
            Destroy();
            return -savedErrno;
        }
        epollFd.store(fd);
        int ret = AddEventFd(eventIdx);
        if (ret == 0) {
            int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
            if (wake < 0) {
                ret = -errno;
                LOGE("Create eventFd failed, errno = %d\n", -ret);
            } else {
                wakeFd.store(wake);
                ret = AddFdToEpoll(fd, wake, kWakeIdx, EPOLLIN);
            }
        }
        if (ret != 0) {
            LOGE("Create epoll instance failed, err = %d\n", ret);
            Destroy();
            return ret;
        }
    }
    stopped.store(false);
    if (thread.Joinable()) {
        return 0;
    }
    try {
        thread.Create(&DataMonitorImpl::RecvRoutine, this);
    } catch (const std::system_error& e) {
        LOGE("start RecThread failed, system error: %s.\n", e.what());
        Destroy();
        return -ENOSPC;
    } catch (...) {
        LOGE("start RecThread failed.\n");
        Destroy();
        return -ENOSPC;
    }
    // Priority 0 asks for no scheduling change at all.
    if (priority != SABLO_PRIORITY_DEFAULT) {
        int ret = thread.SetRTType(priority);
        if (ret != 0) {
            LOGE("Set thread priority failed, type = %d, ret = %d\n", priority, ret);
            Destroy();
            return ret;
        }
    }
    return 0;
}

int DataMonitorImpl::AddEventFd(int eventIdx) {
    int fd = eventfd(0, EFD_CLOEXEC);
    if (fd < 0) {
        int savedErrno = errno;
        LOGE("Create eventFd failed, errno = %d\n", savedErrno);
        return -savedErrno;
    }
    eventFd.store(fd);
    return AddFdToEpoll(epollFd.load(), fd, eventIdx, EPOLLIN);
}

int DataMonitorImpl::AddFd(int pipeIdx, int readFd) {
    return AddFdToEpoll(epollFd.load(), readFd, pipeIdx, EPOLLIN);
}

int DataMonitorImpl::RemoveFd(int readFd) const {
    return RemoveFdFromEpoll(epollFd.load(), readFd);
}

void DataMonitorImpl::AddNewItemToTable(int pipeIdx, int readFd,
                                        const std::shared_ptr<SablePipeImpl>& pipe) {
    monitorTable.emplace(pipeIdx, PipeIdxMgrImpl{pipeIdx, readFd, pipe});
}

int DataMonitorImpl::Add(int pipeIdx, int readFd, std::shared_ptr<SablePipeImpl> pipe) {
    sable::MutexLock lock(tableLock);
    if (monitorTable.count(pipeIdx) != 0) {
        return 0;
    }
    int ret = AddFd(pipeIdx, readFd);
    if (ret != 0) {
        LOGE("DataMonitorImpl AddFd failed. pipeIdx = %d, readFd = %d.\n", pipeIdx, readFd);
        return ret;
    }
    AddNewItemToTable(pipeIdx, readFd, pipe);
    LOGI("DataMonitorImpl Add. pipeIdx = %d, readFd = %d.\n", pipeIdx, readFd);
    return 0;
}

int DataMonitorImpl::Remove(int pipeIdx) {
    std::shared_ptr<SablePipeImpl> released;  // dropped after the lock: a pipe's destructor
                                              // must not run under the monitor table lock
    {
        sable::MutexLock lock(tableLock);
        auto it = monitorTable.find(pipeIdx);
        if (it == monitorTable.end()) {
            LOGI("Find pipe(%d) in minitorTable unfinished\n", pipeIdx);
            return -ENOENT;
        }
        LOGI("Find pipe(%d) pipeReadFd(%d) in minitorTable.\n", pipeIdx, it->second.readFd);
        // A paused pipe's FIFO is out of the epoll set already.
        if (!it->second.paused && RemoveFd(it->second.readFd) != 0) {
            LOGE("DataMonitorImpl RemoveFd unfinished. pipeIdx = %d, readFd = %d.\n", pipeIdx,
                 it->second.readFd);
        }
        released = std::move(it->second.pipe);
        monitorTable.erase(it);
    }
    return 0;
}

size_t DataMonitorImpl::Size() {
    sable::MutexLock lock(tableLock);
    return monitorTable.size();
}

std::shared_ptr<SablePipeImpl> DataMonitorImpl::GetPipe(int pipeIdx) const {
    auto it = monitorTable.find(pipeIdx);
    if (it == monitorTable.end()) {
        LOGE("Find pipe(%d) in minitorTable unfinished\n", pipeIdx);
        return nullptr;
    }
    if (!it->second.pipe) {
        LOGE("Find pipe(%d) is nullptr in DataMonitorImpl::GetPipe.\n", pipeIdx);
    }
    return it->second.pipe;
}

int DataMonitorImpl::Monitor(struct epoll_event* events, int maxEvents) {
    return Monitor(events, maxEvents, -1);
}

int DataMonitorImpl::Monitor(struct epoll_event* events, int maxEvents, int timeoutMs) {
    int oldState = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &oldState);
    int n = epoll_wait(epollFd.load(), events, maxEvents, timeoutMs);
    int savedErrno = errno;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &oldState);
    errno = savedErrno;
    return n;
}

void DataMonitorImpl::RecvRoutine() {
    if (prctl(PR_SET_NAME, threadName) != 0) {
        LOGI("Set monitor thread name unfinished, errno = %d\n", errno);
    }
    KorCoreSetaffinity();
    int oldState = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &oldState);
    LOGI("DataMonitorImpl RecvRoutine fired\n");

    // One array for the life of the thread: no allocation per wake-up.
    std::unique_ptr<struct epoll_event[]> events(new struct epoll_event[MAX_EVENTS]);
    SableComm::EpollTimeRecord record;
    record.loopStartTime = static_cast<int64_t>(SableComm::GetCurrentTime());

    std::vector<int> pending;
    while (!stopped.load()) {
        // Pipes with frames still buffered are served again without waiting.
        int n = Monitor(events.get(), MAX_EVENTS, pendingPipes.empty() ? -1 : 0);
        int savedErrno = errno;
        LOGI("Monitor enter, nfds = %d.", n);
        if (stopped.load()) {
            LOGI("Monitor exiting\n");
            break;
        }
        pending.swap(pendingPipes);
        if (n < 0 || n > MAX_EVENTS || (n == 0 && pending.empty())) {
            if (n < 1 && savedErrno == EINTR) {
                continue;
            }
            LOGE("Monitor failed, ret = %d, errno(%d): %s", n, savedErrno, strerror(savedErrno));
            continue;
        }
        record.eventCount = n;
        for (int i = 0; i < n; ++i) {
            int pipeIdx = events[i].data.fd;
            record.eventNum = i + 1;
            if (pipeIdx == kWakeIdx) {
                ResumePipes(record);
                continue;
            }
            LOGI("Monitor recived event, i = %lu, pipeIdx = %d.", static_cast<unsigned long>(i),
                 pipeIdx);
            std::shared_ptr<SablePipeImpl> pipe;
            {
                sable::MutexLock lock(tableLock);
                pipe = GetPipe(pipeIdx);
            }
            if (!pipe) {
                // The pipe went between the wait and the lookup. The lock is released first:
                // Remove takes it again and it is not recursive.
                LOGE(
                    "DataMonitorImpl RecvRoutine pipe == nullptr, i=%lu, pipeIdx=%d, "
                    "events=%u.\n",
                    static_cast<unsigned long>(i), pipeIdx, events[i].events);
                Remove(pipeIdx);
                continue;
            }
            Dispatch(pipe, pipeIdx, events[i], record);
        }
        for (int pipeIdx : pending) {
            if (std::shared_ptr<SablePipeImpl> pipe = FindPipe(pipeIdx)) {
                struct epoll_event more {};
                more.events = EPOLLIN;
                more.data.fd = pipeIdx;
                Dispatch(pipe, pipeIdx, more, record, true);
            }
        }
        pending.clear();
    }
    LOGN("DataMonitorImpl RecvRoutine end\n");
}

std::shared_ptr<SablePipeImpl> DataMonitorImpl::FindPipe(int pipeIdx) {
    sable::MutexLock lock(tableLock);
    auto it = monitorTable.find(pipeIdx);
    return it != monitorTable.end() ? it->second.pipe : nullptr;
}

void DataMonitorImpl::Dispatch(const std::shared_ptr<SablePipeImpl>& pipe, int pipeIdx,
                               const struct epoll_event& event,
                               SableComm::EpollTimeRecord& record, bool again) {
    switch (pipe->HandleEvent(event, record)) {
        case SablePipeImpl::ReceiveResult::BUSY:
            // Held by a thread reading its own response. Its FIFO is watched again when that
            // thread is done, and an event comes then; buffered frames are tried next round.
            if (again && std::find(pendingPipes.begin(), pendingPipes.end(), pipeIdx) ==
                             pendingPipes.end()) {
                pendingPipes.push_back(pipeIdx);
            }
            break;
        case SablePipeImpl::ReceiveResult::DONE:
            if ((event.events & EPOLLHUP) != 0) {
                Remove(pipeIdx);
            }
            break;
        case SablePipeImpl::ReceiveResult::MORE:
            if (std::find(pendingPipes.begin(), pendingPipes.end(), pipeIdx) ==
                pendingPipes.end()) {
                pendingPipes.push_back(pipeIdx);
            }
            break;
        case SablePipeImpl::ReceiveResult::PAUSED: {
            // Its frames wait in the FIFO (the writer meets a full FIFO) until RequestResume.
            sable::MutexLock lock(tableLock);
            auto it = monitorTable.find(pipeIdx);
            if (it != monitorTable.end() && !it->second.paused) {
                it->second.paused = true;
                RemoveFd(it->second.readFd);
            }
            break;
        }
    }
}

void DataMonitorImpl::RequestResume(int pipeIdx) {
    {
        sable::MutexLock lock(resumeLock);
        resumeList.push_back(pipeIdx);
    }
    uint64_t one = 1;
    if (write(wakeFd.load(), &one, sizeof(one)) != static_cast<ssize_t>(sizeof(one))) {
        // Only a full counter can refuse, and then the receive thread is woken already.
    }
}

void DataMonitorImpl::ResumePipes(SableComm::EpollTimeRecord& record) {
    uint64_t count = 0;
    if (read(wakeFd.load(), &count, sizeof(count)) < 0) {
        // Nothing to read: the resumes were taken by an earlier wake-up.
    }
    std::vector<int> resumed;
    {
        sable::MutexLock lock(resumeLock);
        resumed.swap(resumeList);
    }
    for (int pipeIdx : resumed) {
        std::shared_ptr<SablePipeImpl> pipe = FindPipe(pipeIdx);
        if (!pipe) {
            continue;  // closed while paused
        }
        // What was left in the pipe's buffer comes first, then the FIFO is watched again.
        struct epoll_event resume {};
        resume.events = EPOLLIN;
        resume.data.fd = pipeIdx;
        SablePipeImpl::ReceiveResult result = pipe->HandleEvent(resume, record);
        sable::MutexLock lock(tableLock);
        auto it = monitorTable.find(pipeIdx);
        if (it == monitorTable.end()) {
            continue;
        }
        if (!it->second.paused) {
            // Served for what a reader of its own response left buffered.
            if (result == SablePipeImpl::ReceiveResult::MORE) {
                pendingPipes.push_back(pipeIdx);
            }
            continue;
        }
        if (result == SablePipeImpl::ReceiveResult::PAUSED) {
            continue;  // full again: stays out until the next resume
        }
        it->second.paused = false;
        if (AddFd(pipeIdx, it->second.readFd) != 0) {
            LOGE("DataMonitorImpl AddFd failed. pipeIdx = %d, readFd = %d.\n", pipeIdx,
                 it->second.readFd);
        }
        if (result == SablePipeImpl::ReceiveResult::MORE) {
            pendingPipes.push_back(pipeIdx);
        }
    }
}

bool DataMonitorImpl::SetAside(int pipeIdx) {
    sable::MutexLock lock(tableLock);
    auto it = monitorTable.find(pipeIdx);
    if (it == monitorTable.end() || it->second.paused || it->second.setAside ||
        !it->second.pipe || it->second.pipe->GetReadFd() != it->second.readFd) {
        return false;
    }
    // Under the table lock no other descriptor can be registered under this number, so a
    // FIFO closed meanwhile only makes the change fail.
    struct epoll_event ev {};
    ev.events = EPOLLET;
    ev.data.fd = pipeIdx;
    if (epoll_ctl(epollFd.load(), EPOLL_CTL_MOD, it->second.readFd, &ev) != 0) {
        return false;
    }
    it->second.setAside = true;
    return true;
}

void DataMonitorImpl::TakeBack(int pipeIdx, bool paused, bool buffered) {
    {
        sable::MutexLock lock(tableLock);
        auto it = monitorTable.find(pipeIdx);
        if (it == monitorTable.end() || !it->second.setAside) {
            return;
        }
        it->second.setAside = false;
        if (paused && it->second.pipe && it->second.pipe->ReceivePaused()) {
            // As the receive thread pauses a pipe; its resume comes through RequestResume.
            it->second.paused = true;
            RemoveFd(it->second.readFd);
            return;
        }
        struct epoll_event ev {};
        ev.events = EPOLLIN;
        ev.data.fd = pipeIdx;
        // Level-triggered again: frames or a hang-up that came meanwhile are reported at once.
        if (epoll_ctl(epollFd.load(), EPOLL_CTL_MOD, it->second.readFd, &ev) != 0) {
            return;  // closed meanwhile: its removal is under way
        }
    }
    if (buffered) {
        RequestResume(pipeIdx);
    }
}

void DataMonitorImpl::NotifyDataMonitorExit() const {
    uint64_t one = 1;
    ssize_t ret = write(eventFd.load(), &one, sizeof(one));
    if (ret == static_cast<ssize_t>(sizeof(one))) {
        LOGI("NotifyDataMonitorExit (EVENTS_IN) success: ret = %ld.\n", static_cast<long>(ret));
    } else {
        LOGE("NotifyDataMonitorExit (EVENTS_IN) failed: ret = %ld, errno = %d.\n",
             static_cast<long>(ret), errno);
    }
}

void DataMonitorImpl::Destroy() {
    stopped.store(true);
    // The receive thread is woken through the eventfd and joined before the epoll set is
    // closed: closing it first would let its number be reused by another open while the thread
    // may still be about to wait on it.
    if (eventFd.load() >= 0) {
        NotifyDataMonitorExit();
    }
    LOGI("Waiting recevie thread to join\n");
    if (thread.Joinable()) {
        LOGD("start recv thread join\n");
        try {
            thread.Join();
        } catch (const std::system_error& e) {
            LOGE("Join recv routine failed, system error: %s.\n", e.what());
        } catch (...) {
            LOGE("Join recv routine failed.\n");
        }
    }
    int fd = epollFd.exchange(-1);
    if (fd >= 0) {
        close(fd);
    }
    fd = eventFd.exchange(-1);
    if (fd >= 0) {
        close(fd);
    }
    fd = wakeFd.exchange(-1);
    if (fd >= 0) {
        close(fd);
    }
    std::map<int, PipeIdxMgrImpl> released;  // pipes are let go outside the lock
    {
        sable::MutexLock lock(tableLock);
        released.swap(monitorTable);
    }
}

bool DataMonitorImpl::IsDataMonitorRemoteMode() const {
    return type == DATA_MONITOR_REMOTE_DEFAULT || type == DATA_MONITOR_REMOTE_NORMAL ||
           type == DATA_MONITOR_REMOTE_REALTIME;
}
