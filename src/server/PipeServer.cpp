#include "server/PipeServer.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cxxabi.h>

#include <cstring>
#include <exception>
#include <system_error>

#include "api/sable_comm_check.h"
#include "api/sable_comm_internal.h"
#include "base/SingletonProtector.h"
#include "base/safe_c.h"
#include "env/EnvManager.h"
#include "fifo/nux_fifo.h"
#include "log/NuxSyslog.h"
#include "server/PipeServerMessage.h"
#include "table/SableTable.h"
#include "table/TableFactory.h"

namespace {
constexpr int kLongRunModeMs = 18000000;
constexpr size_t kMaxClientName = 100;
}  // namespace

std::shared_ptr<PipeServer> PipeServer::GetInstance() {
    static std::shared_ptr<PipeServer> instance = std::make_shared<PipeServer>();
    static sable::SingletonProtector<PipeServer> protector(instance);
    return protector.Get();
}

PipeServer::~PipeServer() {
    Close();
}

int PipeServer::GetFifoName(std::string& out) const {
    std::string prefix = EnvManager::FifoPrefix();
    std::string name = serverName.empty() ? EnvManager::ProcName() : serverName;
    if (prefix.empty() || name.empty()) {
        return -EINVAL;
    }
    out = prefix + name;
    if (GetCurrDomain() == SABLO_DOMAIN_ELM) {
        out = EnvManager::ElmFifoDirPrefix() + out;
    }
    return 0;
}

int PipeServer::Init(const SabloServerAttr& serverAttr) {
    sable::MutexLock lock(serverMutex);
    const bool onServerThread = OnServerThread();
    // The server thread must not wait here: a thread stopping the server waits for it.
    while (stopping && !onServerThread) {
        stopped.Wait(lock);
    }
    if (running.load()) {
        std::shared_ptr<SableTable> table = TableFactory::GetInstance();
        LOGI("Server is already running. Table size=%d\n", table ? table->Size() : 0);
        return -EEXIST;
    }
    if (onServerThread) {
        // Stopped from its own connect callback: the calling thread is still the server thread
        // and a new one cannot be started over it.
        LOGE("Server cannot restart from its own connect callback.\n");
        return -EBUSY;
    }
    // A thread that ended on its own (an outside terminate packet) or stopped itself from its
    // callback is joined here, and its descriptors released.
    StopLocked(lock);
    attr = serverAttr;
    serverName = serverAttr.selfName != nullptr ? serverAttr.selfName : "";
    attr.selfName = nullptr;  // never keep the caller's pointer
    connectCallback = nullptr;
    if (serverAttr.serverCallback != nullptr) {
        connectCallback = serverAttr.serverCallback;
    }
    int ret = InitServer();
    if (ret != 0) {
        StopLocked(lock);
    }
    return ret;
}

int PipeServer::InitServer() {
    running.store(true);
    stopRequested.store(false);
    Reset();
    int ret = PreparaFifoFile();
    if (ret != 0) {
        LOGE("PrepareFileFd failed: err=%d, errno=%d.\n", ret, errno);
        running.store(false);
        return ret;
    }
    ret = PrepareEpoll();
    if (ret != 0) {
        LOGE("PrepareEpoll failed: err=%d, errno=%d.\n", ret, errno);
        close(writeFd);
        close(readFd);
        writeFd = -1;
        readFd = -1;
        running.store(false);
        return ret;
    }
    LOGD("Server start monitor routine.\n");
    try {
        monitorThread.Create(&PipeServer::MonitorRoutine, this);
    } catch (const std::system_error& e) {
        LOGE("Start Server monitorThread failed, system error: %s.\n", e.what());
        running.store(false);
        ReleaseDescriptorsLocked();
        return -ENOSPC;
    } catch (...) {
        LOGE("Start Server monitorThread failed.\n");
        running.store(false);
        ReleaseDescriptorsLocked();
        return -ENOSPC;
    }
    // Priority 0 asks for no scheduling change at all.
    if (attr.priority != SABLO_PRIORITY_DEFAULT) {
        ret = monitorThread.SetRTType(attr.priority);
        if (ret != 0) {
            LOGE("Set server monitor thread to type %d failed, ret=%d\n", attr.priority, ret);
            // The thread ends on this; Init joins it.
            RequestStop();
            return ret;
        }
    }
    return 0;
}

