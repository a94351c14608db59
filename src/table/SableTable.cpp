#include "table/SableTable.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <new>
#include <vector>

#include "api/nux_check.h"
#include "env/EnvManager.h"
#include "log/NuxSyslog.h"
#include "pipe/SableClientPipe.h"
#include "pipe/SablePipeImpl.h"
#include "pipe/WriteOpener.h"
#include "pool/CallbackPool.h"

SableTable::SableTable(const std::shared_ptr<CallbackPool>& pool)
    : callbackPool(pool), writeOpener(std::make_unique<WriteOpener>()) {}

SableTable::~SableTable() {
    // Its thread may still be telling pipes of the table that their peer never came.
    writeOpener.reset();
    // Gives callbacks that are just finishing a moment before everything is torn down.
    usleep(50000);
    DisableSableTable();
}

std::shared_ptr<SablePipeImpl> SableTable::MakePipe(const SabloAttr& attr, SabloPipeType type) {
    switch (type) {
        case SABLO_CLIENT_PIPE:
            LOGI("make SABLO_CLIENT_PIPE, %s.\n", attr.targetName);
            return std::make_shared<SableClientPipe>(attr, *this);
        case SABLO_NORMAL_PIPE:
            LOGI("make SABLO_NORMAL_PIPE, %s.\n", attr.targetName);
            return std::make_shared<SablePipeImpl>(attr, *this);
        case SABLO_SERVER_PIPE:
            LOGI("make SABLO_SERVER_PIPE, %s.\n", attr.targetName);
            return std::make_shared<SablePipeImpl>(attr, *this);
        default:
            return std::make_shared<SablePipeImpl>(attr, *this);
    }
}

int SableTable::MakeAndAddPipe(const SabloAttr* attr, SabloPipeType type) {
    std::shared_ptr<SablePipeImpl> pipe = MakePipe(*attr, type);
    int ret = PrepareMonitor(attr->priority, pipe->GetPipeDataMonitorType());
    if (ret != 0) {
        LOGE("Prepare Monitor failed, ret is %d\n", ret);
        return ret;
    }
    const std::string key = pipe->GetTableKey();
    std::shared_ptr<SablePipeImpl> target;
    std::shared_ptr<SablePipeImpl> replaced;
    int result = 0;
    {
        sable::WriterLock lock(tableLock);
        auto it = pipeKeyTable.find(key);
        // A pipe of the pair whose descriptors are closed (its remote went) gives way to a new
        // one, so that a restarted peer can be reached again. So does any pipe of a client that
        // connects anew: a connect packet only comes from a client that opens afresh.
        if (it != pipeKeyTable.end() && it->second->Openers() == 0 &&
            (it->second->GetCloseFdAction() == -1 || type == SABLO_SERVER_PIPE)) {
            replaced = it->second;
            const int oldFd = replaced->GetPipeFd();
            RemoveDataMonitor(oldFd);
            replaced->SetInTable(false);
            pipeFdTable.erase(oldFd);
            pipeKeyTable.erase(it);
            LOGI("pipe(%d) is removed from table\n", oldFd);
            it = pipeKeyTable.end();
        }
        if (it != pipeKeyTable.end()) {
            target = it->second;
            result = target->GetPipeFd();
        } else {
            result = Insert(pipe);
            if (result < 0) {
                LOGE("Cannot alloc new fd, ret = %d\n", result);
                return result;
            }
            target = pipe;
        }
        target->BeginOpen();
    }
    if (target != pipe) {
        pipe.reset();  // an unused duplicate goes here, outside the lock
    }
    if (replaced) {
        // Its user hears of the close (a null request) and its files go before the new pipe
        // makes its own; its number answers -ENOENT from now on.
        replaced->HandleRemoteClosed();
        replaced.reset();
    }
    int status = target->TimedOpen(attr->timeout);
    if (FinishOpen(target, result, status)) {
        callbackPool->FreeWorker(std::to_string(result));
    }
    if (status == -ETIMEDOUT) {
        LOGI("AddPipe timedout when open\n");
        return status;
    }
    if (status == -ECANCELED) {
        LOGI("Open is cancelled\n");
        return status;
    }
    if (status < 0) {
        LOGE("AddPipe failed when open fd=%d, err=%d\n", result, status);
        return status;
    }
    return result;
}

