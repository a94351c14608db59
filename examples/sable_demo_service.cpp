// A small service: answers every request with its own payload.
//
//   sable_demo_service pipe   SELF CALLER           one pipe, opened as the creating end
//   sable_demo_service server SELF CLIENTS          a server; serves CLIENTS clients, then stops
//
// It exits 0 once every peer has closed its pipe, printing how many requests it answered (per
// client in server mode); non-zero on any failure or after 60 s without finishing.
#include <sable_comm.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace {

std::mutex mu;
std::map<int, std::string> clientNames;  // pipe number -> client
std::map<int, long> answered;            // pipe number -> requests answered
std::atomic<int> closedPeers{0};
std::atomic<int> failures{0};

void Answer(int fd, SabloRequest* req) {
    if (req == nullptr) {  // the peer has gone; the library closes the pipe after this call
        closedPeers++;
        return;
    }
    SabloResponse rsp{req->id, req->data, req->size};
    // A send never blocks: a full FIFO answers -EAGAIN, so give the reader a moment.
    int ret = SabloSendResponse(fd, &rsp);
    for (int tries = 0; ret == -EAGAIN && tries < 1000; ++tries) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
        ret = SabloSendResponse(fd, &rsp);
    }
    if (ret != 0 && ret != -EPIPE) {  // -EPIPE: the caller has already left
        failures++;
    }
    std::lock_guard<std::mutex> lock(mu);
    answered[fd]++;
}

void Connected(int fd, SabloClientInfo client) {
    std::lock_guard<std::mutex> lock(mu);
    clientNames[fd] = client.name;
}

bool WaitForPeers(int peers) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (closedPeers.load() < peers) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

int Usage() {
    fprintf(stderr, "usage: sable_demo_service pipe SELF CALLER | server SELF CLIENTS\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return Usage();
    std::string mode = argv[1];
    int peers = 1;
    if (mode == "pipe") {
        SabloAttr attr;
        attr.selfName = argv[2];
        attr.targetName = argv[3];
        attr.mode = SABLO_MODE_CREATE;
        attr.timeout = 10000;
        attr.priority = SABLO_PRIORITY_DEFAULT;
        attr.callback = Answer;
        int fd = SabloOpen(&attr);
        if (fd < 0) {
            fprintf(stderr, "service: open failed: %s\n", strerror(-fd));
            return 1;
        }
    } else if (mode == "server") {
        peers = atoi(argv[3]);
        SabloServerAttr attr{};
        attr.serverCallback = Connected;
        attr.callback = Answer;
        attr.gid = 0xFFFFFFFFu;
        attr.priority = SABLO_PRIORITY_DEFAULT;
        attr.selfName = argv[2];
        int ret = SabloCreateServer(&attr);
        if (ret != 0) {
            fprintf(stderr, "service: server failed: %s\n", strerror(-ret));
            return 1;
        }
        printf("service: server %s ready\n", argv[2]);
        fflush(stdout);
    } else {
        return Usage();
    }
    bool done = WaitForPeers(peers);
    if (mode == "server") {
        SabloCfgFinishServer();
    }
    std::lock_guard<std::mutex> lock(mu);
    long total = 0;
    for (const auto& entry : answered) total += entry.second;
    printf("service: answered %ld requests from %d peer(s), %d failed answers\n", total, peers,
           failures.load());
    for (const auto& entry : answered) {
        auto name = clientNames.find(entry.first);
        if (name != clientNames.end()) {
            printf("service:   client %-28s %6ld requests\n", name->second.c_str(), entry.second);
        }
    }
    if (!done) fprintf(stderr, "service: peers did not finish in time\n");
    return done && failures.load() == 0 ? 0 : 1;
}