int PipeServer::PreparaFifoFile() {
    int ret = GetFifoName(fifoName);
    if (ret != 0) {
        LOGE("GetFifoName error=%d, errno=%d.\n", ret, errno);
        return ret;
    }
    // Creating the FIFO removes whatever stands at the name, a live server's FIFO included:
    // ask that FIFO's lock first, so a second server fails here and the first keeps serving.
    // A first start finds no file: that is no error, so only an existing file is checked.
    if (access(fifoName.c_str(), F_OK) == 0 && IsFifoFile(fifoName) == 0) {
        int probe = open(fifoName.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
        if (probe >= 0) {
            if (flock(probe, LOCK_EX | LOCK_NB) != 0) {
                int savedErrno = errno;
                LOGE("Server %s flock failed: monitorfd=%d, err=%d, errno=%d.\n", fifoName.c_str(),
                     probe, -1, savedErrno);
                close(probe);
                return -savedErrno;
            }
            close(probe);  // releases the probe's lock
        }
    }
    ret = CreateFifo(fifoName, attr.gid, -1, SABLO_DOMAIN_NONE, "");
    if (ret != 0) {
        LOGE("CreateFifo %s error=%d, errno=%d.\n", fifoName.c_str(), ret, errno);
        return ret;
    }
    readFd = OpenFifo(fifoName, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (readFd < 0) {
        ret = readFd;
        readFd = -1;
        if (access(fifoName.c_str(), F_OK) == 0) {
            unlink(fifoName.c_str());
        }
        LOGE("OpenFifo %s error=%d, errno=%d.\n", fifoName.c_str(), ret, errno);
        return ret;
    }
    // Our own writer: the reader never sees end of file when the last client leaves, and the
    // stop packet has a way in. Non-blocking: a FIFO filled by others never holds up a stop.
    writeFd = OpenFifo(fifoName, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (writeFd < 0) {
        ret = writeFd;
        writeFd = -1;
        LOGE("Open writable server fifo %s error, ret=%d, errno=%d.\n", fifoName.c_str(), ret,
             errno);
        close(readFd);
        readFd = -1;
        if (access(fifoName.c_str(), F_OK) == 0) {
            unlink(fifoName.c_str());
        }
        return ret;
    }
    return 0;
}

int PipeServer::PrepareEpoll() {
    epollFd = epoll_create1(EPOLL_CLOEXEC);
    if (epollFd < 0) {
        int savedErrno = errno;
        LOGE("Create epoll instance failed: err=%d, errno=%d.\n", epollFd, savedErrno);
        epollFd = -1;
        return -savedErrno;
    }
    int ret = AddFdToEpoll(epollFd, readFd, readFd, EPOLLIN);
    if (ret == 0) {
        stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        ret = stopFd < 0 ? -errno : AddFdToEpoll(epollFd, stopFd, stopFd, EPOLLIN);
    }
    if (ret != 0) {
        LOGE("Add fd to epoll error: ret=%d.\n", ret);
        close(epollFd);
        epollFd = -1;
        if (stopFd >= 0) {
            close(stopFd);
            stopFd = -1;
        }
        return ret;
    }
    if (flock(readFd, LOCK_EX | LOCK_NB) != 0) {
        int savedErrno = errno;
        LOGE("Server %s flock failed: monitorfd=%d, err=%d, errno=%d.\n", fifoName.c_str(), readFd,
             -1, savedErrno);
        close(epollFd);
        epollFd = -1;
        close(stopFd);
        stopFd = -1;
        return -savedErrno;
    }
    return 0;
}

ssize_t PipeServer::Fill(uint8_t* dst, size_t room, int waitMs) {
    for (;;) {
        if (stopRequested.load()) {
            return 0;
        }
        struct epoll_event events[2] {};
        int n = epoll_wait(epollFd, events, 2, waitMs);
        if (n < 0) {
            int savedErrno = errno;
            if (savedErrno == EINTR) {
                continue;
            }
            LOGE("Epoll_wait on PipeServer monitor pipe failed, %s.", strerror(savedErrno));
            return 0;  // the set is broken: nothing more can be read
        }
        if (n == 0) {
            return -ETIMEDOUT;
        }
        bool readable = false;
        for (int i = 0; i < n; ++i) {
            if (events[i].data.fd == stopFd) {
                return 0;
            }
            if (events[i].data.fd != readFd) {
                continue;
            }
            if ((events[i].events & EPOLLIN) != 0) {
                readable = true;
            } else if ((events[i].events & EPOLLHUP) != 0) {
                LOGI("All clients closed monitor pipe.\n");
            }
        }
        if (!readable) {
            continue;
        }
        ssize_t r = read(readFd, dst, room);
        if (r < 0 && errno == EAGAIN) {
            continue;
        }
        // The server's own writer keeps the FIFO open: an end of file cannot come while it runs.
        return r < 0 ? -errno : r;
    }
}

void PipeServer::MonitorRoutine() {
    serverThreadId.store(std::this_thread::get_id());
    if (prctl(PR_SET_NAME, "sable_comm_server") != 0) {
        LOGI("Set server thread name unfinished, errno = %d\n", errno);
    }
    KorCoreSetaffinity();
    MonitorRoutineLinux();
    serverThreadId.store(std::thread::id());
}

bool PipeServer::OnServerThread() const {
    return serverThreadId.load() == std::this_thread::get_id();
}

void PipeServer::MonitorRoutineLinux() {
    LOGI("begin MonitorRoutineLinux.\n");
    Packet packet;
    while (running.load() && !stopRequested.load()) {
        if (Next(packet) == Result::END) {
            break;
        }
        if (packet.type == PIPE_SERVER_MSG_TERMINATE) {
            if (stopRequested.load()) {
                LOGI("Read terminate info, start exit monitor routine.\n");
                break;
            }
            LOGE_R("Terminate packet on server fifo %s not sent by this server, ignored.\n",
                   fifoName.c_str());
            continue;
        }
        CallSabloOpenAsync(packet.name, packet.gid, packet.pid);
    }
    running.store(false);
}

void PipeServer::CallSabloOpenAsync(const std::unique_ptr<char[]>& clientName, unsigned int gid,
                                    int pid) const {
    // A name from the FIFO is a peer's word: one that could not be a pipe's name is refused
    // here, with the lines of the checks, restrained, so that a stream of them cannot flood the
    // log (the open would refuse it too, logging every time).
    const size_t nameLen = strnlen(clientName.get(), kMaxClientName + 1);
    if (nameLen > kMaxClientName || BlackListCheck(clientName.get())) {
        LOGE_R("Intput targetName=%s is not valid.\n", clientName.get());
        LOGE_R("In callback Open pipe %s failed %d.\n", clientName.get(), -EINVAL);
        return;
    }
    // Nothing thrown here may leave the server thread (it would end the process): the client is
    // dropped and the next packet served.
    int ret = -1;
    try {
        std::string runMode = EnvManager::GetRunMode();
        LOGI("RUN_MODE=%s", runMode.c_str());
        SabloAttr pipeAttr;
        pipeAttr.selfName = serverName.empty() ? nullptr : serverName.c_str();
        pipeAttr.targetName = clientName.get();
        pipeAttr.mode = SABLO_MODE_CREATE;
        pipeAttr.timeout = runMode == "1" ? kLongRunModeMs : CLIENT_OPEN_TIMEOUT_MS;
        pipeAttr.targetPid = pid;
        pipeAttr.gid = gid;
        pipeAttr.priority = attr.priority;
        if (attr.callback != nullptr) {
            pipeAttr.callback = attr.callback;
        }
        LOGI(
            "SabloServerOpen start selfName=%s, targetName=%s, mode=%d, timeout=%d ms, "
            "targetPid=%d, gid=%u, priority=%d, isConcur=%d\n",
            serverName.c_str(), clientName.get(), pipeAttr.mode, pipeAttr.timeout, pid, gid,
            pipeAttr.priority, static_cast<int>(pipeAttr.isConcur));
        // Priority 1 passes the attribute checks but has no receive monitor: std::out_of_range.
        ret = SabloPipeTypeOpen(&pipeAttr, SABLO_SERVER_PIPE);
    } catch (abi::__forced_unwind&) {
        throw;  // thread exit, not an error
    } catch (const std::exception& e) {
        LOGE("Open pipe for client %s threw: %s.\n", clientName.get(), e.what());
        return;
    } catch (...) {
        LOGE("Open pipe for client %s threw: %s.\n", clientName.get(), "unknown exception");
        return;
    }
    if (ret < 1) {
        LOGE_R("In callback Open pipe %s failed %d.\n", clientName.get(), ret);
        return;
    }
    if (!connectCallback) {
        return;
    }
    LOGI("Enter user callback: %d\n", ret);
    try {
        connectCallback(ret, SabloClientInfo{pid, gid, clientName.get()});
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& e) {
        LOGE("Connect callback of fd=%d threw: %s.\n", ret, e.what());
        SabloClosePipe(ret);
        return;
    } catch (...) {
        LOGE("Connect callback of fd=%d threw: %s.\n", ret, "unknown exception");
        SabloClosePipe(ret);
        return;
    }
    LOGI("Finish user callback: %d\n", ret);
}

int PipeServer::SendMsgToServer(int fd) const {
    PipeServerMessage msg(PIPE_SERVER_MSG_TERMINATE, "");
    int ret = msg.Init();
    if (ret != 0) {
        LOGE("Msg Init fail, err=%d.\n", ret);
        return ret;
    }
    ssize_t n = write(fd, msg.Data(), msg.Size());
    if (n != static_cast<ssize_t>(msg.Size())) {
        int savedErrno = errno;
        LOGE("Write dataIn fail: %ld, writeFd=%d, errno=%d.\n", static_cast<long>(n), fd,
             savedErrno);
        // A short write leaves errno as it was: never let it read as success.
        return n < 0 ? -savedErrno : -EIO;
    }
    LOGI("%s send name to server itself success.\n", fifoName.c_str());
    return 0;
}

void PipeServer::Close() {
    sable::MutexLock lock(serverMutex);
    if (OnServerThread()) {
        // From the server's own connect callback. When another thread is stopping the server
        // it is waiting for this callback to return and does the rest.
        if (!stopping) {
            StopLocked(lock);
        }
        return;
    }
    while (stopping) {
        stopped.Wait(lock);
    }
    if (running.load()) {
        RequestStop();
    }
    StopLocked(lock);
}

void PipeServer::RequestStop() {
    stopRequested.store(true);
    int ret = SendMsgToServer(writeFd);
    if (ret != 0) {
        LOGE("Send stop message to server fail, ret=%d.\n", ret);
    }
    // The packet may not get in (a FIFO kept full by others) or be taken apart by bytes written
    // before it: the eventfd wakes the thread whatever the FIFO holds.
    if (stopFd >= 0) {
        eventfd_write(stopFd, 1);
    }
}

void PipeServer::StopLocked(sable::MutexLock& lock) {
    if (OnServerThread()) {
        // A thread cannot join itself. The server loop looks at `running` before every packet,
        // so it ends as soon as the connect callback that called this returns; it no longer
        // touches the descriptors. Whoever starts or stops the server next joins it.
        running.store(false);
        ReleaseDescriptorsLocked();
        return;
    }
    if (monitorThread.Joinable()) {
        // Joined without the mutex: the thread may be in a connect callback that calls Init,
        // Close or the accessors, all of which take it.
        // (Released through the native lock: to the analysis serverMutex stays held, and so
        // it is again when this returns.)
        stopping = true;
        lock.Native().unlock();
        try {
            monitorThread.Join();
        } catch (const std::system_error& e) {
            LOGE("Join server monitorThread failed, system error: %s.\n", e.what());
        }
        lock.Native().lock();
        stopping = false;
        stopped.NotifyAll();
    }
    ReleaseDescriptorsLocked();
    running.store(false);
}

void PipeServer::ReleaseDescriptorsLocked() {
    if (readFd >= 0) {
        flock(readFd, LOCK_UN | LOCK_NB);
    }
    for (int* fd : {&epollFd, &stopFd, &writeFd, &readFd}) {
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
    }
}

void PipeServer::ExceptionHandler() {
    if (!fifoName.empty()) {
        unlink(fifoName.c_str());
    }
}

SabloServerAttr PipeServer::GetServerAttr() const {
    sable::MutexLock lock(serverMutex);
    return attr;
}

std::string PipeServer::GetFifoNameForDFX() const {
    sable::MutexLock lock(serverMutex);
    return fifoName;
}
