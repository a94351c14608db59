// The other process of the multi-process tests, driven through the public interface only.
// MODE is 0 (join), 1 (create) or "client" (SabloCreateClient towards the server TARGET).
//
//   sable_peer mute  SELF TARGET MODE   report "request <id> <size>" for every request and never
//                                       answer; exit 0 when the remote closes (3 after 20 s)
//   sable_peer call  SELF TARGET MODE COUNT [OPEN_TIMEOUT]   answer requests with their payload;
//                                       make COUNT RPCs of 64 and 4000 bytes in turn (every
//                                       other one without a time limit) tagged with this pid,
//                                       then close; exit 0 when all came back intact
//   sable_peer leave SELF TARGET MODE   send request 77 of one byte and exit without closing
//   sable_peer server NAME              report "server <code of SabloCreateServer>" and exit 0
//   sable_peer server-wedged NAME WHAT  the same after writing into the server's FIFO, as an
//                                       outside writer would, a stray magic byte (WHAT "byte")
//                                       or a connect packet without a name ("empty"); the exit
//                                       must still come
//   sable_peer exit-in-destructor TARGET   open a pipe, then call entry functions from a static
//                                       destructor run after the table's; exit 5 unless every
//                                       one answered "table is gone"
// Opening modes report "ready <fd>" once open (exit 20 when the open fails); the open time-out is
// 10 s unless given.
#include <errno.h>
#include <fcntl.h>
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

void Echo(int fd, SabloRequest* req) {
    if (req == nullptr) return;
    SabloResponse rsp{req->id, req->data, req->size};
    SabloSendResponse(fd, &rsp);
}

void Mute(int, SabloRequest* req) {
    if (req == nullptr) {
        remoteClosed = true;
        return;
    }
    sable_test::SignalReady("request " + std::to_string(req->id) + " " + std::to_string(req->size));
}

int Open(const char* self, const char* target, const std::string& mode, SabloCallback cb,
         int timeoutMs = 10000) {
    SabloAttr attr;
    attr.targetName = target;
    attr.selfName = self;
    attr.mode = mode == "1" ? SABLO_MODE_CREATE : SABLO_MODE_JOIN;
    attr.timeout = timeoutMs;
    attr.callback = std::move(cb);
    int fd = mode == "client" ? SabloCreateClient(&attr) : SabloOpen(&attr);
    if (fd < 0) _exit(20);
    sable_test::SignalReady("ready " + std::to_string(fd));
    return fd;
}

// Payload bytes depend on the call number and on this pid, so that answers meant for another
// caller are told apart.
int Rpcs(int fd, int count) {
    std::vector<uint8_t> payload(4000);
    for (int i = 0; i < count; ++i) {
        const uint32_t size = i % 2 == 0 ? 64 : 4000;
        for (uint32_t b = 0; b < size; ++b) {
            payload[b] = static_cast<uint8_t>(i + b + (getpid() >> (8 * (b % 4))));
        }
        SabloRequest req{0, payload.data(), size};
        SabloResponse rsp{};
        // Every other call waits without a time limit.
        auto call = [&] {
            return i % 2 == 0 ? SabloTimedRPCSync(fd, &req, &rsp, 5000)
                              : SabloRPCSync(fd, &req, &rsp);
        };
        int ret = call();
        // A creating end may call before the joining end has opened its reader.
        for (int tries = 0; ret == -ENXIO && tries < 5000; ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            ret = call();
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
        uint8_t byte = 1;
        SabloRequest req{0, &byte, 1};
        SabloResponse rsp{}, full{0, &byte, 1};
        SabloAttr attr;
        attr.targetName = target.c_str();
        attr.mode = SABLO_MODE_CREATE;
        bool ok = SabloSendRequest(1, &req) == -ENOENT && SabloSendResponse(1, &full) == -ENOENT &&
                  SabloTimedRPCSync(1, &req, &rsp, 10) == -ENOENT && SabloOpen(&attr) == -ENOENT &&
                  SabloClosePipe(1) == -ENOENT && !SabloServiceIsExist();
        SabloExceptionHandler(0);
        SabloCfgFinishServer();
        if (!ok) _exit(5);
    }
};

}  // namespace

int main(int argc, char** argv) {
    const std::string cmd = argc > 1 ? argv[1] : "";
    if (cmd == "mute" && argc == 5) {
        Open(argv[2], argv[3], argv[4], Mute);
        for (int i = 0; i < 10000 && !remoteClosed; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return remoteClosed ? 0 : 3;
    }
    if (cmd == "call" && (argc == 6 || argc == 7)) {
        int fd = Open(argv[2], argv[3], argv[4], Echo, argc == 7 ? atoi(argv[6]) : 10000);
        int ret = Rpcs(fd, atoi(argv[5]));
        SabloClosePipe(fd);
        return ret;
    }
    if (cmd == "leave" && argc == 5) {
        int fd = Open(argv[2], argv[3], argv[4], Echo);
        uint8_t byte = 0x5a;
        SabloRequest req{77, &byte, 1};
        _exit(SabloSendRequest(fd, &req) == 0 ? 0 : 21);  // no close: the remote sees a hang-up
    }
    if (cmd == "server" && argc == 3) {
        SabloServerAttr attr{nullptr, Echo, 0xFFFFFFFFu, SABLO_PRIORITY_DEFAULT, argv[2]};
        sable_test::SignalReady("server " + std::to_string(SabloCreateServer(&attr)));
        return 0;
    }
    if (cmd == "server-wedged" && argc == 4) {
        SabloServerAttr attr{nullptr, Echo, 0xFFFFFFFFu, SABLO_PRIORITY_DEFAULT, argv[2]};
        const int ret = SabloCreateServer(&attr);
        const std::string fifo = sable_test::EnsureFifoDir() + argv[2];
        int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        const uint32_t packet[4] = {0xA6B7C8D9u, 0, 0, 0};
        const uint8_t stray = 0xD9;
        bool written = fd >= 0 && (std::string(argv[3]) == "byte"
                                       ? write(fd, &stray, 1) == 1
                                       : write(fd, packet, sizeof(packet)) ==
                                             static_cast<ssize_t>(sizeof(packet)));
        if (fd >= 0) close(fd);
        sable_test::SignalReady("server " + std::to_string(ret) + (written ? "" : " unwritten"));
        return 0;  // the server is closed by the exit
    }
    if (cmd == "exit-in-destructor" && argc == 3) {
        static CallsAtExit atExit{argv[2]};
        // Builds the table after atExit, so the table's statics die first. The pipe gives the
        // table a monitor and FIFO files to release on the way out.
        SabloAttr attr;
        attr.targetName = argv[2];
        attr.mode = SABLO_MODE_CREATE;
        return SabloOpen(&attr) > 0 ? 0 : 20;
    }
    return 2;
}
