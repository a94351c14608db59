// A received request, or a remote-close notice, on its way to a worker.
#ifndef SABLE_PIPE_REQUEST_TASK_H
#define SABLE_PIPE_REQUEST_TASK_H

#include <functional>
#include <memory>
#include <vector>

#include "pool/SableTask.h"
#include "sable_comm.h"

class InRequest;
class SablePipeImpl;

// Runs the pipe's request callback for one request (null: the remote has gone), or for the
// requests of one batch one after the other, on the worker that runs it. Built once and queued
// as it is: it carries the pipe, the requests and the callback, so the hand-over to the worker
// allocates nothing more. Immutable.
class RequestTask final : public SableTask {
  public:
    using Handler = std::function<void(int, SabloRequest*)>;
    using Batch = std::vector<std::shared_ptr<InRequest>>;

    // `handler` is referred to, not copied, when it is the pipe's own request callback (which
    // lives as long as the pipe this task holds); any other handler is copied.
    RequestTask(std::shared_ptr<SablePipeImpl> pipe, std::shared_ptr<InRequest> request,
                const Handler& handler, int fd);
    // The requests of `batch`, in order.
    RequestTask(std::shared_ptr<SablePipeImpl> pipe, Batch batch, const Handler& handler, int fd);

    void operator()() const override;

  private:
    void SetHandler(const Handler& fn);

    std::shared_ptr<SablePipeImpl> pipe;
    std::shared_ptr<InRequest> request;  // the only one, or the first of a batch
    Batch more;
    Handler copied;
    const Handler* handler;
    int fd;
};

#endif
