#include "ipc_common.h"

#include <errno.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ipcbench {

namespace {

void Usage(const char* program) {
    fprintf(stderr,
            "usage: %s peer   --self NAME --peer NAME --mode rpc|stream --size N\n"
            "       %s caller --self NAME --peer NAME --mode rpc|stream --size N --count N "
            "[--warmup N] [--sync]\n",
            program, program);
}

bool ParseNumber(const char* text, uint64_t& out) {
    if (text == nullptr || *text < '0' || *text > '9') return false;
    errno = 0;
    char* end = nullptr;
    unsigned long long value = strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0') return false;
    out = value;
    return true;
}

// Nearest rank on sorted values.
double Percentile(const std::vector<double>& sorted, double p) {
    if (sorted.empty()) return 0.0;
    double rank = std::ceil(p * static_cast<double>(sorted.size()));
    size_t idx = rank < 1.0 ? 0 : static_cast<size_t>(rank) - 1;
    return sorted[std::min(idx, sorted.size() - 1)];
}

const char* ModeName(Mode mode) {
    return mode == Mode::kRpc ? "rpc" : "stream";
}

}  // namespace

bool ParseOptions(int argc, char** argv, const char* program, Options& opt) {
    if (argc < 2) {
        Usage(program);
        return false;
    }
    std::string role = argv[1];
    if (role == "peer") {
        opt.role = Role::kPeer;
    } else if (role == "caller") {
        opt.role = Role::kCaller;
    } else {
        Usage(program);
        return false;
    }
    bool haveMode = false;
    bool haveCount = false;
    for (int i = 2; i < argc; ++i) {
        std::string flag = argv[i];
        if (flag == "--sync") {
            opt.sync = true;
            continue;
        }
        if (i + 1 >= argc) {
            fprintf(stderr, "%s: %s needs a value\n", program, flag.c_str());
            Usage(program);
            return false;
        }
        const char* value = argv[++i];
        uint64_t number = 0;
        if (flag == "--self") {
            opt.self = value;
        } else if (flag == "--peer") {
            opt.peer = value;
        } else if (flag == "--mode") {
            std::string mode = value;
            if (mode != "rpc" && mode != "stream") {
                fprintf(stderr, "%s: bad --mode %s\n", program, value);
                return false;
            }
            opt.mode = mode == "rpc" ? Mode::kRpc : Mode::kStream;
            haveMode = true;
        } else if (flag == "--size" && ParseNumber(value, number)) {
            if (number < kMinPayload || number > kMaxPayload) {
                fprintf(stderr, "%s: --size must be %u..%u\n", program, kMinPayload, kMaxPayload);
                return false;
            }
            opt.size = static_cast<uint32_t>(number);
        } else if (flag == "--count" && ParseNumber(value, number) && number > 0) {
            opt.count = number;
            haveCount = true;
        } else if (flag == "--warmup" && ParseNumber(value, number)) {
            opt.warmup = number;
        } else {
            fprintf(stderr, "%s: bad argument %s %s\n", program, flag.c_str(), value);
            Usage(program);
            return false;
        }
    }
    if (opt.self.empty() || opt.peer.empty() || !haveMode ||
        (opt.role == Role::kCaller && !haveCount)) {
        Usage(program);
        return false;
    }
    return true;
}

uint64_t NowNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

uint64_t NowUs() {
    return NowNs() / 1000ull;
}

void FillPayload(std::vector<uint8_t>& payload, uint32_t size) {
    payload.assign(size, 0);
    for (uint32_t i = 0; i < size; ++i) payload[i] = static_cast<uint8_t>(i * 7u + 3u);
}

void PutSeq(uint8_t* payload, uint64_t seq) {
    memcpy(payload, &seq, sizeof(seq));
}

uint64_t GetSeq(const uint8_t* payload) {
    uint64_t seq = 0;
    memcpy(&seq, payload, sizeof(seq));
    return seq;
}

bool StreamCounter::Take(const uint8_t* data, uint32_t size) {
    if (size < sizeof(uint64_t)) {
        sizeErrors_++;
        received_++;
        return false;
    }
    uint64_t seq = GetSeq(data);
    if (seq == kFinSeq) return true;
    received_++;
    if (size != size_) sizeErrors_++;
    if (seq != next_) orderErrors_++;  // duplicate, late or early: not the one expected
    next_ = seq + 1;
    return false;
}

void StreamCounter::Reply(uint8_t* out) const {
    memcpy(out, &received_, 8);
    memcpy(out + 8, &orderErrors_, 8);
    memcpy(out + 16, &sizeErrors_, 8);
}

bool ParseFinReply(const uint8_t* data, uint32_t size, FinReport& out) {
    if (data == nullptr || size != StreamCounter::kReplySize) return false;
    memcpy(&out.received, data, 8);
    memcpy(&out.orderErrors, data + 8, 8);
    memcpy(&out.sizeErrors, data + 16, 8);
    return true;
}

bool SyncPoint(const Options& opt, const char* tag) {
    if (!opt.sync) return true;
    printf("%s\n", tag);
    fflush(stdout);
    char go = 0;
    for (;;) {
        ssize_t n = read(STDIN_FILENO, &go, 1);
        if (n == 1) return true;
        if (n < 0 && errno == EINTR) continue;
        return false;
    }
}

