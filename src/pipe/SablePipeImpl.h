// One connection to one remote process over a pair of FIFOs.
#ifndef SABLE_PIPE_SABLE_PIPE_IMPL_H
#define SABLE_PIPE_SABLE_PIPE_IMPL_H

#include <sys/epoll.h>
#include <time.h>

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/Mutex.h"
#include "monitor/DataMonitorImpl.h"
#include "pipe/FrameBuffer.h"
#include "pipe/MagicReceiver.h"
#include "pipe/OutRequestList.h"
#include "pipe/PayloadArena.h"
#include "sable_comm.h"

class InMessage;
class InRequest;
class OutRequest;
class OutMessage;
class PipeObserver;
namespace SableComm {
struct EpollTimeRecord;
}

// Shared-owned by the pipe table, the receive monitor and queued tasks.
//
// The end opened with mode 1 creates both FIFO files; the end opened with mode 0 waits for them.
// Each direction has its own file, named from its writer to its reader.
class SablePipeImpl : public MagicReceiver, public std::enable_shared_from_this<SablePipeImpl> {
  public:
    using Handler = std::function<void(int, SabloRequest*)>;

    // Throws std::out_of_range for a priority without a receive monitor (1).
    SablePipeImpl(const SabloAttr& attr, PipeObserver& observer);
    ~SablePipeImpl() override;
    SablePipeImpl(const SablePipeImpl&) = delete;
    SablePipeImpl& operator=(const SablePipeImpl&) = delete;

    // --- open ---
    // Opens both ends within `timeoutMs` (below 1: no limit for the waits). 0 or a negative
    // errno: -ETIMEDOUT, -ECANCELED (closed meanwhile), or the failing step's error.
    virtual int TimedOpen(int timeoutMs);
    // Path of the FIFO that `self` writes to `remote`; "" when it cannot be formed.
    virtual std::string AssembleFifoName(const std::string& self, const std::string& remote,
                                         SabloDomain domain) const;
    // The two names with a NUL between them, which no name can contain: two different pairs
    // never share a key.
    std::string GetTableKey() const {
        return AssembleTableKey(myName + std::string(1, '\0') + remoteName);
    }
    static std::string AssembleTableKey(const std::string& name) { return name; }
    std::string GetMyName() const { return myName; }
    const std::string& GetRemoteName() const { return remoteName; }
    int GetPipeFd() const { return fd.load(std::memory_order_relaxed); }
    void SetFd(int pipeFd) { fd.store(pipeFd, std::memory_order_relaxed); }
    DataMonitorType GetPipeDataMonitorType() const { return dataMonitorType; }
    SabloPriority GetPriority() const { return priority; }
    unsigned int AllocateId() { return nextId.fetch_add(1, std::memory_order_relaxed); }
    DataMonitorType InitDataMonitorType(SabloPriority prio, SabloDomain dom) const;
    int AppWaitForPipeReady(const std::string& fifoName, int timeoutMs) const;
    int OpenWriteFifo();
    int RetryOpenWriteFifo(unsigned int intervalUs);
    int PrepareWriteFifo(int timeoutMs);
    int OpenReadFd();
    int CreateAndOpenFifo(const std::string& name, int oflag);
    // Worker: waits (every 0.5 s, within the open time-out) for the creating end's write end.
    static void HandleServerOpen(std::shared_ptr<SablePipeImpl> pipe);
    // The creating end's write end could not be opened (`ret`): logged unless the pipe was
    // closed (-1), then the pipe is treated as closed by its remote.
    void OnWriteOpenFailed(int ret);

    // --- send and receive ---
    // Never blocks: -EAGAIN when the FIFO is full, -EPIPE when the reader has gone (no SIGPIPE
    // reaches the process, unless the calling thread blocks SIGPIPE itself and so gets it
    // pending), -EINVAL for an empty or oversized payload, or the error of opening the write
    // end (-ENXIO while the remote has no reader, -1 once the pipe is closed).
    int Send(const SabloRequest& req, int timeoutMs);
    int Send(const SabloResponse& rsp);
    int Send(OutMessage& msg);
    // Send without the opening, for a thread that publishes this pipe (sable::HazardGuard) for
    // the call: true with the result in `ret`, or false (nothing sent, nothing logged) while
    // the write end is not open. Takes no lock, so a thread that uses the pipe without a
    // reference may call it.
    bool SendIfOpen(OutMessage& msg, int& ret);
    int Write(OutMessage& msg);
    // The raw writer: one write of the `len` bytes of the frame in `buf`.
    int Write(const char* buf, size_t len, unsigned int msgId);
    // The same for a frame whose write time (SableComm::GetCurrentTime()) is `startUs`: a
    // write that ends 50 ms or more after it is logged as slow.
    int Write(const char* buf, size_t len, unsigned int msgId, uint64_t startUs);
    // Takes exactly `len` bytes of the read FIFO (through the receive buffer: see FrameBuffer);
    // the count, 0 at end of file, or a negative errno / -1 for a short read. Receive thread
    // only.
    int Recv(void* buf, size_t len) override;
    std::unique_ptr<InMessage> RecvMessage(SableComm::EpollTimeRecord& record);
    // Reads and dispatches one frame; false when none could be read.
    bool HandleMessage(SableComm::EpollTimeRecord& record);

