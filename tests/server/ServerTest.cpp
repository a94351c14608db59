// A server in this process and clients in child processes. The ServerTest cases stop the
// server with PipeServer::Close (SabloCfgFinishServer would disable the process's table for the
// cases that follow in the same process); the ServerLifeTest cases finish it, in fresh processes.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>  // mkfifo
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "FreshProcess.h"
#include "LogCapture.h"
#include "TestEnv.h"
#include "pipe/MagicReceiver.h"
#include "pipe/SableClientPipe.h"
#include "sable_comm.h"
#include "server/PipeServer.h"
#include "table/SableTable.h"
#include "table/TableFactory.h"

namespace {

using sable_test::ChildProcess;
using sable_test::FifoFilesWith;
using sable_test::LogCapture;
using sable_test::Problems;
using sable_test::UniqueName;
using sable_test::WaitUntil;

// What the server's callbacks saw; they run on the server thread and on library workers. The
// pipe numbers are kept by "<pipe name> <pid> <gid>" as the connect callback got them.
std::mutex seenMu;
std::map<std::string, int> connected;
std::set<int> closedFds;

void RecordConnect(int fd, SabloClientInfo info) {
    std::lock_guard<std::mutex> lock(seenMu);
    connected[std::string(info.name) + " " + std::to_string(info.pid) + " " +
              std::to_string(info.gid)] = fd;
}

void EchoRequest(int fd, SabloRequest* req) {
    if (req == nullptr) {
        std::lock_guard<std::mutex> lock(seenMu);
        closedFds.insert(fd);
        return;
    }
    SabloResponse rsp{req->id, req->data, req->size};
    SabloSendResponse(fd, &rsp);
}

// The pipe number the server gave the child started as `client`; -1 unless the connect record
// named the child's pipe, pid and group.
int FdOf(const std::string& client, const ChildProcess& child) {
    const std::string pid = std::to_string(child.Pid());
    std::lock_guard<std::mutex> lock(seenMu);
    auto it = connected.find(client + "_" + pid + " " + pid + " " + std::to_string(getgid()));
    return it == connected.end() ? -1 : it->second;
}

bool Closed(int fd) {
    std::lock_guard<std::mutex> lock(seenMu);
    return closedFds.count(fd) > 0;
}

int StartServer(const std::string& name, void (*onConnect)(int, SabloClientInfo) = RecordConnect,
                SabloPriority priority = SABLO_PRIORITY_DEFAULT) {
    SabloServerAttr attr{onConnect, EchoRequest, 0xFFFFFFFFu, priority, name.c_str()};
    return SabloCreateServer(&attr);
}

// A connect callback that throws for the first two clients (an exception, then a plain value)
// and records the others; it keeps the pipe numbers it threw for.
std::atomic<int> connectCalls{0};
std::vector<int> thrownFor;

void ThrowTwiceThenRecord(int fd, SabloClientInfo info) {
    const int call = connectCalls++;
    if (call >= 2) {
        RecordConnect(fd, info);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(seenMu);
        thrownFor.push_back(fd);
    }
    if (call == 0) throw std::runtime_error(std::string("no room for ") + info.name);
    throw 7;
}

// Lines captured at error level or worse.
std::vector<std::string> Errors(const LogCapture& cap) {
    std::vector<std::string> out;
    for (const auto& line : cap.Lines()) {
        if (line.level <= LOG_ERR) out.push_back(line.text);
    }
    return out;
}

bool ErrorLogged(const LogCapture& cap, const std::string& needle, int timeoutMs) {
    return WaitUntil(
        [&] {
            for (const auto& text : Errors(cap)) {
                if (text.find(needle) != std::string::npos) return true;
            }
            return false;
        },
        timeoutMs);
}

// Threads of this process named as the server thread (the kernel keeps 15 characters).
int ServerThreads() {
    int count = 0;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* e = readdir(dir)) {
        std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string thread;
        count += std::getline(comm, thread) && thread == "sable_comm_serv";
    }
    closedir(dir);
    return count;
}

// A client child that connects and makes a few round trips: it exits 0 only when the server
// opened its pipe and answered.
void ExpectAClientConnects(const std::string& server) {
    const std::string client = UniqueName("cli");
    ChildProcess child("sable_peer", {"call", client, server, "client", "2"});
    EXPECT_EQ(child.Wait(10000), 0) << "client of " << server;
    EXPECT_GT(FdOf(client, child), 0);
}

