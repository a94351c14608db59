// The process-wide registry of open pipes and their receive monitors.
#ifndef SABLE_TABLE_SABLE_TABLE_H
#define SABLE_TABLE_SABLE_TABLE_H

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "base/Mutex.h"
#include "monitor/DataMonitorImpl.h"
#include "sable_comm.h"
#include "table/PipeObserver.h"

class CallbackPool;
class WriteOpener;
class SablePipeImpl;

// Hands out pipe numbers (from 1, never reused), finds pipes by number, keeps one receive
// monitor per monitor type, and is the observer of every pipe. Thread-safe.
//
// Lock order: closeLock, then tableLock, then monitorLock. A pipe's open runs with none held.
class SableTable : public PipeObserver {
  public:
    static constexpr int MAX_PIPES = 1024;
    using iterator = std::map<int, std::shared_ptr<SablePipeImpl>>::iterator;

    explicit SableTable(const std::shared_ptr<CallbackPool>& pool);
    ~SableTable() override;
    SableTable(const SableTable&) = delete;
    SableTable& operator=(const SableTable&) = delete;

    // Throws std::out_of_range for priority 1 (no receive monitor for it).
    std::shared_ptr<SablePipeImpl> MakePipe(const SabloAttr& attr, SabloPipeType type);
    // Opens (or re-opens) the pipe to attr's target; its number or a negative errno
    // (-ENOMEM with 1024 pipes open, -ETIMEDOUT, -ECANCELED, or the open's error).
    int MakeAndAddPipe(const SabloAttr* attr, SabloPipeType type);
    int Insert(std::shared_ptr<SablePipeImpl> pipe) REQUIRES(tableLock);
    // After an open of `pipe` (number `fd`) ended with `status`: true when the pipe was closed
    // and taken out of the table because no caller holds its number and no other open uses it
    // (the caller then frees its worker).
    bool FinishOpen(const std::shared_ptr<SablePipeImpl>& pipe, int fd, int status)
        EXCLUDES(tableLock);
    std::shared_ptr<SablePipeImpl> GetPipe(int fd);
    // Removes the pipe from its monitor and the table, then closes it. Unknown numbers: no-op.
    void CloseSablePipe(int fd);
    int PrepareMonitor(SabloPriority priority, DataMonitorType type);
    int InitMonitor(SabloPriority priority, DataMonitorType type) REQUIRES(monitorLock);
    iterator RemoveDataMonitor(int fd) REQUIRES(tableLock);
    // Signal context: removes the FIFO files of every pipe.
    void ExceptionHandler();
    // Closes every pipe, ends the monitors and destroys the callback pool's work.
    void DisableSableTable();

    int AllocateFd() { return static_cast<int>(nextFd.fetch_add(1)); }
    int Size() const;
    int NumWorkers() const;
    int NumUrgentWorkers() const;
    bool GetIsDisable() const { return isDisable.load(); }

    int OnRequestIn(std::string workerKey, const std::function<void()>& task,
                    SabloPriority priority) const override;
    int OnAsyncRequestIn(const std::function<void()>& task, SabloPriority priority) const override;
    int OnPipeOpened(int readFd, int fd, std::shared_ptr<SablePipeImpl> pipe) override;
    void OnOpenFailed(int fd) override { CloseSablePipe(fd); }
    void OnPipeRemoteClosed(int fd) override;
    int OnFreeSelfWorker(std::string workerKey) override;
    int OnRequestTaskIn(const std::string& workerKey, std::shared_ptr<const SableTask>& task,
                        SabloPriority priority) override;
    void OnPipeResume(int fd, DataMonitorType type) override;
    bool OnPipeSetAside(int fd, DataMonitorType type) override;
    void OnPipeTakenBack(int fd, DataMonitorType type, bool paused, bool buffered) override;
    int OnWaitForWriter(const std::shared_ptr<SablePipeImpl>& pipe, int timeoutMs) override;
    // Creating ends still waiting for their peer to read (diagnostics and tests).
    size_t PendingWriteOpens() const;

  private:
    // Guards the two maps; a pipe is in one exactly when it is in the other.
    mutable sable::SharedMutex tableLock ACQUIRED_AFTER(closeLock);
    std::map<int, std::shared_ptr<SablePipeImpl>> pipeFdTable GUARDED_BY(tableLock);
    std::map<std::string, std::shared_ptr<SablePipeImpl>> pipeKeyTable GUARDED_BY(tableLock);
    std::shared_ptr<CallbackPool> callbackPool;
    std::atomic<uint32_t> nextFd{1};
    // Guards the monitor slots; last in the lock order.
    sable::Mutex monitorLock ACQUIRED_AFTER(tableLock);
    // Serialises CloseSablePipe; first in the lock order.
    sable::Mutex closeLock;
    std::unique_ptr<DataMonitorImpl> monitors[DATA_MONITOR_TYPE_NUM] GUARDED_BY(monitorLock);
    std::atomic<bool> isDisable{false};
    // The one thread that opens the write ends creating ends wait for; stopped first.
    std::unique_ptr<WriteOpener> writeOpener;
};

#endif
