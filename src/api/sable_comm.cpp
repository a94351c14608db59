#include "sable_comm.h"

#include <errno.h>

#include "api/sable_comm_check.h"
#include "base/Hazard.h"
#include "log/NuxSyslog.h"
#include "pipe/Message.h"
#include "pipe/OutRequest.h"
#include "pipe/SablePipeImpl.h"
#include "server/PipeServer.h"
#include "table/SableTable.h"
#include "table/TableFactory.h"

namespace {

const char* OrEmpty(const char* s) {
    return s != nullptr ? s : "";
}

// The table and the pipe of the last number this thread sent on. A number is never given to
// another pipe, so while the pipe is still in the table the number still names it: a thread
// that keeps sending on one pipe finds both by two weak references instead of two locked
// lookups.
//
// The references live in a thread_local of their own, whose construction and destruction the
// C++ runtime guards on every access; a send reads only the trivially constructed part (plain
// static TLS) and reaches the references through it.
struct SendCacheRefs {
    std::weak_ptr<SableTable> table;
    std::weak_ptr<SablePipeImpl> pipe;
    ~SendCacheRefs();
};
struct SendCache {
    int fd;
    SablePipeImpl* raw;   // the pipe's object, used only while refs->pipe has not expired
    SendCacheRefs* refs;  // set with raw; null again once the thread's references are destroyed
    bool refsGone;        // they were (a send from a later thread-exit destructor caches nothing)
};
__thread SendCache sendCache __attribute__((tls_model("initial-exec")));
thread_local SendCacheRefs sendRefs;

SendCacheRefs::~SendCacheRefs() {
    sendCache.fd = 0;
    sendCache.raw = nullptr;
    sendCache.refs = nullptr;
    sendCache.refsGone = true;
}

enum class Found { PIPE, NO_TABLE, NO_PIPE };

// Sends `msg` on this thread's cached pipe numbered `fd` while the table is alive, the pipe
// still referenced and in it and its write end open; then true with the result in `ret`. A
// plain send needs nothing else: its path never reaches the table. The pipe is used without
// taking a reference: it is published for the send (its destruction and the close of its write
// end wait for that) and checked after; and nothing that takes a lock runs meanwhile, since the
// thread that waits may hold it. Otherwise false: the caller looks the pipe up and sends.
inline bool SendCached(int fd, OutMessage& msg, int& ret) {
    SablePipeImpl* pipe = sendCache.raw;
    // The cache holds only numbers the table gave out (1 and up), and null before the first.
    if (pipe == nullptr || sendCache.fd != fd || !TableFactory::IsAlive()) {
        return false;
    }
    sable::HazardGuard use(pipe);
    return !sendCache.refs->pipe.expired() && pipe->InTable() && pipe->SendIfOpen(msg, ret);
}

// The table and the pipe numbered `fd`, for the send functions: from this thread's cache while
// it still holds for `fd`, otherwise by the table's lookups (and then remembered). Each caller
// logs a miss with its own line.
Found FindPipe(int fd, std::shared_ptr<SableTable>& table, std::shared_ptr<SablePipeImpl>& pipe) {
    if (sendCache.refs != nullptr && sendCache.fd == fd && TableFactory::IsAlive()) {
        table = sendCache.refs->table.lock();
        if (table) {
            pipe = sendCache.refs->pipe.lock();
            if (pipe && pipe->InTable()) {
                return Found::PIPE;
            }
        }
    }
    table = TableFactory::GetInstance();
    if (!table) {
        return Found::NO_TABLE;
    }
    pipe = table->GetPipe(fd);
    if (!pipe) {
        return Found::NO_PIPE;
    }
    if (!sendCache.refsGone) {
        SendCacheRefs& refs = sendRefs;
        refs.table = table;
        refs.pipe = pipe;
        sendCache.fd = fd;
        sendCache.raw = pipe.get();
        sendCache.refs = &refs;
    }
    return Found::PIPE;
}

// The send functions' way when the thread's cached pipe does not serve: the lookup, then the
// send; `onMiss(found)` logs a miss with the calling function's own line. Out of line, so that a
// send on the cached pipe does not set up the references this takes.
template <typename OnMiss>
__attribute__((noinline)) int SendLookedUp(int fd, OutMessage& msg, OnMiss onMiss) {
    std::shared_ptr<SableTable> table;
    std::shared_ptr<SablePipeImpl> pipe;
    const Found found = FindPipe(fd, table, pipe);
    if (found != Found::PIPE) {
        onMiss(found);
        return -ENOENT;
    }
    return pipe->Send(msg);
}

}  // namespace

