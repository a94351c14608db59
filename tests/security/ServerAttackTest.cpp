// Outside writers of a server FIFO and of a pipe FIFO: they can neither stop nor wedge a server,
// nor cost it more than their own packets, nor flood the log; and no descriptor of the library
// leaks into an exec'd child.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "FreshProcess.h"
#include "LogCapture.h"
#include "TestEnv.h"
#include "pipe/MagicReceiver.h"
#include "sable_comm.h"
#include "server/PipeServer.h"

using sable_test::ChildProcess;
using sable_test::LogCapture;
using sable_test::Problems;
using sable_test::UniqueName;
using sable_test::WaitUntil;

namespace {

std::mutex seenMu;
std::set<std::string> connected;  // client pipe names as the connect callback got them

void RecordConnect(int, SabloClientInfo info) {
    std::lock_guard<std::mutex> lock(seenMu);
    connected.insert(info.name);
}

void Echo(int fd, SabloRequest* req) {
    if (req == nullptr) return;
    SabloResponse rsp{req->id, req->data, req->size};
    SabloSendResponse(fd, &rsp);
}

bool Connected(const std::string& pipeName) {
    std::lock_guard<std::mutex> lock(seenMu);
    return connected.count(pipeName) > 0;
}

SabloServerAttr ServerAttr(const std::string& name) {
    SabloServerAttr attr{RecordConnect, Echo, 0xFFFFFFFFu, SABLO_PRIORITY_DEFAULT, name.c_str()};
    return attr;
}

// Writes raw bytes into a FIFO, as a misbehaving peer would.
bool WriteRaw(const std::string& fifo, const std::vector<uint8_t>& bytes) {
    int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno == EAGAIN) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        } else {
            break;
        }
    }
    close(fd);
    return done == bytes.size();
}

// magic, type, gid 0, pid 0, then `extra` 32-bit fields.
std::vector<uint8_t> Packet(uint32_t type, std::vector<uint32_t> extra = {}) {
    extra.insert(extra.begin(), {MagicReceiver::MAGIC, type, 0, 0});
    std::vector<uint8_t> out(extra.size() * 4);
    memcpy(out.data(), extra.data(), out.size());
    return out;
}

std::vector<uint8_t> ConnectPacket(const std::string& name) {
    std::vector<uint8_t> out = Packet(0, {static_cast<uint32_t>(name.size())});
    out.insert(out.end(), name.begin(), name.end());
    return out;
}

// A client child that connects and makes two round trips; "" when it did and the server told
// its connect callback, else what went wrong.
std::string AClientConnects(const std::string& server) {
    const std::string client = UniqueName("cli");
    ChildProcess child("sable_peer", {"call", client, server, "client", "2", "5000"});
    const int code = child.Wait(20000);
    child.ExpectExit(code);
    if (code != 0) return "client exit " + std::to_string(code) + "\n";
    const std::string pipeName = client + "_" + std::to_string(child.Pid());
    return WaitUntil([&] { return Connected(pipeName); }, 5000) ? "" : "not told of " + pipeName;
}


// The bound within which finishing a server returns, whatever its FIFO holds.
constexpr int kFinishBoundMs = 1000;

struct Attack {
    const char* what;
    std::vector<uint8_t> bytes;
    const char* line;  // an error line it leaves, or ""
};

std::vector<Attack> Attacks() {
    // Cut where a field ends: a reader that waits for the rest takes the next packet for it.
    std::vector<uint8_t> partial = ConnectPacket("half_of_a_name");
    partial.resize(20);
    return {
        {"stray byte", {MagicReceiver::MAGIC_ENUM[0]}, ""},
        {"empty name", Packet(0), ""},
        {"partial packet", partial, "Read connect packet data failed, ret="},
        {"outside terminate", Packet(1), "not sent by this server, ignored."},
    };
}

}  // namespace

// Each attack is written into a running server's FIFO; a real client then connects and the
// server finishes within the bound (before, each of them either swallowed the stop, so that
// finishing blocked for good, or made the next client fail).
class ServerAttack : public ::testing::TestWithParam<int> {};

TEST_P(ServerAttack, IsFollowedByAClientThatConnectsAndAFinishWithinTheBound) {
    const int param = GetParam();
    SABLE_EXPECT_IN_FRESH_PROCESS([param] {
        Problems p;
        const Attack attack = Attacks()[param];
        const std::string name = UniqueName("srv") + "x";
        const std::string fifo = sable_test::EnsureFifoDir() + name;
        SabloServerAttr attr = ServerAttr(name);
        LogCapture cap;
        p.Eq(SabloCreateServer(&attr), 0, "start");
        p.True(WriteRaw(fifo, attack.bytes), "attack written");
        if (attack.line[0] != '\0') {
            p.True(cap.WaitFor(attack.line, 5000), std::string("line: ") + attack.line);
        }
        p.Eq(AClientConnects(name), std::string(), attack.what);
        // Once more, right behind the attack in the same FIFO.
        p.True(WriteRaw(fifo, attack.bytes), "attack written again");
        p.Eq(AClientConnects(name), std::string(), std::string(attack.what) + " again");
        // The stop must get through whatever the attack left in the FIFO.
        p.True(WriteRaw(fifo, attack.bytes), "attack left in the FIFO");
        p.True(sable_test::FinishServerWithin(kFinishBoundMs), "finish within the bound");
        p.True(!SabloServiceIsExist(), "server gone");
        unlink(fifo.c_str());
        return p.Text();
    });
}