    // What the receive thread is to do with the pipe after HandleEvent.
    enum class ReceiveResult {
        DONE,    // nothing more buffered; wait for the FIFO's next event
        MORE,    // whole frames are still buffered: call again soon, without an event
        PAUSED,  // the pipe's worker is full: stop watching the FIFO until the pipe asks to
                 // resume (PipeObserver::OnPipeResume); its frames wait in the FIFO
        BUSY,    // a thread waiting for its response reads the FIFO itself (ReadOwnResponse):
                 // nothing was read; the FIFO is watched again once that thread is done
    };
    // Receive thread: one read of what the FIFO holds, then every whole frame it brought (at
    // most FRAMES_PER_TURN, so one busy pipe cannot hold up the others); on a hang-up every
    // frame left, then the remote close. Log lines and results per frame are those of a reader
    // that reads the FIFO field by field.
    ReceiveResult HandleEvent(const struct epoll_event& event, SableComm::EpollTimeRecord& record);
    static constexpr int FRAMES_PER_TURN = 1024;
    // Requests queued on the pipe's own worker and not yet finished at which the receive side
    // pauses, and at which it resumes; below the worker's queue capacity (1000), so that a
    // request that was read always finds room.
    static constexpr uint32_t BACKLOG_PAUSE = 992;
    static constexpr uint32_t BACKLOG_RESUME = 496;
    // Requests of one turn are handed to the worker together: one task, and on a busy CPU one
    // wake-up of the worker per turn rather than one per slice of the turn.
    static constexpr size_t BATCH_MAX = FRAMES_PER_TURN;

    // --- dispatch ---
    virtual void ProcessMessage(InMessage& msg);
    void ProcessRequest(InMessage& msg);
    virtual void HandleRequest(std::shared_ptr<InRequest> request, const Handler& handler);
    void CacheRequest(const std::shared_ptr<InRequest>& request);
    void ProcessCachedRequests(const Handler& handler);
    std::list<std::shared_ptr<InRequest>> GetInReqList();
    void ProcessResponse(InMessage& msg);
    void RemoveRequest(const SabloRequest& request);
    void OnRequestCancelled(const SabloRequest& request) { RemoveRequest(request); }
    void OnCallbackFinished();
    Handler GetServiceHandler() const { return serviceHandler; }
    const Handler& ServiceHandler() const { return serviceHandler; }
    // Worker thread: runs `handler` for `request` (null: the remote has gone, after which the
    // pipe is closed), then gives back what the request held of an isConcur pipe's limit.
    void RunRequest(SabloRequest* request, const Handler& handler, int pipeFd);
    // Worker thread: `count` requests queued on the pipe's own worker have finished; the
    // receive side resumes when it had paused for them.
    void OnQueuedRequestsDone(uint32_t count);
    // Diagnostics: callbacks of an isConcur pipe queued or running; requests still waiting for
    // their response.
    uint32_t GetCallbacksInFlight() const {
        return callbacksInFlight.load(std::memory_order_relaxed);
    }
    size_t GetOutReqCount() { return outReqList.Size(); }