void RunRpcLoop(const char* program, const Options& opt, const RpcCall& call, RpcOutcome& out) {
    auto one = [&](uint64_t seq, bool timed) {
        uint32_t answerSize = 0;
        uint64_t t0 = NowNs();
        int ret = call(seq, answerSize);
        uint64_t t1 = NowNs();
        bool ok = ret == 0 && answerSize == opt.size;
        if (!ok) {
            out.failures++;
            if (out.error.empty()) {
                out.error = ret != 0 ? "rpc_errno_" + std::to_string(-ret) : "bad_response";
            }
            fprintf(stderr, "%s caller: RPC %llu: ret %d (%s), response size %u\n", program,
                    static_cast<unsigned long long>(seq), ret, ret ? strerror(-ret) : "ok",
                    answerSize);
        } else if (timed) {
            out.latenciesUs.push_back(static_cast<double>(t1 - t0) / 1000.0);
        }
        return ok;
    };
    for (uint64_t i = 0; i < opt.warmup; ++i) {
        if (!one(i, false)) return;
    }
    if (!SyncPoint(opt, "READY")) {
        out.error = "sync";
        return;
    }
    out.latenciesUs.reserve(opt.count);
    for (uint64_t i = 0; i < opt.count; ++i) {
        if (!one(i, true)) break;
    }
    if (!SyncPoint(opt, "DONE") && out.error.empty()) out.error = "sync";
}

void PrintRpcResult(const char* program, const Options& opt, RpcOutcome& out) {
    std::vector<double>& v = out.latenciesUs;
    std::sort(v.begin(), v.end());
    double sum = 0;
    for (double x : v) sum += x;
    bool ok = out.failures == 0 && v.size() == opt.count;
    printf(
        "RESULT program=%s mode=%s size=%u count=%llu warmup=%llu ok=%d failures=%llu "
        "p50_us=%.2f p99_us=%.2f mean_us=%.2f min_us=%.2f max_us=%.2f",
        program, ModeName(opt.mode), opt.size, static_cast<unsigned long long>(opt.count),
        static_cast<unsigned long long>(opt.warmup), ok ? 1 : 0,
        static_cast<unsigned long long>(out.failures), Percentile(v, 0.50), Percentile(v, 0.99),
        v.empty() ? 0.0 : sum / static_cast<double>(v.size()), v.empty() ? 0.0 : v.front(),
        v.empty() ? 0.0 : v.back());
    if (!ok) printf(" error=%s", out.error.empty() ? "incomplete" : out.error.c_str());
    printf("\n");
    fflush(stdout);
}

void PrintStreamResult(const char* program, const Options& opt, const StreamOutcome& out) {
    bool ok = out.error.empty() && out.finOk;
    double rps = out.elapsedSec > 0 ? static_cast<double>(out.accepted) / out.elapsedSec : 0.0;
    printf("RESULT program=%s mode=%s size=%u count=%llu ok=%d accepted=%llu", program,
           ModeName(opt.mode), opt.size, static_cast<unsigned long long>(opt.count), ok ? 1 : 0,
           static_cast<unsigned long long>(out.accepted));
    if (out.finOk) {
        printf(" delivered=%llu order_errors=%llu size_errors=%llu",
               static_cast<unsigned long long>(out.fin.received),
               static_cast<unsigned long long>(out.fin.orderErrors),
               static_cast<unsigned long long>(out.fin.sizeErrors));
    }
    printf(" retries=%llu elapsed_s=%.6f rps=%.1f", static_cast<unsigned long long>(out.retries),
           out.elapsedSec, rps);
    if (!ok) printf(" error=%s", out.error.empty() ? "no_fin" : out.error.c_str());
    printf("\n");
    fflush(stdout);
}

}  // namespace ipcbench

namespace ipcbench {

void RunStreamLoop(const char* program, const Options& opt, const StreamSend& send,
                   const StreamFin& fin, StreamOutcome& out) {
    std::vector<uint8_t> payload;
    FillPayload(payload, opt.size);
    if (!SyncPoint(opt, "READY")) {
        out.error = "sync";
        return;
    }
    const uint64_t start = NowNs();
    for (uint64_t i = 0; i < opt.count; ++i) {
        PutSeq(payload.data(), i);
        int ret = send(i, payload.data(), out.retries);
        if (ret != 0) {
            fprintf(stderr, "%s caller: send %llu: %s\n", program,
                    static_cast<unsigned long long>(i), strerror(-ret));
            out.error = "send_errno_" + std::to_string(-ret);
            break;
        }
        out.accepted++;
    }
    PutSeq(payload.data(), kFinSeq);
    int ret = fin(payload.data(), out.fin, out.retries);
    out.elapsedSec = static_cast<double>(NowNs() - start) / 1e9;
    if (ret == 0) {
        out.finOk = true;
    } else {
        fprintf(stderr, "%s caller: fin: ret %d (%s)\n", program, ret, strerror(-ret));
        if (out.error.empty()) out.error = "fin";
    }
    if (!SyncPoint(opt, "DONE") && out.error.empty()) out.error = "sync";
}

int FinishCaller(const char* program, const Options& opt, RpcOutcome& rpc,
                 const StreamOutcome& stream) {
    if (opt.mode == Mode::kRpc) {
        PrintRpcResult(program, opt, rpc);
        return rpc.error.empty() && rpc.failures == 0 ? 0 : 1;
    }
    PrintStreamResult(program, opt, stream);
    return stream.error.empty() && stream.finOk ? 0 : 1;
}

int RunProgram(int argc, char** argv, const char* program, int (*peer)(const Options&),
               int (*caller)(const Options&)) {
    Options opt;
    if (!ParseOptions(argc, argv, program, opt)) return 2;
    return opt.role == Role::kPeer ? peer(opt) : caller(opt);
}

}  // namespace ipcbench
