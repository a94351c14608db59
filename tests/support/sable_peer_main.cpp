// The other process of the multi-process tests, driven through the public interface only.
//
//   sable_peer echo   SELF TARGET MODE SECONDS   open, answer every request with its payload,
//                                                 exit 0 when the remote closes (or after
//                                                 SECONDS with 3)
//   sable_peer mute   SELF TARGET MODE SECONDS   open, report "request <id> <size>" for every
//                                                 request and never answer; exit as echo
//   sable_peer call   SELF TARGET MODE COUNT SIZE open, make COUNT RPCs of SIZE bytes, exit 0
//                                                 when all came back intact
//   sable_peer send-exit SELF TARGET MODE         open, send one request, exit at once
//   sable_peer server NAME SECONDS [report]       echo server; exits 0 after SECONDS or on
//                                                 SIGTERM (after SabloCfgFinishServer). With
//                                                 "report": "client <fd> <pid> <gid> <name>" per
//                                                 connect, "closed <fd>" per client gone.
//                                                 "failed <code>" and exit 30 when it cannot
//                                                 start
//   sable_peer client SELF SERVER COUNT [TIMEOUT] client of SERVER: COUNT RPCs whose payloads
//                                                 carry this pid, then closes and exits 0
//                                                 (40: the open failed, 10/11: an RPC failed)
//   sable_peer client-exit SELF SERVER            client that exits without closing once open
//   sable_peer exit-in-destructor TARGET         opens a pipe to TARGET, then calls entry
//                                                 functions from a static destructor run after
//                                                 the table's; exits 0 when they all answered
//                                                 "table is gone", 5 otherwise
// Every mode reports "ready <fd>" on the handshake descriptor once its pipe is open. Pipes are
// opened with priority 0 and a 10 s time-out.
#include <errno.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "TestEnv.h"
#include "sable_comm.h"

namespace {

std::atomic<bool> remoteClosed{false};
std::atomic<int> requests{0};
std::atomic<bool> report{false};
volatile sig_atomic_t terminateRequested = 0;

void OnTerminate(int) { terminateRequested = 1; }

void Echo(int fd, SabloRequest* req) {
    if (req == nullptr) {
        remoteClosed = true;
        if (report) sable_test::SignalReady("closed " + std::to_string(fd));
        return;
    }
    requests++;
    SabloResponse rsp{req->id, req->data, req->size};
    SabloSendResponse(fd, &rsp);
}

void Mute(int, SabloRequest* req) {
    if (req == nullptr) {
        remoteClosed = true;
        return;
    }
    requests++;
    sable_test::SignalReady("request " + std::to_string(req->id) + " " +
                            std::to_string(req->size));
}

void Connected(int fd, SabloClientInfo client) {
    if (!report) return;
    sable_test::SignalReady("client " + std::to_string(fd) + " " + std::to_string(client.pid) +
                            " " + std::to_string(client.gid) + " " + client.name);
}

int Open(const char* self, const char* target, int mode, SabloCallback callback = Echo) {
    SabloAttr attr;
    attr.targetName = target;
    attr.selfName = self;
    attr.mode = static_cast<SabloMode>(mode);
    attr.timeout = 10000;
    attr.priority = SABLO_PRIORITY_DEFAULT;
    attr.callback = std::move(callback);
    return SabloOpen(&attr);
}

int OpenClient(const char* self, const char* server, int timeoutMs) {
    SabloAttr attr;
    attr.targetName = server;
    attr.selfName = self;
    attr.mode = SABLO_MODE_JOIN;
    attr.timeout = timeoutMs;
    attr.priority = SABLO_PRIORITY_DEFAULT;
    attr.callback = Echo;
    return SabloCreateClient(&attr);
}

bool WaitFor(const std::atomic<bool>& flag, int seconds) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!flag && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return flag;
}

// Payload bytes depend on the call number and on `seed`, so that answers meant for another
// caller are told apart.
int Rpcs(int fd, int count, uint32_t size, uint32_t seed = 0) {
    std::vector<uint8_t> payload(size);
    for (int i = 0; i < count; ++i) {
        for (uint32_t b = 0; b < size; ++b) {
            payload[b] = static_cast<uint8_t>(i + b + (seed >> (8 * (b % 4))));
        }
        SabloRequest req{0, payload.data(), size};
        SabloResponse rsp{};
        int ret = SabloTimedRPCSync(fd, &req, &rsp, 5000);
        // A creating end may call before the joining end has opened its reader.
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (ret == -ENXIO && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            ret = SabloTimedRPCSync(fd, &req, &rsp, 5000);
        }
        if (ret != 0) return 10;
        bool same = rsp.size == size && memcmp(rsp.data, payload.data(), size) == 0;
        DestroyResponse(&rsp);
        if (!same) return 11;
    }
    return 0;
}