// The attribute fields in the order of the "open" log lines.
#define SABLE_ATTR_ARGS(attr)                                                      \
    OrEmpty((attr)->targetName), (attr)->mode, (attr)->timeout, (attr)->targetPid, \
        (attr)->priority, static_cast<int>((attr)->isConcur), (attr)->gid,         \
        OrEmpty((attr)->selfName)

int SabloOpen(const SabloAttr* attr) {
    if (attr == nullptr || CheckInputPipeAttr(*attr) != 0) {
        LOGE("Input variables error\n");
        return -EINVAL;
    }
    LOGI("SabloOpen start name=%s, mode=%d, t=%d, pid=%d, pr=%d, isC=%d, gid=%u, self=%s\n",
         SABLE_ATTR_ARGS(attr));
    return SabloPipeTypeOpen(attr, SABLO_NORMAL_PIPE);
}

int SabloOpen(const char* name, void (*callback)(int, SabloRequest*), int timeout, SabloMode mode) {
    SabloAttr attr;
    attr.targetName = name;
    if (callback != nullptr) {
        attr.callback = callback;
    }
    attr.timeout = timeout;
    attr.mode = mode;
    attr.gid = 0xFFFFFFFFu;
    attr.priority = SABLO_PRIORITY_NORMAL;
    attr.selfName = nullptr;
    attr.targetPid = -1;
    attr.isConcur = false;
    attr.domain = SABLO_DOMAIN_NONE;
    attr.targetCon = nullptr;
    return SabloOpen(&attr);
}

