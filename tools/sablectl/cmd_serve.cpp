// sablectl serve: a server (or one end of a plain pipe) that prints what it receives.
#include <errno.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <string>

#include "Args.h"
#include "Commands.h"
#include "FifoDirectory.h"
#include "Payload.h"
#include "base/Mutex.h"
#include "sable_comm.h"

namespace sablectl {

namespace {

// The library calls back on its workers through plain function pointers: what they need lives
// here, for the one serve command of the process.
struct ServeState {
    bool echo = false;
    bool json = false;
    std::atomic<bool> peerGone{false};
    // Guards the client names and keeps lines of several workers on stdout whole. The tool's
    // only lock; no library call is made while it is held.
    sable::Mutex mu;
    std::map<int, std::string> clients GUARDED_BY(mu);  // pipe number -> client name
};
ServeState state;

void Print(const std::string& line) {
    sable::MutexLock lock(state.mu);
    fputs(line.c_str(), stdout);
    fflush(stdout);  // a script reading our output sees every event at once
}

std::string ClientOf(int fd) {
    sable::MutexLock lock(state.mu);
    auto it = state.clients.find(fd);
    return it == state.clients.end() ? "" : it->second;
}

void OnConnect(int fd, SabloClientInfo client) {
    const std::string name = client.name != nullptr ? client.name : "";
    {
        sable::MutexLock lock(state.mu);
        state.clients[fd] = name;
    }
    if (state.json) {
        Print("{\"event\":\"connect\",\"pipe\":" + std::to_string(fd) +
              ",\"client\":" + Json(name) + ",\"pid\":" + std::to_string(client.pid) +
              ",\"gid\":" + std::to_string(client.gid) + "}\n");
    } else {
        Print("connect pipe " + std::to_string(fd) + " client " + name + " pid " +
              std::to_string(client.pid) + "\n");
    }
}

void OnRequest(int fd, SabloRequest* req) {
    const std::string from = ClientOf(fd);
    if (req == nullptr) {
        state.peerGone = true;
        {
            sable::MutexLock lock(state.mu);
            state.clients.erase(fd);
        }
        Print(state.json ? "{\"event\":\"closed\",\"pipe\":" + std::to_string(fd) + "}\n"
                         : "closed pipe " + std::to_string(fd) +
                               (from.empty() ? "" : " client " + from) + "\n");
        return;
    }
    int answer = 0;
    if (state.echo) {
        SabloResponse rsp{req->id, req->data, req->size};
        answer = SabloSendResponse(fd, &rsp);
    }
    if (state.json) {
        std::string line = "{\"event\":\"request\",\"pipe\":" + std::to_string(fd) +
                           ",\"id\":" + std::to_string(req->id) +
                           ",\"size\":" + std::to_string(req->size);
        if (IsText(req->data, req->size)) {
            line += ",\"text\":" + Json(std::string(reinterpret_cast<char*>(req->data), req->size));
        }
        line += ",\"hex\":" + Json(Hex(req->data, req->size));
        if (state.echo) line += ",\"echo\":" + std::to_string(answer);
        Print(line + "}\n");
        return;
    }
    std::string line = "request pipe " + std::to_string(fd) +
                       (from.empty() ? "" : " client " + from) + " id " + std::to_string(req->id) +
                       ", " + std::to_string(req->size) + " bytes";
    if (state.echo) line += answer == 0 ? ", echoed" : ", echo failed: " + ErrorText(answer);
    if (IsText(req->data, req->size)) {
        std::string text(reinterpret_cast<char*>(req->data), req->size);
        line += ":\n" + text + (text.empty() || text.back() == '\n' ? "" : "\n");
    } else {
        line += ":\n" + HexDump(req->data, req->size);
    }
    Print(line);
}

// Waits up to `ms` for SIGINT or SIGTERM (blocked in every thread); true when one came.
bool Interrupted(const sigset_t& set, int ms) {
    timespec ts{ms / 1000, (ms % 1000) * 1000000L};
    return sigtimedwait(&set, nullptr, &ts) > 0;
}

}  // namespace

int CmdServe(const Argv& argv) {
    Args args;
    std::string error;
    if (!args.Parse(argv, {"--pipe", "--mode"}, {"--echo", "--json"}, error)) {
        return Fail(kExitUsage, error);
    }
    if (args.Positional().size() != 1) {
        return Fail(kExitUsage, "serve takes one NAME; see 'sablectl serve --help'");
    }
    const std::string name = args.Positional()[0];
    const std::string peer = args.Get("--pipe");
    const std::string mode = args.Get("--mode", "create");
    for (const auto& n : {name, peer}) {
        if ((&n == &name || args.Has("--pipe")) &&
            (n.empty() || n.size() > 100 || n.find('/') != std::string::npos)) {
            return Fail(kExitUsage,
                        "'" + n + "' is not a process name (1 to 100 characters, no '/')");
        }
    }
    if (mode != "create" && mode != "join") {
        return Fail(kExitUsage, "--mode takes 'create' or 'join', not '" + mode + "'");
    }
    if (!args.Has("--pipe") && args.Has("--mode"))
        return Fail(kExitUsage, "--mode goes with --pipe");
    state.echo = args.Has("--echo");
    state.json = args.Has("--json");

    // Before the library starts a thread: every thread inherits the mask, the signals wait here.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    if (!args.Has("--pipe")) {
        SabloServerAttr attr{OnConnect, OnRequest, 0xFFFFFFFFu, SABLO_PRIORITY_DEFAULT,
                             name.c_str()};
        int ret = SabloCreateServer(&attr);
        if (ret != 0) {
            std::string hint = ret == -EAGAIN || ret == -EWOULDBLOCK
                                   ? "; another process is serving '" + name + "' ('sablectl ls')"
                                   : "";
            return Fail(kExitFailed,
                        "cannot start the server '" + name + "': " + ErrorText(ret) + hint);
        }
        const std::string path = FifoDirectory::MainDir() + name;
        Print(state.json ? "{\"event\":\"serving\",\"server\":" + Json(name) +
                               ",\"fifo\":" + Json(path) + "}\n"
                         : "serving " + name + " on " + path + "\n");
        while (!Interrupted(stop, 1000)) {
        }
        SabloCfgFinishServer();
        // The server leaves its FIFO on disk; this one was ours (we held its lock).
        unlink(path.c_str());
        Print(state.json ? "{\"event\":\"stopped\"}\n" : "stopped\n");
        return kExitOk;
    }

