// The hazard slots that let a thread send on a pipe without a reference: a retiring thread waits
// exactly as long as another thread publishes the object, never for its own use, for other
// objects or for threads that have ended.
#include "base/Hazard.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using sable::HazardGuard;
using sable::WaitUntilUnused;

// Publishes an object on its own thread until Release(); every wait is bounded.
class Publisher {
  public:
    explicit Publisher(const void* object)
        : thread([this, object] {
              HazardGuard use(object);
              std::unique_lock<std::mutex> lock(mu);
              published = true;
              cv.notify_all();
              cv.wait_for(lock, std::chrono::seconds(30), [this] { return released; });
          }) {
        std::unique_lock<std::mutex> lock(mu);
        cv.wait_for(lock, std::chrono::seconds(30), [this] { return published; });
    }
    ~Publisher() {
        Release();
        thread.join();
    }
    void Release() {
        std::lock_guard<std::mutex> lock(mu);
        released = true;
        cv.notify_all();
    }

  private:
    std::mutex mu;
    std::condition_variable cv;
    bool published = false;
    bool released = false;
    std::thread thread;
};

std::future<void> WaitInBackground(const void* object) {
    return std::async(std::launch::async, [object] { WaitUntilUnused(object); });
}

TEST(HazardTest, ARetiringThreadWaitsWhileAnotherThreadPublishesTheObjectAndNoLonger) {
    int object = 0;
    int other = 0;
    Publisher publisher(&object);
    // Another object, or the caller's own use, is not waited for.
    EXPECT_EQ(WaitInBackground(&other).wait_for(std::chrono::seconds(10)),
              std::future_status::ready);
    {
        HazardGuard mine(&other);
        WaitUntilUnused(&other);
    }
    std::future<void> waiting = WaitInBackground(&object);
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout)
        << "returned while the object was still in use";
    publisher.Release();
    EXPECT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

TEST(HazardTest, ANestedGuardLeavesTheOuterObjectPublished) {
    int outer = 0;
    int inner = 0;
    std::promise<void> nestedDone;
    std::promise<void> finish;
    std::future<void> finishSignal = finish.get_future();
    std::thread user([&] {
        HazardGuard a(&outer);
        {
            HazardGuard again(&outer);  // the same object: still published when it ends
        }
        {
            HazardGuard b(&inner);  // another one: the outer is published again when it ends
        }
        nestedDone.set_value();
        finishSignal.wait_for(std::chrono::seconds(30));
    });
    nestedDone.get_future().wait();
    EXPECT_EQ(WaitInBackground(&inner).wait_for(std::chrono::seconds(10)),
              std::future_status::ready);
    std::future<void> waiting = WaitInBackground(&outer);
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    finish.set_value();
    EXPECT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    user.join();
}

// Threads that published and ended leave no slot behind: the scan reads no freed thread storage
// (the ASan suite checks that) and waits for none of them.
TEST(HazardTest, ThreadsThatEndedAreNotWaitedFor) {
    int object = 0;
    for (int round = 0; round < 4; ++round) {
        std::vector<std::thread> threads;
        for (int t = 0; t < 16; ++t) {
            threads.emplace_back([&object] { HazardGuard use(&object); });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(WaitInBackground(&object).wait_for(std::chrono::seconds(10)),
                  std::future_status::ready);
    }
}

}  // namespace
