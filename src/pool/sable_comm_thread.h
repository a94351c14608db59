// One library thread and the scheduling class it runs under.
#ifndef SABLE_POOL_SABLE_COMM_THREAD_H
#define SABLE_POOL_SABLE_COMM_THREAD_H

#include <pthread.h>

#include <cstddef>
#include <functional>
#include <system_error>
#include <vector>

#include "base/SigpipeHold.h"
#include "sable_comm.h"

// A scheduling policy and its static priority.
struct SchedSetting {
    int policy;
    int priority;
};

// Holds a thread started on a member function of its owner and switches it between ordinary
// time-sharing and the library's one real-time priority:
//
//   SABLO_PRIORITY_NORMAL   (1)  SCHED_OTHER, priority 0
//   SABLO_PRIORITY_REALTIME (2)  SCHED_FIFO,  priority 50
//
// Every thread starts with the scheduling of the process's ordinary threads (OrdinarySetting),
// whatever the creating thread runs under: a thread created from a real-time thread does not
// inherit real-time.
//
// No lock of its own: the owner serialises Create, Join, SetRTType and Release (its own
// mutex). Owners join before they create again or destroy the object.
class SableCommThread {
  public:
    static constexpr int REALTIME_PRIORITY = 50;

    // `startType` is what GetRTType() reports until the thread exists.
    explicit SableCommThread(SabloPriority startType = SABLO_PRIORITY_NORMAL) : rtType(startType) {}
    // A thread still held here is one its owner could not join (it is the calling thread):
    // it is handed over to be joined once it has ended, rather than terminating the process.
    ~SableCommThread();
    SableCommThread(const SableCommThread&) = delete;
    SableCommThread& operator=(const SableCommThread&) = delete;

    // Starts a thread running (owner->*routine)(), on a stack of `stackSize` bytes that this
    // object maps and unmaps itself (0: the C library's default stack). Throws
    // std::system_error when the thread cannot be created. Must not be called while
    // Joinable().
    //
    // The stored class is read back from the new thread: 1 or 2 when it runs exactly one of
    // the table's settings, SABLO_PRIORITY_DEFAULT (0) otherwise, so that the next
    // SetRTType(1 or 2) really switches it.
    //
    // Every library thread runs with SIGPIPE blocked from its start (see SigpipeHold.h).
    template <class Routine, class Owner>
    void Create(Routine routine, Owner* owner, size_t stackSize = 0) {
        Launch([routine, owner]() { (owner->*routine)(); }, stackSize);
    }

    // True while the object holds a thread (started and not yet joined or released).
    bool Joinable() const { return held; }
    // Joins the thread and unmaps its stack; throws std::system_error (EDEADLK from the
    // thread itself), the thread then still held.
    void Join();
    // True when called from the held thread.
    bool IsCallingThread() const;

    // A thread let go of by Release or by the destructor, waiting to be joined.
    struct Ended {
        pthread_t handle;
        void* stack;
        size_t stackBytes;
        // Handed over by the thread itself as its last step (Release): it ends without
        // taking any lock, so joining it may wait. Otherwise (destructor) it is only joined
        // once it has ended.
        bool ending;
    };
    using EndedList = std::vector<Ended>;

    // Called under the owner's lock by the held thread itself as it ends for good: the object
    // lets go of it (no longer Joinable), and the thread is joined and its stack unmapped by
    // the next thread that ends this way or by ReapEnded. Returns the threads that ended this
    // way before it, which the caller joins with JoinEnded once it has released its locks; so
    // of a crowd of ended threads at most the last keeps its stack mapped.
    EndedList Release();
    // Joins the threads that Release returned (each of them has ended or is ending) and unmaps
    // their stacks; one still running that was not handed over by Release is kept for later.
    static void JoinEnded(EndedList& list);
    // Lets go of the held thread for the caller to join with JoinTaken, so that the owner need
    // not hold its lock while waiting for the thread (which may want that lock on its way
    // out). Must not be called from the held thread itself.
    Ended Take();
    // Joins a thread returned by Take and unmaps its stack; throws std::system_error when the
    // join fails.
    static void JoinTaken(const Ended& thread);
    // Joins every thread let go of that has already ended, and unmaps their stacks. Never
    // waits for a thread; may be called under any lock.
    static void ReapEnded();

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

    // The scheduling the process's ordinary threads have: read once, from the process's main
    // thread (a real-time thread that happens to start the library does not count), and kept.
    // A policy that a thread cannot be given by pthread_setschedparam (SCHED_DEADLINE) reads
    // as SCHED_OTHER 0.
    static const SchedSetting& OrdinarySetting();
    // The setting of a class: 1 and 2 from the table, 0 the ordinary setting. false for any
    // other value.
    static bool SettingOf(SabloPriority prio, SchedSetting& setting);
    // Switches the calling thread to `setting`: 0 or the error of pthread_setschedparam,
    // which is logged with `prio` as the requested class.
    static int ApplyToSelf(const SchedSetting& setting, SabloPriority prio);

  private:
    static void* Trampoline(void* arg);
    void Launch(std::function<void()> body, size_t stackSize);
    static SabloPriority ClassOf(pthread_t handle);

    SabloPriority rtType;
    pthread_t handle{};
    bool held = false;
    // The stack mapped for the thread (null: the C library's own), guard page included.
    void* stack = nullptr;
    size_t stackBytes = 0;
};

#endif
