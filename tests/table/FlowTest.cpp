// Flow between two real processes: a full worker holds frames back in the FIFO instead of
// dropping them, a flooded pipe does not starve the other pipes of its receive thread, and
// garbage from an outside writer costs a bounded number of log lines.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "TestEnv.h"
#include "base/UniqueFd.h"
#include "sable_comm.h"

namespace {

using sable_test::ChildProcess;
using sable_test::UniqueName;
using sable_test::WaitUntil;

// Sequence numbers of the one-way requests this process received, in arrival order; the
// callback holds each one until the gate opens (bounded, so a failing test cannot hang).
struct Receiver {
    std::mutex mu;
    std::condition_variable cv;
    std::vector<uint32_t> seqs;
    bool open = true;
    bool closed = false;

    void Gate(bool isOpen) {
        std::lock_guard<std::mutex> lock(mu);
        open = isOpen;
        cv.notify_all();
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(mu);
        return seqs.size();
    }
};

Receiver* receiver = nullptr;

void Receive(int, SabloRequest* req) {
    std::unique_lock<std::mutex> lock(receiver->mu);
    if (req == nullptr) {
        receiver->closed = true;
        return;
    }
    uint32_t seq = 0;
    memcpy(&seq, req->data, sizeof(seq));
    receiver->seqs.push_back(seq);
    receiver->cv.wait_for(lock, std::chrono::seconds(30), [] { return receiver->open; });
}

void Echo(int fd, SabloRequest* req) {
    if (req == nullptr) return;
    SabloResponse rsp{req->id, req->data, req->size};
    SabloSendResponse(fd, &rsp);
}

class FlowTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sable_test::EnsureFifoDir();
        receiver = &state;
    }
    void TearDown() override {
        CloseAll();
        EXPECT_TRUE(WaitUntil([&] { return sable_test::FifoFilesWith(self).empty(); }, 10000));
    }
    int Open(const std::string& target, SabloCallback callback) {
        int fd = sable_test::OpenPipe(self, target, SABLO_MODE_JOIN, 10000, std::move(callback));
        if (fd > 0) opened.push_back(fd);
        return fd;
    }
    // Before the children are waited for: they end when their remote closes.
    void CloseAll() {
        state.Gate(true);
        for (int fd : opened) SabloClosePipe(fd);
        opened.clear();
    }
    std::string LineStarting(ChildProcess& child, const std::string& start) {
        for (std::string line = child.ReadLine(20000); !line.empty();
             line = child.ReadLine(20000)) {
            if (line.rfind(start, 0) == 0) return line;
        }
        return "";
    }
    void ExpectInOrder(uint32_t count) {
        std::lock_guard<std::mutex> lock(state.mu);
        ASSERT_EQ(state.seqs.size(), count);
        for (uint32_t i = 0; i < count; ++i) {
            ASSERT_EQ(state.seqs[i], i) << "every request once, in order";
        }
    }

    Receiver state;
    const std::string self = UniqueName("flow");
    std::vector<int> opened;
};

// 3000 requests of 96-byte frames: the worker holds fewer than 1000, the FIFO about 680.
TEST_F(FlowTest, AFullWorkerHoldsFramesInTheFifoAndEveryRequestArrivesOnceInOrder) {
    sable_test::LogCapture cap;
    const std::string sender = UniqueName("snd");
    const std::string caller = UniqueName("rpc");
    constexpr uint32_t kCount = 3000;
    state.Gate(false);
    ChildProcess child("stream_peer", {"send", sender, self, "1", std::to_string(kCount), "64"});
    ASSERT_EQ(child.ReadLine().rfind("ready ", 0), 0u);
    ASSERT_GT(Open(sender, Receive), 0);
    EXPECT_EQ(child.ReadLine(20000), "eagain") << "the sender meets a full FIFO";

    // Meanwhile another pipe of the same receive thread still answers RPCs.
    ChildProcess other("sable_peer", {"call", caller, self, "1", "20"});
    ASSERT_EQ(other.ReadLine().rfind("ready ", 0), 0u);
    ASSERT_GT(Open(caller, Echo), 0);
    EXPECT_EQ(other.Wait(20000), 0);
    EXPECT_LT(state.Count(), kCount);

    state.Gate(true);
    EXPECT_EQ(child.ReadLine(30000), "sent " + std::to_string(kCount));
    ASSERT_TRUE(WaitUntil([&] { return state.Count() >= kCount; }, 30000));
    ExpectInOrder(kCount);
    CloseAll();
    for (const auto& line : cap.Lines()) EXPECT_GT(line.level, LOG_ERR) << line.text;
}