class ServerTest : public ::testing::Test {
  protected:
    void SetUp() override { fifo = sable_test::EnsureFifoDir() + name; }
    void TearDown() override {
        PipeServer::GetInstance()->Close();
        unlink(fifo.c_str());  // the server leaves its FIFO behind by design
        // The server closes the pipes of clients that have gone, removing their files.
        EXPECT_TRUE(WaitUntil([&] { return FifoFilesWith(name).empty(); }, 10000))
            << "FIFO files left behind";
    }

    // Writes raw bytes into the server FIFO, as a misbehaving client would.
    void WriteToServer(const std::vector<uint8_t>& bytes) {
        int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(fd, 0) << strerror(errno);
        EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        close(fd);
    }

    // A server packet header (magic, type, gid 0, pid 0: no byte of them looks like the magic),
    // followed by `extra` 32-bit fields.
    static std::vector<uint8_t> Packet(uint32_t type, std::vector<uint32_t> extra = {}) {
        extra.insert(extra.begin(), {MagicReceiver::MAGIC, type, 0, 0});
        std::vector<uint8_t> out(extra.size() * 4);
        memcpy(out.data(), extra.data(), out.size());
        return out;
    }

    // Ends in a letter, so that no other name of this process contains it.
    const std::string name = UniqueName("srv") + "x";
    std::string fifo;
};

TEST_F(ServerTest, ClientsOfOneNameGetTheirOwnPipesAndAnswersAndTheirLeavingIsANullRequest) {
    {
        // A first start (no FIFO yet) has nothing to complain about.
        ASSERT_NE(access(fifo.c_str(), F_OK), 0);
        LogCapture cap;
        ASSERT_EQ(StartServer(name), 0);
        EXPECT_EQ(Errors(cap), std::vector<std::string>{});
    }
    const std::string client = UniqueName("same");
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int i = 0; i < 4; ++i) {
        // Three close after their calls, the last exits without closing.
        children.push_back(std::make_unique<ChildProcess>(
            "sable_peer", i < 3 ? std::vector<std::string>{"call", client, name, "client", "20"}
                                : std::vector<std::string>{"leave", client, name, "client"}));
    }
    uint8_t byte = 1;
    SabloRequest req{0, &byte, 1};
    std::set<int> fds;
    for (auto& child : children) {
        // Each caller checks that every answer carries its own payload (tagged with its pid).
        EXPECT_EQ(child->Wait(20000), 0);
        const int fd = FdOf(client, *child);
        fds.insert(fd);
        EXPECT_TRUE(WaitUntil([&] { return Closed(fd); }, 10000)) << fd;
        // The library closes the server's end after the callback: the number stops answering.
        EXPECT_TRUE(WaitUntil([&] { return SabloSendRequest(fd, &req) == -ENOENT; }, 10000));
    }
    EXPECT_EQ(fds.size(), 4u);
    EXPECT_EQ(fds.count(-1), 0u);
    EXPECT_TRUE(WaitUntil([&] { return FifoFilesWith(client).empty(); }, 10000));
}

TEST_F(ServerTest, ASecondServerHereOrInAnotherProcessIsRefusedAndTheFirstKeepsServing) {
    ASSERT_EQ(StartServer(name), 0);
    const std::string other = UniqueName("other") + "x";
    EXPECT_EQ(StartServer(name), -EEXIST);
    EXPECT_EQ(StartServer(other), -EEXIST);
    EXPECT_EQ(FifoFilesWith(other), std::set<std::string>{});
    {
        ChildProcess second("sable_peer", {"server", name});
        EXPECT_EQ(second.ReadLine(), "server " + std::to_string(-EWOULDBLOCK));
    }
    ExpectAClientConnects(name);
}

TEST_F(ServerTest, GarbageOnTheServerFifoNeverStopsIt) {
    ASSERT_EQ(StartServer(name), 0);
    LogCapture cap;
    std::mt19937 random(1234);
    std::vector<uint8_t> bytes(2000);
    for (auto& b : bytes) {
        b = static_cast<uint8_t>(random());
        // Without the magic's first byte nothing is taken for a packet, and the packets that
        // follow are not eaten by a half-matched magic.
        if (b == MagicReceiver::MAGIC_ENUM[0]) b = 0;
    }
    WriteToServer(bytes);
    std::vector<uint8_t> overlong = Packet(0, {111});
    overlong.insert(overlong.end(), 111, 'a');
    WriteToServer(overlong);
    EXPECT_TRUE(cap.WaitFor("Read connect packet data size failed, ret=4, size=111 bytes", 5000));
    // A connect packet without a name takes the next packet's magic for its size (that line is
    // restrained now: the site has just printed).
    std::vector<uint8_t> empty = Packet(0);
    std::vector<uint8_t> next = Packet(0);
    empty.insert(empty.end(), next.begin(), next.end());
    WriteToServer(empty);
    WriteToServer(Packet(7));
    EXPECT_TRUE(cap.WaitFor("Read type failed, ret=4, type=7", 5000));
    ExpectAClientConnects(name);
}

