#include "base/Hazard.h"

#include <linux/membarrier.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <new>

#include "base/Mutex.h"

#if defined(__SANITIZE_THREAD__)
#define SABLE_HAZARD_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SABLE_HAZARD_TSAN 1
#endif
#endif

namespace sable {

namespace hazard {

__thread Slot threadSlot __attribute__((tls_model("initial-exec")));

namespace {

// Every registered slot. Never destroyed: threads may end after the library's static objects
// are gone, and they unregister then.
struct Registry {
    // Guards the list (and every slot's links). Taken last: nothing else is locked under it,
    // and a thread that waits under it waits only for threads that do not take it.
    sable::Mutex mu;
    Slot* head GUARDED_BY(mu) = nullptr;
};

Registry& TheRegistry() {
    static Registry* registry = new Registry;
    return *registry;
}

pthread_key_t endKey;
pthread_once_t endKeyOnce = PTHREAD_ONCE_INIT;

long Membarrier(int cmd) {
    return syscall(SYS_membarrier, cmd, 0, 0);
}

bool UseMembarrier() {
#if defined(SABLE_HAZARD_TSAN)
    return false;  // ThreadSanitizer would not see the barrier the system call puts in
#else
    const long commands = Membarrier(MEMBARRIER_CMD_QUERY);
    if (commands < 0 || (commands & MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0) {
        return false;
    }
    return Membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;
#endif
}

// A thread's end: its slot leaves the list before its storage goes. pthread key destructors
// run after every C++ thread_local destructor, so a send made from one of those still finds
// the slot registered; a send from a later key destructor registers it again, and this runs
// again in the next round.
void Unregister(void* value) {
    Slot* slot = static_cast<Slot*>(value);
    Registry& registry = TheRegistry();
    sable::MutexLock lock(registry.mu);
    if (slot->prev != nullptr) {
        slot->prev->next = slot->next;
    } else {
        registry.head = slot->next;
    }
    if (slot->next != nullptr) {
        slot->next->prev = slot->prev;
    }
    slot->next = slot->prev = nullptr;
    slot->registered = false;
}

// In a child process only the forking thread exists: the other slots would name objects that
// nobody will ever stop using, and the lock may have been held by a thread that is not there.
void ResetInChild() NO_THREAD_SAFETY_ANALYSIS {
    Registry& registry = TheRegistry();
    new (&registry.mu) sable::Mutex;
    registry.head = nullptr;
    if (threadSlot.registered) {
        threadSlot.next = threadSlot.prev = nullptr;
        registry.head = &threadSlot;
    }
    // The child is a new process for the kernel: register it too, or let users fence.
    asymmetric = asymmetric && Membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;
}

void MakeEndKey() {
    pthread_key_create(&endKey, Unregister);
    pthread_atfork(nullptr, nullptr, ResetInChild);
}

// Yields to the thread being waited for (it may share this CPU), then sleeps in short steps.
void Pause(unsigned round) {
    if (round < 64) {
        sched_yield();
        return;
    }
    const timespec step{0, 50 * 1000};
    nanosleep(&step, nullptr);
}

}  // namespace

bool asymmetric = UseMembarrier();

void Register() {
    pthread_once(&endKeyOnce, MakeEndKey);
    Registry& registry = TheRegistry();
    {
        sable::MutexLock lock(registry.mu);
        threadSlot.prev = nullptr;
        threadSlot.next = registry.head;
        if (registry.head != nullptr) {
            registry.head->prev = &threadSlot;
        }
        registry.head = &threadSlot;
        threadSlot.registered = true;
    }
    pthread_setspecific(endKey, &threadSlot);
}

}  // namespace hazard

void WaitUntilUnused(const void* object) {
    if (hazard::asymmetric) {
        // Registered when the library was loaded, so it does not fail.
        hazard::Membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED);
    } else {
        std::atomic_thread_fence(std::memory_order_seq_cst);
    }
    hazard::Registry& registry = hazard::TheRegistry();
    sable::MutexLock lock(registry.mu);
    for (hazard::Slot* slot = registry.head; slot != nullptr; slot = slot->next) {
        if (slot == &hazard::threadSlot) {
            continue;
        }
        for (unsigned round = 0; slot->object.load(std::memory_order_acquire) == object; ++round) {
            hazard::Pause(round);
        }
    }
}

}  // namespace sable
