#include "pipe/RequestTask.h"

#include "pipe/InRequest.h"
#include "pipe/SablePipeImpl.h"

RequestTask::RequestTask(std::shared_ptr<SablePipeImpl> owner, std::shared_ptr<InRequest> req,
                         const Handler& fn, int pipeFd, bool counted)
    : SableTask(nullptr),
      pipe(std::move(owner)),
      request(std::move(req)),
      fd(pipeFd),
      queued(counted) {
    SetHandler(fn);
}

RequestTask::RequestTask(std::shared_ptr<SablePipeImpl> owner, Batch requests,
                         PayloadArena::Blocks blocks, const Handler& fn, int pipeFd)
    : SableTask(nullptr),
      pipe(std::move(owner)),
      batch(std::move(requests)),
      payloads(std::move(blocks)),
      fd(pipeFd),
      queued(true) {
    SetHandler(fn);
}

RequestTask::RequestTask(std::shared_ptr<SablePipeImpl> owner, const SabloRequest& only,
                         PayloadArena::Blocks blocks, const Handler& fn, int pipeFd)
    : SableTask(nullptr),
      pipe(std::move(owner)),
      single(only),
      payloads(std::move(blocks)),
      hasSingle(true),
      fd(pipeFd),
      queued(true) {
    SetHandler(fn);
}

// The payloads go with `payloads`, whether the task ran or was dropped before (its worker was
// cleared).
RequestTask::~RequestTask() = default;

void RequestTask::SetHandler(const Handler& fn) {
    if (&fn == &pipe->ServiceHandler()) {
        handler = &fn;
    } else {
        copied = fn;
        handler = &copied;
    }
}

void RequestTask::operator()() const {
    if (hasSingle) {
        pipe->RunRequest(&single, *handler, fd);
        pipe->OnQueuedRequestsDone(1);
        return;
    }
    if (batch.empty()) {
        pipe->RunRequest(request ? &request->Record() : nullptr, *handler, fd);
        if (queued) {
            pipe->OnQueuedRequestsDone(1);
        }
        return;
    }
    for (SabloRequest& each : batch) {
        pipe->RunRequest(&each, *handler, fd);
    }
    const size_t count = batch.size();
    batch.clear();
    pipe->OnQueuedRequestsDone(static_cast<uint32_t>(count));
}