bool SableTable::FinishOpen(const std::shared_ptr<SablePipeImpl>& pipe, int fd, int status) {
    sable::WriterLock lock(tableLock);
    const int others = pipe->EndOpen();
    if (status >= 0) {
        pipe->MarkHandedOut();
        return false;
    }
    // Nobody holds the number of a pipe whose every open failed: it must not keep its slot.
    if (pipe->HandedOut() || others > 0) {
        return false;
    }
    auto it = pipeFdTable.find(fd);
    if (it == pipeFdTable.end() || it->second != pipe) {
        return false;  // closed meanwhile
    }
    RemoveDataMonitor(fd);
    pipe->DeInitPipe();  // before it leaves the table, as in CloseSablePipe
    pipe->SetInTable(false);
    pipeFdTable.erase(it);
    pipeKeyTable.erase(pipe->GetTableKey());
    LOGI("pipe(%d) is removed from table\n", fd);
    return true;
}

int SableTable::Insert(std::shared_ptr<SablePipeImpl> pipe) {
    if (static_cast<int>(pipeFdTable.size()) > MAX_PIPES - 1) {
        return -ENOMEM;
    }
    int fd = AllocateFd();
    if (fd < 0) {
        LOGE("Exceed fd maximum number, ret = %d\n", fd);
        return fd;
    }
    pipe->SetFd(fd);
    pipeFdTable.emplace(fd, pipe);
    pipeKeyTable.emplace(pipe->GetTableKey(), pipe);
    pipe->SetInTable(true);
    LOGD("Pipe table size: %d, alloc fd = %d\n", static_cast<int>(pipeFdTable.size()), fd);
    return fd;
}

std::shared_ptr<SablePipeImpl> SableTable::GetPipe(int fd) {
    if (fd < 1) {
        LOGD("Input fd(%d) is invalid\n", fd);
        return nullptr;
    }
    sable::ReaderLock lock(tableLock);
    auto it = pipeFdTable.find(fd);
    if (it == pipeFdTable.end()) {
        LOGI("GetPipe failed, input fd = %d\n", fd);
        return nullptr;
    }
    return it->second;
}

int SableTable::PrepareMonitor(SabloPriority priority, DataMonitorType type) {
    sable::MutexLock lock(monitorLock);
    if (monitors[type]) {
        return 0;
    }
    int ret = InitMonitor(priority, type);
    if (ret != 0) {
        LOGE("Init monitor failed for RTType %d, ret %d \n", priority, ret);
    }
    return ret;
}

int SableTable::InitMonitor(SabloPriority priority, DataMonitorType type) {
    const char* name = EnvManager::ProcName();
    if (CheckInputName(name, strnlen(name, 101), 100) != 0) {
        LOGE("PROC_NAME is not available\n");
        return -EINVAL;
    }
    monitors[type].reset(new (std::nothrow) DataMonitorImpl());
    if (!monitors[type]) {
        LOGE("Make dataMonitor(type = %d) alloc failed", type);
        return -ENOMEM;
    }
    int id = AllocateFd();
    int ret = monitors[type]->Init(priority, id, type);
    if (ret < 0) {
        LOGE("Init dataMonitor(type = %d) failed, ret = %d", type, ret);
        monitors[type].reset();
        return ret;
    }
    return 0;
}

int SableTable::OnPipeOpened(int readFd, int fd, std::shared_ptr<SablePipeImpl> pipe) {
    // Under the table lock: a close takes the pipe out of the table (and its monitor) under
    // this lock before it closes the descriptors, so the read end is registered either before
    // that (and removed by it) or not at all, and never after its descriptor was closed.
    sable::ReaderLock lock(tableLock);
    if (pipe) {
        auto it = pipeFdTable.find(fd);
        if (it == pipeFdTable.end() || it->second != pipe) {
            return -ECANCELED;  // closed while it opened
        }
    }
    sable::MutexLock monitorGuard(monitorLock);
    DataMonitorImpl* monitor =
        pipe ? monitors[pipe->GetPipeDataMonitorType()].get() : monitors[1].get();
    if (monitor == nullptr) {
        LOGE("DataMonitor memory problem\n");
        return -ESPIPE;
    }
    return monitor->Add(fd, readFd, pipe);
}

SableTable::iterator SableTable::RemoveDataMonitor(int fd) {
    auto it = pipeFdTable.find(fd);
    if (it == pipeFdTable.end()) {
        LOGI("RemoveDataMonitor not find pipe(%d) from pipeFdTable.\n", fd);
        return it;
    }
    sable::MutexLock lock(monitorLock);
    DataMonitorImpl* monitor = monitors[it->second->GetPipeDataMonitorType()].get();
    if (monitor != nullptr && monitor->Remove(fd) != 0) {
        LOGI("Remove pipe(%d) from pipeIdxTable unfinished\n", fd);
    }
    return it;
}

