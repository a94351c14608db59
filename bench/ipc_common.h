// What the three two-process benchmark programs (ipc_sable, ipc_plain, ipc_raw) share: the
// command line, the caller's result line, latency statistics, the stream receiver's
// bookkeeping, and the hand-shake with ipc_bench around the measured phase of a counting run.
//
//   PROGRAM peer   --self NAME --peer NAME --mode rpc|stream --size N
//   PROGRAM caller --self NAME --peer NAME --mode rpc|stream --size N --count N [--warmup N]
//                  [--sync]
//
// The caller prints one line on stdout:
//   RESULT program=P mode=rpc size=N count=N ok=1 failures=0 p50_us=.. p99_us=.. mean_us=.. ...
//   RESULT program=P mode=stream size=N count=N ok=1 accepted=N delivered=N order_errors=N
//          size_errors=N retries=N elapsed_s=.. rps=..
// with ok=0 and error=WORD when the run failed (details on stderr).
#ifndef SABLE_BENCH_IPC_COMMON_H
#define SABLE_BENCH_IPC_COMMON_H

#include <errno.h>
#include <sched.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ipcbench {

enum class Role { kPeer, kCaller };
enum class Mode { kRpc, kStream };

struct Options {
    Role role = Role::kPeer;
    Mode mode = Mode::kRpc;
    std::string self;
    std::string peer;
    uint32_t size = 64;
    uint64_t count = 0;
    uint64_t warmup = 1000;
    bool sync = false;  // counting run: hand-shake with the driver around the measured phase
};

constexpr uint32_t kMaxPayload = 4000;
constexpr uint32_t kMinPayload = 8;  // room for the sequence number
constexpr uint64_t kFinSeq = UINT64_MAX;
constexpr int kOpenTimeoutMs = 10000;
constexpr int kRpcTimeoutMs = 5000;
constexpr int kFinTimeoutMs = 30000;
constexpr int kPeerLifetimeSec = 120;  // a peer whose caller never leaves gives up after this
constexpr int kStuckSendSec = 30;      // a send retried on a full FIFO for this long fails

uint64_t NowNs();  // CLOCK_MONOTONIC
uint64_t NowUs();

// Retries `send` (a callable returning 0 or a negative errno) while it answers -EAGAIN (a full
// FIFO), yielding the CPU between tries, for at most kStuckSendSec: the one retry policy of all
// three programs. Counts the retries in `*retries` when given.
template <typename Send>
int RetryFull(Send&& send, uint64_t* retries) {
    uint64_t spins = 0;
    uint64_t deadline = 0;
    for (;;) {
        int ret = send();
        if (ret != -EAGAIN) return ret;
        if (retries != nullptr) (*retries)++;
        // The clock is read only when the FIFO is full, and then only now and again.
        if (spins++ == 0) {
            deadline = NowNs() + kStuckSendSec * 1000000000ull;
        } else if ((spins & 1023u) == 0 && NowNs() > deadline) {
            return -ETIMEDOUT;
        }
        sched_yield();
    }
}

// Parses argv (argv[1] is the role). Prints the usage line and returns false on any error.
bool ParseOptions(int argc, char** argv, const char* program, Options& opt);

// The payload the caller sends: a fixed byte pattern with the sequence number (or kFinSeq) in
// the first 8 bytes.
void FillPayload(std::vector<uint8_t>& payload, uint32_t size);
void PutSeq(uint8_t* payload, uint64_t seq);
uint64_t GetSeq(const uint8_t* payload);

// The receive side of a stream: counts the requests, checks that sequence numbers arrive in
// order, each exactly once, with the announced size. Not thread-safe.
class StreamCounter {
  public:
    explicit StreamCounter(uint32_t size) : size_(size) {}
    // Takes one request; true when it is the fin request, which is not counted.
    bool Take(const uint8_t* data, uint32_t size);
    // The answer to the fin request: received, order errors, size errors (u64 each).
    static constexpr uint32_t kReplySize = 24;
    void Reply(uint8_t* out) const;

  private:
    uint32_t size_;
    uint64_t next_ = 0;
    uint64_t received_ = 0;
    uint64_t orderErrors_ = 0;
    uint64_t sizeErrors_ = 0;
};

struct FinReport {
    uint64_t received = 0;
    uint64_t orderErrors = 0;
    uint64_t sizeErrors = 0;
};
bool ParseFinReply(const uint8_t* data, uint32_t size, FinReport& out);

// Counting run (--sync): announces `tag` (READY or DONE) on stdout and waits for the driver's
// go byte on stdin. Does nothing without --sync. False when the driver has gone.
bool SyncPoint(const Options& opt, const char* tag);

struct RpcOutcome {
    std::vector<double> latenciesUs;  // measured calls that succeeded
    uint64_t failures = 0;
    std::string error;  // first failure, one word
};
void PrintRpcResult(const char* program, const Options& opt, RpcOutcome& out);

// One RPC of a caller: sends request number `seq` (in its payload) and waits for the answer.
// 0 or a negative errno; `answerSize` is the answer's payload size.
using RpcCall = std::function<int(uint64_t seq, uint32_t& answerSize)>;
// The caller's RPC loop, the same for every program: opt.warmup calls, then opt.count timed
// ones between the READY and DONE sync points; an answer of the wrong size is a failure.
void RunRpcLoop(const char* program, const Options& opt, const RpcCall& call, RpcOutcome& out);

struct StreamOutcome {
    uint64_t accepted = 0;  // requests the sender handed over successfully
    uint64_t retries = 0;   // sends retried after a full FIFO
    double elapsedSec = 0;  // first send to the fin answer
    bool finOk = false;
    FinReport fin;
    std::string error;
};
void PrintStreamResult(const char* program, const Options& opt, const StreamOutcome& out);

// One one-way request of a stream, carrying `payload` (opt.size bytes, request number `seq` in
// it): 0 or a negative errno. Retries on a full FIFO are counted in `retries`.
using StreamSend = std::function<int(uint64_t seq, const uint8_t* payload, uint64_t& retries)>;
// The final RPC carrying `payload` (kFinSeq in it): 0 with the peer's report, or a negative
// errno (-EPROTO for an answer that is no report).
using StreamFin = std::function<int(const uint8_t* payload, FinReport& report, uint64_t& retries)>;
// The caller's stream, the same for every program: opt.count requests between the READY and
// DONE sync points, then the final RPC; the elapsed time runs from the first send to its answer.
void RunStreamLoop(const char* program, const Options& opt, const StreamSend& send,
                   const StreamFin& fin, StreamOutcome& out);

// Prints the caller's result line for its mode and returns the exit status: 0 when the run of
// that mode has no error (every RPC answered; the stream's final RPC answered).
int FinishCaller(const char* program, const Options& opt, RpcOutcome& rpc,
                 const StreamOutcome& stream);
// main() of a program: parses the command line and runs the role. 2 for a bad command line.
int RunProgram(int argc, char** argv, const char* program, int (*peer)(const Options&),
               int (*caller)(const Options&));

}  // namespace ipcbench

#endif
