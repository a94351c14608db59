// A received request, or a remote-close notice, on its way to a worker.
#ifndef SABLE_PIPE_REQUEST_TASK_H
#define SABLE_PIPE_REQUEST_TASK_H

#include <functional>
#include <memory>
#include <vector>

#include "pipe/PayloadArena.h"
#include "pool/SableTask.h"
#include "sable_comm.h"

class InRequest;
class SablePipeImpl;

// Runs the pipe's request callback for one request (null: the remote has gone), or for the
// requests of one receive turn one after the other, on the worker that runs it. Built once and
// queued as it is: it carries the pipe, the requests and the callback, so the hand-over to the
// worker allocates nothing more. Runs once.
class RequestTask final : public SableTask {
  public:
    using Handler = std::function<void(int, SabloRequest*)>;
    // Requests of one receive turn.
    using Batch = std::vector<SabloRequest>;

    // `handler` is referred to, not copied, when it is the pipe's own request callback (which
    // lives as long as the pipe this task holds); any other handler is copied. `queued`: the
    // request counts in the pipe's worker backlog, given back once it has run.
    RequestTask(std::shared_ptr<SablePipeImpl> pipe, std::shared_ptr<InRequest> request,
                const Handler& handler, int fd, bool queued);
    // The requests of `batch`, in order; each counts in the backlog. Their payloads lie in
    // `payloads`, which the task owns: they are freed with the task, after the last callback
    // (or without any, when it is dropped before it ran).
    RequestTask(std::shared_ptr<SablePipeImpl> pipe, Batch batch, PayloadArena::Blocks payloads,
                const Handler& handler, int fd);
    // A turn that brought one request: as above, with the record held by the task itself, so the
    // pipe keeps its batch storage for the next turn.
    RequestTask(std::shared_ptr<SablePipeImpl> pipe, const SabloRequest& only,
                PayloadArena::Blocks payloads, const Handler& handler, int fd);
    ~RequestTask() override;
    RequestTask(const RequestTask&) = delete;
    RequestTask& operator=(const RequestTask&) = delete;

    void operator()() const override;

  private:
    void SetHandler(const Handler& fn);

    std::shared_ptr<SablePipeImpl> pipe;
    std::shared_ptr<InRequest> request;  // the single request (null: a remote-close notice)
    mutable Batch batch;                 // emptied as it runs
    mutable SabloRequest single{};       // the one request of a one-request turn
    PayloadArena::Blocks payloads;       // of the batch's requests, or of the single one
    bool hasSingle = false;
    Handler copied;
    const Handler* handler;
    int fd;
    bool queued;
};

#endif
