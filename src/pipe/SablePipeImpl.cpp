#include "pipe/SablePipeImpl.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <system_error>

#include "api/sable_comm_internal.h"
#include "base/Futex.h"
#include "base/Hazard.h"
#include "base/RawWrite.h"
#include "base/SigpipeHold.h"
#include "base/UniqueFd.h"
#include "env/EnvManager.h"
#include "fifo/nux_fifo.h"
#include "log/NuxSyslog.h"
#include "log/run_time_record.h"
#include "pipe/InRequest.h"
#include "pipe/Message.h"
#include "pipe/MessageFrame.h"
#include "pipe/OutRequest.h"
#include "pipe/RequestTask.h"
#include "pipe/TimedLock.h"
#include "table/PipeObserver.h"

namespace {

constexpr int kNameMax = 255;
constexpr unsigned int kFirstBackoffUs = 40;
constexpr unsigned int kMaxBackoffUs = 20000;
constexpr uint64_t kSlowStepMs = 50;
constexpr int kLongRunModeMs = 18000000;  // five hours
constexpr uint32_t kMaxConcurrentCallbacks = 200;
constexpr size_t kBatchKept = 64;  // requests a pipe's batch keeps room for between turns

// The pipe whose turn the calling receive thread is in: its requests are gathered and queued
// together at the end of the turn.
// (Initial-exec: read directly, not through __tls_get_addr, on every frame.)
thread_local SablePipeImpl* batchingPipe __attribute__((tls_model("initial-exec"))) = nullptr;
// The receive thread's read buffer, lent to the pipe whose turn it is.
thread_local std::unique_ptr<uint8_t[]> turnBuffer __attribute__((tls_model("initial-exec")));
thread_local bool turnBufferLent __attribute__((tls_model("initial-exec"))) = false;

// One pipe's receive turn on the calling thread: the thread's read buffer is the pipe's for
// the turn, and the pipe's requests are batched.
class TurnOf {
  public:
    TurnOf(SablePipeImpl* pipe, FrameBuffer& frames) : previous(batchingPipe), buffer(frames) {
        batchingPipe = pipe;
        if (!turnBufferLent) {
            if (!turnBuffer) {
                turnBuffer.reset(new (std::nothrow) uint8_t[FrameBuffer::CAPACITY]);
            }
            if (turnBuffer) {
                buffer.Lend(turnBuffer.get());
                turnBufferLent = lent = true;
            }
        }
    }
    ~TurnOf() {
        if (lent) {
            buffer.Reclaim();
            turnBufferLent = false;
        }
        batchingPipe = previous;
    }
    TurnOf(const TurnOf&) = delete;
    TurnOf& operator=(const TurnOf&) = delete;

  private:
    SablePipeImpl* previous;
    FrameBuffer& buffer;
    bool lent = false;
};

// Budget in microseconds of a wait of `timeoutMs`; 0 means no limit.
uint64_t BudgetUs(int timeoutMs) {
    return timeoutMs < 1 ? 0 : static_cast<uint64_t>(timeoutMs) * 1000;
}

}  // namespace

SablePipeImpl::SablePipeImpl(const SabloAttr& attr, PipeObserver& pipeObserver)
    : myName(attr.selfName != nullptr && attr.selfName[0] != '\0' ? attr.selfName
                                                                  : EnvManager::ProcName()),
      remoteName(attr.targetName != nullptr ? attr.targetName : ""),
      targetCon(attr.targetCon != nullptr ? attr.targetCon : ""),
      observer(pipeObserver),
      callback(attr.callback),
      timeout(attr.timeout),
      mode(attr.mode),
      gid(attr.gid),
      priority(attr.priority),
      pid(attr.targetPid),
      isConcur(attr.isConcur ? 1 : 0),
      domain(attr.domain),
      dataMonitorType(InitDataMonitorType(attr.priority, attr.domain)),
      serviceHandler(attr.callback) {
    FormFifoNames();
}

SablePipeImpl::~SablePipeImpl() {
    // A sender that found this pipe in its thread's cache and published it is done with it.
    sable::WaitUntilUnused(this);
    CloseFd();
    try {
        outReqList.Disable();
    } catch (const std::system_error& e) {
        LOGI("outReqList disable unfinished, system error: %s\n", e.what());
    } catch (...) {
        LOGI("outReqList disable unfinished\n");
    }
}

void SablePipeImpl::FormFifoNames() {
    writeFifoName = AssembleFifoName(myName, remoteName, domain);
    readFifoName = AssembleFifoName(remoteName, myName, domain);
}

// ---------------------------------------------------------------- open

std::string SablePipeImpl::AssembleFifoName(const std::string& self, const std::string& remote,
                                            SabloDomain dom) const {
    std::string prefix = EnvManager::FifoPrefix();
    if (IsElmDomainPipe(dom)) {
        prefix = EnvManager::ElmFifoDirPrefix() + prefix;
    }
    if (prefix.empty()) {
        LOGE("FIFO_PREFIX is NULL\n");
        return "";
    }
    std::string result = prefix + self + "__to__" + remote;
    if (result.size() >= static_cast<size_t>(kNameMax)) {
        LOGE("file name %s's lenth %lu is more than system NAME_MAX %d\n", result.c_str(),
             static_cast<unsigned long>(result.size()), kNameMax);
        return "";
    }
    return result;
}

