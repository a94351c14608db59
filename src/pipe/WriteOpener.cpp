#include "pipe/WriteOpener.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "log/NuxSyslog.h"
#include "pipe/SablePipeImpl.h"

namespace {
constexpr const char* kThreadName = "sable_comm_open";
}  // namespace

constexpr std::chrono::milliseconds WriteOpener::FIRST_RETRY;
constexpr std::chrono::milliseconds WriteOpener::LAST_RETRY;

WriteOpener::~WriteOpener() {
    bool join = false;
    {
        sable::MutexLock lock(mutex);
        stopping = true;
        join = started;
    }
    if (join) {
        Wake();
        // No Add touches the thread once `stopping` is set.
        try {
            thread.Join();
        } catch (const std::system_error& e) {
            LOGE("Join write opener failed, system error: %s.\n", e.what());
        }
    }
}

int WriteOpener::Add(const std::shared_ptr<SablePipeImpl>& pipe, int timeoutMs) {
    const Clock::time_point now = Clock::now();
    {
        sable::MutexLock lock(mutex);
        if (stopping) {
            return -EACCES;
        }
        if (!started) {
            wakeFd.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
            if (!wakeFd.Valid()) {
                return -ENOSPC;
            }
            // Without inotify (no instance left) the retries alone find the peer.
            inotifyFd.Reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
            try {
                thread.Create(&WriteOpener::Routine, this);
            } catch (const std::system_error& e) {
                LOGE("start write opener failed, system error: %s.\n", e.what());
                return -ENOSPC;
            }
            started = true;
        }
        added.push_back(Entry{pipe, pipe->GetWriteFifoName(),
                              now + std::chrono::milliseconds(timeoutMs), now, FIRST_RETRY});
        ++waiting;
    }
    Wake();
    return 0;
}

size_t WriteOpener::Pending() {
    sable::MutexLock lock(mutex);
    return waiting;
}

void WriteOpener::Wake() {
    uint64_t one = 1;
    if (write(wakeFd.Get(), &one, sizeof(one)) < 0) {
        // Only a full counter refuses, and then the thread is woken already.
    }
}

void WriteOpener::Watch(const std::string& fifoName) {
    if (!inotifyFd.Valid()) {
        return;
    }
    std::string dir = fifoName.substr(0, fifoName.rfind('/'));
    for (const auto& watched : watchedDirs) {
        if (watched.second == dir) {
            return;
        }
    }
    int wd = inotify_add_watch(inotifyFd.Get(), dir.c_str(), IN_OPEN);
    if (wd >= 0) {
        watchedDirs.emplace(wd, std::move(dir));
    }
}

void WriteOpener::Unwatch() {
    // A watched directory costs every read and write of its FIFOs a notification walk, in every
    // process: the watches are kept only while some pipe waits.
    for (const auto& watched : watchedDirs) {
        inotify_rm_watch(inotifyFd.Get(), watched.first);
    }
    watchedDirs.clear();
}

bool WriteOpener::Attempt(Entry& entry, Clock::time_point now) {
    std::shared_ptr<SablePipeImpl> pipe = entry.pipe.lock();
    if (!pipe) {
        return false;
    }
    int ret = pipe->OpenWriteFifo();
    if (ret >= 0) {
        return false;
    }
    // The peer has no reader yet (ENXIO), its file is not there yet (ENOENT), or descriptors
    // ran short for a moment (EMFILE): worth another try within the time-out.
    const bool again = ret == -ENXIO || ret == -ENOENT || ret == -EMFILE;
    if (again && now < entry.deadline) {
        entry.next = std::min(now + entry.backoff, entry.deadline);
        entry.backoff = std::min<Clock::duration>(entry.backoff * 2, LAST_RETRY);
        return true;
    }
    pipe->OnWriteOpenFailed(ret == -ENXIO ? -ETIMEDOUT : ret);
    return false;
}

void WriteOpener::Routine() {
    if (prctl(PR_SET_NAME, kThreadName) != 0) {
        LOGI("Set write opener thread name unfinished, errno = %d\n", errno);
    }
    KorCoreSetaffinity();
    std::vector<Entry> pending;
    alignas(struct inotify_event) char events[4096];
    for (;;) {
        size_t firstNew = pending.size();
        {
            sable::MutexLock lock(mutex);
            if (stopping) {
                break;
            }
            for (Entry& entry : added) {
                pending.push_back(std::move(entry));
            }
            added.clear();
        }
        // Watched before the first try, so that a peer opening right after it is not missed.
        for (size_t i = firstNew; i < pending.size(); ++i) {
            Watch(pending[i].fifoName);
        }
        Clock::time_point now = Clock::now();
        Clock::time_point wakeAt = Clock::time_point::max();
        for (size_t i = 0; i < pending.size();) {
            if (pending[i].next <= now && !Attempt(pending[i], now)) {
                pending[i] = std::move(pending.back());
                pending.pop_back();
                continue;
            }
            wakeAt = std::min(wakeAt, pending[i].next);
            ++i;
        }
        if (pending.empty()) {
            Unwatch();
        }
        {
            sable::MutexLock lock(mutex);
            waiting = pending.size() + added.size();
        }
        int timeoutMs = -1;
        if (wakeAt != Clock::time_point::max()) {
            auto left =
                std::chrono::duration_cast<std::chrono::microseconds>(wakeAt - Clock::now());
            timeoutMs = left.count() <= 0 ? 0 : static_cast<int>((left.count() + 999) / 1000);
        }
        struct pollfd fds[2] = {{wakeFd.Get(), POLLIN, 0}, {inotifyFd.Get(), POLLIN, 0}};
        int n = poll(fds, inotifyFd.Valid() ? 2 : 1, timeoutMs);
        if (n <= 0) {
            continue;
        }
        if ((fds[0].revents & POLLIN) != 0) {
            uint64_t count = 0;
            if (read(wakeFd.Get(), &count, sizeof(count)) < 0) {
                // Taken by an earlier wake-up.
            }
        }
        if (inotifyFd.Valid() && (fds[1].revents & POLLIN) != 0) {
            ssize_t len = read(inotifyFd.Get(), events, sizeof(events));
            now = Clock::now();
            for (ssize_t off = 0; off + static_cast<ssize_t>(sizeof(inotify_event)) <= len;) {
                const auto* ev = reinterpret_cast<const struct inotify_event*>(events + off);
                off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
                auto dir = watchedDirs.find(ev->wd);
                if (ev->len == 0 || dir == watchedDirs.end()) {
                    continue;
                }
                // Something opened a FIFO of this directory: the pipes writing to it try now.
                const std::string path = dir->second + "/" + ev->name;
                for (Entry& entry : pending) {
                    if (entry.fifoName == path) {
                        entry.next = now;
                    }
                }
            }
        }
    }
}
