// A server in this process and clients in child processes. The server is stopped with
// PipeServer::Close at the end of each case (not SabloCfgFinishServer, which would disable the
// process's table for the cases that follow in the same process).
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "ServerSupport.h"
#include "TestEnv.h"
#include "pipe/MagicReceiver.h"
#include "sable_comm.h"
#include "server/PipeServer.h"

namespace {

using sable_test::ChildProcess;
using sable_test::FifoFilesWith;
using sable_test::LogCapture;
using sable_test::UniqueName;
using sable_test::WaitUntil;
using server_test::Log;

class ServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        fifo = sable_test::EnsureFifoDir() + name;
        Log().Reset();
    }
    void TearDown() override {
        PipeServer::GetInstance()->Close();
        unlink(fifo.c_str());  // the server leaves its FIFO behind by design
        // The server closes the pipes of clients that have gone, removing their files.
        EXPECT_TRUE(WaitUntil([&] { return FifoFilesWith(name).empty(); }, 10000))
            << "FIFO files left behind";
    }

    int Start() {
        SabloServerAttr attr = server_test::Attr(name);
        return SabloCreateServer(&attr);
    }

    // Writes raw bytes into the server FIFO, as a misbehaving client would.
    void WriteToServer(const std::vector<uint8_t>& bytes) {
        int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(fd, 0) << strerror(errno);
        EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        close(fd);
    }

    static void Put32(std::vector<uint8_t>& out, uint32_t value) {
        uint8_t b[4];
        memcpy(b, &value, 4);
        out.insert(out.end(), b, b + 4);
    }

    // Header of a server packet; gid and pid 0 so that no byte of them looks like the magic.
    static std::vector<uint8_t> Header(uint32_t type) {
        std::vector<uint8_t> out;
        Put32(out, MagicReceiver::MAGIC);
        Put32(out, type);
        Put32(out, 0);
        Put32(out, 0);
        return out;
    }

    // A client child that connects and makes a few round trips: it exits 0 only when the
    // server opened its pipe and answered.
    void ExpectAClientConnects() {
        const std::string client = UniqueName("after");
        ChildProcess child("sable_peer", {"client", client, name, "2"});
        EXPECT_EQ(child.Wait(10000), 0) << "client after the bad bytes";
        EXPECT_GT(Log().FdOf(client + "_" + std::to_string(child.Pid())), 0);
    }

    // Ends in a letter, so that no other name of this process contains it.
    const std::string name = UniqueName("srv") + "x";
    std::string fifo;
};

TEST_F(ServerTest, TheConnectCallbackGetsTheClientsPidGidAndName) {
    ASSERT_EQ(Start(), 0);
    const std::string client = UniqueName("cli");
    ChildProcess child("sable_peer", {"client", client, name, "3"});
    EXPECT_EQ(child.Wait(10000), 0);
    std::vector<server_test::Connect> connects = Log().Connects();
    ASSERT_EQ(connects.size(), 1u);
    EXPECT_GT(connects[0].fd, 0);
    EXPECT_EQ(connects[0].pid, child.Pid());
    EXPECT_EQ(connects[0].gid, getgid());
    EXPECT_EQ(connects[0].name, client + "_" + std::to_string(child.Pid()));
}

TEST_F(ServerTest, ClientsOfOneNameInDifferentProcessesGetDistinctPipesAndTheirOwnAnswers) {
    ASSERT_EQ(Start(), 0);
    const std::string client = UniqueName("same");
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int i = 0; i < 3; ++i) {
        children.push_back(std::make_unique<ChildProcess>(
            "sable_peer", std::vector<std::string>{"client", client, name, "20"}));
    }
    std::set<std::string> expectedNames;
    for (auto& child : children) {
        // Each checks that every answer carries its own payload (tagged with its pid).
        EXPECT_EQ(child->Wait(20000), 0);
        expectedNames.insert(client + "_" + std::to_string(child->Pid()));
    }
    std::set<int> fds;
    std::set<std::string> names;
    for (const auto& c : Log().Connects()) {
        fds.insert(c.fd);
        names.insert(c.name);
    }
    EXPECT_EQ(fds.size(), 3u);
    EXPECT_EQ(names, expectedNames);
}

TEST_F(ServerTest, ClientsThatLeaveAreSeenAsANullRequestAndTheirPipesAndFilesGo) {
    ASSERT_EQ(Start(), 0);
    const std::string closing = UniqueName("closes");
    const std::string leaving = UniqueName("leaves");
    ChildProcess closer("sable_peer", {"client", closing, name, "1"});
    ChildProcess leaver("sable_peer", {"client-exit", leaving, name});
    EXPECT_EQ(closer.Wait(10000), 0);
    EXPECT_EQ(leaver.Wait(10000), 0);
    const int closerFd = Log().FdOf(closing + "_" + std::to_string(closer.Pid()));
    const int leaverFd = Log().FdOf(leaving + "_" + std::to_string(leaver.Pid()));
    ASSERT_GT(closerFd, 0);
    ASSERT_GT(leaverFd, 0);
    EXPECT_TRUE(WaitUntil([&] { return Log().Closed(closerFd); }, 10000));
    EXPECT_TRUE(WaitUntil([&] { return Log().Closed(leaverFd); }, 10000));
    // The library closes the server's end after the callback: the numbers stop answering.
    uint8_t byte = 1;
    SabloRequest req{0, &byte, 1};
    EXPECT_TRUE(WaitUntil([&] { return SabloSendRequest(closerFd, &req) == -ENOENT; }, 10000));
    EXPECT_TRUE(WaitUntil([&] { return SabloSendRequest(leaverFd, &req) == -ENOENT; }, 10000));
    EXPECT_TRUE(WaitUntil([&] { return FifoFilesWith(closing).empty(); }, 10000));
    EXPECT_TRUE(WaitUntil([&] { return FifoFilesWith(leaving).empty(); }, 10000));
}

