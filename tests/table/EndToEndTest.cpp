// Two real processes talking through the public interface only: this test process and a
// sable_peer child, one of them the creating end (mode 1), the other the joining end (mode 0).
#include <errno.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "TestEnv.h"
#include "sable_comm.h"

namespace {

using sable_test::ChildProcess;
using sable_test::FifoFilesWith;
using sable_test::UniqueName;
using sable_test::WaitUntil;

// What this process's request callback has seen. Callbacks run on library workers.
struct Seen {
    std::mutex mu;
    std::vector<uint32_t> requestIds;  // in arrival order
    std::vector<int> closedFds;        // null requests
    bool requestAfterClose = false;

    void Reset() {
        std::lock_guard<std::mutex> lock(mu);
        requestIds.clear();
        closedFds.clear();
        requestAfterClose = false;
    }
    bool Closed(int fd) {
        std::lock_guard<std::mutex> lock(mu);
        for (int c : closedFds) {
            if (c == fd) return true;
        }
        return false;
    }
    size_t Requests() {
        std::lock_guard<std::mutex> lock(mu);
        return requestIds.size();
    }
} seen;

void EchoAndRecord(int fd, SabloRequest* req) {
    {
        std::lock_guard<std::mutex> lock(seen.mu);
        if (req == nullptr) {
            seen.closedFds.push_back(fd);
            return;
        }
        seen.requestIds.push_back(req->id);
        if (!seen.closedFds.empty()) seen.requestAfterClose = true;
    }
    SabloResponse rsp{req->id, req->data, req->size};
    SabloSendResponse(fd, &rsp);
}

class EndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        sable_test::EnsureFifoDir();
        seen.Reset();
        self = UniqueName("e2e");
        peer = UniqueName("peer");
    }
    void TearDown() override {
        if (fd > 0) SabloClosePipe(fd);
        EXPECT_TRUE(WaitUntil([&] { return FifoFilesWith(self).empty(); }, 10000))
            << "FIFO files left behind";
    }

    int Open(SabloMode mode) {
        SabloAttr attr;
        attr.selfName = self.c_str();
        attr.targetName = peer.c_str();
        attr.mode = mode;
        attr.timeout = 10000;
        attr.priority = SABLO_PRIORITY_DEFAULT;
        attr.callback = EchoAndRecord;
        fd = SabloOpen(&attr);
        return fd;
    }

    std::string self;
    std::string peer;
    int fd = -1;
};

std::vector<uint8_t> Pattern(size_t size, uint8_t seed) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 7);
    return bytes;
}

TEST_F(EndToEndTest, RpcsReachAJoiningChildAndOurCloseIsSeenThere) {
    ASSERT_GT(Open(SABLO_MODE_CREATE), 0);
    ChildProcess child("sable_peer", {"echo", peer, self, "0", "20"});
    ASSERT_EQ(child.ReadLine().rfind("ready ", 0), 0u);

    for (uint32_t size : {1u, 64u, 1000u, 4000u}) {
        std::vector<uint8_t> payload = Pattern(size, static_cast<uint8_t>(size));
        SabloRequest req{0, payload.data(), size};
        SabloResponse rsp{};
        ASSERT_EQ(SabloTimedRPCSync(fd, &req, &rsp, 5000), 0) << "size " << size;
        EXPECT_EQ(rsp.id, req.id);
        ASSERT_EQ(rsp.size, size);
        EXPECT_EQ(memcmp(rsp.data, payload.data(), size), 0);
        DestroyResponse(&rsp);
        EXPECT_EQ(rsp.data, nullptr);
        DestroyResponse(&rsp);  // a second release is harmless
    }

    // Without a time-out: bounded all the same, since the echo answers.
    std::vector<uint8_t> payload = Pattern(32, 3);
    SabloRequest req{0, payload.data(), 32};
    SabloResponse rsp{};
    ASSERT_EQ(SabloRPCSync(fd, &req, &rsp), 0);
    EXPECT_EQ(memcmp(rsp.data, payload.data(), 32), 0);
    DestroyResponse(&rsp);

    // Requests whose answers nobody waits for are sent and the answers dropped.
    for (int i = 0; i < 10; ++i) EXPECT_EQ(SabloSendRequest(fd, &req), 0);
    SabloRequest tooBig{0, payload.data(), 4001};
    EXPECT_EQ(SabloSendRequest(fd, &tooBig), -EINVAL);

    // The child waits for our close, seen there as a null request, and then exits 0.
    EXPECT_EQ(SabloClosePipe(fd), 0);
    fd = -1;
    EXPECT_EQ(child.Wait(10000), 0);
}

TEST_F(EndToEndTest, ACreatingChildCallsUsAndItsCloseIsSeenHereAsANullRequest) {
    ChildProcess child("sable_peer", {"call", peer, self, "1", "50", "300"});
    ASSERT_EQ(child.ReadLine().rfind("ready ", 0), 0u);
    ASSERT_GT(Open(SABLO_MODE_JOIN), 0);

    EXPECT_EQ(child.Wait(20000), 0) << "the child's RPCs did not all come back intact";
    ASSERT_TRUE(WaitUntil([&] { return seen.Closed(fd); }, 10000));
    EXPECT_EQ(seen.Requests(), 50u);
    {
        std::lock_guard<std::mutex> lock(seen.mu);
        EXPECT_FALSE(seen.requestAfterClose);
    }
    // After the null request the library closes the pipe itself.
    uint8_t byte = 1;
    SabloRequest req{0, &byte, 1};
    EXPECT_TRUE(WaitUntil([&] { return SabloSendRequest(fd, &req) == -ENOENT; }, 10000));
    fd = -1;
}

TEST_F(EndToEndTest, AChildLeavingWithoutClosingDeliversItsRequestThenANullRequest) {
    ASSERT_GT(Open(SABLO_MODE_CREATE), 0);
    ChildProcess child("sable_peer", {"send-exit", peer, self, "0"});
    EXPECT_EQ(child.Wait(10000), 0);
    ASSERT_TRUE(WaitUntil([&] { return seen.Closed(fd); }, 10000));
    std::lock_guard<std::mutex> lock(seen.mu);
    EXPECT_EQ(seen.requestIds, std::vector<uint32_t>{77});
    EXPECT_FALSE(seen.requestAfterClose);
}

TEST_F(EndToEndTest, RpcWithoutResponseRecordOnlySendsAndAnUnansweredRpcTimesOut) {
    ASSERT_GT(Open(SABLO_MODE_CREATE), 0);
    ChildProcess child("sable_peer", {"mute", peer, self, "0", "20"});
    ASSERT_EQ(child.ReadLine().rfind("ready ", 0), 0u);

    uint8_t bytes[3] = {1, 2, 3};
    SabloRequest req{41, bytes, 3};
    // The child never answers: with a response record this would time out.
    EXPECT_EQ(SabloTimedRPCSync(fd, &req, nullptr, 5000), 0);
    EXPECT_EQ(child.ReadLine(), "request 41 3");

    SabloResponse rsp{};
    EXPECT_EQ(SabloTimedRPCSync(fd, &req, &rsp, 200), -ETIMEDOUT);
    EXPECT_EQ(rsp.data, nullptr);
    EXPECT_EQ(child.ReadLine(), "request " + std::to_string(req.id) + " 3");

    EXPECT_EQ(SabloClosePipe(fd), 0);
    fd = -1;
    EXPECT_EQ(child.Wait(10000), 0);
}

}  // namespace