    // One end of the plain pipe NAME <-> PEER, opened again whenever the peer goes.
    SabloAttr attr;
    attr.targetName = peer.c_str();
    attr.selfName = name.c_str();
    attr.mode = mode == "create" ? SABLO_MODE_CREATE : SABLO_MODE_JOIN;
    // A joining end waits in slices so that a signal is seen; a creating end does not wait (its
    // write end opens at its first answer, when the peer is certainly reading).
    attr.timeout = mode == "create" ? 0 : 1000;
    attr.priority = SABLO_PRIORITY_DEFAULT;
    attr.callback = OnRequest;
    int fd = -1;
    while (true) {
        if (fd < 0) {
            state.peerGone = false;
            fd = SabloOpen(&attr);
            if (fd > 0) {
                Print(state.json ? "{\"event\":\"open\",\"pipe\":" + std::to_string(fd) +
                                       ",\"self\":" + Json(name) + ",\"peer\":" + Json(peer) + "}\n"
                                 : "pipe " + std::to_string(fd) + " open: " + name + " <-> " +
                                       peer + "\n");
            } else if (fd != -ETIMEDOUT) {
                return Fail(kExitFailed,
                            "cannot open the pipe " + name + " <-> " + peer + ": " + ErrorText(fd));
            }
        }
        if (Interrupted(stop, fd > 0 ? 100 : 1)) break;
        if (fd > 0 && state.peerGone) fd = -1;  // the library has closed it; open anew
    }
    if (fd > 0) SabloClosePipe(fd);  // the creating end removes its FIFO files
    Print(state.json ? "{\"event\":\"stopped\"}\n" : "stopped\n");
    return kExitOk;
}

}  // namespace sablectl