TEST_F(ServerTest, CreatingTheServerAgainWhileItRunsIsRefusedAndLeavesItServing) {
    ASSERT_EQ(Start(), 0);
    EXPECT_EQ(Start(), -EEXIST);
    const std::string other = UniqueName("other") + "x";
    SabloServerAttr attr = server_test::Attr(other);
    EXPECT_EQ(SabloCreateServer(&attr), -EEXIST);
    struct stat st {};
    EXPECT_NE(lstat((sable_test::EnsureFifoDir() + other).c_str(), &st), 0);
    ExpectAClientConnects();
}

TEST_F(ServerTest, ASecondServerProcessOfTheSameNameFailsAtTheLockAndTheFirstKeepsServing) {
    ASSERT_EQ(Start(), 0);
    {
        ChildProcess second("sable_peer", {"server", name, "10"});
        EXPECT_EQ(second.ReadLine(), "failed " + std::to_string(-EWOULDBLOCK));
        second.ExpectExit(30);
    }
    struct stat st {};
    ASSERT_EQ(lstat(fifo.c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    ExpectAClientConnects();
}

TEST_F(ServerTest, RandomBytesOnTheServerFifoDoNotStopIt) {
    ASSERT_EQ(Start(), 0);
    std::mt19937 random(1234);
    std::vector<uint8_t> bytes(2000);
    for (auto& b : bytes) {
        b = static_cast<uint8_t>(random());
        // Without the magic's first byte nothing is taken for a packet, and the valid packet
        // that follows is not eaten by a half-matched magic.
        if (b == MagicReceiver::MAGIC_ENUM[0]) b = 0;
    }
    WriteToServer(bytes);
    ExpectAClientConnects();
}

TEST_F(ServerTest, AnOverlongClientNameIsRejectedAndTheServerGoesOn) {
    ASSERT_EQ(Start(), 0);
    LogCapture cap;
    std::vector<uint8_t> packet = Header(0);
    Put32(packet, 111);
    packet.insert(packet.end(), 111, 'a');
    WriteToServer(packet);
    EXPECT_TRUE(cap.WaitFor("Read connect packet data size failed, ret=4, size=111 bytes", 5000));
    ExpectAClientConnects();
}

TEST_F(ServerTest, AnEmptyNameConnectPacketTakesTheNextMagicForItsSizeAndTheServerGoesOn) {
    ASSERT_EQ(Start(), 0);
    LogCapture cap;
    std::vector<uint8_t> packets = Header(0);  // 16 bytes: no size field
    std::vector<uint8_t> next = Header(0);
    packets.insert(packets.end(), next.begin(), next.end());
    WriteToServer(packets);
    EXPECT_TRUE(cap.WaitFor("Read connect packet data size failed, ret=4, size=" +
                                std::to_string(MagicReceiver::MAGIC) + " bytes",
                            5000));
    ExpectAClientConnects();
}

TEST_F(ServerTest, AnUnknownPacketTypeIsRejectedAndTheServerGoesOn) {
    ASSERT_EQ(Start(), 0);
    LogCapture cap;
    WriteToServer(Header(7));
    EXPECT_TRUE(cap.WaitFor("Read type failed, ret=4, type=7", 5000));
    ExpectAClientConnects();
}

TEST_F(ServerTest, TheExceptionHandlerRemovesThePipeFilesAndTheServerFifo) {
    ASSERT_EQ(Start(), 0);
    const std::string target = UniqueName("tgt") + "x";
    SabloAttr attr;
    attr.selfName = name.c_str();
    attr.targetName = target.c_str();
    attr.mode = SABLO_MODE_CREATE;
    attr.timeout = 0;
    attr.priority = SABLO_PRIORITY_DEFAULT;
    int fd = SabloOpen(&attr);
    ASSERT_GT(fd, 0);
    ASSERT_EQ(FifoFilesWith(target).size(), 2u);
    LogCapture cap;
    SabloExceptionHandler(15);
    EXPECT_TRUE(cap.Contains("Recv a signal 15."));
    EXPECT_EQ(FifoFilesWith(target), std::set<std::string>{});
    struct stat st {};
    EXPECT_NE(lstat(fifo.c_str(), &st), 0);
    // Only the files went: the pipe is still there to be closed.
    EXPECT_EQ(SabloClosePipe(fd), 0);
}

TEST_F(ServerTest, ABadServerNameOrPriorityIsInvalid) {
    const std::string bad = "srv;rm";
    SabloServerAttr attr = server_test::Attr(bad);
    EXPECT_EQ(SabloCreateServer(&attr), -EINVAL);
    attr = server_test::Attr(name);
    attr.priority = static_cast<SabloPriority>(3);
    EXPECT_EQ(SabloCreateServer(&attr), -EINVAL);
    struct stat st {};
    EXPECT_NE(lstat(fifo.c_str(), &st), 0);
}

TEST_F(ServerTest, AnOutsideTerminatePacketEndsTheServerThreadAndTheServerCanStartAgain) {
    ASSERT_EQ(Start(), 0);
    ASSERT_TRUE(WaitUntil([] { return server_test::ServerThreads() == 1; }, 10000));
    WriteToServer(Header(1));
    EXPECT_TRUE(WaitUntil([] { return server_test::ServerThreads() == 0; }, 10000));
    EXPECT_TRUE(WaitUntil([] { return !PipeServer::GetInstance()->IsRunning(); }, 10000));
    // The ended thread is joined and its descriptors released before the new start.
    ASSERT_EQ(Start(), 0);
    ExpectAClientConnects();
}

}  // namespace
