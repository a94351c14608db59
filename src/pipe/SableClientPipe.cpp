#include "pipe/SableClientPipe.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "api/sable_comm_internal.h"
#include "base/SigpipeHold.h"
#include "base/UniqueFd.h"
#include "env/EnvManager.h"
#include "fifo/nux_fifo.h"
#include "log/NuxSyslog.h"
#include "server/PipeServerMessage.h"

SableClientPipe::SableClientPipe(const SabloAttr& attr, PipeObserver& pipeObserver)
    : SablePipeImpl(attr, pipeObserver) {
    myName += "_" + std::to_string(getpid());
    FormFifoNames();
}

std::string SableClientPipe::MonitorPipeNameGen() const {
    if (GetCurrDomain() == SABLO_DOMAIN_ELM) {
        return EnvManager::ElmFifoDirPrefix() + EnvManager::FifoPrefix() + remoteName;
    }
    return EnvManager::FifoPrefix() + remoteName;
}

int SableClientPipe::OpenServerMonitorPipe(const std::string& name) const {
    return OpenFifo(name, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
}

int SableClientPipe::SendMsgToServer(int serverMonitorFd) {
    PipeServerMessage msg(PIPE_SERVER_MSG_CONNECT, GetMyName());
    int ret = msg.Init();
    if (ret != 0) {
        LOGE("Msg Init fail, ret = %d\n", ret);
        return ret;
    }
    // A server that went after the open must not end this process with SIGPIPE.
    ssize_t n = 0;
    int savedErrno = 0;
    {
        sable::SigpipeHold sigpipe;
        n = write(serverMonitorFd, msg.Data(), msg.Size());
        savedErrno = errno;
        if (n == -1 && savedErrno == EPIPE) {
            sigpipe.Discard();
        }
    }
    if (n != static_cast<ssize_t>(msg.Size())) {
        LOGE("write dataIn fail: %ld, serverMonitorFd = %d, errno = %d\n", static_cast<long>(n),
             serverMonitorFd, savedErrno);
        return n < 0 ? -savedErrno : -EIO;
    }
    return 0;
}

int SableClientPipe::TimedOpen(int timeoutMs) {
    std::string name = MonitorPipeNameGen();
    if (name.empty()) {
        LOGE("%s monitor pipe name is empty\n", myName.c_str());
        return -EINVAL;
    }
    int ret = IsFifoFile(name);
    if (ret != 0) {
        LOGE("%s connect %s failed, server fifo not exist\n", myName.c_str(), name.c_str());
        return ret;
    }
    sable::UniqueFd monitorFd(OpenServerMonitorPipe(name));
    if (!monitorFd.Valid()) {
        ret = monitorFd.Release();
        LOGE("%s open monitor pipe %s failed, fd=%d, err=%d\n", myName.c_str(), name.c_str(),
             GetPipeFd(), ret);
        return ret;
    }
    ret = SendMsgToServer(monitorFd.Get());
    monitorFd.Reset();
    if (ret != 0) {
        LOGE("Send client name to server fail, ret = %d\n", ret);
        return ret;
    }
    LOGI("%s send name to server %s success\n", myName.c_str(), remoteName.c_str());
    return SablePipeImpl::TimedOpen(timeoutMs);
}