TEST_F(ServerTest, AThrowingOpenOrConnectCallbackDropsOnlyThatClient) {
    LogCapture cap;
    // Priority 1 passes the checks, but opening a pipe with it throws on the server thread.
    ASSERT_EQ(StartServer(name, RecordConnect, SABLO_PRIORITY_NORMAL), 0);
    {
        const std::string client = UniqueName("prio");
        ChildProcess child("sable_peer", {"call", client, name, "client", "0", "300"});
        child.ExpectExit(20);  // its pipe never comes
        EXPECT_TRUE(ErrorLogged(
            cap, "Open pipe for client " + client + "_" + std::to_string(child.Pid()) + " threw: ",
            5000));
    }
    WriteToServer(Packet(7));
    EXPECT_TRUE(cap.WaitFor("Read type failed, ret=4, type=7", 5000)) << "still serving";
    PipeServer::GetInstance()->Close();

    // The pipe opened for a client whose connect callback throws is closed; the next client of
    // the same server is served.
    connectCalls = 0;
    thrownFor.clear();
    ASSERT_EQ(StartServer(name, ThrowTwiceThenRecord), 0);
    uint8_t byte = 1;
    SabloRequest req{0, &byte, 1};
    for (size_t round = 0; round < 2; ++round) {
        const std::string client = UniqueName("thr");
        ChildProcess child("sable_peer", {"call", client, name, "client", "0", "2000"});
        // Depending on when the close comes, the client's open succeeds or times out.
        const int code = child.Wait(10000);
        EXPECT_TRUE(code == 0 || code == 20) << code;
        child.ExpectExit(code);
        int fd = -1;
        ASSERT_TRUE(WaitUntil(
            [&] {
                std::lock_guard<std::mutex> lock(seenMu);
                fd = thrownFor.size() > round ? thrownFor[round] : -1;
                return fd > 0;
            },
            5000));
        const std::string thrown = round == 0
                                       ? "no room for " + client + "_" + std::to_string(child.Pid())
                                       : "unknown exception";
        EXPECT_TRUE(ErrorLogged(
            cap, "Connect callback of fd=" + std::to_string(fd) + " threw: " + thrown + ".", 5000));
        EXPECT_TRUE(WaitUntil([&] { return SabloSendRequest(fd, &req) == -ENOENT; }, 5000));
    }
    EXPECT_EQ(thrownFor.size(), 2u);
    ExpectAClientConnects(name);
}

TEST(ClientConnectPacket, ToAServerThatWentIsEpipeAndLeavesNoSigpipe) {
    struct sigaction dfl {}, old {};
    dfl.sa_handler = SIG_DFL;
    ASSERT_EQ(sigaction(SIGPIPE, &dfl, &old), 0);
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    close(fds[0]);  // the server went between the client's open and its write
    std::shared_ptr<SableTable> table = TableFactory::GetInstance();
    ASSERT_TRUE(table);
    const std::string self = UniqueName("cc");
    const std::string server = UniqueName("gone");
    SabloAttr attr;
    attr.selfName = self.c_str();
    attr.targetName = server.c_str();
    SableClientPipe client(attr, *table);
    LogCapture cap;
    EXPECT_EQ(client.SendMsgToServer(fds[1]), -EPIPE);
    EXPECT_TRUE(cap.Contains("write dataIn fail: -1, serverMonitorFd = " + std::to_string(fds[1]) +
                             ", errno = " + std::to_string(EPIPE)));
    close(fds[1]);
    sigset_t pending, mask;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGPIPE), 0) << "the thread's mask is restored";
    sigaction(SIGPIPE, &old, nullptr);
}

