// Holder of a process singleton that may be asked for during static destruction.
#ifndef SABLE_BASE_SINGLETON_PROTECTOR_H
#define SABLE_BASE_SINGLETON_PROTECTOR_H

#include <pthread.h>

#include <atomic>
#include <memory>

namespace sable {

// Keeps a weak reference and an alive flag under a reader-writer lock. Get() yields the object
// only while the protector is alive and the object still has an owner.
//
// The lock is statically initialised and deliberately never destroyed: a lookup made from
// another static destructor after this one has run must still find a usable lock and a cleared
// flag, not freed state.
template <class T>
class SingletonProtector {
  public:
    explicit SingletonProtector(const std::shared_ptr<T>& object) : instance(object) {}
    ~SingletonProtector() {
        MarkDead();
        instance.reset();
    }
    SingletonProtector(const SingletonProtector&) = delete;
    SingletonProtector& operator=(const SingletonProtector&) = delete;

    // Never blocks beyond a concurrent MarkDead; thread-safe.
    std::shared_ptr<T> Get() {
        pthread_rwlock_rdlock(&lock);
        std::shared_ptr<T> result;
        if (alive.load(std::memory_order_relaxed)) {
            result = instance.lock();
        }
        pthread_rwlock_unlock(&lock);
        return result;
    }

    // After this every Get() returns empty.
    void MarkDead() {
        pthread_rwlock_wrlock(&lock);
        alive.store(false);
        pthread_rwlock_unlock(&lock);
    }

    // Without the lock, for a caller that already holds a weak reference of its own: false once
    // MarkDead has run, after which that reference must not be used either.
    bool IsAlive() const { return alive.load(std::memory_order_acquire); }

  private:
    std::atomic<bool> alive{true};  // written under lock
    std::weak_ptr<T> instance;      // read under lock; does not keep the object alive
    pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
};

}  // namespace sable

#endif
