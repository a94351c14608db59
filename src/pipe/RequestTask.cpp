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

RequestTask::RequestTask(std::shared_ptr<SablePipeImpl> owner, Batch requests, const Handler& fn,
                         int pipeFd)
    : SableTask(nullptr),
      pipe(std::move(owner)),
      batch(std::move(requests)),
      fd(pipeFd),
      queued(true) {
    SetHandler(fn);
}

RequestTask::RequestTask(std::shared_ptr<SablePipeImpl> owner, const SabloRequest& only,
                         const Handler& fn, int pipeFd)
    : SableTask(nullptr),
      pipe(std::move(owner)),
      single(only),
      hasSingle(true),
      fd(pipeFd),
      queued(true) {
    SetHandler(fn);
}

RequestTask::~RequestTask() {
    // Requests of a task dropped before it ran (its worker was cleared).
    delete[] single.data;
    for (SabloRequest& each : batch) {
        delete[] each.data;
    }
}

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
        delete[] single.data;
        single.data = nullptr;
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
        // The payload lives exactly as long as its callback.
        delete[] each.data;
        each.data = nullptr;
    }
    const size_t count = batch.size();
    batch.clear();
    pipe->OnQueuedRequestsDone(static_cast<uint32_t>(count));
}
