#include "pipe/RequestTask.h"

#include "pipe/InRequest.h"
#include "pipe/SablePipeImpl.h"

RequestTask::RequestTask(std::shared_ptr<SablePipeImpl> owner, std::shared_ptr<InRequest> req,
                         const Handler& fn, int pipeFd)
    : SableTask(nullptr), pipe(std::move(owner)), request(std::move(req)), fd(pipeFd) {
    if (&fn == &pipe->ServiceHandler()) {
        handler = &fn;
    } else {
        copied = fn;
        handler = &copied;
    }
}

void RequestTask::operator()() const {
    pipe->RunRequest(request.get(), *handler, fd);
}
