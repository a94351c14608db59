#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "base/SingletonProtector.h"

using sable::SingletonProtector;

TEST(SingletonProtector, HandsOutTheObjectOnlyWhileAliveAndOwnedWithoutOwningIt) {
    auto owner = std::make_shared<int>(1);
    {
        SingletonProtector<int> protector(owner);
        auto held = protector.Get();
        EXPECT_EQ(held, owner);
        protector.MarkDead();
        EXPECT_FALSE(protector.Get());
        EXPECT_EQ(*held, 1);  // a reference taken before stays valid to the end of its use
    }
    EXPECT_EQ(owner.use_count(), 1);
    SingletonProtector<int> orphaned(owner);
    owner.reset();
    EXPECT_FALSE(orphaned.Get());
}

TEST(SingletonProtector, NoLookupSucceedsAfterMarkDeadReturns) {
    auto owner = std::make_shared<int>(1);
    SingletonProtector<int> protector(owner);
    std::atomic<bool> markedDead{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 4; ++r) {
        readers.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                bool deadBefore = markedDead.load();
                auto got = protector.Get();
                if (got && (deadBefore || got != owner)) ++wrong;
            }
        });
    }
    protector.MarkDead();
    markedDead.store(true);
    for (auto& t : readers) t.join();
    EXPECT_EQ(wrong.load(), 0);
}