TEST_F(ServerTest, AClientOpenFailsBeforeWritingWithoutAServerOrWithoutAReader) {
    const std::string self = UniqueName("lonely") + "x";
    SabloAttr attr;
    attr.selfName = self.c_str();
    attr.targetName = name.c_str();
    attr.timeout = 1000;
    EXPECT_EQ(SabloCreateClient(&attr), -ENOENT);
    EXPECT_EQ(FifoFilesWith(name), std::set<std::string>{});
    ASSERT_EQ(mkfifo(fifo.c_str(), 0660), 0);
    EXPECT_EQ(SabloCreateClient(&attr), -ENXIO);
    EXPECT_EQ(FifoFilesWith(self), std::set<std::string>{});
}

TEST_F(ServerTest, TheExceptionHandlerRemovesThePipeFilesAndTheServerFifo) {
    ASSERT_EQ(StartServer(name), 0);
    const std::string target = UniqueName("tgt") + "x";
    SabloAttr attr;
    attr.selfName = name.c_str();
    attr.targetName = target.c_str();
    attr.mode = SABLO_MODE_CREATE;
    const int fd = SabloOpen(&attr);
    ASSERT_GT(fd, 0);
    ASSERT_EQ(FifoFilesWith(name).size(), 3u);  // the server FIFO and the pipe's two files
    LogCapture cap;
    SabloExceptionHandler(15);
    EXPECT_TRUE(cap.Contains("Recv a signal 15."));
    EXPECT_EQ(FifoFilesWith(name), std::set<std::string>{});
    // Only the files went: the pipe is still there to be closed.
    EXPECT_EQ(SabloClosePipe(fd), 0);
}


const std::string lifeName = UniqueName("life") + "x";
std::atomic<int> phase{0};
std::atomic<int> createInCallback{1};

// A client of one RPC whose pipe the server closes under it (so its exit status does not
// matter), or with COUNT 0 one that only connects (the finished table has no workers left).
std::unique_ptr<ChildProcess> Client(const std::string& self, const char* count,
                                     const char* openTimeoutMs) {
    return std::make_unique<ChildProcess>(
        "sable_peer",
        std::vector<std::string>{"call", self, lifeName, "client", count, openTimeoutMs});
}

TEST(ServerLifeTest, FinishingStopsTheServerFromAnyThreadAndTheNextStartServesAgain) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        const std::string fifo = sable_test::EnsureFifoDir() + lifeName;
        // Another thread finishes the server while a connect callback calls into it.
        p.Eq(StartServer(lifeName,
                         [](int, SabloClientInfo) {
                             phase = 1;
                             WaitUntil([] { return phase.load() == 2; }, 10000);
                             std::this_thread::sleep_for(std::chrono::milliseconds(100));
                             createInCallback = StartServer(lifeName + "x");
                             phase = 3;
                         }),
             0, "first start");
        p.True(WaitUntil([] { return ServerThreads() == 1; }, 10000), "server thread running");
        auto child = Client(UniqueName("cli"), "1", "300");
        p.True(WaitUntil([] { return phase.load() == 1; }, 10000), "in the callback");
        phase = 2;
        p.True(sable_test::FinishServerWithin(10000), "finish returned");
        p.Eq(phase.load(), 3, "callback finished");
        p.Eq(createInCallback.load(), -EEXIST, "create from the callback while stopping");
        p.True(WaitUntil([] { return ServerThreads() == 0; }, 5000), "server thread joined");
        p.True(!SabloServiceIsExist(), "service after finishing");
        child->ExpectExit(child->Wait(10000));

        // A connect callback finishes the server it runs on (its thread cannot be joined there).
        p.Eq(StartServer(lifeName,
                         [](int, SabloClientInfo) {
                             SabloCfgFinishServer();
                             createInCallback = StartServer(lifeName + "x");
                             phase = 4;
                         }),
             0, "second start");
        child = Client(UniqueName("cli"), "1", "300");
        p.True(WaitUntil([] { return phase.load() == 4; }, 10000), "callback returned");
        p.Eq(createInCallback.load(), -EBUSY, "restart from the callback");
        p.True(WaitUntil([] { return ServerThreads() == 0; }, 10000), "server thread ended");
        child->ExpectExit(child->Wait(10000));

        // The next start joins the thread that stopped itself, and clients connect again.
        p.Eq(StartServer(lifeName), 0, "third start");
        const std::string last = UniqueName("last");
        child = Client(last, "0", "10000");
        p.Eq(child->Wait(10000), 0, "client exit");
        p.True(FdOf(last, *child) > 0, "connected");
        p.True(sable_test::FinishServerWithin(10000), "last finish returned");
        p.True(WaitUntil([] { return ServerThreads() == 0; }, 5000), "server thread at the end");
        unlink(fifo.c_str());
        return p.Text();
    });
}

}  // namespace