extern "C" {

int SabloCreateClient(const SabloAttr* attr) {
    if (attr == nullptr || CheckInputPipeAttr(*attr) != 0) {
        LOGE("Input variables error\n");
        return -EINVAL;
    }
    LOGI("SabloCreateClient name=%s, mode=%d, t=%d, pid=%d, pr=%d, isC=%d, gid=%u, self=%s\n",
         SABLE_ATTR_ARGS(attr));
    return SabloPipeTypeOpen(attr, SABLO_CLIENT_PIPE);
}

int SabloPipeTypeOpen(const SabloAttr* attr, SabloPipeType type) {
    if (attr == nullptr || CheckInputPipeAttr(*attr) != 0) {
        LOGE("Input variables error.\n");
        return -EINVAL;
    }
    std::shared_ptr<SableTable> table = TableFactory::GetInstance();
    if (!table) {
        LOGI("SabloPipeTypeOpen unfinished, because table is destroyed\n");
        return -ENOENT;
    }
    int ret = table->MakeAndAddPipe(attr, type);
    if (ret < 0) {
        LOGW_R(
            "OpenPipe unfinished fd=%d, Name=%s, mode=%d, t=%d, pid=%d, pr=%d, isC=%d, "
            "gid=%u, self=%s\n",
            ret, SABLE_ATTR_ARGS(attr));
    } else {
        LOGI(
            "SabloOpen success fd=%d, Name=%s, mode=%d, t=%d, pid=%d, pr=%d, isC=%d, gid=%u, "
            "self=%s\n",
            ret, SABLE_ATTR_ARGS(attr));
    }
    return ret;
}

int SabloCreateServer(const SabloServerAttr* attr) {
    if (attr == nullptr || CheckInputServerAttr(*attr) != 0) {
        LOGE("Input attr is nullptr\n");
        return -EINVAL;
    }
    std::shared_ptr<PipeServer> server = PipeServer::GetInstance();
    if (!server) {
        LOGE("Pipe server init failed\n");
        return -ENOENT;
    }
    LOGI("SabloCreateServer selfName=%s, gid=%u, priority=%d\n", OrEmpty(attr->selfName), attr->gid,
         attr->priority);
    return server->Init(*attr);
}

void SabloCfgFinishServer() {
    std::shared_ptr<PipeServer> server = PipeServer::GetInstance();
    if (!server) {
        LOGE("Pipe server finish failed.\n");
        return;
    }
    server->Close();
    if (std::shared_ptr<SableTable> table = TableFactory::GetInstance()) {
        table->DisableSableTable();
    }
}

int SabloClosePipe(int fd) {
    LOGI("SabloClosePipe start fd=%d.\n", fd);
    std::shared_ptr<SableTable> table = TableFactory::GetInstance();
    if (!table) {
        LOGI("SabloClosePipe unfinished, because table is destroyed\n");
        return -ENOENT;
    }
    table->CloseSablePipe(fd);
    LOGI("SabloClosePipe success fd=%d.\n", fd);
    return 0;
}

void SabloExceptionHandler(int signal) {
    LOGE("Recv a signal %d.\n", signal);
    std::shared_ptr<SableTable> table = TableFactory::GetInstance();
    if (!table) {
        LOGE("SabloExceptionHandler failed, because table is destroyed.\n");
        return;
    }
    table->ExceptionHandler();
    if (std::shared_ptr<PipeServer> server = PipeServer::GetInstance()) {
        server->ExceptionHandler();
    } else {
        LOGE("SabloExceptionHandler failed, because server is destroyed.\n");
    }
}

int SabloSendRequest(int fd, const SabloRequest* req) {
    if (req == nullptr || req->data == nullptr || req->size == 0) {
        LOGE("Argument invalid.\n");
        return -EINVAL;
    }
    LOGI("SendRequest id=%u, size=%u bytes\n", req->id, req->size);
    int ret = 0;
    OutMessage msg(req->id, *req, -1);
    if (SendCached(fd, msg, ret)) {
        return ret;
    }
    return SendLookedUp(fd, msg, [fd](Found found) {
        if (found == Found::NO_TABLE) {
            LOGI("SabloSendRequest unfinished, because table is destroyed\n");
        } else {
            LOGE("SendRequest fail, because pipe is NULL, fd=%d.\n", fd);
        }
    });
}

int SabloSendResponse(int fd, const SabloResponse* resp) {
    if (resp == nullptr || resp->data == nullptr || resp->size == 0) {
        LOGE("Input resp == NULL.\n");
        return -EINVAL;
    }
    LOGI("SendResponse id=%u, size=%u bytes\n", resp->id, resp->size);
    int ret = 0;
    OutMessage msg(resp->id, *resp);
    if (SendCached(fd, msg, ret)) {
        return ret;
    }
    return SendLookedUp(fd, msg, [fd](Found found) {
        if (found == Found::NO_TABLE) {
            LOGI("SabloSendResponse unfinished, because table is destroyed\n");
        } else {
            LOGE("GetPipe fail, please check input fd(%d).\n", fd);
        }
    });
}

int SabloTimedRPCSync(int fd, SabloRequest* req, SabloResponse* resp, int timeoutMs) {
    if (req == nullptr || req->data == nullptr || req->size == 0) {
        LOGE("Argument invalid.\n");
        return -EINVAL;
    }
    if (resp == nullptr) {
        return SabloSendRequest(fd, req);
    }
    std::shared_ptr<SableTable> table;
    std::shared_ptr<SablePipeImpl> pipe;
    switch (FindPipe(fd, table, pipe)) {
        case Found::NO_TABLE:
            LOGE("SabloTimedRPCSync failed, because table is destroyed\n");
            return -ENOENT;
        case Found::NO_PIPE:
            LOGE_R("GetPipe fail, please check input fd(%d).\n", fd);
            return -ENOENT;
        case Found::PIPE:
            break;
    }
    std::shared_ptr<OutRequest> entry;
    int ret = pipe->RecordOutRequest(*req, *resp, timeoutMs, entry);
    if (ret < 0) {
        LOGI("RecordOutRequest err=%d.\n", ret);
        return ret;
    }
    LOGI("SendRPCSync id=%u, size=%u bytes\n", req->id, req->size);
    // Taken before the send, so the response cannot reach the receive thread first.
    const bool ownRead = pipe->TakeReadSide();
    ret = pipe->Send(*req, timeoutMs);
    if (ret < 0) {
        if (ownRead) {
            pipe->ReturnReadSide();
        }
        LOGE_R("Send req fail, fd=%d, err=%d.\n", fd, ret);
        pipe->RemoveRequest(*req);
        return ret;
    }
    return ownRead ? pipe->ReadOwnResponse(*req, *entry, timeoutMs)
                   : pipe->WaitForResponse(*req, *entry, timeoutMs);
}

int SabloRPCSync(int fd, SabloRequest* req, SabloResponse* resp) {
    return SabloTimedRPCSync(fd, req, resp, -1);
}

bool SabloServiceIsExist() {
    std::shared_ptr<SableTable> table = TableFactory::GetInstance();
    return table && !table->GetIsDisable();
}

void DestroyResponse(SabloResponse* resp) {
    if (resp == nullptr || resp->data == nullptr) {
        return;
    }
    delete[] resp->data;
    resp->data = nullptr;
}

// Platforms that pin library threads to cores replace this; the library only calls it.
void KorCoreSetaffinity() {}

}  // extern "C"
