// A thread making a synchronous RPC reads the pipe's FIFO itself while it waits: between two
// real processes it still serves every frame the way the receive thread would (the peer's
// requests reach the callback in order, other threads' responses reach them), and a time-out,
// a close from another thread and the peer's death each end its wait.
#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "TestEnv.h"
#include "sable_comm.h"

namespace {

using sable_test::ChildProcess;
using sable_test::LogCapture;
using sable_test::UniqueName;
using sable_test::WaitUntil;

std::atomic<int> requestsSeen{0};

void Echo(int fd, SabloRequest* req) {
    if (req == nullptr) return;
    requestsSeen++;
    SabloResponse rsp{req->id, req->data, req->size};
    SabloSendResponse(fd, &rsp);
}

void Ignore(int, SabloRequest*) {}

// Whether process `pid` has a file whose path ends in `name` open for writing.
bool HoldsForWriting(pid_t pid, const std::string& name) {
    const std::string dir = "/proc/" + std::to_string(pid) + "/fd/";
    DIR* fds = opendir(dir.c_str());
    if (fds == nullptr) return false;
    bool found = false;
    while (dirent* entry = readdir(fds)) {
        char target[512];
        const ssize_t n = readlink((dir + entry->d_name).c_str(), target, sizeof(target) - 1);
        if (n <= 0) continue;
        const std::string path(target, static_cast<size_t>(n));
        struct stat mode {};
        if (path.size() >= name.size() &&
            path.compare(path.size() - name.size(), name.size(), name) == 0 &&
            lstat((dir + entry->d_name).c_str(), &mode) == 0 && (mode.st_mode & S_IWUSR) != 0) {
            found = true;
        }
    }
    closedir(fds);
    return found;
}

// Sequence numbers of the one-way requests received, in order; each callback waits for the
// gate (bounded, so a failing test cannot hang).
struct Gate {
    std::mutex mu;
    std::condition_variable cv;
    std::vector<uint32_t> seqs;
    bool open = false;
};
Gate* gate = nullptr;

void HoldAtGate(int, SabloRequest* req) {
    if (req == nullptr) return;
    std::unique_lock<std::mutex> lock(gate->mu);
    uint32_t seq = 0;
    memcpy(&seq, req->data, sizeof(seq));
    gate->seqs.push_back(seq);
    gate->cv.wait_for(lock, std::chrono::seconds(30), [] { return gate->open; });
}

class OwnResponseTest : public ::testing::Test {
  protected:
    void SetUp() override { sable_test::EnsureFifoDir(); }
    void TearDown() override {
        EXPECT_TRUE(WaitUntil([&] { return sable_test::FifoFilesWith(self).empty(); }, 10000));
    }
    int Open(const std::string& target, SabloCallback callback) {
        return sable_test::OpenPipe(self, target, SABLO_MODE_JOIN, 10000, std::move(callback));
    }
    // An RPC without a time limit, on its own thread.
    std::future<int> CallWithoutLimit(int fd, SabloResponse& rsp) {
        return std::async(std::launch::async, [fd, &rsp] {
            uint8_t byte = 7;
            SabloRequest req{0, &byte, 1};
            return SabloRPCSync(fd, &req, &rsp);
        });
    }

