// sablectl call / send: one end of a pipe, through the library, for a request or a series.
#include <errno.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "Args.h"
#include "Commands.h"
#include "FifoDirectory.h"
#include "Payload.h"
#include "sable_comm.h"

namespace sablectl {

namespace {

// The library's limit for a process name.
constexpr size_t kMaxName = 100;

bool ValidName(const std::string& what, const std::string& name, std::string& error) {
    if (name.empty() || name.size() > kMaxName || name.find('/') != std::string::npos) {
        error = what + " '" + name + "' is not a process name (1 to " + std::to_string(kMaxName) +
                " characters, no '/')";
        return false;
    }
    return true;
}

std::string ResponseText(const SabloResponse& rsp) {
    if (IsText(rsp.data, rsp.size)) {
        std::string s(reinterpret_cast<const char*>(rsp.data), rsp.size);
        return s.empty() || s.back() == '\n' ? s : s + "\n";
    }
    return HexDump(rsp.data, rsp.size);
}

double Percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t idx = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
    return v[std::min(idx, v.size() - 1)];
}

}  // namespace

int CmdCall(const Argv& argv, bool oneWay) {
    const std::string cmd = oneWay ? "send" : "call";
    Args args;
    std::string error;
    long timeout = 0, count = 0, id = 0;
    if (!args.Parse(
            argv, {"--data", "--hex", "--file", "--self", "--mode", "--timeout", "--count", "--id"},
            {"--pipe", "--json"}, error) ||
        !args.GetInt("--timeout", 5000, 1, 24L * 3600 * 1000, timeout, error) ||
        !args.GetInt("--count", 1, 1, 100000000, count, error) ||
        !args.GetInt("--id", 1, 0, 0xFFFFFFFFL, id, error)) {
        return Fail(kExitUsage, error);
    }
    if (args.Positional().size() != 1) {
        return Fail(kExitUsage, cmd + " takes one NAME; see 'sablectl " + cmd + " --help'");
    }
    const std::string name = args.Positional()[0];
    const bool pipe = args.Has("--pipe");
    const std::string self = args.Get("--self");
    const std::string mode = args.Get("--mode", "join");
    if (!ValidName("NAME", name, error) ||
        (args.Has("--self") && !ValidName("--self", self, error))) {
        return Fail(kExitUsage, error);
    }
    if (mode != "create" && mode != "join") {
        return Fail(kExitUsage, "--mode takes 'create' or 'join', not '" + mode + "'");
    }
    if (!pipe && args.Has("--mode")) return Fail(kExitUsage, "--mode goes with --pipe");
    int sources = args.Has("--data") + args.Has("--hex") + args.Has("--file");
    if (sources > 1) return Fail(kExitUsage, "give one of --data, --hex and --file");
    Payload payload;
    bool ok = args.Has("--data")  ? payload.FromText(args.Get("--data"), error)
              : args.Has("--hex") ? payload.FromHex(args.Get("--hex"), error)
                                  : payload.FromFile(args.Get("--file", "-"), error);
    if (!ok) return Fail(kExitUsage, error);

    // A server is reached through its FIFO: say so plainly when there is none.
    if (!pipe) {
        struct stat st {};
        const std::string path = FifoDirectory::MainDir() + name;
        if (lstat(path.c_str(), &st) != 0 || !S_ISFIFO(st.st_mode)) {
            return Fail(kExitFailed, "no server named '" + name + "' (no FIFO " + path +
                                         "); 'sablectl ls' lists the servers");
        }
    }

    SabloAttr attr;
    attr.targetName = name.c_str();
    attr.selfName = args.Has("--self") ? self.c_str() : nullptr;
    attr.timeout = static_cast<int>(timeout);
    attr.priority = SABLO_PRIORITY_DEFAULT;
    attr.mode = pipe && mode == "create" ? SABLO_MODE_CREATE : SABLO_MODE_JOIN;
    attr.callback = [](int, SabloRequest*) {};  // requests from the other end are not ours
    int fd = pipe ? SabloOpen(&attr) : SabloCreateClient(&attr);
    if (fd < 0) {
        std::string hint;
        if (fd == -ETIMEDOUT && pipe && mode == "join") {
            hint = "; is '" + name + "' running with a pipe to '" +
                   (self.empty() ? std::string("sablectl") : self) + "' (it must create it)?";
        } else if (fd == -ENXIO && !pipe) {
            hint = "; the server '" + name + "' is not reading its FIFO (stale? see 'sablectl gc')";
        }
        return Fail(kExitFailed, "cannot open " +
                                     std::string(pipe ? "the pipe to '" : "a client of '") + name +
                                     "': " + ErrorText(fd) + hint);
    }

    auto& bytes = payload.Bytes();
    std::vector<double> rtts;
    int firstError = 0;
    long failures = 0;
    SabloResponse first{};
    bool haveFirst = false;
    for (long i = 0; i < count; ++i) {
        SabloRequest req{static_cast<uint32_t>(id), bytes.data(),
                         static_cast<uint32_t>(bytes.size())};
        SabloResponse rsp{};
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout);
        auto start = std::chrono::steady_clock::now();
        int ret;
        while (true) {
            ret = oneWay ? SabloSendRequest(fd, &req)
                         : SabloTimedRPCSync(fd, &req, &rsp, static_cast<int>(timeout));
            // A creating end may send before the other end has opened its reader, and a full
            // FIFO clears as the other end reads: both are worth a retry within the time-out.
            if ((ret != -ENXIO && ret != -EAGAIN) || std::chrono::steady_clock::now() > deadline)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            start = std::chrono::steady_clock::now();
        }
        double us =
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                .count();
        if (ret != 0) {
            ++failures;
            if (firstError == 0) firstError = ret;
            DestroyResponse(&rsp);
            if (ret == -EPIPE || ret == -ENOENT) break;  // the other end has gone
            continue;
        }
        rtts.push_back(us);
        if (!haveFirst && !oneWay) {
            first = rsp;  // keeps the library's buffer until the end
            haveFirst = true;
        } else {
            DestroyResponse(&rsp);
        }
    }
    SabloClosePipe(fd);

    const bool json = args.Has("--json");
    const char* what = oneWay ? "send" : "round trip";
    if (json) {
        std::string out = "{\"name\":" + Json(name) + ",\"requests\":" + std::to_string(count) +
                          ",\"ok\":" + std::to_string(rtts.size()) +
                          ",\"failed\":" + std::to_string(failures);
        if (haveFirst) {
            out += ",\"response\":{\"id\":" + std::to_string(first.id) +
                   ",\"size\":" + std::to_string(first.size);
            if (IsText(first.data, first.size)) {
                out += ",\"text\":" +
                       Json(std::string(reinterpret_cast<const char*>(first.data), first.size));
            }
            out += ",\"hex\":" + Json(Hex(first.data, first.size)) + "}";
        }
        char b[160];
        snprintf(b, sizeof(b), ",\"us\":{\"first\":%.1f,\"p50\":%.1f,\"p99\":%.1f}",
                 rtts.empty() ? 0.0 : rtts[0], Percentile(rtts, 0.5), Percentile(rtts, 0.99));
        out += b;
        if (firstError != 0)
            out += ",\"error\":{\"code\":" + std::to_string(firstError) +
                   ",\"text\":" + Json(ErrorText(firstError)) + "}";
        printf("%s}\n", out.c_str());
    } else {
        if (haveFirst) {
            printf("response id %u, %u bytes:\n%s", first.id, first.size,
                   ResponseText(first).c_str());
        }
        if (count == 1 && !rtts.empty()) {
            printf("%s %.1f us\n", what, rtts[0]);
        } else if (count > 1) {
            printf("%ld requests, %zu ok, %ld failed; %s p50 %.1f us, p99 %.1f us\n", count,
                   rtts.size(), failures, what, Percentile(rtts, 0.5), Percentile(rtts, 0.99));
        }
    }
    DestroyResponse(&first);
    if (firstError != 0) {
        std::string hint = firstError == -ETIMEDOUT
                               ? "; no response within " + std::to_string(timeout) + " ms"
                               : "";
        return Fail(kExitFailed,
                    cmd + " to '" + name + "' failed: " + ErrorText(firstError) + hint);
    }
    return kExitOk;
}

}  // namespace sablectl
