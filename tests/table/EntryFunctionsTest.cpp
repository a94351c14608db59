// The entry functions between two real processes (this one and a sable_peer child), and the
// pipe numbers and limits of the process-wide table. A pipe to nobody is opened as the creating
// end with time-out 0: that creates both FIFO files and the read end and waits for nobody.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "TestEnv.h"
#include "sable_comm.h"
#include "table/SableTable.h"
#include "table/TableFactory.h"

namespace {

using sable_test::ChildProcess;
using sable_test::FifoFilesWith;
using sable_test::UniqueName;
using sable_test::WaitUntil;

// What this process's request callback has seen; it runs on library workers.
std::atomic<int> requestsSeen{0};
std::atomic<int> closedSeen{0};

void EchoAndRecord(int fd, SabloRequest* req) {
    if (req == nullptr) {
        closedSeen = fd;
        return;
    }
    requestsSeen++;
    SabloResponse rsp{req->id, req->data, req->size};
    SabloSendResponse(fd, &rsp);
}

class EntryFunctionsTest : public ::testing::Test {
  protected:
    void SetUp() override { sable_test::EnsureFifoDir(); }
    void TearDown() override {
        for (int fd : opened) SabloClosePipe(fd);
        EXPECT_TRUE(WaitUntil([&] { return FifoFilesWith(self).empty(); }, 10000))
            << "FIFO files left behind";
    }

    int Open(const std::string& target, SabloMode mode = SABLO_MODE_CREATE, int timeout = 0,
             SabloPriority priority = SABLO_PRIORITY_DEFAULT) {
        int fd = sable_test::OpenPipe(self, target, mode, timeout, EchoAndRecord, priority);
        if (fd > 0) opened.push_back(fd);
        return fd;
    }

    const std::string self = UniqueName("api");
    const std::string peer = UniqueName("peer");
    std::vector<int> opened;
};

// The child makes RPCs with and without a time limit, of 64 and 4000 bytes.
TEST_F(EntryFunctionsTest, ACreatingChildsRpcsAreAnsweredHereAndItsCloseArrivesAsANullRequest) {
    ChildProcess child("sable_peer", {"call", peer, self, "1", "50"});
    ASSERT_EQ(child.ReadLine().rfind("ready ", 0), 0u);
    const int fd = Open(peer, SABLO_MODE_JOIN, 10000);
    ASSERT_GT(fd, 0);
    EXPECT_EQ(child.Wait(20000), 0) << "the child's RPCs did not all come back intact";
    ASSERT_TRUE(WaitUntil([&] { return closedSeen.load() == fd; }, 10000));
    EXPECT_EQ(requestsSeen.load(), 50);
    // After the null request the library closes the pipe itself.
    uint8_t byte = 1;
    SabloRequest req{0, &byte, 1};
    EXPECT_TRUE(WaitUntil([&] { return SabloSendRequest(fd, &req) == -ENOENT; }, 10000));
}

// Our requests reach a joining child, and our close is seen there as a null request.
TEST_F(EntryFunctionsTest, RpcWithoutResponseRecordOnlySendsAndAnUnansweredRpcTimesOut) {
    const int fd = Open(peer, SABLO_MODE_CREATE, 10000);
    ASSERT_GT(fd, 0);
    ChildProcess child("sable_peer", {"mute", peer, self, "0"});
    ASSERT_EQ(child.ReadLine().rfind("ready ", 0), 0u);
    uint8_t bytes[3] = {1, 2, 3};
    SabloRequest req{41, bytes, 3};
    // The child never answers: with a response record this would time out.
    EXPECT_EQ(SabloTimedRPCSync(fd, &req, nullptr, 5000), 0);
    EXPECT_EQ(child.ReadLine(), "request 41 3");
    SabloResponse rsp{};
    EXPECT_EQ(SabloTimedRPCSync(fd, &req, &rsp, 200), -ETIMEDOUT);
    EXPECT_EQ(child.ReadLine(), "request " + std::to_string(req.id) + " 3");
    EXPECT_EQ(SabloClosePipe(fd), 0);
    EXPECT_EQ(child.Wait(10000), 0) << "the child did not see our close";
}

TEST_F(EntryFunctionsTest, OpenChecksItsArgumentsAndNumbersPipesWithoutReuse) {
    EXPECT_EQ(SabloOpen(nullptr), -EINVAL);
    // The short form's priority 1 has no receive monitor: it throws and leaves nothing behind.
    const int before = TableFactory::GetInstance()->Size();
    EXPECT_THROW(SabloOpen(peer.c_str(), nullptr, 0, SABLO_MODE_CREATE), std::out_of_range);
    EXPECT_EQ(TableFactory::GetInstance()->Size(), before);
    EXPECT_EQ(FifoFilesWith(peer), std::set<std::string>{});

    const std::string zero = UniqueName("prio0");
    const std::string two = UniqueName("prio2");
    const int fd0 = Open(zero);
    const int fd2 = Open(two, SABLO_MODE_CREATE, 0, SABLO_PRIORITY_REALTIME);
    ASSERT_GE(fd0, 1);
    EXPECT_GT(fd2, fd0);
    EXPECT_EQ(Open(zero), fd0);
    EXPECT_EQ(TableFactory::GetInstance()->Size(), before + 2);

    // A closed number is gone for good: nothing answers to it, not even to a thread that has
    // just sent on it, and it is not given out again.
    uint8_t byte = 1;
    SabloRequest req{0, &byte, 1};
    EXPECT_EQ(SabloSendRequest(fd0, &req), -ENXIO) << "known, but its peer reads nothing yet";
    EXPECT_EQ(SabloClosePipe(fd0), 0);
    EXPECT_EQ(SabloSendRequest(fd0, &req), -ENOENT);
    EXPECT_GT(Open(zero), fd2);
    EXPECT_EQ(SabloClosePipe(0x7fffffff), 0);
}

TEST_F(EntryFunctionsTest, The1025thPipeIsRefusedAndClosingOneMakesRoom) {
    // Every open pipe holds its read descriptor.
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = std::max(limit.rlim_cur, std::min<rlim_t>(1400, limit.rlim_max));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_GE(limit.rlim_cur, 1400u) << "not enough descriptors for 1024 pipes";

    const int room = SableTable::MAX_PIPES - TableFactory::GetInstance()->Size();
    for (int i = 0; i < room; ++i) ASSERT_GT(Open(peer + "_" + std::to_string(i)), 0) << i;
    const std::string extra = UniqueName("extra");
    EXPECT_EQ(Open(extra), -ENOMEM);
    EXPECT_EQ(FifoFilesWith(extra), std::set<std::string>{});
    ASSERT_EQ(SabloClosePipe(opened.back()), 0);
    EXPECT_GT(Open(extra), 0);
    EXPECT_EQ(Open(UniqueName("more")), -ENOMEM);
}

}  // namespace
