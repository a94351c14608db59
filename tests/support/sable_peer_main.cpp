// The other process of the multi-process tests, driven through the public interface only.
//
//   sable_peer echo   SELF TARGET MODE SECONDS   open, answer every request with its payload,
//                                                 exit 0 when the remote closes (or after
//                                                 SECONDS with 3)
//   sable_peer call   SELF TARGET MODE COUNT SIZE open, make COUNT RPCs of SIZE bytes, exit 0
//                                                 when all came back intact
//   sable_peer send-exit SELF TARGET MODE         open, send one request, exit at once
//   sable_peer server NAME SECONDS                 echo server; exits after SECONDS or on stop
//   sable_peer client SELF SERVER COUNT           client of NAME: COUNT RPCs, then exits 0
//   sable_peer exit-in-destructor TARGET         calls entry functions from a static
//                                                 destructor; exits 0
// Every mode reports "ready <fd>" on the handshake descriptor once its pipe is open.
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

void Echo(int fd, SabloRequest* req) {
    if (req == nullptr) {
        remoteClosed = true;
        return;
    }
    requests++;
    SabloResponse rsp{req->id, req->data, req->size};
    SabloSendResponse(fd, &rsp);
}

int Open(const char* self, const char* target, int mode) {
    SabloAttr attr;
    attr.targetName = target;
    attr.selfName = self;
    attr.mode = static_cast<SabloMode>(mode);
    attr.timeout = 10000;
    attr.priority = SABLO_PRIORITY_DEFAULT;
    attr.callback = Echo;
    return SabloOpen(&attr);
}

bool WaitFor(const std::atomic<bool>& flag, int seconds) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!flag && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return flag;
}

int Rpcs(int fd, int count, uint32_t size) {
    std::vector<uint8_t> payload(size);
    for (int i = 0; i < count; ++i) {
        for (uint32_t b = 0; b < size; ++b) payload[b] = static_cast<uint8_t>(i + b);
        SabloRequest req{0, payload.data(), size};
        SabloResponse rsp{};
        int ret = SabloTimedRPCSync(fd, &req, &rsp, 5000);
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
        // The table may already be gone: every entry must answer, not crash.
        SabloRequest req{0, reinterpret_cast<uint8_t*>(const_cast<char*>("x")), 1};
        int a = SabloSendRequest(1, &req);
        int b = SabloClosePipe(1);
        bool alive = SabloServiceIsExist();
        (void)a;
        (void)b;
        (void)alive;
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    std::string cmd = argv[1];
    if (cmd == "echo" && argc == 6) {
        int fd = Open(argv[2], argv[3], atoi(argv[4]));
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
    if (cmd == "server" && argc == 4) {
        SabloServerAttr attr{};
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
        sleep(static_cast<unsigned>(atoi(argv[3])));
        SabloCfgFinishServer();
        return 0;
    }
    if (cmd == "client" && argc == 5) {
        SabloAttr attr;
        attr.targetName = argv[3];
        attr.selfName = argv[2];
        attr.mode = SABLO_MODE_JOIN;
        attr.timeout = 10000;
        attr.priority = SABLO_PRIORITY_DEFAULT;
        attr.callback = Echo;
        int fd = SabloCreateClient(&attr);
        if (fd < 0) return 40;
        sable_test::SignalReady("ready " + std::to_string(fd));
        int ret = Rpcs(fd, atoi(argv[4]), 64);
        SabloClosePipe(fd);
        return ret;
    }
    if (cmd == "exit-in-destructor" && argc == 3) {
        static CallsAtExit atExit{argv[2]};
        (void)SabloServiceIsExist();  // builds the table after atExit: it dies first
        sable_test::SignalReady("ready 0");
        return 0;
    }
    return 2;
}
