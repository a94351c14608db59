// Opens the write ends that creating ends wait for, all on one thread.
#ifndef SABLE_PIPE_WRITE_OPENER_H
#define SABLE_PIPE_WRITE_OPENER_H

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/Mutex.h"
#include "base/UniqueFd.h"
#include "pool/sable_comm_thread.h"

class SablePipeImpl;

// A creating end can open its write FIFO only once the joining end reads it. Instead of a
// worker that retries every half second per pipe, one thread ("sable_comm_open") watches every
// pending pipe: it retries when the kernel reports an open in a FIFO directory (inotify), so
// the write end opens right after the peer's read end does, and otherwise backs off from 1 ms
// to 500 ms; the directories are watched only while some pipe waits. Within the pipe's open
// time-out it gives up with the pipe's own failure handling (SablePipeImpl::OnWriteOpenFailed); a
// pipe that closes or goes away is dropped.
//
// Thread-safe. The thread starts with the first Add and is joined by the destructor.
class WriteOpener {
  public:
    static constexpr std::chrono::milliseconds FIRST_RETRY{1};
    static constexpr std::chrono::milliseconds LAST_RETRY{500};

    WriteOpener() = default;
    ~WriteOpener();
    WriteOpener(const WriteOpener&) = delete;
    WriteOpener& operator=(const WriteOpener&) = delete;

    // Watches `pipe` until its write end is open, for at most `timeoutMs` (> 0). 0, or -ENOSPC
    // when the thread could not start, -EACCES once stopping.
    int Add(const std::shared_ptr<SablePipeImpl>& pipe, int timeoutMs) EXCLUDES(mutex);
    // Number of pipes still waiting (diagnostics and tests).
    size_t Pending() EXCLUDES(mutex);

  private:
    using Clock = std::chrono::steady_clock;
    struct Entry {
        std::weak_ptr<SablePipeImpl> pipe;
        std::string fifoName;
        Clock::time_point deadline;
        Clock::time_point next;
        Clock::duration backoff;
    };

    void Routine();
    // Tries to open; false when the entry is finished (open, failed or gone).
    bool Attempt(Entry& entry, Clock::time_point now);
    void Watch(const std::string& fifoName);
    // Drops every watch (nothing waits any more).
    void Unwatch();
    void Wake();

    sable::Mutex mutex;  // guards the fields below; a leaf lock
    std::vector<Entry> added GUARDED_BY(mutex);
    size_t waiting GUARDED_BY(mutex) = 0;
    bool stopping GUARDED_BY(mutex) = false;
    bool started GUARDED_BY(mutex) = false;
    // Created under `mutex` by the first Add; joined by the destructor once `stopping` is set.
    SableCommThread thread;
    sable::UniqueFd wakeFd;     // eventfd: new entries or stop
    sable::UniqueFd inotifyFd;  // IN_OPEN in the FIFO directories (may be absent)
    // Receive thread of this object only: watched directory per watch descriptor.
    std::map<int, std::string> watchedDirs;
};

#endif
