// Using an object without a reference count or a lock: each thread publishes the one object it
// is using in a slot of its own (a plain store), and the rare thread that retires the object
// (closes its descriptor, destroys it) first makes it unreachable for new users and then waits
// until no slot names it any more.
//
// The store and the retiring thread's check of the slots must not be reordered against the
// user's own check that the object is still there. Where the kernel has membarrier(2), the
// retiring thread pays for that ordering with one system call that puts a full barrier on every
// thread of the process, and a user pays nothing but a compiler barrier; elsewhere (and under
// ThreadSanitizer, which does not see that system call) every use takes a full fence.
//
// Use:
//   user:     HazardGuard use(obj); if (<obj still usable>) { <use obj> }
//   retirer:  <make obj unusable: an atomic store or read-modify-write>; WaitUntilUnused(obj);
//             <close or free what users touch>
#ifndef SABLE_BASE_HAZARD_H
#define SABLE_BASE_HAZARD_H

#include <atomic>

namespace sable {

namespace hazard {

struct Slot {
    std::atomic<const void*> object{nullptr};
    Slot* next = nullptr;  // the registry's list, under its lock
    Slot* prev = nullptr;
    bool registered = false;
};

// This thread's slot: trivially constructed, so reaching it costs no guard check; registered
// with the retiring side on the thread's first use, unregistered when the thread ends.
extern __thread Slot threadSlot __attribute__((tls_model("initial-exec")));
// true when retiring threads use membarrier(2); fixed when the library is loaded.
extern bool asymmetric;

void Register();

}  // namespace hazard

// Publishes `object` as used by this thread for the guard's life, then the previous value (so
// that a nested use, as from a signal handler, leaves the outer one published again). Never
// blocks; allocates only on a thread's first use. Not to be moved to another thread.
class HazardGuard {
  public:
    explicit HazardGuard(const void* object) : slot(hazard::threadSlot) {
        if (!slot.registered) {
            hazard::Register();
        }
        previous = slot.object.load(std::memory_order_relaxed);
        if (previous == object) {
            nested = true;  // published already by an outer guard of this thread
            return;
        }
        slot.object.store(object, std::memory_order_relaxed);
        if (hazard::asymmetric) {
            std::atomic_signal_fence(std::memory_order_seq_cst);
        } else {
            std::atomic_thread_fence(std::memory_order_seq_cst);
        }
    }
    ~HazardGuard() {
        if (!nested) {
            slot.object.store(previous, std::memory_order_release);
        }
    }
    HazardGuard(const HazardGuard&) = delete;
    HazardGuard& operator=(const HazardGuard&) = delete;

  private:
    hazard::Slot& slot;
    const void* previous;
    bool nested = false;
};

// Waits until no other thread publishes `object`. Call it after the atomic store or
// read-modify-write that makes the object unusable for new users; afterwards no user touches
// what that store guarded. The calling thread's own slot is not waited for. Blocks only as long
// as another thread's use lasts (a non-blocking write and its log line); makes one system call.
void WaitUntilUnused(const void* object);

}  // namespace sable

#endif
