// A server process for the command-line tool's tests, driven through the public interface only.
//
//   echo_server NAME     run the server NAME, answer every request with its own payload; report
//                        "server <code of SabloCreateServer>"; on SIGTERM stop, remove the server
//                        FIFO and exit 0 (3 when no SIGTERM came within 30 s)
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "ChildProcess.h"
#include "TestEnv.h"
#include "sable_comm.h"

namespace {

void Echo(int fd, SabloRequest* req) {
    if (req == nullptr) return;
    SabloResponse rsp{req->id, req->data, req->size};
    SabloSendResponse(fd, &rsp);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, nullptr);  // before the library starts its threads
    SabloServerAttr attr{nullptr, Echo, 0xFFFFFFFFu, SABLO_PRIORITY_DEFAULT, argv[1]};
    int ret = SabloCreateServer(&attr);
    sable_test::SignalReady("server " + std::to_string(ret));
    if (ret != 0) return 20;
    timespec limit{30, 0};
    int sig = sigtimedwait(&term, nullptr, &limit);
    SabloCfgFinishServer();
    unlink((sable_test::EnsureFifoDir() + argv[1]).c_str());
    return sig == SIGTERM ? 0 : 3;
}
