// One library thread and the scheduling class it runs under.
#ifndef SABLE_POOL_SABLE_COMM_THREAD_H
#define SABLE_POOL_SABLE_COMM_THREAD_H

#include <pthread.h>

#include <thread>

#include "base/SigpipeHold.h"
#include "sable_comm.h"

// Holds a std::thread started on a member function of its owner and switches it between
// ordinary time-sharing and the library's one real-time priority:
//
//   SABLO_PRIORITY_NORMAL   (1)  SCHED_OTHER, priority 0
//   SABLO_PRIORITY_REALTIME (2)  SCHED_FIFO,  priority 50
//
// No lock of its own: the owner serialises Create, Join and SetRTType (its own mutex). Owners
// join before they create again or destroy the object (creating over a joinable thread
// terminates the process).
class SableCommThread {
  public:
    static constexpr int REALTIME_PRIORITY = 50;

    // `startType` is what GetRTType() reports until the thread exists.
    explicit SableCommThread(SabloPriority startType = SABLO_PRIORITY_NORMAL) : rtType(startType) {}
    // A thread still held here is one its owner could not join (it is the calling thread):
    // it is detached rather than terminating the process.
    ~SableCommThread() {
        if (Joinable()) {
            thread.detach();
        }
    }
    SableCommThread(const SableCommThread&) = delete;
    SableCommThread& operator=(const SableCommThread&) = delete;

    // Starts a thread running (owner->*routine)(). Throws std::system_error when the thread
    // cannot be created. Must not be called while Joinable().
    //
    // A new thread inherits the scheduling of the thread that creates it, which need not be
    // the class stored so far (a worker restarted from a real-time monitor thread starts
    // real-time). The stored class is therefore re-read from the new thread: 1 or 2 when it
    // runs exactly one of the table's settings, SABLO_PRIORITY_DEFAULT (0) otherwise, so that
    // the next SetRTType(1 or 2) really switches it.
    //
    // Every library thread runs with SIGPIPE blocked from its start (see SigpipeHold.h).
    template <class Routine, class Owner>
    void Create(Routine routine, Owner* owner) {
        thread = std::thread([routine, owner]() {
            sable::BlockSigpipeForThread();
            (owner->*routine)();
        });
        rtType = ClassOf(thread.native_handle());
    }

    // True while the object holds a thread (started and not yet joined).
    bool Joinable() const { return thread.get_id() != std::thread::id(); }
    // Joins the thread; throws std::system_error as std::thread::join does.
    void Join() { thread.join(); }
    std::thread::id GetId() const { return thread.get_id(); }

    // Switches the thread to the scheduling of `prio`:
    //  - -EINVAL (logged) for any value but 1 and 2, whatever is stored;
    //  - 0 without a system call when `prio` is already stored;
    //  - -ESRCH when there is no thread to switch;
    //  - otherwise pthread_setschedparam. A refused switch (no right to real-time scheduling)
    //    is logged and still answers 0, leaving the stored class as it was, so that the
    //    process keeps working at ordinary priority and a later request tries again.
    // May be called from any thread (acts on the target by handle).
    int SetRTType(const SabloPriority& prio);
    SabloPriority GetRTType() const { return rtType; }

  private:
    static SabloPriority ClassOf(pthread_t handle);

    SabloPriority rtType;
    std::thread thread;
};

#endif