INSTANTIATE_TEST_SUITE_P(Attacks, ServerAttack, ::testing::Range(0, 4));

// A process whose server FIFO holds bytes that once swallowed the server's stop still exits.
TEST(ServerAttackExit, AProcessExitsWhateverItsServerFifoHolds) {
    for (const char* what : {"byte", "empty"}) {
        const std::string name = UniqueName("srv") + "x";
        {
            ChildProcess child("sable_peer", {"server-wedged", name, what});
            EXPECT_EQ(child.ReadLine(), "server 0") << what;
            EXPECT_EQ(child.Wait(10000), 0) << "the exit hangs after " << what;
        }
        unlink((sable_test::EnsureFifoDir() + name).c_str());
    }
}

// A connect packet whose name would lead through a directory link planted in the FIFO
// directory is refused with the check's line; nothing is created outside, the server serves on.
TEST(ServerAttackName, ASlashNameInAConnectPacketIsRefused) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        const std::string dir = sable_test::EnsureFifoDir();
        const std::string name = UniqueName("srv") + "x";
        const std::string outside = "/tmp/" + UniqueName("outside");
        const std::string link = UniqueName("lnk");
        mkdir(outside.c_str(), 0700);
        // A pipe of the server to "<link>/v" would use <link>/v__to__<name> and
        // <name>__to__<link>/v.
        symlink(outside.c_str(), (dir + link).c_str());
        symlink(outside.c_str(), (dir + name + "__to__" + link).c_str());
        SabloServerAttr attr = ServerAttr(name);
        LogCapture cap;
        p.Eq(SabloCreateServer(&attr), 0, "start");
        p.True(WriteRaw(dir + name, ConnectPacket(link + "/v")), "packet written");
        p.True(cap.WaitFor("Intput targetName=" + link + "/v is not valid.\n", 5000), "refused");
        p.Eq(AClientConnects(name), std::string(), "next client");
        p.Eq(rmdir(outside.c_str()), 0, "outside directory still empty");
        p.True(sable_test::FinishServerWithin(kFinishBoundMs), "finish");
        unlink((dir + link).c_str());
        unlink((dir + name + "__to__" + link).c_str());
        unlink((dir + name).c_str());
        return p.Text();
    });
}

namespace {

// Random bytes; with `magics`, some of them start with the magic, as frames and packets do.
std::vector<uint8_t> Garbage(size_t size, bool magics, bool firstMagicByte, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<uint8_t> bytes(size);
    for (auto& b : bytes) {
        b = static_cast<uint8_t>(random());
        if (!firstMagicByte && b == MagicReceiver::MAGIC_ENUM[0]) b = 0;
    }
    for (size_t at = 0; magics && at + 40 < size; at += 37 + random() % 200) {
        memcpy(&bytes[at], MagicReceiver::MAGIC_ENUM, 4);
    }
    return bytes;
}

// A response frame of 4 payload bytes whose checksum does not match.
std::vector<uint8_t> BadChecksumFrame() {
    std::vector<uint8_t> frame(36, 0);
    const uint32_t header[4] = {MagicReceiver::MAGIC, 1, 0, 4};
    memcpy(frame.data(), header, sizeof(header));
    return frame;
}

// One RPC of 64 bytes; 0 when it came back whole.
int EchoedRpc(int fd) {
    uint8_t payload[64] = {1, 2, 3};
    SabloRequest req{0, payload, sizeof(payload)};
    SabloResponse rsp{};
    int ret = SabloTimedRPCSync(fd, &req, &rsp, 5000);
    if (ret == 0 && (rsp.size != sizeof(payload) || memcmp(rsp.data, payload, rsp.size) != 0)) {
        ret = -EBADMSG;
    }
    DestroyResponse(&rsp);
    return ret;
}

size_t ErrorLines(const LogCapture& cap) {
    size_t count = 0;
    for (const auto& line : cap.Lines()) count += line.level <= LOG_ERR;
    return count;
}

// Error lines a flood may leave: one per restrained call site of the reader on its thread.
constexpr size_t kFloodLineBound = 30;

}  // namespace

