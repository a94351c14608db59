#include "pipe/OutRequestList.h"

#include <errno.h>

#include "log/NuxSyslog.h"
#include "pipe/OutRequest.h"

int OutRequestList::PushBack(const std::shared_ptr<OutRequest>& req) {
    sable::MutexLock lock(mutex);
    if (count >= CAPACITY) {
        LOGE("Add OutRequest failed, outReqList size=%zu bytes.\n", count);
        return -ENOMEM;
    }
    if (!valid) {
        LOGE("Add OutRequest failed, outReqList is not valid.\n");
        return -EPIPE;
    }
    entries.push_back(req);
    ++count;
    return 0;
}

std::shared_ptr<OutRequest> OutRequestList::Find(unsigned int id) {
    sable::MutexLock lock(mutex);
    for (const auto& e : entries) {
        if (e->Id() == id) {
            return e;
        }
    }
    return nullptr;
}

std::shared_ptr<OutRequest> OutRequestList::Pop(unsigned int id) {
    sable::MutexLock lock(mutex);
    for (auto it = entries.begin(); it != entries.end(); ++it) {
        if ((*it)->Id() == id) {
            std::shared_ptr<OutRequest> found = std::move(*it);
            entries.erase(it);
            --count;
            return found;
        }
    }
    return nullptr;
}

void OutRequestList::Erase(unsigned int id) {
    (void)Pop(id);
}

size_t OutRequestList::Size() {
    sable::MutexLock lock(mutex);
    return count;
}

void OutRequestList::Enable() {
    sable::MutexLock lock(mutex);
    valid = true;
}

void OutRequestList::Disable() {
    sable::MutexLock lock(mutex);
    valid = false;
    for (const auto& e : entries) {
        e->Cancel();
    }
    entries.clear();
    count = 0;
}
