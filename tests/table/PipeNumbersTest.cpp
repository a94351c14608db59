// Pipe numbers and the limits of the process-wide table, seen through the entry functions.
// Pipes are opened as the creating end with time-out 0: that creates the two FIFO files and the
// read end and waits for nobody.
#include <errno.h>
#include <sys/resource.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "TestEnv.h"
#include "sable_comm.h"
#include "table/SableTable.h"
#include "table/TableFactory.h"

namespace {

using sable_test::FifoFilesWith;
using sable_test::UniqueName;

class PipeNumbersTest : public ::testing::Test {
protected:
    void SetUp() override {
        sable_test::EnsureFifoDir();
        self = UniqueName("num");
    }
    void TearDown() override {
        for (int fd : opened) SabloClosePipe(fd);
        EXPECT_EQ(FifoFilesWith(self), std::set<std::string>{});
    }

    int OpenTo(const std::string& target, SabloPriority priority = SABLO_PRIORITY_DEFAULT) {
        SabloAttr attr;
        attr.selfName = self.c_str();
        attr.targetName = target.c_str();
        attr.mode = SABLO_MODE_CREATE;
        attr.timeout = 0;
        attr.priority = priority;
        int fd = SabloOpen(&attr);
        if (fd > 0) opened.push_back(fd);
        return fd;
    }

    std::string self;
    std::vector<int> opened;
};

TEST_F(PipeNumbersTest, OpensWithoutAttributesAreInvalid) {
    EXPECT_EQ(SabloOpen(nullptr), -EINVAL);
    EXPECT_EQ(SabloCreateClient(nullptr), -EINVAL);
    EXPECT_EQ(SabloPipeTypeOpen(nullptr, SABLO_NORMAL_PIPE), -EINVAL);
    EXPECT_EQ(SabloCreateServer(nullptr), -EINVAL);
    SabloAttr noTarget;
    noTarget.selfName = self.c_str();
    EXPECT_EQ(SabloOpen(&noTarget), -EINVAL);
}

TEST_F(PipeNumbersTest, ShortOpenThrowsOutOfRangeForItsPriorityAndLeavesNothing) {
    const std::string target = UniqueName("short");
    const int before = TableFactory::GetInstance()->Size();
    EXPECT_THROW(SabloOpen(target.c_str(), nullptr, 0, SABLO_MODE_CREATE), std::out_of_range);
    EXPECT_EQ(TableFactory::GetInstance()->Size(), before);
    EXPECT_EQ(FifoFilesWith(target), std::set<std::string>{});
}

TEST_F(PipeNumbersTest, PrioritiesZeroAndTwoOpenNormally) {
    const std::string zero = UniqueName("prio0");
    const std::string two = UniqueName("prio2");
    int fd0 = OpenTo(zero, SABLO_PRIORITY_DEFAULT);
    int fd2 = OpenTo(two, SABLO_PRIORITY_REALTIME);
    ASSERT_GT(fd0, 0);
    ASSERT_GT(fd2, 0);
    EXPECT_EQ(FifoFilesWith(zero).size(), 2u);
    EXPECT_EQ(FifoFilesWith(two).size(), 2u);
    EXPECT_EQ(SabloClosePipe(fd0), 0);
    EXPECT_EQ(SabloClosePipe(fd2), 0);
    EXPECT_EQ(FifoFilesWith(zero), std::set<std::string>{});
    EXPECT_EQ(FifoFilesWith(two), std::set<std::string>{});
}

TEST_F(PipeNumbersTest, OpeningTheSameTargetTwiceGivesTheSameNumber) {
    const std::string target = UniqueName("twice");
    int first = OpenTo(target);
    ASSERT_GT(first, 0);
    const int size = TableFactory::GetInstance()->Size();
    EXPECT_EQ(OpenTo(target), first);
    EXPECT_EQ(TableFactory::GetInstance()->Size(), size);
}

TEST_F(PipeNumbersTest, NumbersStartAtOneAndAreNeverReused) {
    const std::string a = UniqueName("a");
    const std::string b = UniqueName("b");
    int first = OpenTo(a);
    ASSERT_GE(first, 1);
    ASSERT_EQ(SabloClosePipe(first), 0);
    int again = OpenTo(a);
    EXPECT_GT(again, first);
    int other = OpenTo(b);
    EXPECT_GT(other, again);
    // A closed number is gone for good: nothing answers to it any more.
    uint8_t byte = 1;
    SabloRequest req{0, &byte, 1};
    EXPECT_EQ(SabloSendRequest(first, &req), -ENOENT);
}

TEST_F(PipeNumbersTest, ClosingAnUnknownNumberSucceeds) {
    EXPECT_EQ(SabloClosePipe(0), 0);
    EXPECT_EQ(SabloClosePipe(-5), 0);
    EXPECT_EQ(SabloClosePipe(0x7fffffff), 0);
}

TEST_F(PipeNumbersTest, CallsOnAnUnknownNumberFindNoPipe) {
    uint8_t byte = 1;
    SabloRequest req{0, &byte, 1};
    SabloResponse rsp{0, &byte, 1};
    SabloResponse out{};
    EXPECT_EQ(SabloSendRequest(0x7fffffff, &req), -ENOENT);
    EXPECT_EQ(SabloSendResponse(0x7fffffff, &rsp), -ENOENT);
    EXPECT_EQ(SabloTimedRPCSync(0x7fffffff, &req, &out, 10), -ENOENT);
    EXPECT_EQ(SabloTimedRPCSync(0x7fffffff, &req, nullptr, 10), -ENOENT);
    EXPECT_EQ(out.data, nullptr);
    SabloRequest empty{0, nullptr, 1};
    EXPECT_EQ(SabloSendRequest(0x7fffffff, &empty), -EINVAL);
    EXPECT_EQ(SabloRPCSync(0x7fffffff, &empty, &out), -EINVAL);
    DestroyResponse(nullptr);
    DestroyResponse(&out);
}

TEST_F(PipeNumbersTest, The1025thPipeIsRefusedAndClosingOneMakesRoom) {
    // Every open pipe holds its read descriptor.
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_cur < 1400) {
        limit.rlim_cur = std::min<rlim_t>(1400, limit.rlim_max);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    ASSERT_GE(limit.rlim_cur, 1400u) << "not enough descriptors for 1024 pipes";

    const int room = SableTable::MAX_PIPES - TableFactory::GetInstance()->Size();
    const std::string prefix = UniqueName("t");
    for (int i = 0; i < room; ++i) {
        ASSERT_GT(OpenTo(prefix + "_" + std::to_string(i)), 0) << "pipe " << i;
    }
    EXPECT_EQ(TableFactory::GetInstance()->Size(), SableTable::MAX_PIPES);
    const std::string extra = prefix + "_extra";
    EXPECT_EQ(OpenTo(extra), -ENOMEM);
    EXPECT_EQ(FifoFilesWith(extra), std::set<std::string>{});

    ASSERT_EQ(SabloClosePipe(opened.back()), 0);
    opened.pop_back();
    int fd = OpenTo(extra);
    EXPECT_GT(fd, 0);
    EXPECT_EQ(OpenTo(prefix + "_more"), -ENOMEM);
}

}  // namespace