    // --- synchronous requests ---
    // Assigns `request.id` and records a waiter for its response. 0, -ENOMEM or -EPIPE.
    int RecordOutRequest(SabloRequest& request, SabloResponse& response, int timeoutMs);
    // Blocks until the response came (0), the budget ran out (-ETIMEDOUT) or the pipe closed
    // (-EPIPE). 0 at once when the entry is gone already: the response came first, or the pipe
    // was closed first, which this form cannot tell apart (see the next one).
    int WaitForResponse(const SabloRequest& request, int timeoutMs);
    // The same for the caller of RecordOutRequest, who passes the response record it gave
    // there: an entry that is already gone gives 0 only when the response is in the record,
    // -EPIPE when a close cancelled the request before this call looked.
    int WaitForResponse(const SabloRequest& request, const SabloResponse& response, int timeoutMs);
    // RecordOutRequest that also hands back the recorded entry (on success), and the wait on
    // that entry itself: the same results and lines as the forms above, without the lookups.
    int RecordOutRequest(SabloRequest& request, SabloResponse& response, int timeoutMs,
                         std::shared_ptr<OutRequest>& entry);
    int WaitForResponse(const SabloRequest& request, OutRequest& entry, int timeoutMs);
    // For a synchronous RPC, before its request is sent: the calling thread takes over the
    // pipe's read side from the receive thread, so that the response wakes it directly rather
    // than through the receive thread (one thread hand-off less per RPC). False, with nothing
    // changed, when another thread has it, the receive thread is reading the pipe, the pipe
    // has paused or holds unread frames, or the receive thread cannot set it aside.
    bool TakeReadSide();
    // After TakeReadSide and a successful send: reads and handles every frame the FIFO brings,
    // exactly as the receive thread would, until `entry` is released, the budget runs out or
    // the FIFO hangs up; then hands the read side back and finishes as WaitForResponse does.
    // A close from another thread ends it at once.
    int ReadOwnResponse(const SabloRequest& request, OutRequest& entry, int timeoutMs);
    // Hands the read side back without reading (the send failed).
    void ReturnReadSide() { ReturnReadSide(ReceiveResult::DONE); }

    // --- close ---
    // Closes both descriptors and removes the FIFO files this end owns; idempotent.
    void CloseFd();
    // CloseFd, then releases every waiting synchronous request.
    void DeInitPipe();
    void HandleRemoteClosed();
    void OnRemoteClosedFinished();
    // Async-signal context: only unlinks the two FIFO files.
    void ExceptionHandler();
    bool IsCallbackHandleRemoteClose() const { return isCallbackHandleRemoteClose.load(); }

    // Bookkeeping of the table (under its lock): opens of this pipe in progress, and whether an
    // open succeeded, so that its number is in a caller's hands.
    void BeginOpen() { openers.fetch_add(1); }
    int EndOpen() { return openers.fetch_sub(1) - 1; }
    int Openers() const { return openers.load(); }
    void MarkHandedOut() { handedOut.store(true); }
    // Whether the table holds the pipe under its number (set and cleared under the table's
    // lock): a number looked up earlier still names this pipe exactly while it does.
    void SetInTable(bool in) { inTable.store(in); }
    bool InTable() const { return inTable.load(); }
    bool HandedOut() const { return handedOut.load(); }

    int GetReadFd() const { return readFd.load(std::memory_order_relaxed); }
    int GetWriteFd() const { return writeFd.load(std::memory_order_relaxed); }
    int GetCloseFdAction() const { return closeFdAction.load(); }
    // The receive side stopped for a full worker and has not been asked to resume yet.
    bool ReceivePaused() const { return receivePaused.load(); }
    const std::string& GetWriteFifoName() const { return writeFifoName; }
    const std::string& GetReadFifoName() const { return readFifoName; }

  protected:
    // Logs a failed open step as TimedOpen does and returns `ret`.
    int OpenStepFailed(int ret);
    enum class ReadStatus { FRAME, DROPPED, EMPTY, END };
    // Reads one frame and dispatches it. Between frames an empty FIFO (EMPTY) or its end (END)
    // is nothing to report.
    ReadStatus ReadOne(SableComm::EpollTimeRecord& record);
    // True when the receive side is to stop (the pipe's worker is full); see BACKLOG_PAUSE.
    bool PauseReceive();
    // Receive thread: queues the requests gathered during this turn as one task.
    void FlushBatch();
    // This pipe's requests go into the batch of the present turn (see ProcessRequest).
    bool BatchesRequests() const;
    // Receive thread: reads and handles frames for one turn (see HandleEvent).
    ReceiveResult Turn(bool hangUp, SableComm::EpollTimeRecord& record);
    // A send's work once the write end is open, on the number `wfd` the caller read while
    // publishing the pipe: the frame of `msg` (WriteFrame) or the bytes of one (WriteBytes)
    // written in one piece, a slow write reported, failures logged.
    int WriteFrame(OutMessage& msg, int wfd);
    int WriteBytes(int wfd, const char* buf, size_t len, unsigned int msgId, uint64_t startUs);
    // WriteBytes' rare outcomes, out of its way: a write slower than 50 ms; a write that did
    // not take the whole frame (`n`: the count or -errno). WriteFailed returns the send's code.
    __attribute__((cold, noinline)) void ReportSlowWrite(int wfd, unsigned int msgId,
                                                         uint64_t startUs, const timespec& end);
    __attribute__((cold, noinline)) int WriteFailed(long n, size_t len);
    // Re-forms both FIFO names after a change of `myName`.
    void FormFifoNames();
    int WaitForEntry(const SabloRequest& request, const SabloResponse* response, int timeoutMs);
    // Logs a failed wait's result; returns it.
    int WaitResult(const SabloRequest& request, int ret, int timeoutMs);
    // Gives the read side back to the receive thread after `last`, the result of the last
    // turn (PAUSED: the pipe stays out of the epoll set until it resumes).
    void ReturnReadSide(ReceiveResult last);

