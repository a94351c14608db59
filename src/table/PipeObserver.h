// How a pipe reports to its owner (the pipe table).
#ifndef SABLE_TABLE_PIPE_OBSERVER_H
#define SABLE_TABLE_PIPE_OBSERVER_H

#include <errno.h>

#include <functional>
#include <memory>
#include <string>

#include "monitor/DataMonitorImpl.h"
#include "pool/SableTask.h"
#include "sable_comm.h"

class SablePipeImpl;

class PipeObserver {
  public:
    // A request task for the pipe's own worker `workerKey`: tasks of one key run in order.
    // 0 or a negative errno (nothing queued).
    virtual int OnRequestIn(std::string workerKey, const std::function<void()>& task,
                            SabloPriority priority) const = 0;
    // A task for any worker. May block until a worker is free. 0 or a negative errno.
    virtual int OnAsyncRequestIn(const std::function<void()>& task,
                                 SabloPriority priority) const = 0;
    // The pipe's read side is open: start receiving on `readFd`. 0 or a negative errno
    // (-ECANCELED: the pipe was closed meanwhile and is not watched).
    virtual int OnPipeOpened(int readFd, int fd, std::shared_ptr<SablePipeImpl> pipe) = 0;
    virtual void OnOpenFailed(int fd) = 0;
    // The remote has gone: stop receiving for `fd` (the pipe stays registered until closed).
    virtual void OnPipeRemoteClosed(int fd) = 0;
    // The worker bound to `workerKey` is no longer needed.
    virtual int OnFreeSelfWorker(std::string workerKey) = 0;
    // OnRequestIn for a task built by the pipe (moved from on success), so that queuing a
    // request allocates nothing more. By default it goes the std::function way.
    virtual int OnRequestTaskIn(const std::string& workerKey,
                                std::shared_ptr<const SableTask>& task, SabloPriority priority) {
        std::shared_ptr<const SableTask> held = task;
        int ret = OnRequestIn(
            workerKey, [held]() { (*held)(); }, priority);
        if (ret == 0) task.reset();
        return ret;
    }
    // A creating end waits for its peer to read: open `pipe`'s write end as soon as it can,
    // within `timeoutMs`, and treat the pipe as closed by the remote when that fails.
    // 0 or a negative errno; -ENOSYS means the observer has no opener, and the pipe then gives
    // the wait to a worker (SablePipeImpl::HandleServerOpen).
    virtual int OnWaitForWriter(const std::shared_ptr<SablePipeImpl>& /*pipe*/, int /*timeoutMs*/) {
        return -ENOSYS;
    }
    // A pipe whose receive side paused (its worker was full) may be read again: the receive
    // thread of its monitor type resumes it.
    virtual void OnPipeResume(int /*fd*/, DataMonitorType /*type*/) {}
    // A thread waiting for its response reads pipe `fd` itself: the receive thread of its
    // monitor type stops watching the FIFO for frames. False when it cannot (DataMonitorImpl::
    // SetAside), and then nothing changed.
    virtual bool OnPipeSetAside(int /*fd*/, DataMonitorType /*type*/) { return false; }
    // And watches it again (DataMonitorImpl::TakeBack).
    virtual void OnPipeTakenBack(int /*fd*/, DataMonitorType /*type*/, bool /*paused*/,
                                 bool /*buffered*/) {}
    virtual ~PipeObserver() = default;
};

#endif
