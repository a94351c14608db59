#include "pipe/RequestTask.h"

#include "pipe/InRequest.h"
#include "pipe/SablePipeImpl.h"

RequestTask::RequestTask(std::shared_ptr<SablePipeImpl> owner, std::shared_ptr<InRequest> req,
                         const Handler& fn, int pipeFd)
    : SableTask(nullptr), pipe(std::move(owner)), request(std::move(req)), fd(pipeFd) {
    SetHandler(fn);
}

RequestTask::RequestTask(std::shared_ptr<SablePipeImpl> owner, Batch batch, const Handler& fn,
                         int pipeFd)
    : SableTask(nullptr), pipe(std::move(owner)), more(std::move(batch)), fd(pipeFd) {
    SetHandler(fn);
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
    if (more.empty()) {
        pipe->RunRequest(request.get(), *handler, fd);
        return;
    }
    for (const auto& each : more) {
        pipe->RunRequest(each.get(), *handler, fd);
    }
}
