// How a pipe reports to its owner (the pipe table).
#ifndef SABLE_TABLE_PIPE_OBSERVER_H
#define SABLE_TABLE_PIPE_OBSERVER_H

#include <functional>
#include <memory>
#include <string>

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
    // The pipe's read side is open: start receiving on `readFd`. 0 or a negative errno.
    virtual int OnPipeOpened(int readFd, int fd, std::shared_ptr<SablePipeImpl> pipe) = 0;
    virtual void OnOpenFailed(int fd) = 0;
    // The remote has gone: stop receiving for `fd` (the pipe stays registered until closed).
    virtual void OnPipeRemoteClosed(int fd) = 0;
    // The worker bound to `workerKey` is no longer needed.
    virtual int OnFreeSelfWorker(std::string workerKey) = 0;
    virtual ~PipeObserver() = default;
};

#endif