    const std::string self = UniqueName("own");
};

// The peer makes 200 RPCs to us while four threads of ours make 100 each to it, on one pipe:
// whichever thread reads a frame, each response reaches its caller and each request our
// callback.
TEST_F(OwnResponseTest, CallersReadingTheFifoServeThePeersRequestsAndEachOthersResponses) {
    const std::string peer = UniqueName("twoway");
    ChildProcess child("sable_peer", {"call", peer, self, "1", "200"});
    ASSERT_EQ(child.ReadLine().rfind("ready ", 0), 0u);
    requestsSeen = 0;
    const int fd = Open(peer, Echo);
    ASSERT_GT(fd, 0);

    std::vector<std::future<int>> callers;
    for (int t = 0; t < 4; ++t) {
        callers.push_back(std::async(std::launch::async, [fd, t] {
            std::vector<uint8_t> payload(4000);
            for (int i = 0; i < 100; ++i) {
                const uint32_t size = i % 2 == 0 ? 64 : 4000;
                for (uint32_t b = 0; b < size; ++b) {
                    payload[b] = static_cast<uint8_t>(t * 31 + i + b);
                }
                SabloRequest req{0, payload.data(), size};
                SabloResponse rsp{};
                if (SabloTimedRPCSync(fd, &req, &rsp, 10000) != 0) return 1;
                const bool same = rsp.size == size && memcmp(rsp.data, payload.data(), size) == 0;
                DestroyResponse(&rsp);
                if (!same) return 2;  // another caller's answer
            }
            return 0;
        }));
    }
    for (auto& caller : callers) {
        ASSERT_EQ(caller.wait_for(std::chrono::seconds(60)), std::future_status::ready);
        EXPECT_EQ(caller.get(), 0);
    }
    EXPECT_EQ(child.Wait(60000), 0) << "the peer's RPCs all came back";
    EXPECT_EQ(requestsSeen.load(), 200);
    SabloClosePipe(fd);
}

// The peer starts flooding one-way requests 300 ms after the open and answers an RPC only once
// it has sent them all, while our callback is held: the caller that reads the FIFO for its response hands the
// flood to the worker until it is full, and the pipe then pauses. Once the callback is let go,
// the RPC's response comes behind the flood, and every request arrives once, in order.
TEST_F(OwnResponseTest, AFloodWhileACallerReadsPausesThePipeAndLosesNothing) {
    Gate held;
    gate = &held;
    const std::string flooder = UniqueName("flood");
    constexpr uint32_t kCount = 3000;
    ChildProcess child("stream_peer",
                       {"send", flooder, self, "1", std::to_string(kCount), "64", "300", "sent"});
    ASSERT_EQ(child.ReadLine().rfind("ready ", 0), 0u);
    const int fd = Open(flooder, HoldAtGate);
    ASSERT_GT(fd, 0);
    auto rpc = std::async(std::launch::async, [fd] {
        uint8_t byte = 9;
        SabloRequest req{0, &byte, 1};
        SabloResponse rsp{};
        int ret = SabloTimedRPCSync(fd, &req, &rsp, 30000);
        const bool same = ret == 0 && rsp.size == 1 && rsp.data[0] == 9;
        DestroyResponse(&rsp);
        return ret != 0 ? ret : (same ? 0 : 1);
    });
    EXPECT_EQ(child.ReadLine(20000), "eagain") << "the pipe paused and the FIFO filled";
    EXPECT_EQ(rpc.wait_for(std::chrono::milliseconds(700)), std::future_status::timeout)
        << "the response is behind the held requests";
    {
        std::lock_guard<std::mutex> lock(held.mu);
        held.open = true;
    }
    held.cv.notify_all();
    ASSERT_EQ(rpc.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(rpc.get(), 0);
    EXPECT_EQ(child.ReadLine(20000), "sent " + std::to_string(kCount));
    ASSERT_TRUE(WaitUntil(
        [&] {
            std::lock_guard<std::mutex> lock(held.mu);
            return held.seqs.size() >= kCount;
        },
        20000));
    {
        std::lock_guard<std::mutex> lock(held.mu);
        ASSERT_EQ(held.seqs.size(), kCount);
        for (uint32_t i = 0; i < kCount; ++i) {
            ASSERT_EQ(held.seqs[i], i) << "every request once, in order";
        }
    }
    SabloClosePipe(fd);
    EXPECT_EQ(child.Wait(20000), 0);
}

TEST_F(OwnResponseTest, ATimeOutACloseAndThePeersDeathEachEndTheWait) {
    LogCapture cap;
    const std::string quiet = UniqueName("mute");
    ChildProcess child("sable_peer", {"mute", quiet, self, "1"});
    ASSERT_EQ(child.ReadLine().rfind("ready ", 0), 0u);
    int fd = Open(quiet, Ignore);
    ASSERT_GT(fd, 0);

    uint8_t byte = 1;
    SabloRequest req{0, &byte, 1};
    SabloResponse rsp{};
    EXPECT_EQ(SabloTimedRPCSync(fd, &req, &rsp, 50), -ETIMEDOUT);
    EXPECT_TRUE(cap.Contains("SabloRPC WaitForResponse timeout, id=" + std::to_string(req.id) +
                             ",size=1,timeout=50 ms,err=-110"));
    EXPECT_EQ(rsp.data, nullptr);
    EXPECT_EQ(child.ReadLine().rfind("request ", 0), 0u);

    // Closed by another thread while the caller sleeps in the FIFO's poll. The peer is stopped,
    // so that its end of the FIFO stays open and only the close itself can end the wait.
    auto closed = CallWithoutLimit(fd, rsp);
    EXPECT_EQ(child.ReadLine().rfind("request ", 0), 0u);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    child.Kill(SIGSTOP);
    EXPECT_EQ(SabloClosePipe(fd), 0);
    const auto ended = closed.wait_for(std::chrono::seconds(5));
    child.Kill(SIGCONT);
    ASSERT_EQ(ended, std::future_status::ready);
    EXPECT_EQ(closed.get(), -EPIPE);
    EXPECT_EQ(child.Wait(20000), 0) << "the peer saw the close";

    // The peer killed while the caller waits.
    const std::string doomed = UniqueName("doomed");
    ChildProcess victim("sable_peer", {"mute", doomed, self, "1"});
    ASSERT_EQ(victim.ReadLine().rfind("ready ", 0), 0u);
    fd = Open(doomed, Ignore);
    ASSERT_GT(fd, 0);
    auto orphaned = CallWithoutLimit(fd, rsp);
    EXPECT_EQ(victim.ReadLine().rfind("request ", 0), 0u);
    // Killed once it holds its end of our FIFO open for writing (it opens it in the background
    // after the open): its death is then the hang-up this end watches for.
    EXPECT_TRUE(WaitUntil([&] { return HoldsForWriting(victim.Pid(), doomed + "__to__" + self); },
                          10000));
    victim.ExpectExit(128 + SIGKILL);
    victim.Kill(SIGKILL);
    ASSERT_EQ(orphaned.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(orphaned.get(), -EPIPE);
    EXPECT_EQ(rsp.data, nullptr);
    SabloClosePipe(fd);  // this end saw the hang-up and removes the files of the pair
}

}  // namespace