// The bound: a pipe's turn on its receive thread is one read and at most 1024 frames, so an
// RPC on another pipe waits for no more than that; here each of 20 RPCs must come back within
// the caller's 5 s while the flood goes on.
TEST_F(FlowTest, AFloodedPipeDoesNotHoldUpRpcsOnAnotherPipe) {
    const std::string sender = UniqueName("snd");
    const std::string caller = UniqueName("rpc");
    ChildProcess flood("stream_peer", {"send", sender, self, "1", "100000000", "64"});
    ASSERT_EQ(flood.ReadLine().rfind("ready ", 0), 0u);
    ASSERT_GT(Open(sender, Receive), 0);
    ASSERT_TRUE(WaitUntil([&] { return state.Count() > 10000; }, 20000)) << "the flood flows";

    ChildProcess other("sable_peer", {"call", caller, self, "1", "20"});
    ASSERT_EQ(other.ReadLine().rfind("ready ", 0), 0u);
    ASSERT_GT(Open(caller, Echo), 0);
    EXPECT_EQ(other.Wait(60000), 0) << "an RPC ran out of time behind the flood";
    const size_t flowed = state.Count();
    EXPECT_TRUE(WaitUntil([&] { return state.Count() > flowed; }, 5000)) << "still flooding";
    CloseAll();  // the sender meets -EPIPE and stops
    EXPECT_NE(LineStarting(flood, "stopped "), "");
}

// Bytes that are no frame, written into this process's read FIFO by an outside writer.
TEST_F(FlowTest, GarbageFromAnOutsideWriterCostsFewLinesAndThePipeStaysUsable) {
    const std::string peer = UniqueName("echo");
    ChildProcess child("stream_peer", {"echo", peer, self, "1"});
    ASSERT_EQ(child.ReadLine().rfind("ready ", 0), 0u);
    const int fd = Open(peer, Echo);
    ASSERT_GT(fd, 0);
    uint8_t payload[64] = {1, 2, 3};
    SabloRequest req{0, payload, sizeof(payload)};
    SabloResponse rsp{};
    // The peer's write end opens with its first answer: until then the outside writer below
    // would be the FIFO's only writer, and its close a hang-up of the peer.
    ASSERT_EQ(SabloTimedRPCSync(fd, &req, &rsp, 5000), 0) << "the peer answers";
    DestroyResponse(&rsp);

    sable_test::LogCapture cap;
    const std::string fifo = sable_test::EnsureFifoDir() + peer + "__to__" + self;
    sable::UniqueFd writer(open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(writer.Valid());
    std::mt19937 rng(7);
    for (int round = 0; round < 10; ++round) {
        std::vector<uint8_t> garbage(1000);
        for (auto& b : garbage) b = static_cast<uint8_t>(rng());
        ASSERT_EQ(write(writer.Get(), garbage.data(), garbage.size()), 1000);
        // One frame each time, with a checksum that does not add up.
        std::vector<uint8_t> frame(40, 0);
        const uint32_t header[4] = {0xA6B7C8D9u, 1, 0, 8};
        memcpy(frame.data(), header, sizeof(header));
        ASSERT_EQ(write(writer.Get(), frame.data(), frame.size()), 40);
    }
    writer.Reset();
    ASSERT_TRUE(WaitUntil([&] { return cap.Count("Recv msg failed, send checksum") > 0; }, 10000));

    ASSERT_EQ(SabloTimedRPCSync(fd, &req, &rsp, 5000), 0) << "the pipe still answers";
    EXPECT_EQ(rsp.size, sizeof(payload));
    DestroyResponse(&rsp);
    // 10 KB of garbage read field by field gives thousands of failures; each call site of the
    // receive thread prints once per 600 s.
    EXPECT_LE(cap.Lines().size(), 20u);
    EXPECT_EQ(cap.Count("Recv msg failed, send checksum"), 1u);
    child.Kill(SIGKILL);
    child.ExpectExit(128 + SIGKILL);
}

}  // namespace