DataMonitorType SablePipeImpl::InitDataMonitorType(SabloPriority prio, SabloDomain dom) const {
    // Priority 1 has no row: the lookup throws std::out_of_range, which callers must avoid.
    static const std::map<SabloPriority, DataMonitorType> kRemote = {
        {SABLO_PRIORITY_DEFAULT, DATA_MONITOR_REMOTE_DEFAULT},
        {SABLO_PRIORITY_REALTIME, DATA_MONITOR_REMOTE_REALTIME}};
    static const std::map<SabloPriority, DataMonitorType> kLocal = {
        {SABLO_PRIORITY_DEFAULT, DATA_MONITOR_LOCAL_DEFAULT},
        {SABLO_PRIORITY_REALTIME, DATA_MONITOR_LOCAL_REALTIME}};
    if (IsCrossDomainPipe(dom) || GetCurrDomain() == SABLO_DOMAIN_ELM) {
        return kRemote.at(prio);
    }
    return kLocal.at(prio);
}

int SablePipeImpl::AppWaitForPipeReady(const std::string& fifoName, int timeoutMs) const {
    const uint64_t budget = BudgetUs(timeoutMs);
    uint64_t elapsed = 0;
    unsigned int sleepUs = kFirstBackoffUs;
    for (uint64_t misses = 1;; ++misses) {
        if (access(fifoName.c_str(), F_OK) == 0) {
            return 0;
        }
        if (closeFdAction.load() == -1) {
            return -ECANCELED;  // closed while waiting: nobody wants this pipe any more
        }
        if (misses % 1000 == 0) {
            LOGW("AppWaitForPipeReady fifoName(%s) not exist, remote(%s)\n", fifoName.c_str(),
                 remoteName.c_str());
        }
        if (budget != 0 && budget - elapsed < sleepUs) {
            usleep(static_cast<useconds_t>(budget - elapsed));
            return access(fifoName.c_str(), F_OK) == 0 ? 0 : -ETIMEDOUT;
        }
        usleep(sleepUs);
        elapsed += sleepUs;
        sleepUs = std::min(sleepUs * 2, kMaxBackoffUs);
    }
}