struct CallsAtExit {
    std::string target;
    ~CallsAtExit() {
        // Runs after the table's statics are gone: every entry must answer, not crash.
        uint8_t byte = 1;
        SabloRequest req{0, &byte, 1};
        SabloResponse rsp{};
        SabloAttr attr;
        attr.targetName = target.c_str();
        attr.mode = SABLO_MODE_CREATE;
        attr.priority = SABLO_PRIORITY_DEFAULT;
        bool ok = SabloSendRequest(1, &req) == -ENOENT;
        ok = ok && SabloSendResponse(1, &rsp) == -EINVAL;  // checked before the table
        SabloResponse empty{0, &byte, 1};
        ok = ok && SabloSendResponse(1, &empty) == -ENOENT;
        ok = ok && SabloTimedRPCSync(1, &req, &rsp, 10) == -ENOENT;
        ok = ok && SabloOpen(&attr) == -ENOENT;
        ok = ok && SabloClosePipe(1) == -ENOENT;
        ok = ok && !SabloServiceIsExist();
        SabloExceptionHandler(0);
        SabloCfgFinishServer();
        if (!ok) _exit(5);
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    std::string cmd = argv[1];
    if ((cmd == "echo" || cmd == "mute") && argc == 6) {
        int fd = Open(argv[2], argv[3], atoi(argv[4]), cmd == "echo" ? Echo : Mute);
        if (fd < 0) return 20;
        sable_test::SignalReady("ready " + std::to_string(fd));
        return WaitFor(remoteClosed, atoi(argv[5])) ? 0 : 3;
    }
    if (cmd == "call" && argc == 7) {
        int fd = Open(argv[2], argv[3], atoi(argv[4]));
        if (fd < 0) return 20;
        sable_test::SignalReady("ready " + std::to_string(fd));
        int ret = Rpcs(fd, atoi(argv[5]), static_cast<uint32_t>(atoi(argv[6])));
        SabloClosePipe(fd);
        return ret;
    }
    if (cmd == "send-exit" && argc == 5) {
        int fd = Open(argv[2], argv[3], atoi(argv[4]));
        if (fd < 0) return 20;
        sable_test::SignalReady("ready " + std::to_string(fd));
        uint8_t byte = 0x5a;
        SabloRequest req{77, &byte, 1};
        if (SabloSendRequest(fd, &req) != 0) return 21;
        _exit(0);  // no close: the remote sees a hang-up
    }
    if (cmd == "server" && (argc == 4 || (argc == 5 && std::string(argv[4]) == "report"))) {
        report = argc == 5;
        signal(SIGTERM, OnTerminate);
        SabloServerAttr attr{};
        attr.serverCallback = Connected;
        attr.callback = Echo;
        attr.selfName = argv[2];
        attr.priority = SABLO_PRIORITY_DEFAULT;
        attr.gid = 0xFFFFFFFFu;
        int ret = SabloCreateServer(&attr);
        if (ret != 0) {
            sable_test::SignalReady("failed " + std::to_string(ret));
            return 30;
        }
        sable_test::SignalReady("ready 0");
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(atoi(argv[3]));
        while (terminateRequested == 0 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        SabloCfgFinishServer();
        return 0;
    }
    if (cmd == "client" && (argc == 5 || argc == 6)) {
        int fd = OpenClient(argv[2], argv[3], argc == 6 ? atoi(argv[5]) : 10000);
        if (fd < 0) return 40;
        sable_test::SignalReady("ready " + std::to_string(fd));
        int ret = Rpcs(fd, atoi(argv[4]), 64, static_cast<uint32_t>(getpid()));
        SabloClosePipe(fd);
        return ret;
    }
    if (cmd == "client-exit" && argc == 4) {
        int fd = OpenClient(argv[2], argv[3], 10000);
        if (fd < 0) return 40;
        sable_test::SignalReady("ready " + std::to_string(fd));
        _exit(0);
    }
    if (cmd == "exit-in-destructor" && argc == 3) {
        static CallsAtExit atExit{argv[2]};
        // Builds the table after atExit, so the table's statics die first. The pipe gives the
        // table a monitor and FIFO files to release on the way out.
        SabloAttr attr;
        attr.targetName = argv[2];
        attr.mode = SABLO_MODE_CREATE;
        attr.timeout = 0;
        attr.priority = SABLO_PRIORITY_DEFAULT;
        int fd = SabloOpen(&attr);
        if (fd < 0) return 20;
        sable_test::SignalReady("ready " + std::to_string(fd));
        return 0;
    }
    return 2;
}