// Garbage flooded into the FIFO a pipe reads, with bogus frames among it (bad lengths, bad
// sums): a bounded number of lines, and the pipe still answers the RPC that comes after it.
TEST(GarbageFlood, IntoAPipeFifoLogsBoundedLinesAndLeavesThePipeUsable) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        const std::string dir = sable_test::EnsureFifoDir();
        const std::string self = UniqueName("me");
        const std::string peer = UniqueName("echo");
        ChildProcess child("stream_peer", {"echo", peer, self, "1"});
        p.True(child.ReadLine().rfind("ready ", 0) == 0, "peer ready");
        SabloAttr attr;
        attr.selfName = self.c_str();
        attr.targetName = peer.c_str();
        attr.mode = SABLO_MODE_JOIN;
        attr.timeout = 10000;
        attr.callback = Echo;
        const int fd = SabloOpen(&attr);
        p.True(fd > 0, "open");
        // The peer's write end open first: an outside writer's close before it would be a hang-up.
        p.Eq(EchoedRpc(fd), 0, "RPC before the flood");
        LogCapture cap;
        const std::string fifo = dir + peer + "__to__" + self;
        // Garbage with frame starts in it, then frames whose checksum does not add up.
        p.True(WriteRaw(fifo, Garbage(10000, true, false, 8)), "frames");
        for (int i = 0; i < 200; ++i) p.True(WriteRaw(fifo, BadChecksumFrame()), "bad frame");
        p.True(cap.WaitFor("Recv msg failed, send checksum", 10000), "bad frames read");
        p.Eq(EchoedRpc(fd), 0, "RPC after the flood");
        const size_t errors = ErrorLines(cap);
        p.True(errors <= kFloodLineBound, std::to_string(errors) + " error lines");
        child.Kill(SIGKILL);
        child.ExpectExit(128 + SIGKILL);
        SabloClosePipe(fd);
        return p.Text();
    });
}

TEST(GarbageFlood, IntoAServerFifoLogsBoundedLinesAndClientsStillConnect) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        const std::string name = UniqueName("srv") + "x";
        const std::string fifo = sable_test::EnsureFifoDir() + name;
        SabloServerAttr attr = ServerAttr(name);
        p.Eq(SabloCreateServer(&attr), 0, "start");
        LogCapture cap;
        for (unsigned seed = 0; seed < 5; ++seed) {
            p.True(WriteRaw(fifo, Garbage(10000, true, true, seed)), "flood");
        }
        for (int i = 0; i < 200; ++i) p.True(WriteRaw(fifo, Packet(7)), "bad type");
        p.Eq(AClientConnects(name), std::string(), "client after the flood");
        const size_t errors = ErrorLines(cap);
        p.True(errors <= kFloodLineBound, std::to_string(errors) + " error lines");
        p.True(sable_test::FinishServerWithin(kFinishBoundMs), "finish");
        unlink(fifo.c_str());
        return p.Text();
    });
}

namespace {

// This process's descriptors as the fd_peer reports them: " <fd>=<target>" each.
std::string OwnDescriptors() {
    std::string line = "fds";
    for (int fd : sable_test::OpenFds()) {
        char target[256] = {0};
        ssize_t n =
            readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof(target) - 1);
        line += " " + std::to_string(fd) + "=" + (n > 0 ? std::string(target, n) : "?");
    }
    return line;
}

// Descriptors of such a report that are the library's kind: FIFOs of its directory, epoll sets,
// eventfds.
int LibraryDescriptors(const std::string& report) {
    int count = 0;
    for (const char* kind : {"=/dev/shm/nux/sable_comm/", "=anon_inode:[eventpoll]",
                             "=anon_inode:[eventfd]"}) {
        for (size_t at = report.find(kind); at != std::string::npos;
             at = report.find(kind, at + 1)) {
            ++count;
        }
    }
    return count;
}

}  // namespace

// A child exec'd from a process with a server, a pipe and a client pipe open inherits none of
// the library's descriptors.
TEST(CloseOnExec, AChildExecdFromALibraryProcessSeesNoneOfItsDescriptors) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        const std::string dir = sable_test::EnsureFifoDir();
        const std::string name = UniqueName("srv") + "x";
        SabloServerAttr server = ServerAttr(name);
        p.Eq(SabloCreateServer(&server), 0, "server");
        const std::string peer = UniqueName("peer");
        const std::string self = UniqueName("me");
        SabloAttr attr;
        attr.selfName = self.c_str();
        attr.targetName = peer.c_str();
        attr.mode = SABLO_MODE_CREATE;
        attr.callback = Echo;
        attr.timeout = 10000;
        const int fd = SabloOpen(&attr);
        p.True(fd > 0, "pipe");
        {
            // The peer joins, so that both ends of the pipe are open here.
            ChildProcess joiner("sable_peer", {"call", peer, self, "0", "1"});
            p.Eq(joiner.Wait(20000), 0, "peer");
        }
        // Here the library holds FIFOs of its directory, epoll sets and eventfds...
        p.True(LibraryDescriptors(OwnDescriptors()) >= 5, "library descriptors here");
        // ...and the exec'd child none of them (the test harness's own may pass).
        ChildProcess child("fd_peer", {});
        const std::string inherited = child.ReadLine();
        p.True(inherited.rfind("fds", 0) == 0, "report: " + inherited);
        p.Eq(LibraryDescriptors(inherited), 0, "library descriptors inherited: " + inherited);
        p.Eq(child.Wait(10000), 0, "fd_peer exit");
        SabloClosePipe(fd);
        p.True(sable_test::FinishServerWithin(kFinishBoundMs), "finish");
        unlink((dir + name).c_str());
        return p.Text();
    });
}