    // Descriptors are atomics so lock-free readers (logs, checks) stay race-free; they are only
    // changed under fdMutex. The read descriptor is only used for I/O under fdMutex; a frame
    // write publishes the pipe instead (sable::HazardGuard), and the close of the write
    // descriptor waits until no thread publishes it.
    std::atomic<int> writeFd{-1};
    std::atomic<int> readFd{-1};
    std::string myName;
    std::string remoteName;
    std::string targetCon;
    std::atomic<int> fd{-1};
    // 0 constructed, 1 open begun, -1 descriptors closed (never back).
    std::atomic<int> closeFdAction{0};
    PipeObserver& observer;
    Handler callback;
    int timeout;
    int mode;
    unsigned int gid;
    SabloPriority priority;
    int pid;
    int isConcur;
    SabloDomain domain;
    int reserved = 0;
    DataMonitorType dataMonitorType;
    std::string writeFifoName;
    std::string readFifoName;
    std::atomic<unsigned int> nextId{0};
    std::atomic<int> openers{0};
    std::atomic<bool> handedOut{false};
    std::atomic<bool> inTable{false};

    // Serialises TimedOpen; taken first, before any other lock of the pipe.
    std::timed_mutex openMutex;
    // Guards the descriptors' life: opening and closing take it exclusively, a frame read takes
    // it shared, so the read descriptor is never closed under a running read.
    // Taken after openMutex (a std::timed_mutex, which the lock analysis does not know, so the
    // order is stated here only).
    sable::SharedMutex fdMutex;
    // Serialises remote-close handling; taken before fdMutex (CloseFd runs under it).
    std::mutex remoteCloseMutex;

    // Request side.
    Handler serviceHandler;   // fixed at construction
    sable::Mutex cacheMutex;  // guards the cache; held while cached requests are queued
    std::list<std::shared_ptr<InRequest>> inReqList GUARDED_BY(cacheMutex);
    uint64_t inReqCount GUARDED_BY(cacheMutex) = 0;
    std::atomic<uint32_t> callbacksInFlight{0};
    // Requests queued on the pipe's own worker and not finished (not isConcur pipes), and
    // whether the receive side stopped reading for them.
    std::atomic<uint32_t> backlog{0};
    std::atomic<bool> receivePaused{false};
    // Who reads the FIFO: nobody (READ_FREE), the receive thread during a turn, or a thread
    // waiting for its own response (TakeReadSide). Taking it (acquire) and giving it back
    // (release) hand over inBuffer and batch, which only the holder touches.
    enum : int { READ_FREE, READ_MONITOR, READ_OWN };
    std::atomic<int> readOwner{READ_FREE};
    // Read and not yet parsed; the read side's holder only.
    FrameBuffer inBuffer;
    // Requests read during the present turn, not yet queued; receive thread only.
    // Their payloads lie in `payloads`. A turn of one request (an RPC's) leaves the storage
    // here; a larger turn's goes with its task, and room for up to 64 requests is made again.
    std::vector<SabloRequest> batch;
    // The payloads of the batch's requests; the read side's holder only.
    PayloadArena payloads;
    std::atomic<bool> isCallbackHandleRemoteClose{false};
    // Guards the out-request list against the response path; taken before the list's own
    // mutex and before a request's mutex.
    sable::Mutex outReqMutex;
    OutRequestList outReqList;
};

#endif