void SableTable::OnPipeRemoteClosed(int fd) {
    sable::WriterLock lock(tableLock);
    RemoveDataMonitor(fd);
}

void SableTable::CloseSablePipe(int fd) {
    sable::MutexLock close(closeLock);
    std::shared_ptr<SablePipeImpl> pipe;
    {
        sable::WriterLock lock(tableLock);
        auto it = RemoveDataMonitor(fd);
        if (it == pipeFdTable.end()) {
            return;
        }
        pipe = it->second;
        // Closed before it leaves the table: its files are gone before the same pair can be
        // opened anew (a close that unlinked after that would remove the new pipe's files).
        pipe->DeInitPipe();
        pipe->SetInTable(false);
        pipeFdTable.erase(it);
        pipeKeyTable.erase(pipe->GetTableKey());
        LOGI("pipe(%d) is removed from table\n", fd);
    }
    if (!pipe->IsCallbackHandleRemoteClose()) {
        callbackPool->FreeWorker(std::to_string(fd));
    }
}

void SableTable::ExceptionHandler() {
    sable::WriterLock lock(tableLock);
    for (auto& entry : pipeFdTable) {
        entry.second->ExceptionHandler();
    }
}

void SableTable::DisableSableTable() {
    std::map<int, std::shared_ptr<SablePipeImpl>> closed;
    {
        sable::WriterLock lock(tableLock);
        for (auto& entry : pipeFdTable) {
            entry.second->DeInitPipe();
            entry.second->SetInTable(false);
        }
        closed.swap(pipeFdTable);
        pipeKeyTable.clear();
    }
    // Monitors are taken out under the lock but destroyed outside it: a receive thread being
    // joined may itself be waiting for the table and monitor locks on its way out.
    std::unique_ptr<DataMonitorImpl> stopping[DATA_MONITOR_TYPE_NUM];
    {
        sable::MutexLock lock(monitorLock);
        for (int i = 0; i < DATA_MONITOR_TYPE_NUM; ++i) {
            stopping[i] = std::move(monitors[i]);
        }
    }
    for (auto& monitor : stopping) {
        if (monitor) {
            monitor->Destroy();
            monitor.reset();
        }
    }
    callbackPool->Destroy();
    isDisable.store(true);
}

int SableTable::Size() const {
    sable::ReaderLock lock(tableLock);
    return static_cast<int>(pipeFdTable.size());
}

int SableTable::NumWorkers() const {
    return static_cast<int>(callbackPool->NumWorkers());
}

int SableTable::NumUrgentWorkers() const {
    return static_cast<int>(callbackPool->NumUrgentWorkers());
}

int SableTable::OnRequestIn(std::string workerKey, const std::function<void()>& task,
                            SabloPriority priority) const {
    return callbackPool->DropTo(workerKey, task, priority);
}

int SableTable::OnAsyncRequestIn(const std::function<void()>& task, SabloPriority priority) const {
    return callbackPool->DropAsyncTask(task, priority);
}

int SableTable::OnFreeSelfWorker(std::string workerKey) {
    return callbackPool->FreeWorker(workerKey);
}

int SableTable::OnRequestTaskIn(const std::string& workerKey,
                                std::shared_ptr<const SableTask>& task, SabloPriority priority) {
    return callbackPool->DropTo(workerKey, task, priority);
}

void SableTable::OnPipeResume(int fd, DataMonitorType type) {
    sable::MutexLock lock(monitorLock);
    if (type >= 0 && type < DATA_MONITOR_TYPE_NUM && monitors[type]) {
        monitors[type]->RequestResume(fd);
    }
}

bool SableTable::OnPipeSetAside(int fd, DataMonitorType type) {
    sable::MutexLock lock(monitorLock);
    return type >= 0 && type < DATA_MONITOR_TYPE_NUM && monitors[type] &&
           monitors[type]->SetAside(fd);
}

void SableTable::OnPipeTakenBack(int fd, DataMonitorType type, bool paused, bool buffered) {
    sable::MutexLock lock(monitorLock);
    if (type >= 0 && type < DATA_MONITOR_TYPE_NUM && monitors[type]) {
        monitors[type]->TakeBack(fd, paused, buffered);
    }
}

int SableTable::OnWaitForWriter(const std::shared_ptr<SablePipeImpl>& pipe, int timeoutMs) {
    return writeOpener ? writeOpener->Add(pipe, timeoutMs) : -EACCES;
}

size_t SableTable::PendingWriteOpens() const {
    return writeOpener ? writeOpener->Pending() : 0;
}
