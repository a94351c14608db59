// The other process of the pipe tests, driven through the public interface only. Its pipe is
// opened with priority 0 and answers each request with a response carrying the same payload.
//
//   pipe_peer echo  SELF TARGET MODE TIMEOUT PUSH EXPECT
//       send PUSH requests of its own (ids 1..PUSH, 4-byte payload = the id); exit 0 once the
//       remote has closed and exactly EXPECT requests were answered, 4 when the count differs,
//       3 when the remote did not close within 20 s
//   pipe_peer burst SELF TARGET MODE TIMEOUT COUNT
//       send COUNT requests (ids 1..COUNT) and end the process at once, without closing; with
//       COUNT 0 wait to be killed instead (exit 3 after 30 s)
// Both write "ready <fd>" on the handshake descriptor once the pipe is open, and "failed <err>"
// when the open fails (exit 20).
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
    if (SabloSendResponse(fd, &rsp) == 0) answered++;
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

}  // namespace

int main(int argc, char** argv) {
    if (argc < 7) return 2;
    const std::string cmd = argv[1];
    SabloAttr attr;
    attr.selfName = argv[2];
    attr.targetName = argv[3];
    attr.mode = static_cast<SabloMode>(atoi(argv[4]));
    attr.timeout = atoi(argv[5]);
    attr.priority = SABLO_PRIORITY_DEFAULT;
    attr.callback = Echo;
    const int count = atoi(argv[6]);
    int fd = SabloOpen(&attr);
    sable_test::SignalReady(fd > 0 ? "ready " + std::to_string(fd)
                                   : "failed " + std::to_string(fd));
    if (fd < 0) return 20;
    for (int id = 1; id <= count; ++id) {
        if (!SendId(fd, static_cast<uint32_t>(id))) return 21;
    }
    if (cmd == "burst") {
        if (count > 0) _exit(0);  // no close, no static destruction: the remote sees the hang-up
        std::this_thread::sleep_for(std::chrono::seconds(30));
        return 3;
    }
    if (cmd != "echo" || argc != 8) return 2;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!remoteClosed && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    // The library closes the pipe on its worker after the callback has returned; leaving main
    // (static destruction of the table) while that task still runs is not what is tested here.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (!remoteClosed) return 3;
    return answered == atoi(argv[7]) ? 0 : 4;
}
