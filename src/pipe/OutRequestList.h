// The requests a pipe has sent and still expects a response for.
#ifndef SABLE_PIPE_OUT_REQUEST_LIST_H
#define SABLE_PIPE_OUT_REQUEST_LIST_H

#include <cstddef>
#include <memory>
#include <vector>

#include "base/Mutex.h"

class OutRequest;

// Thread-safe; every member takes the list's mutex for its whole run.
class OutRequestList {
  public:
    static constexpr size_t CAPACITY = 1000;

    // 0; -ENOMEM when 1000 entries are held; -EPIPE when not enabled.
    int PushBack(const std::shared_ptr<OutRequest>& req);
    // The first entry with `id` (it stays), or empty.
    std::shared_ptr<OutRequest> Find(unsigned int id);
    // Removes and returns the first entry with `id`, or empty.
    std::shared_ptr<OutRequest> Pop(unsigned int id);
    void Erase(unsigned int id);
    size_t Size();
    void Enable();
    // Refuses new entries, cancels every entry (releasing its waiter) and empties the list.
    void Disable();

  private:
    sable::Mutex mutex;  // guards everything below; taken after the pipe's out-request mutex
    // A vector, not a list: its storage is kept, so a send and its response allocate nothing here.
    std::vector<std::shared_ptr<OutRequest>> entries GUARDED_BY(mutex);
    size_t count GUARDED_BY(mutex) = 0;
    bool valid GUARDED_BY(mutex) = false;
};

#endif
