// The other process of the pipe tests, driven through the public interface only. Every pipe is
// opened with priority 0 and answers each request with a response carrying the same payload.
//
//   pipe_peer echo  SELF TARGET MODE TIMEOUT PUSH EXPECT SECONDS
//       open; send PUSH requests of its own (ids 1..PUSH, 4-byte payload = the id); exit 0 once
//       the remote has closed and exactly EXPECT requests were answered, 4 when the count
//       differs, 3 when the remote did not close within SECONDS
//   pipe_peer burst SELF TARGET MODE TIMEOUT COUNT
//       open; send COUNT requests (ids 1..COUNT) and end the process at once, without closing
//   pipe_peer hold  SELF TARGET MODE TIMEOUT SECONDS
//       open and wait to be killed; exit 3 after SECONDS
// Every mode writes "ready <fd>" on the handshake descriptor once its pipe is open, and
// "failed <err>" when the open fails (exit 20).
#include <errno.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "sable_comm.h"

namespace {

std::atomic<bool> remoteClosed{false};
std::atomic<int> answered{0};

void Echo(int fd, SabloRequest* req) {
    if (req == nullptr) {
        remoteClosed = true;
        return;
    }
    SabloResponse rsp{req->id, req->data, req->size};
    if (SabloSendResponse(fd, &rsp) == 0) {
        answered++;
    }
}

int Open(const char* self, const char* target, int mode, int timeout) {
    SabloAttr attr;
    attr.targetName = target;
    attr.selfName = self;
    attr.mode = static_cast<SabloMode>(mode);
    attr.timeout = timeout;
    attr.priority = SABLO_PRIORITY_DEFAULT;
    attr.callback = Echo;
    int fd = SabloOpen(&attr);
    sable_test::SignalReady(fd > 0 ? "ready " + std::to_string(fd)
                                   : "failed " + std::to_string(fd));
    return fd;
}

// A creating end opens its write end at the first send, which fails with -ENXIO until the
// remote has opened its reader: retry that for a while.
bool SendId(int fd, uint32_t id) {
    uint32_t payload = id;
    SabloRequest req{id, reinterpret_cast<uint8_t*>(&payload), sizeof(payload)};
    for (int attempt = 0; attempt < 5000; ++attempt) {
        int ret = SabloSendRequest(fd, &req);
        if (ret == 0) return true;
        if (ret != -ENXIO && ret != -EAGAIN) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

bool WaitForRemoteClose(int seconds) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!remoteClosed && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    // The library closes the pipe on its worker after the callback has returned; leaving main
    // (static destruction of the table) while that task still runs is not what is tested here.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return remoteClosed;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 6) return 2;
    const std::string cmd = argv[1];
    const int mode = atoi(argv[4]);
    const int timeout = atoi(argv[5]);
    if (cmd == "echo" && argc == 9) {
        int fd = Open(argv[2], argv[3], mode, timeout);
        if (fd < 0) return 20;
        int push = atoi(argv[6]);
        for (int id = 1; id <= push; ++id) {
            if (!SendId(fd, static_cast<uint32_t>(id))) return 21;
        }
        if (!WaitForRemoteClose(atoi(argv[8]))) return 3;
        return answered == atoi(argv[7]) ? 0 : 4;
    }
    if (cmd == "burst" && argc == 7) {
        int fd = Open(argv[2], argv[3], mode, timeout);
        if (fd < 0) return 20;
        int count = atoi(argv[6]);
        for (int id = 1; id <= count; ++id) {
            if (!SendId(fd, static_cast<uint32_t>(id))) _exit(21);
        }
        _exit(0);  // no close, no static destruction: the remote sees only the hang-up
    }
    if (cmd == "hold" && argc == 7) {
        int fd = Open(argv[2], argv[3], mode, timeout);
        if (fd < 0) return 20;
        std::this_thread::sleep_for(std::chrono::seconds(atoi(argv[6])));
        return 3;
    }
    return 2;
}
