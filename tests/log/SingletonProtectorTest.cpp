#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "base/SingletonProtector.h"

using sable::SingletonProtector;

namespace {

struct Counted {
    explicit Counted(std::atomic<int>& liveCount) : live(liveCount) { ++live; }
    ~Counted() { --live; }
    std::atomic<int>& live;
};

}  // namespace

TEST(SingletonProtector, HandsOutTheObjectWhileAliveAndOwned) {
    std::atomic<int> live{0};
    auto owner = std::make_shared<Counted>(live);
    SingletonProtector<Counted> protector(owner);
    auto got = protector.Get();
    EXPECT_EQ(got.get(), owner.get());
}

TEST(SingletonProtector, DoesNotKeepTheObjectAlive) {
    std::atomic<int> live{0};
    auto owner = std::make_shared<Counted>(live);
    SingletonProtector<Counted> protector(owner);
    owner.reset();
    EXPECT_EQ(live.load(), 0);
    EXPECT_FALSE(protector.Get());
}

TEST(SingletonProtector, MarkedDeadHandsOutNothingThoughTheObjectLives) {
    std::atomic<int> live{0};
    auto owner = std::make_shared<Counted>(live);
    SingletonProtector<Counted> protector(owner);
    auto held = protector.Get();
    protector.MarkDead();
    EXPECT_FALSE(protector.Get());
    EXPECT_EQ(live.load(), 1);
    // A reference taken before stays valid to the end of its use.
    EXPECT_EQ(held.get(), owner.get());
}

TEST(SingletonProtector, ConcurrentLookupsSeeTheObjectOrNothingAcrossMarkDead) {
    std::atomic<int> live{0};
    auto owner = std::make_shared<Counted>(live);
    SingletonProtector<Counted> protector(owner);
    std::atomic<bool> markedDead{false};
    std::atomic<int> wrongResults{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 4; ++r) {
        readers.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                bool deadBefore = markedDead.load();
                auto got = protector.Get();
                if (got && got.get() != owner.get()) ++wrongResults;
                if (got && deadBefore) ++wrongResults;  // handed out after MarkDead returned
            }
        });
    }
    std::this_thread::yield();
    protector.MarkDead();
    markedDead.store(true);
    for (auto& t : readers) t.join();
    EXPECT_EQ(wrongResults.load(), 0);
    EXPECT_FALSE(protector.Get());
}

TEST(SingletonProtector, DestructionReleasesNothingItDoesNotOwn) {
    std::atomic<int> live{0};
    auto owner = std::make_shared<Counted>(live);
    {
        SingletonProtector<Counted> protector(owner);
        EXPECT_TRUE(protector.Get());
    }
    EXPECT_EQ(live.load(), 1);
    EXPECT_EQ(owner.use_count(), 1);
}
