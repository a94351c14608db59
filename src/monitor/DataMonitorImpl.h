// One receive thread with its own epoll set, watching the read FIFOs of the pipes of one
// monitor type.
#ifndef SABLE_MONITOR_DATA_MONITOR_IMPL_H
#define SABLE_MONITOR_DATA_MONITOR_IMPL_H

#include <sys/epoll.h>

#include <atomic>
#include <map>
#include <memory>
#include <vector>

#include "base/Mutex.h"
#include "pool/sable_comm_thread.h"
#include "sable_comm.h"

class SablePipeImpl;
namespace SableComm {
struct EpollTimeRecord;
}

// 0-2: pipes inside the host's domain, per priority class; 3-5: their cross-domain peers.
enum DataMonitorType : int32_t {
    DATA_MONITOR_LOCAL_DEFAULT = 0,
    DATA_MONITOR_LOCAL_NORMAL = 1,
    DATA_MONITOR_LOCAL_REALTIME = 2,
    DATA_MONITOR_REMOTE_DEFAULT = 3,
    DATA_MONITOR_REMOTE_NORMAL = 4,
    DATA_MONITOR_REMOTE_REALTIME = 5,
    DATA_MONITOR_TYPE_NUM = 6,
};

struct PipeIdxMgrImpl {
    int pipeIdx;
    int readFd;
    std::shared_ptr<SablePipeImpl> pipe;
    // The pipe's worker was full: its FIFO is out of the epoll set until it resumes.
    bool paused = false;
    // A thread waiting for its own response reads the FIFO (SetAside): it stays in the epoll
    // set edge-triggered on nothing but a hang-up, so new frames do not wake the receive thread.
    bool setAside = false;
};

class DataMonitorImpl {
  public:
    static constexpr int MAX_EVENTS = 1024;

    DataMonitorImpl() = default;
    ~DataMonitorImpl();
    DataMonitorImpl(const DataMonitorImpl&) = delete;
    DataMonitorImpl& operator=(const DataMonitorImpl&) = delete;

    // Creates the epoll set and the exit eventfd (registered under `eventIdx`, which no pipe
    // may use) and starts the receive thread once. Priority 0 leaves its scheduling as it is.
    // 0 or a negative errno (-ENOSPC when no thread could be started).
    int Init(const SabloPriority& priority, int eventIdx, const DataMonitorType& type);
    // Registers a pipe's read FIFO; an index already present keeps its entry (returns 0).
    int Add(int pipeIdx, int readFd, std::shared_ptr<SablePipeImpl> pipe);
    // Unregisters a pipe (never closes its descriptor); -ENOENT when unknown.
    int Remove(int pipeIdx);
    // Ends the receive thread and closes the descriptors; idempotent, never throws.
    void Destroy();
    // Any thread: the pipe `pipeIdx`, paused because its worker was full, may be read again.
    // The receive thread handles what the pipe has buffered and watches its FIFO again.
    void RequestResume(int pipeIdx);
    // Any thread: stops watching the FIFO of pipe `pipeIdx` for frames (a hang-up still wakes
    // the receive thread, which then finds the pipe taken). False, with nothing changed, when
    // the pipe is unknown, paused, set aside already or its FIFO is not the one registered.
    bool SetAside(int pipeIdx);
    // Any thread: watches the FIFO of a pipe set aside again. `paused`: the last turn paused it,
    // and it stays out of the epoll set while its pipe has not asked to resume since.
    // `buffered`: whole or partial frames are left in the pipe's buffer, which the receive
    // thread then handles without waiting for the FIFO.
    void TakeBack(int pipeIdx, bool paused, bool buffered);

    std::shared_ptr<SablePipeImpl> GetPipe(int pipeIdx) const REQUIRES(tableLock);
    int AddFd(int pipeIdx, int readFd);
    int RemoveFd(int readFd) const;
    int AddEventFd(int eventIdx);
    void AddNewItemToTable(int pipeIdx, int readFd, const std::shared_ptr<SablePipeImpl>& pipe)
        REQUIRES(tableLock);
    int Monitor(struct epoll_event* events, int maxEvents);
    // The same with an epoll time-out in milliseconds (-1: none).
    int Monitor(struct epoll_event* events, int maxEvents, int timeoutMs);
    void RecvRoutine();
    bool RecvRoutineStopped() const { return stopped.load(); }
    void NotifyDataMonitorExit() const;
    bool IsDataMonitorRemoteMode() const;
    DataMonitorType Type() const { return type; }
    size_t Size();

  private:
    // Index of the resume eventfd in the epoll set; pipe indices are positive.
    static constexpr int kWakeIdx = -1;

    // Receive thread: handles one readiness of pipe `pipeIdx` and keeps its state.
    // `again`: a pipe served again for frames it has buffered (not an epoll event), which is
    // tried again on the next round while another thread holds its read side.
    void Dispatch(const std::shared_ptr<SablePipeImpl>& pipe, int pipeIdx,
                  const struct epoll_event& event, SableComm::EpollTimeRecord& record,
                  bool again = false);
    void ResumePipes(SableComm::EpollTimeRecord& record);
    std::shared_ptr<SablePipeImpl> FindPipe(int pipeIdx);

    std::atomic<int> epollFd{-1};
    // Signals RequestResume to the receive thread; read by it.
    std::atomic<int> wakeFd{-1};
    // Guards resumeList; a leaf lock.
    sable::Mutex resumeLock;
    std::vector<int> resumeList GUARDED_BY(resumeLock);
    // Receive thread only: pipes with whole frames still buffered.
    std::vector<int> pendingPipes;
    std::atomic<int> eventFd{-1};
    SableCommThread thread;
    std::atomic<bool> stopped{false};
    // Guards the monitor table. Taken after the pipe table's monitor lock; never held while a
    // pipe handles an event.
    mutable sable::Mutex tableLock;
    std::map<int, PipeIdxMgrImpl> monitorTable GUARDED_BY(tableLock);
    const char* threadName = "sable_comm_monitor";
    DataMonitorType type = DATA_MONITOR_LOCAL_DEFAULT;
};

#endif
