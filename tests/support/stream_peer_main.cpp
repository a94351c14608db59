// The other process of the flow and recovery tests, through the public interface only.
//
//   stream_peer send SELF TARGET MODE COUNT SIZE [START_MS ANSWER_MS]
//       START_MS after the open (default 0), send COUNT one-way requests of SIZE bytes (>= 4) whose first 4 bytes are 0..COUNT-1,
//       retrying while the FIFO is full (-EAGAIN) or not yet read (-ENXIO); report "eagain" at
//       the first -EAGAIN and "sent <n>" once all went (or "stopped <n>" when the remote went
//       away: -EPIPE). Exit 0 once the remote has closed (3 when it has not within 30 s).
//       Requests are answered ANSWER_MS after they came (default 0), or, for ANSWER_MS "sent",
//       once all COUNT have been sent (at most 30 s later).
//   stream_peer echo SELF TARGET MODE
//       answer every request with its own payload until killed; exit 3 after 60 s.
// Every mode answers requests with their own payload, retrying while the FIFO is full.
//   stream_peer serve NAME
//       a server NAME whose client pipes answer every request with its own payload; report
//       "server <result of SabloCreateServer>" and serve until killed; exit 3 after 120 s.
// MODE is 0 (join) or 1 (create). Both report "ready <fd>" once open; exit 20 when the open
// fails.
#include <errno.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "sable_comm.h"

namespace {

std::atomic<bool> remoteClosed{false};
int answerDelayMs = 0;  // negative: until all requests have been sent
std::atomic<bool> allSent{false};

void Echo(int fd, SabloRequest* req) {
    if (req == nullptr) {
        remoteClosed = true;
        return;
    }
    if (answerDelayMs < 0) {
        for (int i = 0; i < 15000 && !allSent; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(answerDelayMs));
    }
    SabloResponse rsp{req->id, req->data, req->size};
    // A full FIFO (the other end paused) is waited out for a while, as a sender would.
    for (int tries = 0; SabloSendResponse(fd, &rsp) == -EAGAIN && tries < 100000; ++tries) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

int Open(const char* self, const char* target, const char* mode, SabloCallback cb) {
    SabloAttr attr;
    attr.selfName = self;
    attr.targetName = target;
    attr.mode = std::string(mode) == "1" ? SABLO_MODE_CREATE : SABLO_MODE_JOIN;
    attr.timeout = 10000;
    attr.callback = std::move(cb);
    int fd = SabloOpen(&attr);
    if (fd < 0) _exit(20);
    sable_test::SignalReady("ready " + std::to_string(fd));
    return fd;
}

bool WaitFor(const std::atomic<bool>& flag, int seconds) {
    for (int i = 0; i < seconds * 500 && !flag; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return flag;
}

int Send(const char* self, const char* target, const char* mode, uint32_t count, uint32_t size,
         int startMs) {
    int fd = Open(self, target, mode, Echo);
    std::this_thread::sleep_for(std::chrono::milliseconds(startMs));
    std::vector<uint8_t> payload(size < 4 ? 4 : size, 0x5a);
    bool reported = false;
    uint32_t seq = 0;
    for (; seq < count; ++seq) {
        memcpy(payload.data(), &seq, sizeof(seq));
        SabloRequest req{seq, payload.data(), static_cast<uint32_t>(payload.size())};
        int ret;
        while ((ret = SabloSendRequest(fd, &req)) == -EAGAIN || ret == -ENXIO) {
            if (ret == -EAGAIN && !reported) {
                sable_test::SignalReady("eagain");
                reported = true;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        if (ret != 0) break;
    }
    allSent = true;
    sable_test::SignalReady((seq == count ? "sent " : "stopped ") + std::to_string(seq));
    return WaitFor(remoteClosed, 30) ? 0 : 3;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string cmd = argc > 1 ? argv[1] : "";
    if (cmd == "send" && (argc == 7 || argc == 9)) {
        answerDelayMs = argc != 9 ? 0 : std::string(argv[8]) == "sent" ? -1 : atoi(argv[8]);
        return Send(argv[2], argv[3], argv[4], static_cast<uint32_t>(atoi(argv[5])),
                    static_cast<uint32_t>(atoi(argv[6])), argc == 9 ? atoi(argv[7]) : 0);
    }
    if (cmd == "echo" && argc == 5) {
        Open(argv[2], argv[3], argv[4], Echo);
        std::this_thread::sleep_for(std::chrono::seconds(60));
        return 3;
    }
    if (cmd == "serve" && argc == 3) {
        SabloServerAttr attr{nullptr, Echo, 0xFFFFFFFFu, SABLO_PRIORITY_DEFAULT, argv[2]};
        sable_test::SignalReady("server " + std::to_string(SabloCreateServer(&attr)));
        std::this_thread::sleep_for(std::chrono::seconds(120));
        return 3;
    }
    return 2;
}