int SablePipeImpl::OpenWriteFifo() {
    sable::WriterLock lock(fdMutex);
    int current = writeFd.load();
    if (current > 0) {
        return current;
    }
    if (closeFdAction.load() == -1) {
        LOGI("entering closeFdAction\n");
        return -1;
    }
    int ret = OpenFifo(writeFifoName, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (ret >= 0) {
        writeFd.store(ret);
        LOGI("open writeFdNB(%d) of file(%s) success for remote(%s)\n", ret, writeFifoName.c_str(),
             remoteName.c_str());
    }
    return ret;
}

int SablePipeImpl::RetryOpenWriteFifo(unsigned int intervalUs) {
    const uint64_t budget = BudgetUs(timeout);
    const bool backoff = intervalUs == 1;
    unsigned int sleepUs = backoff ? kFirstBackoffUs : intervalUs;
    uint64_t elapsed = 0;
    while (true) {
        int ret = OpenWriteFifo();
        if (ret != -ENOENT && ret != -ENXIO && ret != -EMFILE) {
            return ret;
        }
        if (budget != 0 && budget - elapsed < sleepUs) {
            usleep(static_cast<useconds_t>(budget - elapsed));
            break;
        }
        elapsed += sleepUs;
        usleep(sleepUs);
        if (budget != 0 && elapsed >= budget) {
            break;
        }
        if (backoff) {
            sleepUs = std::min(sleepUs * 2, kMaxBackoffUs);
        }
    }
    int ret = OpenWriteFifo();
    return ret == -ENXIO ? -ETIMEDOUT : ret;
}

namespace {

int TimedCreateFifo(const std::string& what, const std::string& name, unsigned int gid, int pid,
                    SabloDomain domain, const std::string& targetCon) {
    SableComm::RunTimeRecord record(kSlowStepMs);
    record.RecordCurrentTime();
    int ret = CreateFifo(name, gid, pid, domain, targetCon);
    if (record.WhetherTotalTimeHasTimeout()) {
        record.RunTimePrint(what + name + " takes more than " + "50" + "ms");
    }
    if (ret != 0) {
        LOGE("Create FIFO (%s) failed.\n", name.c_str());
    }
    return ret;
}

}  // namespace

int SablePipeImpl::PrepareWriteFifo(int timeoutMs) {
    if (myName.empty()) {
        LOGE("env variables error, myName = %s\n", myName.c_str());
        return -EINVAL;
    }
    if (writeFifoName.empty()) {
        writeFifoName = AssembleFifoName(myName, remoteName, domain);
        if (writeFifoName.empty()) {
            LOGE("set go name fail\n");
            return -EINVAL;
        }
    }
    if (mode != SABLO_MODE_JOIN) {
        // The remote has no reader yet: the write end is opened later, on a worker or at the
        // first send.
        return TimedCreateFifo("CreateWriteFifo ", writeFifoName, gid, pid, domain, targetCon);
    }
    int ret = AppWaitForPipeReady(writeFifoName, timeoutMs);
    if (ret != 0) {
        LOGW("Wait write FIFO (%s) timeout. ret = %d.\n", writeFifoName.c_str(), ret);
        return ret;
    }
    ret = RetryOpenWriteFifo(1);
    if (ret == -1 && closeFdAction.load() == -1) {
        ret = -ECANCELED;  // closed while retrying: the same answer as a close during the wait
    }
    if (ret < 0) {
        LOGE("OpenWriteFifo (%s) failed. ret = %d.\n", writeFifoName.c_str(), ret);
        return ret;
    }
    return 0;
}

int SablePipeImpl::OpenReadFd() {
    if (myName.empty()) {
        LOGE("env variables error, myName = %s\n", myName.c_str());
    }
    if (readFifoName.empty()) {
        readFifoName = AssembleFifoName(remoteName, myName, domain);
        if (readFifoName.empty()) {
            LOGE("set read name fail\n");
            return -EINVAL;
        }
    }
    return CreateAndOpenFifo(readFifoName, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

int SablePipeImpl::CreateAndOpenFifo(const std::string& name, int oflag) {
    int ret = 0;
    if (mode != SABLO_MODE_JOIN) {
        ret = TimedCreateFifo("CreateReadFifo ", name, gid, pid, domain, targetCon);
    } else {
        ret = AppWaitForPipeReady(name, timeout);
        if (ret != 0) {
            LOGE("Wait FIFO (%s) failed.\n", name.c_str());
        }
    }
    if (ret != 0) {
        return ret;
    }
    ret = OpenFifo(name, oflag);
    if (ret < 0) {
        LOGE("Open fifoFd with flag(%d) of fifo(%s) failed, err = %d, remote is %s\n", oflag,
             name.c_str(), ret, remoteName.c_str());
        return ret;
    }
    LOGI("open fifoFd(%d) with flag(%d) of file(%s) success for remote(%s)\n", ret, oflag,
         name.c_str(), remoteName.c_str());
    return ret;
}

int SablePipeImpl::TimedOpen(int timeoutMs) {
    LOGI("begin Timed Open readFd(%d) remote(%s), closeAction=(%d)\n", readFd.load(),
         remoteName.c_str(), closeFdAction.load());
    // Before the pipe's first write: follow what the application did with SIGPIPE meanwhile.
    sable::CheckSigpipeDisposition();
    TimedLock lock(&openMutex, timeoutMs);
    int ret = lock.Lock();
    if (ret != 0) {
        LOGI("Open readFd(%d) remote(%s) timed out\n", readFd.load(), remoteName.c_str());
        return ret;
    }
    {
        sable::WriterLock fdLock(fdMutex);
        if (closeFdAction.load() == -1) {
            // Closed before (or while) this open got its turn: a closed pipe stays closed.
            LOGI("Open pipe to %s, err %d (%s).\n", remoteName.c_str(), -ECANCELED,
                 strerror(ECANCELED));
            return -ECANCELED;
        }
        closeFdAction.store(1);
    }
    if (readFd.load() >= 0) {
        LOGI("Already open pipe(%d) readFd(%d) to remote(%s)\n", fd.load(), readFd.load(),
             remoteName.c_str());
        return 0;
    }
    // A positive budget used up while waiting for the open mutex leaves 0, which the waits
    // below would read as "no limit": keep at least one millisecond instead.
    int remaining = lock.GetRemainingTime();
    if (timeoutMs > 0 && remaining < 1) {
        remaining = 1;
    }
    int rfd = -1;
    if (mode != SABLO_MODE_JOIN) {
        // The creating end makes both files and opens its read end without waiting for
        // anything, under the descriptor lock: a close either comes first (then nothing is
        // made) or finds the read end open and removes both files.
        sable::WriterLock fdLock(fdMutex);
        ret = closeFdAction.load() == -1 ? -ECANCELED : PrepareWriteFifo(remaining);
        if (ret < 0) {
            fdLock.Unlock();
            return OpenStepFailed(ret);
        }
        rfd = OpenReadFd();
        if (rfd >= 0) {
            readFd.store(rfd);
        }
    } else {
        ret = PrepareWriteFifo(remaining);
        if (ret < 0) {
            return OpenStepFailed(ret);
        }
        rfd = OpenReadFd();
        if (rfd >= 0) {
            sable::WriterLock fdLock(fdMutex);
            if (closeFdAction.load() == -1) {
                close(rfd);
                return -ECANCELED;
            }
            readFd.store(rfd);
        }
    }
    if (rfd < 0) {
        LOGE("Open pipe readFd failed, ret = %d, pipeName = %s.\n", rfd, readFifoName.c_str());
        observer.OnOpenFailed(fd.load());
        return rfd;
    }
    outReqList.Enable();
    ret = observer.OnPipeOpened(rfd, fd.load(), shared_from_this());
    if (ret == -ECANCELED) {
        return OpenStepFailed(ret);  // closed meanwhile: nothing is wrong
    }
    if (ret != 0) {
        LOGE("Notify observer to add readFd(%d) failed, remote(%s).\n", rfd, remoteName.c_str());
        return ret;
    }
    if (mode != SABLO_MODE_JOIN && timeout > 0) {
        std::shared_ptr<SablePipeImpl> self = shared_from_this();
        ret = observer.OnWaitForWriter(self, timeout);
        if (ret == -ENOSYS) {
            ret = observer.OnAsyncRequestIn([self]() { HandleServerOpen(self); }, priority);
        }
        if (ret != 0) {
            LOGE("Observer handle request failed(%d) for readFd(%d) remote(%s)\n", ret, rfd,
                 remoteName.c_str());
        }
    }
    LOGI("readFd(%d) with writeFd(%d), remote %s established\n", rfd, writeFd.load(),
         remoteName.c_str());
    return 0;
}

int SablePipeImpl::OpenStepFailed(int ret) {
    if (ret == -ETIMEDOUT || ret == -ECANCELED) {
        LOGI("Open pipe to %s, err %d (%s).\n", remoteName.c_str(), ret, strerror(-ret));
    } else {
        LOGE("Open pipe to %s failed, err = %d, errno = %d.\n", remoteName.c_str(), ret, errno);
    }
    return ret;
}

void SablePipeImpl::HandleServerOpen(std::shared_ptr<SablePipeImpl> pipe) {
    int ret = pipe->RetryOpenWriteFifo(500000);
    if (ret < 0) {
        pipe->OnWriteOpenFailed(ret);
    }
}

void SablePipeImpl::OnWriteOpenFailed(int ret) {
    // -1: the pipe was closed meanwhile, which is nothing to report.
    if (ret != -1) {
        LOGE("Self=>Remote:%s=>%s open pipe failed, ret=%d.\n", myName.c_str(), remoteName.c_str(),
             ret);
    }
    HandleRemoteClosed();
}

// ---------------------------------------------------------------- send and receive

int SablePipeImpl::Send(const SabloRequest& req, int timeoutMs) {
    OutMessage msg(req.id, req, timeoutMs);
    return Send(msg);
}

int SablePipeImpl::Send(const SabloResponse& rsp) {
    OutMessage msg(rsp.id, rsp);
    return Send(msg);
}

// The frame of `msg` built on the stack and written to `wfd` in one piece (a frame is at most
// 4032 bytes). Inline, as is WriteBytes: a send is this and the write itself, and a call per
// step costs a plain send a measurable share of its time.
inline __attribute__((always_inline)) int SablePipeImpl::WriteFrame(OutMessage& msg, int wfd) {
    char frame[Message::MAX_PAYLOAD_LEN + 32];
    size_t len = 0;
    const uint64_t startUs = SableComm::GetCurrentTime();
    int ret = BuildFrame(msg, frame, sizeof(frame), len, startUs);
    if (ret == 0) {
        ret = wfd < 0 ? -EPIPE : WriteBytes(wfd, frame, len, msg.id, startUs);
    }
    LOGD(
        "readFd(%d) writeFd(%d) send msg to %s success, id(%u) type(%u) len(%u) "
        "checksum(%u)\n",
        readFd.load(), writeFd.load(), remoteName.c_str(), msg.id, msg.type, msg.payloadLen,
        msg.checksum);
    return ret;
}

inline __attribute__((always_inline)) int SablePipeImpl::WriteBytes(int wfd, const char* buf,
                                                                    size_t len,
                                                                    unsigned int msgId,
                                                                    uint64_t startUs) {
    // One write: a frame is below the FIFO's atomic-write size, so it goes whole or not at all.
    // The system call itself, not the C library's write: a frame write is no cancellation
    // point, so a caller's thread is never cancelled half-way through a send.
    long n = 0;
    {
        sable::SigpipeHold sigpipe(static_cast<int64_t>(startUs / 1000));
        n = sable::RawWrite(wfd, buf, len);
        if (n == -EPIPE) {
            sigpipe.Discard();
        }
    }
    // Only a write slower than 50 ms is reported: measured from the frame's own write time to
    // one read of the coarse clock (a few ms late at most: fine enough, and far cheaper).
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &end);
    const uint64_t endUs = SableComm::Microseconds(end);
    if (__builtin_expect(endUs > startUs && endUs - startUs >= kSlowStepMs * 1000, 0)) {
        ReportSlowWrite(wfd, msgId, startUs, end);
    }
    if (__builtin_expect(n != static_cast<long>(len), 0)) {
        return WriteFailed(n, len);
    }
    return 0;
}

void SablePipeImpl::ReportSlowWrite(int wfd, unsigned int msgId, uint64_t startUs,
                                    const timespec& end) {
    const timespec start{static_cast<time_t>(startUs / 1000000u),
                         static_cast<long>(startUs % 1000000u) * 1000L};
    SableComm::RunTimeRecord record(kSlowStepMs);
    record.RecordTime(start);
    record.RecordTime(end);
    record.RunTimePrint("Writing " + writeFifoName + " takes more than " + "50" +
                        "ms. fd=" + std::to_string(fd.load()) + ", FifoFd=" + std::to_string(wfd) +
                        ", Msgid=" + std::to_string(msgId));
}

int SablePipeImpl::WriteFailed(long n, size_t len) {
    if (n == -EPIPE) {
        LOGE_R("%s=>%s The pipe is broken, write unfinished, remote is closed.\n", myName.c_str(),
               remoteName.c_str());
        return -EPIPE;
    }
    if (n < 0) {
        LOGE_R("write failed, errno = %d for readFd(%d) remote(%s)\n", static_cast<int>(-n),
               readFd.load(), remoteName.c_str());
        return static_cast<int>(n);
    }
    LOGE("write size %ld is not equal to expected size %lu for readFd(%d) remote(%s)\n", n,
         static_cast<unsigned long>(len), readFd.load(), remoteName.c_str());
    return -1;
}

bool SablePipeImpl::SendIfOpen(OutMessage& msg, int& ret) {
    if (!msg.SizeValid()) {
        LOGE("Send size %u is not valid\n", msg.payloadLen);
        ret = -EINVAL;
        return true;
    }
    LOGI("SablePipeImpl Send, writeFd = %d. %s  %s\n", writeFd.load(), myName.c_str(),
         remoteName.c_str());
    // Published by the caller: the number stays this pipe's until the caller is done with it.
    const int wfd = writeFd.load(std::memory_order_relaxed);
    if (wfd < 0) {
        return false;
    }
    ret = WriteFrame(msg, wfd);
    return true;
}

int SablePipeImpl::Send(OutMessage& msg) {
    int ret = 0;
    {
        sable::HazardGuard use(this);
        if (SendIfOpen(msg, ret)) {
            return ret;
        }
    }  // not published across the open, which takes the descriptor lock
    ret = OpenWriteFifo();
    if (ret == -1 && closeFdAction.load() == -1) {
        ret = -EPIPE;  // closed: answered like a pipe whose remote has gone
    }
    if (ret < 0) {
        LOGI("write msg type=%u open write failed, err=%d, fd=%d, target=%s\n", msg.type, ret,
             fd.load(), remoteName.c_str());
        return ret;
    }
    return Write(msg);
}

int SablePipeImpl::Write(OutMessage& msg) {
    // Published instead of a shared lock on the descriptor: a close waits until this write is
    // over before the number can be closed and reused, and a write costs no atomic operation.
    sable::HazardGuard use(this);
    return WriteFrame(msg, writeFd.load());  // closed since: -EPIPE
}

int SablePipeImpl::Write(const char* buf, size_t len, unsigned int msgId) {
    return Write(buf, len, msgId, SableComm::GetCurrentTime());
}

int SablePipeImpl::Write(const char* buf, size_t len, unsigned int msgId, uint64_t startUs) {
    sable::HazardGuard use(this);
    const int wfd = writeFd.load();
    if (wfd < 0) {
        return -EPIPE;  // closed after the caller looked
    }
    return WriteBytes(wfd, buf, len, msgId, startUs);
}

int SablePipeImpl::Recv(void* buf, size_t len) {
    return RecvFromFifo(readFd.load(std::memory_order_relaxed), &inBuffer, buf, len, remoteName);
}

std::unique_ptr<InMessage> SablePipeImpl::RecvMessage(SableComm::EpollTimeRecord& /*record*/) {
    return ReadFrame(*this, readFd.load(std::memory_order_relaxed), remoteName);
}

SablePipeImpl::ReadStatus SablePipeImpl::ReadOne(SableComm::EpollTimeRecord& /*record*/) {
    InMessage msg(0, 0, 0);
    // Requests that go into this turn's batch keep their payloads in the turn's arena.
    PayloadArena* arena = BatchesRequests() ? &payloads : nullptr;
    if (readFd.load() >= 0 && TakeWholeFrame(inBuffer, msg, arena)) {
        // A whole frame already read: taking it from the buffer touches no descriptor.
        ProcessMessage(msg);
        return ReadStatus::FRAME;
    }
    {
        // Shared: a close waits until this frame is read, and no descriptor number is read
        // after it was closed and possibly reused.
        sable::ReaderLock lock(fdMutex);
        int rfd = readFd.load();
        if (rfd < 0) {
            return ReadStatus::END;
        }
        if (inBuffer.Available() == 0) {
            ssize_t n = inBuffer.Fill(rfd);
            if (n == 0) {
                return ReadStatus::END;  // the writer closed between frames: an ordinary end
            }
            if (n == -EAGAIN) {
                return ReadStatus::EMPTY;
            }
            // Any other failure is left to the frame reader, which reads again and reports it.
        }
        if (!TakeWholeFrame(inBuffer, msg, arena) && !ReadFrame(*this, msg, rfd, remoteName)) {
            return ReadStatus::DROPPED;
        }
    }
    ProcessMessage(msg);
    return ReadStatus::FRAME;
}

bool SablePipeImpl::HandleMessage(SableComm::EpollTimeRecord& record) {
    return ReadOne(record) == ReadStatus::FRAME;
}

SablePipeImpl::ReceiveResult SablePipeImpl::HandleEvent(const struct epoll_event& event,
                                                        SableComm::EpollTimeRecord& record) {
    const bool hangUp = (event.events & EPOLLHUP) != 0;
    if ((event.events & (EPOLLIN | EPOLLHUP)) == 0) {
        return ReceiveResult::DONE;
    }
    int holder = READ_FREE;
    if (!readOwner.compare_exchange_strong(holder, READ_MONITOR, std::memory_order_acquire)) {
        return ReceiveResult::BUSY;  // a thread reads its own response (TakeReadSide)
    }
    ReceiveResult result = Turn(hangUp, record);
    FlushBatch();
    if (result == ReceiveResult::DONE && hangUp) {
        LOGI("%s=>%s readFd(%d) read msg 0, remote is closed\n", myName.c_str(), remoteName.c_str(),
             readFd.load());
        HandleRemoteClosed();
    }
    readOwner.store(READ_FREE, std::memory_order_release);
    return result;
}

// ---------------------------------------------------------------- own response

namespace {

// The calling thread's eventfd, through which a close from another thread wakes it while it
// polls a FIFO for its own response. Made on the first such wait; -1 when it cannot be.
int OwnKickFd() {
    thread_local sable::UniqueFd kick(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return kick.Get();
}

}  // namespace

bool SablePipeImpl::TakeReadSide() {
    if (receivePaused.load(std::memory_order_relaxed) || closeFdAction.load() != 1 ||
        OwnKickFd() < 0 || !observer.OnPipeSetAside(fd.load(), dataMonitorType)) {
        return false;
    }
    // Set aside first: from here on new frames do not wake the receive thread, so it cannot
    // keep finding the pipe taken while this thread is between the two steps.
    int holder = READ_FREE;
    if (readOwner.compare_exchange_strong(holder, READ_OWN, std::memory_order_acquire)) {
        if (inBuffer.Available() == 0 && batch.empty() && !receivePaused.load()) {
            return true;
        }
        readOwner.store(READ_FREE, std::memory_order_release);  // frames left to the receive thread
    }
    observer.OnPipeTakenBack(fd.load(), dataMonitorType, false, false);
    return false;
}

void SablePipeImpl::ReturnReadSide(ReceiveResult last) {
    const bool buffered = inBuffer.Available() > 0;
    readOwner.store(READ_FREE, std::memory_order_release);
    observer.OnPipeTakenBack(fd.load(), dataMonitorType, last == ReceiveResult::PAUSED, buffered);
}

int SablePipeImpl::ReadOwnResponse(const SabloRequest& request, OutRequest& entry, int timeoutMs) {
    const int budget = entry.BudgetMs();
    std::chrono::steady_clock::time_point until{};
    timespec deadline{};
    if (budget >= 0) {
        until = std::chrono::steady_clock::now() + std::chrono::milliseconds(budget);
        deadline = sable::ToMonotonic(until);
    }
    const int kick = OwnKickFd();
    const int rfd = readFd.load();
    ReceiveResult last = ReceiveResult::DONE;
    if (entry.StartPolling(kick)) {
        SableComm::EpollTimeRecord record;
        struct pollfd fds[2] = {{rfd, POLLIN, 0}, {kick, POLLIN, 0}};
        while (!entry.Released()) {
            timespec left{};
            if (budget >= 0) {
                const auto rest = until - std::chrono::steady_clock::now();
                if (rest <= std::chrono::steady_clock::duration::zero()) {
                    break;  // the budget ran out: the wait below withdraws the request
                }
                left = sable::ToTimespec(rest);
            }
            int n = ppoll(fds, 2, budget >= 0 ? &left : nullptr, nullptr);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                break;
            }
            if ((fds[1].revents & POLLIN) != 0) {
                uint64_t count = 0;
                if (read(kick, &count, sizeof(count)) < 0) {
                    // Taken by an earlier look: nothing to do.
                }
            }
            if (readFd.load() != rfd || closeFdAction.load() != 1) {
                break;  // closed meanwhile; the close releases the request
            }
            if ((fds[0].revents & POLLIN) != 0) {
                // Exactly the receive thread's turn: the same reads, lines and dispatch.
                do {
                    last = Turn(false, record);
                    FlushBatch();
                } while (last == ReceiveResult::MORE);
                if (last == ReceiveResult::PAUSED) {
                    break;
                }
                continue;
            }
            if ((fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
                break;  // the remote has gone: the receive thread handles the close
            }
        }
        entry.StopPolling();
    }
    ReturnReadSide(last);
    return WaitResult(request, entry.WaitUntil(budget >= 0 ? &deadline : nullptr), timeoutMs);
}

SablePipeImpl::ReceiveResult SablePipeImpl::Turn(bool hangUp, SableComm::EpollTimeRecord& record) {
    TurnOf turn(this, inBuffer);
    for (int handled = 0;; ++handled) {
        if (backlog.load() + batch.size() >= BACKLOG_PAUSE) {
            FlushBatch();  // counted in the backlog before it is weighed
            if (PauseReceive()) {
                return ReceiveResult::PAUSED;  // a hang-up is seen again once the pipe resumes
            }
        }
        if (!hangUp) {
            // One read per turn: whatever came after it raises the next event.
            if (handled > 0 && inBuffer.Available() == 0) {
                return ReceiveResult::DONE;
            }
            if (handled >= FRAMES_PER_TURN) {
                return ReceiveResult::MORE;
            }
        }
        // A hang-up drains everything the writer left before the close is handled.
        const uint64_t before = inBuffer.Consumed();
        ReadStatus status = ReadOne(record);
        if (status == ReadStatus::END || status == ReadStatus::EMPTY) {
            break;
        }
        if (status == ReadStatus::DROPPED && inBuffer.Consumed() == before) {
            break;  // nothing could be read at all
        }
    }
    return ReceiveResult::DONE;
}

bool SablePipeImpl::PauseReceive() {
    receivePaused.store(true);
    if (backlog.load() > BACKLOG_RESUME) {
        return true;
    }
    // The worker drained meanwhile. Whoever takes the flag back resumes: the worker (which then
    // asks the monitor to resume, so this pipe counts as paused until then) or this thread.
    return !receivePaused.exchange(false);
}

void SablePipeImpl::OnQueuedRequestsDone(uint32_t count) {
    uint32_t left = backlog.fetch_sub(count) - count;
    if (left <= BACKLOG_RESUME && receivePaused.load() && receivePaused.exchange(false)) {
        observer.OnPipeResume(fd.load(), dataMonitorType);
    }
}

// ---------------------------------------------------------------- dispatch

void SablePipeImpl::ProcessMessage(InMessage& msg) {
    switch (msg.type) {
        case 0:
            ProcessRequest(msg);
            break;
        case 1:
            ProcessResponse(msg);
            break;
        default:
            break;
    }
}

bool SablePipeImpl::BatchesRequests() const {
    return batchingPipe == this && isConcur == 0 && serviceHandler;
}

void SablePipeImpl::ProcessRequest(InMessage& msg) {
    // The handler is fixed at construction, so it is used in place rather than copied.
    const Handler& handler = serviceHandler;
    if (BatchesRequests()) {
        // In this pipe's receive turn: queued with the other requests of the turn, as a bare
        // record whose payload lies in the turn's arena, which the batch's task owns.
        if (closeFdAction.load() == -1) {
            return;  // closed meanwhile: dropped, as HandleRequest drops it
        }
        uint8_t* payload = nullptr;
        if (msg.Lent()) {
            payload = msg.ReleaseData();
        } else {
            // Read field by field: its payload is an array of its own, moved into the arena.
            const InMessage& read = msg;
            payload = payloads.Take(msg.payloadLen, msg.payloadLen);
            if (payload == nullptr) {
                // No room: queued alone, after the requests before it.
                FlushBatch();
                HandleRequest(std::make_shared<InRequest>(msg), handler);
                return;
            }
            memcpy(payload, read.GetData(), msg.payloadLen);
        }
        batch.push_back(SabloRequest{msg.id, payload, msg.payloadLen});
        if (batch.size() >= BATCH_MAX) {
            FlushBatch();
        }
        return;
    }
    auto request = std::make_shared<InRequest>(msg);
    if (handler) {
        // Nothing was ever cached: only a pipe without a callback caches, and a pipe's callback
        // never changes.
        HandleRequest(std::move(request), handler);
        return;
    }
    CacheRequest(request);
}

void SablePipeImpl::CacheRequest(const std::shared_ptr<InRequest>& request) {
    sable::MutexLock lock(cacheMutex);
    if (inReqCount > 999) {
        LOGE("Add InRequest failed, out of space\n");
        return;
    }
    inReqList.push_back(request);
    ++inReqCount;
}

void SablePipeImpl::ProcessCachedRequests(const Handler& handler) {
    sable::MutexLock lock(cacheMutex);
    if (inReqCount == 0) {
        return;
    }
    for (const auto& request : inReqList) {
        HandleRequest(request, handler);
    }
    inReqList.clear();
    inReqCount = 0;
}

std::list<std::shared_ptr<InRequest>> SablePipeImpl::GetInReqList() {
    sable::MutexLock lock(cacheMutex);
    return inReqList;
}

void SablePipeImpl::HandleRequest(std::shared_ptr<InRequest> request, const Handler& handler) {
    if (closeFdAction.load() == -1) {
        return;
    }
    const bool isRequest = request != nullptr;
    std::shared_ptr<SablePipeImpl> self = weak_from_this().lock();
    if (!self) {
        return;  // not owned any more: nobody could close it after the callback
    }
    const int pipeFd = fd.load();
    int ret = 0;
    if (isConcur == 0) {
        std::shared_ptr<const SableTask> task = std::make_shared<RequestTask>(
            std::move(self), std::move(request), handler, pipeFd, true);
        backlog.fetch_add(1);
        ret = observer.OnRequestTaskIn(std::to_string(pipeFd), task, priority);
        if (ret != 0) {
            backlog.fetch_sub(1);  // nothing was queued
        }
    } else {
        // The remote-close notice is never dropped: it is the one task that closes the pipe
        // and frees its handle, and the user would not learn of the close otherwise.
        if (isRequest &&
            callbacksInFlight.load(std::memory_order_relaxed) > kMaxConcurrentCallbacks - 1) {
            LOGE_R(
                "Callback occupied over 200 threads fail. Drop the current callback for "
                "Remote=%s, fd=%d.",
                remoteName.c_str(), pipeFd);
            return;
        }
        auto task = std::make_shared<RequestTask>(std::move(self), std::move(request), handler,
                                                  pipeFd, false);
        callbacksInFlight.fetch_add(1, std::memory_order_relaxed);
        ret = observer.OnAsyncRequestIn([task]() { (*task)(); }, priority);
        if (ret != 0) {
            // Nothing was queued, so nothing will give the slot back but us.
            callbacksInFlight.fetch_sub(1, std::memory_order_relaxed);
        }
    }
    if (ret != 0) {
        LOGE("Observer handle request failed(%d) for readFd(%d) remote(%s)\n", ret, readFd.load(),
             remoteName.c_str());
    }
}

void SablePipeImpl::FlushBatch() {
    if (batch.empty()) {
        return;
    }
    const uint32_t count = static_cast<uint32_t>(batch.size());
    std::shared_ptr<SablePipeImpl> self = weak_from_this().lock();
    int ret = -EPIPE;
    backlog.fetch_add(count);
    if (self) {
        const int pipeFd = fd.load();
        // A task that is not queued frees the payloads when it goes. One request (every RPC)
        // travels in the task itself, and the batch keeps its storage for the next turn.
        std::shared_ptr<const SableTask> task =
            count == 1 ? std::make_shared<RequestTask>(std::move(self), batch.front(),
                                                       payloads.Release(), serviceHandler, pipeFd)
                       : std::make_shared<RequestTask>(std::move(self), std::move(batch),
                                                       payloads.Release(), serviceHandler, pipeFd);
        if (count > 1) {
            // The storage went with the task: the next turn starts with room for as many
            // (up to 64, so that an idle pipe keeps little) instead of growing from nothing.
            batch.reserve(std::min<size_t>(count, kBatchKept));
        }
        ret = observer.OnRequestTaskIn(std::to_string(pipeFd), task, priority);
    } else {
        payloads.Release();  // dropped with their payloads
    }
    batch.clear();
    if (ret != 0) {
        backlog.fetch_sub(count);  // nothing was queued
        LOGE("Observer handle request failed(%d) for readFd(%d) remote(%s)\n", ret, readFd.load(),
             remoteName.c_str());
    }
}

void SablePipeImpl::RunRequest(SabloRequest* record, const Handler& handler, int pipeFd) {
    if (record == nullptr) {
        isCallbackHandleRemoteClose.store(true);
    }
    try {
        handler(pipeFd, record);
    } catch (const std::exception& e) {
        LOGE("Request callback of fd=%d threw: %s\n", pipeFd, e.what());
    } catch (...) {
        LOGE("Request callback of fd=%d threw\n", pipeFd);
    }
    OnCallbackFinished();
    if (record == nullptr) {
        isCallbackHandleRemoteClose.store(false);
        SabloClosePipe(pipeFd);
        OnRemoteClosedFinished();
    }
}

void SablePipeImpl::ProcessResponse(InMessage& msg) {
    std::shared_ptr<OutRequest> waiting;
    bool wake = false;
    {
        // Delivered under the mutex: a caller that finds its entry gone finds its record
        // filled. Woken after it: the caller's next call takes this mutex at once.
        sable::MutexLock lock(outReqMutex);
        waiting = outReqList.Pop(msg.id);
        if (waiting) {
            SabloResponse response{msg.id, reinterpret_cast<uint8_t*>(msg.ReleaseData()),
                                   msg.payloadLen};
            wake = waiting->Deliver(response);
        }
    }
    if (wake) {
        waiting->Wake();
    }
}

void SablePipeImpl::RemoveRequest(const SabloRequest& request) {
    sable::MutexLock lock(outReqMutex);
    outReqList.Erase(request.id);
}

void SablePipeImpl::OnCallbackFinished() {
    if (isConcur != 0) {
        callbacksInFlight.fetch_sub(1, std::memory_order_relaxed);
    }
}

// ---------------------------------------------------------------- synchronous requests

int SablePipeImpl::RecordOutRequest(SabloRequest& request, SabloResponse& response, int timeoutMs) {
    std::shared_ptr<OutRequest> entry;
    return RecordOutRequest(request, response, timeoutMs, entry);
}

int SablePipeImpl::RecordOutRequest(SabloRequest& request, SabloResponse& response, int timeoutMs,
                                    std::shared_ptr<OutRequest>& entry) {
    const bool longRunMode = EnvManager::LongRunMode();
    LOGI("RUN_MODE=%s", longRunMode ? "1" : EnvManager::GetRunMode().c_str());
    int budget = longRunMode ? kLongRunModeMs : timeoutMs;
    request.id = AllocateId();
    auto out =
        std::make_shared<OutSyncTimedRequest>(shared_from_this(), request.id, response, budget);
    out->Init();
    int ret = outReqList.PushBack(out);
    if (ret == 0) {
        entry = std::move(out);
    }
    return ret;
}

int SablePipeImpl::WaitForResponse(const SabloRequest& request, OutRequest& entry, int timeoutMs) {
    // The entry itself, not a lookup: a response or a close that came first is remembered by
    // it, so the wait then returns at once with the same result.
    return WaitResult(request, entry.Wait(), timeoutMs);
}

int SablePipeImpl::WaitForResponse(const SabloRequest& request, int timeoutMs) {
    return WaitForEntry(request, nullptr, timeoutMs);
}

int SablePipeImpl::WaitForResponse(const SabloRequest& request, const SabloResponse& response,
                                   int timeoutMs) {
    return WaitForEntry(request, &response, timeoutMs);
}

int SablePipeImpl::WaitForEntry(const SabloRequest& request, const SabloResponse* response,
                                int timeoutMs) {
    std::shared_ptr<OutRequest> waiting;
    int ret = 0;
    {
        sable::MutexLock lock(outReqMutex);
        waiting = outReqList.Find(request.id);
        // No entry: either the response came first (its Process ran under this mutex, so
        // the record is filled by now) or a close cancelled the request before this look.
        if (!waiting && response != nullptr && response->data == nullptr) {
            ret = -EPIPE;
        }
    }
    if (waiting) {
        ret = waiting->Wait();
    }
    return WaitResult(request, ret, timeoutMs);
}

int SablePipeImpl::WaitResult(const SabloRequest& request, int ret, int timeoutMs) {
    if (ret == -EPIPE) {
        LOGE("Self=%s, Remote=%s failed. Caught exception.\n", myName.c_str(), remoteName.c_str());
    } else if (ret < 0) {
        LOGE(
            "SabloRPC WaitForResponse timeout, id=%u,size=%u,timeout=%d ms,err=%d,Remote=%s,"
            "Self=%s.\n",
            request.id, request.size, timeoutMs, ret, remoteName.c_str(), myName.c_str());
    }
    return ret;
}

// ---------------------------------------------------------------- close

void SablePipeImpl::CloseFd() {
    LOGI("Sablecomm CloseFd, fd=%d, readfd=%d, writefd=%d, closeFdAction=%d, %s=>%s\n", fd.load(),
         readFd.load(), writeFd.load(), closeFdAction.load(), myName.c_str(), remoteName.c_str());
    sable::WriterLock lock(fdMutex);
    int action = closeFdAction.load();
    if (action == 0) {
        // Never opened: nothing to release, but an open that comes later must not revive it.
        closeFdAction.store(-1);
        return;
    }
    if (action != 1) {
        return;
    }
    closeFdAction.store(-1);
    int old = readFd.exchange(-1);
    if (old >= 0) {
        if (close(old) != 0) {
            LOGE("close non block readFd %d failed, errno = %d\n", old, errno);
        }
        unlink(readFifoName.c_str());
        LOGI("closefd unlink read=%s\n", readFifoName.c_str());
    } else if (mode == SABLO_MODE_CREATE) {
        unlink(readFifoName.c_str());  // an open that failed after making it
    }
    old = writeFd.exchange(-1);
    if (old >= 0) {
        sable::WaitUntilUnused(this);  // a write that read the number before has finished
        if (close(old) != 0) {
            LOGE("close writeFd %d failed, errno = %d\n", old, errno);
        }
        unlink(writeFifoName.c_str());
    } else if (mode == SABLO_MODE_CREATE) {
        unlink(writeFifoName.c_str());  // created here even if never opened
    }
    LOGI("closefd unlink write=%s\n", writeFifoName.c_str());
}

void SablePipeImpl::DeInitPipe() {
    CloseFd();
    outReqList.Disable();
}

void SablePipeImpl::HandleRemoteClosed() {
    std::lock_guard<std::mutex> lock(remoteCloseMutex);
    LOGD("readFd: %d, writeFd: %d, myName: %s reomteName: %s\n", readFd.load(), writeFd.load(),
         myName.c_str(), remoteName.c_str());
    const Handler& handler = serviceHandler;
    if (handler) {
        HandleRequest(nullptr, handler);
    }
    observer.OnPipeRemoteClosed(fd.load());
    CloseFd();
    outReqList.Disable();
}

void SablePipeImpl::OnRemoteClosedFinished() {
    observer.OnFreeSelfWorker(std::to_string(fd.load()));
}

void SablePipeImpl::ExceptionHandler() {
    unlink(writeFifoName.c_str());
    unlink(readFifoName.c_str());
}
