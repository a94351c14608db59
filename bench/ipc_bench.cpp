// ipc_bench: compares the library (ipc_sable) with a plain program of the same architecture
// (ipc_plain) and the raw blocking FIFO pair (ipc_raw), each run as two real processes, a peer
// and a caller, pinned to CPUs. Prints one Markdown table (or JSON).
//
//   ipc_bench [--runs N] [--rpc-count N] [--stream-count N] [--sizes 64,4000]
//             [--placements one,split] [--tests rpc,stream] [--programs sable,plain,raw]
//             [--json] [--no-count]
//
// Placement "one" pins both processes to CPU 0, "split" the caller to CPU 0 and the peer to
// CPU 1. For every placement, test and size the programs run interleaved, N times each; the
// table shows the median of every figure. Context switches come from both processes' rusage
// (every thread). Then, unless --no-count, one shorter run per program under perf stat counts
// the system calls of each process during the measured phase only (perf's counters are enabled
// and disabled through its control descriptors while the caller waits at the phase's edges).
// The exit status is non-zero when any run failed or any stream lost, duplicated or reordered a
// request.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int kRunBoundSec = 180;          // a run still going after this is killed
constexpr int kPerfAckMs = 5000;           // perf answers a control command within this
constexpr uint64_t kRpcWarmup = 1000;      // RPCs before the measured ones
constexpr uint64_t kCountRpc = 5000;       // RPCs of a counting run
constexpr uint64_t kCountStream = 200000;  // requests of a counting run
constexpr const char* kLibDir = "/dev/shm/nux/sable_comm";
constexpr const char* kShmDir = "/dev/shm";
const double kNaN = std::nan("");

struct Config {
    int runs = 3;
    uint64_t rpcCount = 20000;
    uint64_t streamCount = 1000000;
    std::vector<uint32_t> sizes{64, 4000};
    std::vector<std::string> placements{"one", "split"};
    std::vector<std::string> tests{"rpc", "stream"};
    std::vector<std::string> programs{"sable", "plain", "raw"};
    bool json = false;
    bool count = true;
};

// ---------------------------------------------------------------------------------------------
// Small helpers

uint64_t NowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000ull +
           static_cast<uint64_t>(ts.tv_nsec) / 1000000ull;
}

void SleepMs(int ms) {
    timespec ts{ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

std::vector<std::string> Split(const std::string& text, char sep) {
    std::vector<std::string> out;
    std::string item;
    std::istringstream in(text);
    while (std::getline(in, item, sep)) {
        if (!item.empty()) out.push_back(item);
    }
    return out;
}

bool ParseU64(const std::string& text, uint64_t& out) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
    errno = 0;
    out = strtoull(text.c_str(), nullptr, 10);
    return errno == 0;
}

std::string Fmt(const char* format, double value) {
    if (std::isnan(value)) return "n/a";
    char buf[64];
    snprintf(buf, sizeof(buf), format, value);
    return buf;
}

double Median(std::vector<double> values) {
    values.erase(
        std::remove_if(values.begin(), values.end(), [](double v) { return std::isnan(v); }),
        values.end());
    if (values.empty()) return kNaN;
    std::sort(values.begin(), values.end());
    size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2.0;
}

std::string JsonString(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char buf[8];
            snprintf(buf, sizeof(buf), "\\u%04x", c);
            out += buf;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string JsonNumber(double value) {
    if (std::isnan(value)) return "null";
    char buf[64];
    snprintf(buf, sizeof(buf), "%.6g", value);
    return buf;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string CpuModel() {
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("model name", 0) == 0) {
            size_t colon = line.find(':');
            if (colon != std::string::npos) return line.substr(colon + 2);
        }
    }
    return "unknown";
}

std::string Kernel() {
    utsname u{};
    if (uname(&u) != 0) return "unknown";
    return std::string(u.sysname) + " " + u.release + " " + u.version + " " + u.machine;
}

std::string Now() {
    time_t t = time(nullptr);
    char buf[64];
    strftime(buf, sizeof(buf), "%Y-%m-%d %H:%M:%S %z", localtime(&t));
    return buf;
}

std::string SelfDir() {
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0) return ".";
    buf[n] = '\0';
    std::string path(buf);
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

// ---------------------------------------------------------------------------------------------
// Child processes

// Forks and execs `args` pinned to `cpu`, in a process group of its own (so that a kill reaches
// a program started by perf as well). stdin/stdout/stderr come from the given descriptors;
// `inherit` are descriptors that must survive the exec.
pid_t Spawn(const std::vector<std::string>& args, int cpu, int inFd, int outFd, int errFd,
            const std::vector<int>& inherit) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(cpu, &set);
        if (sched_setaffinity(0, sizeof(set), &set) != 0) {
            fprintf(stderr, "ipc_bench: sched_setaffinity(CPU %d): %s\n", cpu, strerror(errno));
            _exit(126);
        }
        if (inFd >= 0) dup2(inFd, STDIN_FILENO);
        if (outFd >= 0) dup2(outFd, STDOUT_FILENO);
        if (errFd >= 0) dup2(errFd, STDERR_FILENO);
        for (int fd : inherit) fcntl(fd, F_SETFD, 0);
        execvp(argv[0], argv.data());
        fprintf(stderr, "ipc_bench: exec %s: %s\n", argv[0], strerror(errno));
        _exit(127);
    }
    if (pid > 0) setpgid(pid, pid);
    return pid;
}

struct Child {
    pid_t pid = -1;
    bool reaped = false;
    int status = 0;
    rusage ru{};
};

// Reaps the child, waiting until deadlineMs at the latest; false if it is still running.
bool Reap(Child& child, uint64_t deadlineMs) {
    while (!child.reaped && child.pid > 0) {
        pid_t got = wait4(child.pid, &child.status, WNOHANG, &child.ru);
        if (got == child.pid) {
            child.reaped = true;
            break;
        }
        if (got < 0 && errno != EINTR) {
            child.reaped = true;
            child.status = -1;
            break;
        }
        if (NowMs() >= deadlineMs) return false;
        SleepMs(1);
    }
    return true;
}

void KillAndReap(Child& child) {
    if (child.pid <= 0 || child.reaped) return;
    kill(-child.pid, SIGKILL);
    kill(child.pid, SIGKILL);
    while (wait4(child.pid, &child.status, 0, &child.ru) < 0 && errno == EINTR) {
    }
    child.reaped = true;
}

std::string ExitText(const Child& child) {
    if (!child.reaped) return "still running";
    if (child.status == -1) return "lost";
    if (WIFEXITED(child.status)) return "exit " + std::to_string(WEXITSTATUS(child.status));
    if (WIFSIGNALED(child.status))
        return std::string("killed by ") + strsignal(WTERMSIG(child.status));
    return "status " + std::to_string(child.status);
}

bool ExitedZero(const Child& child) {
    return child.reaped && child.status != -1 && WIFEXITED(child.status) &&
           WEXITSTATUS(child.status) == 0;
}

// perf stat's control descriptors for one process: commands in, acknowledgements out.
struct PerfControl {
    int ctl[2] = {-1, -1};
    int ack[2] = {-1, -1};
    std::string output;

    bool Open() { return pipe2(ctl, O_CLOEXEC) == 0 && pipe2(ack, O_CLOEXEC) == 0; }
    std::string ControlArg() const {
        return "fd:" + std::to_string(ctl[0]) + "," + std::to_string(ack[1]);
    }
    void CloseChildEnds() {
        CloseFd(ctl[0]);
        CloseFd(ack[1]);
    }
    void CloseAll() {
        CloseChildEnds();
        CloseFd(ctl[1]);
        CloseFd(ack[0]);
    }
    // Sends "enable" or "disable" and waits for perf's "ack".
    bool Command(const char* command) {
        std::string line = std::string(command) + "\n";
        if (write(ctl[1], line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
            return false;
        }
        std::string got;
        uint64_t deadline = NowMs() + kPerfAckMs;
        while (got.find('\n') == std::string::npos) {
            uint64_t now = NowMs();
            if (now >= deadline) return false;
            pollfd p{ack[0], POLLIN, 0};
            int n = poll(&p, 1, static_cast<int>(deadline - now));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            char buf[16];
            ssize_t r = read(ack[0], buf, sizeof(buf));
            if (r <= 0) return false;
            got.append(buf, static_cast<size_t>(r));
        }
        return got.rfind("ack", 0) == 0;
    }
    static void CloseFd(int& fd) {
        if (fd >= 0) close(fd);
        fd = -1;
    }
};

// The count perf stat -x, wrote for raw_syscalls:sys_enter; NaN when there is none.
double ReadPerfCount(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::vector<std::string> fields;
        std::string field;
        std::istringstream ls(line);
        while (std::getline(ls, field, ',')) fields.push_back(field);
        if (fields.size() < 3 || fields[2].find("raw_syscalls:sys_enter") == std::string::npos) {
            continue;
        }
        uint64_t value = 0;
        if (ParseU64(fields[0], value)) return static_cast<double>(value);
        return kNaN;
    }
    return kNaN;
}

// ---------------------------------------------------------------------------------------------
// One run: a peer and a caller

struct RunCase {
    std::string program;
    std::string path;
    std::string placement;
    std::string test;
    uint32_t size = 0;
    uint64_t count = 0;
    bool counting = false;  // under perf stat, system calls of the measured phase
};

struct RunOutcome {
    bool ok = false;
    std::vector<std::string> errors;
    std::map<std::string, std::string> result;  // the caller's RESULT line
    double csPerOp = kNaN;
    double sysCaller = kNaN;  // system calls per operation in the measured phase
    double sysPeer = kNaN;
    bool streamChecked = false;
    bool streamOk = true;
    std::string streamText;  // delivered/accepted and order errors
    std::vector<std::string> leftovers;

    double Get(const std::string& key) const {
        auto it = result.find(key);
        if (it == result.end()) return kNaN;
        char* end = nullptr;
        double v = strtod(it->second.c_str(), &end);
        return end != it->second.c_str() ? v : kNaN;
    }
};

class Runner {
  public:
    explicit Runner(bool perfOk) : perfOk_(perfOk) {
        char tmpl[] = "/tmp/ipc_bench.XXXXXX";
        const char* dir = mkdtemp(tmpl);
        tmpDir_ = dir != nullptr ? dir : "/tmp";
    }
    ~Runner() {
        if (tmpDir_ != "/tmp") rmdir(tmpDir_.c_str());
    }

    RunOutcome Run(const RunCase& run);

  private:
    std::vector<std::string> Sweep(const std::string& tag);

    bool perfOk_;
    std::string tmpDir_;
    int serial_ = 0;
};

std::vector<std::string> Runner::Sweep(const std::string& tag) {
    std::vector<std::string> removed;
    for (const char* dir : {kLibDir, kShmDir}) {
        DIR* d = opendir(dir);
        if (d == nullptr) continue;
        std::vector<std::string> names;
        while (dirent* e = readdir(d)) {
            std::string name = e->d_name;
            if (name.find(tag + "c") != std::string::npos ||
                name.find(tag + "p") != std::string::npos) {
                names.push_back(name);
            }
        }
        closedir(d);
        for (const std::string& name : names) {
            std::string path = std::string(dir) + "/" + name;
            if (unlink(path.c_str()) == 0) removed.push_back(path);
        }
    }
    return removed;
}

RunOutcome Runner::Run(const RunCase& run) {
    RunOutcome out;
    const int serial = ++serial_;
    const std::string tag = "bs" + std::to_string(getpid()) + "r" + std::to_string(serial);
    const std::string peerName = tag + "p";
    const std::string callerName = tag + "c";
    const int peerCpu = run.placement == "split" ? 1 : 0;
    const int callerCpu = 0;
    const uint64_t start = NowMs();
    const uint64_t deadline = start + kRunBoundSec * 1000ull;
    const bool counting = run.counting && perfOk_;

    std::vector<std::string> peerArgs{
        run.path,   "peer",   "--self", peerName, "--peer",
        callerName, "--mode", run.test, "--size", std::to_string(run.size)};
    std::vector<std::string> callerArgs{run.path,   "caller",
                                        "--self",   callerName,
                                        "--peer",   peerName,
                                        "--mode",   run.test,
                                        "--size",   std::to_string(run.size),
                                        "--count",  std::to_string(run.count),
                                        "--warmup", std::to_string(kRpcWarmup)};
    PerfControl peerPerf;
    PerfControl callerPerf;
    if (counting) {
        callerArgs.push_back("--sync");
        if (!peerPerf.Open() || !callerPerf.Open()) {
            out.errors.push_back(std::string("pipe2: ") + strerror(errno));
            peerPerf.CloseAll();
            callerPerf.CloseAll();
            return out;
        }
        auto wrap = [&](std::vector<std::string>& args, PerfControl& perf, const char* who) {
            perf.output = tmpDir_ + "/" + tag + who + ".perf";
            std::vector<std::string> wrapped{"perf",      "stat",
                                             "-x",        ",",
                                             "-e",        "raw_syscalls:sys_enter",
                                             "-D",        "-1",
                                             "--control", perf.ControlArg(),
                                             "-o",        perf.output,
                                             "--"};
            wrapped.insert(wrapped.end(), args.begin(), args.end());
            args.swap(wrapped);
        };
        wrap(peerArgs, peerPerf, "p");
        wrap(callerArgs, callerPerf, "c");
    }

    // Each process's stderr goes to a file, shown when the run fails.
    const std::string peerErr = tmpDir_ + "/" + tag + "p.err";
    const std::string callerErr = tmpDir_ + "/" + tag + "c.err";
    int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    int peerErrFd = open(peerErr.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    int callerErrFd = open(callerErr.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);

    Child peer;
    Child caller;
    peer.pid =
        Spawn(peerArgs, peerCpu, devNull, devNull, peerErrFd,
              counting ? std::vector<int>{peerPerf.ctl[0], peerPerf.ack[1]} : std::vector<int>{});
    int resultPipe[2] = {-1, -1};
    int syncPipe[2] = {-1, -1};
    if (pipe2(resultPipe, O_CLOEXEC) != 0 || (counting && pipe2(syncPipe, O_CLOEXEC) != 0)) {
        out.errors.push_back(std::string("pipe2: ") + strerror(errno));
    } else if (peer.pid > 0) {
        caller.pid = Spawn(
            callerArgs, callerCpu, counting ? syncPipe[0] : devNull, resultPipe[1], callerErrFd,
            counting ? std::vector<int>{callerPerf.ctl[0], callerPerf.ack[1]} : std::vector<int>{});
    }
    for (int* fd : {&resultPipe[1], &syncPipe[0], &devNull, &peerErrFd, &callerErrFd}) {
        PerfControl::CloseFd(*fd);
    }
    peerPerf.CloseChildEnds();
    callerPerf.CloseChildEnds();
    if (peer.pid < 0 || caller.pid < 0) out.errors.push_back("fork failed");

    // The caller's output: RESULT, and in a counting run READY / DONE, each answered by
    // enabling / disabling both perf counters and one go byte.
    std::string text;
    bool resultSeen = false;
    bool perfFailed = false;
    bool timedOut = false;
    size_t scanned = 0;
    while (caller.pid > 0 && resultPipe[0] >= 0) {
        uint64_t now = NowMs();
        if (now >= deadline) {
            timedOut = true;
            break;
        }
        pollfd p{resultPipe[0], POLLIN, 0};
        int n = poll(&p, 1, static_cast<int>(std::min<uint64_t>(deadline - now, 60000)));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) continue;
        char buf[4096];
        ssize_t r = read(resultPipe[0], buf, sizeof(buf));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        text.append(buf, static_cast<size_t>(r));
        size_t nl;
        while ((nl = text.find('\n', scanned)) != std::string::npos) {
            std::string line = text.substr(scanned, nl - scanned);
            scanned = nl + 1;
            if (counting && (line == "READY" || line == "DONE")) {
                const char* command = line == "READY" ? "enable" : "disable";
                if (!peerPerf.Command(command) || !callerPerf.Command(command)) perfFailed = true;
                char go = 'g';
                if (write(syncPipe[1], &go, 1) != 1) perfFailed = true;
            } else if (line.rfind("RESULT ", 0) == 0) {
                resultSeen = true;
                std::istringstream ls(line.substr(7));
                std::string kv;
                while (ls >> kv) {
                    size_t eq = kv.find('=');
                    if (eq != std::string::npos) out.result[kv.substr(0, eq)] = kv.substr(eq + 1);
                }
            }
        }
    }
    PerfControl::CloseFd(resultPipe[0]);
    PerfControl::CloseFd(syncPipe[1]);

    if (timedOut) out.errors.push_back("no result within " + std::to_string(kRunBoundSec) + " s");
    bool callerKilled = false;
    bool peerKilled = false;
    if (!Reap(caller, timedOut ? NowMs() : deadline)) {
        KillAndReap(caller);
        callerKilled = true;
        out.errors.push_back("caller killed after " + std::to_string(kRunBoundSec) + " s");
    }
    if (!Reap(peer, timedOut ? NowMs() : deadline)) {
        KillAndReap(peer);
        peerKilled = true;
        out.errors.push_back("peer killed after " + std::to_string(kRunBoundSec) + " s");
    }
    peerPerf.CloseAll();
    callerPerf.CloseAll();
    if (caller.pid > 0 && !callerKilled && !ExitedZero(caller)) {
        out.errors.push_back("caller " + ExitText(caller));
    }
    if (peer.pid > 0 && !peerKilled && !ExitedZero(peer)) {
        out.errors.push_back("peer " + ExitText(peer));
    }
    if (!resultSeen && !timedOut) {
        out.errors.push_back("no result line from the caller");
    } else if (out.result["ok"] != "1") {
        out.errors.push_back("caller reports failure: " + out.result["error"]);
    }

    // Context switches of both processes, every thread, per operation.
    const double ops = run.test == "rpc" ? static_cast<double>(run.count + kRpcWarmup)
                                         : static_cast<double>(run.count + 1);
    if (!counting && caller.reaped && peer.reaped) {
        double cs = static_cast<double>(caller.ru.ru_nvcsw + caller.ru.ru_nivcsw +
                                        peer.ru.ru_nvcsw + peer.ru.ru_nivcsw);
        out.csPerOp = cs / ops;
    }
    if (counting) {
        double c = ReadPerfCount(callerPerf.output);
        double p = ReadPerfCount(peerPerf.output);
        if (perfFailed || std::isnan(c) || std::isnan(p)) {
            out.errors.push_back("perf stat gave no system call count");
        } else {
            out.sysCaller = c / static_cast<double>(run.count);
            out.sysPeer = p / static_cast<double>(run.count);
        }
        unlink(callerPerf.output.c_str());
        unlink(peerPerf.output.c_str());
    }

    if (run.test == "stream" && resultSeen && out.result.count("delivered")) {
        out.streamChecked = true;
        uint64_t accepted = 0, delivered = 0, order = 0, sizeErr = 0;
        ParseU64(out.result["accepted"], accepted);
        ParseU64(out.result["delivered"], delivered);
        ParseU64(out.result["order_errors"], order);
        ParseU64(out.result["size_errors"], sizeErr);
        out.streamOk = accepted == delivered && order == 0 && sizeErr == 0 && accepted == run.count;
        out.streamText = std::to_string(delivered) + "/" + std::to_string(accepted);
        if (order != 0) out.streamText += ", " + std::to_string(order) + " out of order";
        if (sizeErr != 0) out.streamText += ", " + std::to_string(sizeErr) + " wrong size";
        if (!out.streamOk) out.errors.push_back("stream delivered/accepted " + out.streamText);
    }

    out.leftovers = Sweep(tag);
    out.ok = out.errors.empty();
    if (!out.ok) {
        for (const auto& file :
             {std::make_pair("peer", peerErr), std::make_pair("caller", callerErr)}) {
            std::string err;
            std::istringstream lines(ReadFile(file.second));
            for (std::string line; std::getline(lines, line);) {
                if (line != "Events enabled" && line != "Events disabled") err += line + "\n";
            }
            if (!err.empty()) {
                fprintf(stderr, "---- %s %s stderr (%s %s %u):\n%s", run.program.c_str(),
                        file.first, run.placement.c_str(), run.test.c_str(), run.size, err.c_str());
            }
        }
    }
    unlink(peerErr.c_str());
    unlink(callerErr.c_str());
    return out;
}

// ---------------------------------------------------------------------------------------------
// Results

struct Cell {
    int runsOk = 0;
    int runsFailed = 0;
    std::vector<double> p50, p99, mean, rps, cs, retries;
    double sysCaller = kNaN;
    double sysPeer = kNaN;
    bool counted = false;
    bool streamOk = true;
    std::vector<std::string> streamTexts;  // one per checked run, counting run included

    double Med(const std::vector<double>& v) const { return Median(v); }
};

struct Row {
    std::string placement;
    std::string test;
    uint32_t size = 0;
    uint64_t count = 0;
    std::map<std::string, Cell> cells;
};

bool Has(const std::vector<std::string>& list, const std::string& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

std::string Ratio(double a, double b) {
    if (std::isnan(a) || std::isnan(b) || b == 0) return "n/a";
    return Fmt("%.2f", a / b);
}

struct Report {
    std::string command;
    std::string date;
    std::string kernel;
    std::string cpu;
    long cpus = 0;
    bool perfOk = false;
    std::vector<Row> rows;
    std::vector<std::string> failures;
    std::vector<std::string> notes;
};

std::string CellValue(const Row& row, const std::string& program, const Config& config) {
    if (!Has(config.programs, program)) return "–";
    const Cell& c = row.cells.at(program);
    if (c.runsOk == 0) return "FAIL";
    std::string v = row.test == "rpc"
                        ? Fmt("%.1f", c.Med(c.p50)) + " / " + Fmt("%.1f", c.Med(c.p99)) + " / " +
                              Fmt("%.1f", c.Med(c.mean))
                        : Fmt("%.0f", c.Med(c.rps));
    if (c.runsFailed != 0) v += " (" + std::to_string(c.runsFailed) + " failed)";
    return v;
}

std::string CellRatio(const Row& row, const std::string& base, const Config& config) {
    if (!Has(config.programs, "sable") || !Has(config.programs, base)) return "–";
    const Cell& s = row.cells.at("sable");
    const Cell& b = row.cells.at(base);
    if (row.test == "rpc") {
        return Ratio(s.Med(s.p50), b.Med(b.p50)) + " / " + Ratio(s.Med(s.p99), b.Med(b.p99)) +
               " / " + Ratio(s.Med(s.mean), b.Med(b.mean));
    }
    return Ratio(s.Med(s.rps), b.Med(b.rps));
}

std::string CheckText(const Row& row, const Config& config) {
    std::string bad;
    bool any = false;
    for (const std::string& program : config.programs) {
        const Cell& c = row.cells.at(program);
        if (c.runsOk + c.runsFailed > 0) any = true;
        if (row.test == "stream") {
            if (!c.streamOk) {
                for (const std::string& t : c.streamTexts) {
                    bad += (bad.empty() ? "" : "; ") + program + " " + t;
                }
            } else if (c.streamTexts.empty() && c.runsFailed > 0) {
                bad += (bad.empty() ? "" : "; ") + program + " no count";
            }
        } else if (c.runsFailed > 0) {
            bad += (bad.empty() ? "" : "; ") + program + " failed";
        }
    }
    if (!any) return "–";
    if (!bad.empty()) return bad;
    return row.test == "stream" ? "ok, every run" : "ok";
}

std::string CsText(const Row& row, const std::string& program, const Config& config) {
    if (!Has(config.programs, program)) return "–";
    const Cell& c = row.cells.at(program);
    return Fmt("%.2f", c.Med(c.cs));
}

std::string SysText(const Row& row, const std::string& program, const Config& config, bool perfOk) {
    if (!Has(config.programs, program) || !config.count) return "–";
    const Cell& c = row.cells.at(program);
    if (!perfOk || !c.counted) return "n/a";
    if (row.test == "stream") return Fmt("%.3f", c.sysPeer);
    return Fmt("%.2f", c.sysCaller) + " + " + Fmt("%.2f", c.sysPeer);
}

void PrintMarkdown(const Report& report, const Config& config) {
    printf("# sable_comm against a plain program and the raw FIFO pair\n\n");
    printf("- command: `%s`\n", report.command.c_str());
    printf("- date: %s\n", report.date.c_str());
    printf("- kernel: %s\n", report.kernel.c_str());
    printf("- CPU: %s (%ld online)\n", report.cpu.c_str(), report.cpus);
    printf(
        "- %d run(s) per program and cell, interleaved, median shown; rpc: %llu measured RPCs "
        "after %llu warm-up; stream: %llu one-way requests and a final RPC\n",
        config.runs, static_cast<unsigned long long>(config.rpcCount),
        static_cast<unsigned long long>(kRpcWarmup),
        static_cast<unsigned long long>(config.streamCount));
    if (config.count) {
        printf(
            "- system calls: one run per program and cell under perf stat (rpc %llu, stream "
            "%llu)%s\n",
            static_cast<unsigned long long>(std::min(config.rpcCount, kCountRpc)),
            static_cast<unsigned long long>(std::min(config.streamCount, kCountStream)),
            report.perfOk ? "" : ": perf stat -e raw_syscalls:sys_enter does not work here");
    }
    printf("\n");
    printf(
        "| placement | test | size | metric | sable | plain | raw | sable/plain | sable/raw | "
        "delivered/accepted | cs/op sable | cs/op plain | syscalls/op sable (caller + peer) | "
        "syscalls/op plain (caller + peer) |\n");
    printf("|---|---|---:|---|---:|---:|---:|---:|---:|---|---:|---:|---:|---:|\n");
    for (const Row& row : report.rows) {
        printf("| %s | %s | %u | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |\n",
               row.placement.c_str(), row.test.c_str(), row.size,
               row.test == "rpc" ? "p50 / p99 / mean µs" : "requests/s",
               CellValue(row, "sable", config).c_str(), CellValue(row, "plain", config).c_str(),
               CellValue(row, "raw", config).c_str(), CellRatio(row, "plain", config).c_str(),
               CellRatio(row, "raw", config).c_str(), CheckText(row, config).c_str(),
               CsText(row, "sable", config).c_str(), CsText(row, "plain", config).c_str(),
               SysText(row, "sable", config, report.perfOk).c_str(),
               SysText(row, "plain", config, report.perfOk).c_str());
    }
    printf("\n");
    printf(
        "Ratios are sable/baseline: for latencies (µs) lower is better, below 1 means sable is "
        "faster; for requests/s higher is better, above 1 means sable is faster.\n");
    printf(
        "one: peer and caller on CPU 0; split: caller on CPU 0, peer on CPU 1. delivered/accepted: "
        "requests the peer received in order, each once, against those the caller's sends "
        "accepted, in every run (counting runs included).\n");
    printf(
        "cs/op: voluntary + involuntary context switches of both processes (all threads, whole "
        "run) per operation (RPC, warm-up included; or one-way request). syscalls/op: system "
        "calls during the measured phase per RPC for the caller + the peer; stream rows: "
        "receive side (peer) per frame.\n");
    for (const std::string& note : report.notes) printf("\nNote: %s\n", note.c_str());
    if (!report.failures.empty()) {
        printf("\n**FAILED** (%zu):\n", report.failures.size());
        for (const std::string& f : report.failures) printf("- %s\n", f.c_str());
    }
}

void PrintJson(const Report& report, const Config& config) {
    auto list = [](const std::vector<double>& v) {
        std::string s = "[";
        for (size_t i = 0; i < v.size(); ++i) s += (i ? "," : "") + JsonNumber(v[i]);
        return s + "]";
    };
    auto strings = [](const std::vector<std::string>& v) {
        std::string s = "[";
        for (size_t i = 0; i < v.size(); ++i) s += (i ? "," : "") + JsonString(v[i]);
        return s + "]";
    };
    printf("{\n  \"command\": %s,\n  \"date\": %s,\n  \"kernel\": %s,\n  \"cpu\": %s,\n",
           JsonString(report.command).c_str(), JsonString(report.date).c_str(),
           JsonString(report.kernel).c_str(), JsonString(report.cpu).c_str());
    printf("  \"cpus_online\": %ld,\n  \"runs\": %d,\n  \"rpc_count\": %llu,\n", report.cpus,
           config.runs, static_cast<unsigned long long>(config.rpcCount));
    printf("  \"rpc_warmup\": %llu,\n  \"stream_count\": %llu,\n  \"syscall_counting\": %s,\n",
           static_cast<unsigned long long>(kRpcWarmup),
           static_cast<unsigned long long>(config.streamCount),
           !config.count   ? "\"off\""
           : report.perfOk ? "\"perf\""
                           : "\"n/a\"");
    printf("  \"rows\": [\n");
    for (size_t r = 0; r < report.rows.size(); ++r) {
        const Row& row = report.rows[r];
        printf(
            "    {\"placement\": %s, \"test\": %s, \"size\": %u, \"count\": %llu, \"programs\": {",
            JsonString(row.placement).c_str(), JsonString(row.test).c_str(), row.size,
            static_cast<unsigned long long>(row.count));
        bool first = true;
        for (const std::string& program : config.programs) {
            const Cell& c = row.cells.at(program);
            printf("%s\n      %s: {\"runs_ok\": %d, \"runs_failed\": %d", first ? "" : ",",
                   JsonString(program).c_str(), c.runsOk, c.runsFailed);
            first = false;
            if (row.test == "rpc") {
                printf(", \"p50_us\": %s, \"p99_us\": %s, \"mean_us\": %s",
                       JsonNumber(c.Med(c.p50)).c_str(), JsonNumber(c.Med(c.p99)).c_str(),
                       JsonNumber(c.Med(c.mean)).c_str());
                printf(", \"p50_us_runs\": %s, \"p99_us_runs\": %s, \"mean_us_runs\": %s",
                       list(c.p50).c_str(), list(c.p99).c_str(), list(c.mean).c_str());
                printf(", \"syscalls_per_rpc_caller\": %s, \"syscalls_per_rpc_peer\": %s",
                       JsonNumber(c.sysCaller).c_str(), JsonNumber(c.sysPeer).c_str());
            } else {
                printf(", \"requests_per_s\": %s, \"requests_per_s_runs\": %s",
                       JsonNumber(c.Med(c.rps)).c_str(), list(c.rps).c_str());
                printf(", \"send_retries\": %s", JsonNumber(c.Med(c.retries)).c_str());
                printf(", \"delivered_equals_accepted\": %s, \"delivered_accepted_runs\": %s",
                       c.streamOk ? "true" : "false", strings(c.streamTexts).c_str());
                printf(", \"syscalls_per_frame_receive\": %s, \"syscalls_per_frame_send\": %s",
                       JsonNumber(c.sysPeer).c_str(), JsonNumber(c.sysCaller).c_str());
            }
            printf(", \"context_switches_per_op\": %s, \"context_switches_per_op_runs\": %s}",
                   JsonNumber(c.Med(c.cs)).c_str(), list(c.cs).c_str());
        }
        printf("\n    }");
        if (Has(config.programs, "sable")) {
            const Cell& s = row.cells.at("sable");
            for (const char* base : {"plain", "raw"}) {
                if (!Has(config.programs, base)) continue;
                const Cell& b = row.cells.at(base);
                auto ratio = [](double x, double y) { return y == 0 ? kNaN : x / y; };
                if (row.test == "rpc") {
                    printf(", \"sable_over_%s\": {\"p50\": %s, \"p99\": %s, \"mean\": %s}", base,
                           JsonNumber(ratio(s.Med(s.p50), b.Med(b.p50))).c_str(),
                           JsonNumber(ratio(s.Med(s.p99), b.Med(b.p99))).c_str(),
                           JsonNumber(ratio(s.Med(s.mean), b.Med(b.mean))).c_str());
                } else {
                    printf(", \"sable_over_%s\": {\"requests_per_s\": %s}", base,
                           JsonNumber(ratio(s.Med(s.rps), b.Med(b.rps))).c_str());
                }
            }
        }
        printf("}%s\n", r + 1 < report.rows.size() ? "," : "");
    }
    printf("  ],\n  \"notes\": %s,\n  \"failures\": %s,\n  \"ok\": %s\n}\n",
           strings(report.notes).c_str(), strings(report.failures).c_str(),
           report.failures.empty() ? "true" : "false");
}

// ---------------------------------------------------------------------------------------------

int Usage() {
    fprintf(stderr,
            "usage: ipc_bench [--runs N] [--rpc-count N] [--stream-count N] [--sizes 64,4000]\n"
            "                 [--placements one,split] [--tests rpc,stream]\n"
            "                 [--programs sable,plain,raw] [--json] [--no-count]\n");
    return 2;
}

bool ParseList(const std::string& text, const std::vector<std::string>& allowed,
               std::vector<std::string>& out) {
    std::vector<std::string> items = Split(text, ',');
    if (items.empty()) return false;
    std::vector<std::string> ordered;
    for (const std::string& a : allowed) {  // the table's own order, duplicates dropped
        if (Has(items, a)) ordered.push_back(a);
    }
    for (const std::string& item : items) {
        if (!Has(allowed, item)) return false;
    }
    out = ordered;
    return true;
}

bool PerfWorks() {
    char path[] = "/tmp/ipc_bench_probe.XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) return false;
    close(fd);
    int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    Child probe;
    probe.pid =
        Spawn({"perf", "stat", "-x", ",", "-e", "raw_syscalls:sys_enter", "-o", path, "--", "true"},
              0, devNull, devNull, devNull, {});
    close(devNull);
    bool ok = probe.pid > 0 && Reap(probe, NowMs() + 30000) && ExitedZero(probe);
    if (probe.pid > 0 && !probe.reaped) KillAndReap(probe);
    double count = ok ? ReadPerfCount(path) : kNaN;
    unlink(path);
    return ok && !std::isnan(count) && count > 0;
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    Config config;
    std::string command;
    for (int i = 0; i < argc; ++i) command += (i ? " " : "") + std::string(argv[i]);
    for (int i = 1; i < argc; ++i) {
        std::string flag = argv[i];
        if (flag == "--json") {
            config.json = true;
            continue;
        }
        if (flag == "--no-count") {
            config.count = false;
            continue;
        }
        if (i + 1 >= argc) return Usage();
        std::string value = argv[++i];
        uint64_t n = 0;
        if (flag == "--runs" && ParseU64(value, n) && n >= 1 && n <= 1000) {
            config.runs = static_cast<int>(n);
        } else if (flag == "--rpc-count" && ParseU64(value, n) && n >= 1) {
            config.rpcCount = n;
        } else if (flag == "--stream-count" && ParseU64(value, n) && n >= 1) {
            config.streamCount = n;
        } else if (flag == "--sizes") {
            config.sizes.clear();
            for (const std::string& s : Split(value, ',')) {
                if (!ParseU64(s, n) || n < 8 || n > 4000) {
                    fprintf(stderr, "ipc_bench: sizes must be 8..4000 bytes\n");
                    return 2;
                }
                config.sizes.push_back(static_cast<uint32_t>(n));
            }
            if (config.sizes.empty()) return Usage();
        } else if (flag == "--placements" &&
                   ParseList(value, {"one", "split"}, config.placements)) {
        } else if (flag == "--tests" && ParseList(value, {"rpc", "stream"}, config.tests)) {
        } else if (flag == "--programs" &&
                   ParseList(value, {"sable", "plain", "raw"}, config.programs)) {
        } else {
            return Usage();
        }
    }

    const std::string dir = SelfDir();
    std::map<std::string, std::string> paths;
    for (const std::string& program : config.programs) {
        paths[program] = dir + "/ipc_" + program;
        if (access(paths[program].c_str(), X_OK) != 0) {
            fprintf(stderr, "ipc_bench: %s not found next to ipc_bench\n", paths[program].c_str());
            return 2;
        }
    }
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    sched_getaffinity(0, sizeof(allowed), &allowed);
    if (!CPU_ISSET(0, &allowed) || (Has(config.placements, "split") && !CPU_ISSET(1, &allowed))) {
        fprintf(stderr, "ipc_bench: CPUs 0 and 1 must be available (split needs both)\n");
        return 2;
    }
    if (mkdir("/dev/shm/nux", 0777) != 0 && errno != EEXIST) {
        fprintf(stderr, "ipc_bench: mkdir /dev/shm/nux: %s\n", strerror(errno));
        return 2;
    }
    if (mkdir(kLibDir, 0777) != 0 && errno != EEXIST) {
        fprintf(stderr, "ipc_bench: mkdir %s: %s\n", kLibDir, strerror(errno));
        return 2;
    }

    Report report;
    report.command = command;
    report.date = Now();
    report.kernel = Kernel();
    report.cpu = CpuModel();
    report.cpus = sysconf(_SC_NPROCESSORS_ONLN);
    report.perfOk = config.count && PerfWorks();
    Runner runner(report.perfOk);

    const size_t total = config.placements.size() * config.tests.size() * config.sizes.size() *
                         config.programs.size() *
                         (static_cast<size_t>(config.runs) + (report.perfOk ? 1 : 0));
    size_t done = 0;
    std::map<std::string, std::vector<std::string>> leftovers;  // program -> files removed
    auto record = [&](Row& row, const RunCase& run, const RunOutcome& o, const std::string& what) {
        Cell& c = row.cells[run.program];
        if (!o.leftovers.empty()) {
            auto& l = leftovers[run.program];
            l.insert(l.end(), o.leftovers.begin(), o.leftovers.end());
        }
        if (o.streamChecked) {
            c.streamTexts.push_back(o.streamText);
            if (!o.streamOk) c.streamOk = false;
        }
        std::string where = run.program + " " + row.placement + " " + row.test + " " +
                            std::to_string(row.size) + " B " + what;
        for (const std::string& e : o.errors) report.failures.push_back(where + ": " + e);
        fprintf(stderr, "[%zu/%zu] %s: %s\n", ++done, total, where.c_str(), o.ok ? "ok" : "FAILED");
    };

    for (const std::string& placement : config.placements) {
        for (const std::string& test : config.tests) {
            for (uint32_t size : config.sizes) {
                Row row;
                row.placement = placement;
                row.test = test;
                row.size = size;
                row.count = test == "rpc" ? config.rpcCount : config.streamCount;
                for (const std::string& program : config.programs) row.cells[program] = Cell();
                for (int round = 1; round <= config.runs; ++round) {
                    for (const std::string& program : config.programs) {
                        RunCase run{program, paths[program], placement, test,
                                    size,    row.count,      false};
                        RunOutcome o = runner.Run(run);
                        Cell& c = row.cells[program];
                        if (o.ok) {
                            c.runsOk++;
                            if (test == "rpc") {
                                c.p50.push_back(o.Get("p50_us"));
                                c.p99.push_back(o.Get("p99_us"));
                                c.mean.push_back(o.Get("mean_us"));
                            } else {
                                c.rps.push_back(o.Get("rps"));
                                c.retries.push_back(o.Get("retries"));
                            }
                            c.cs.push_back(o.csPerOp);
                        } else {
                            c.runsFailed++;
                        }
                        record(row, run, o, "run " + std::to_string(round));
                    }
                }
                if (report.perfOk) {
                    for (const std::string& program : config.programs) {
                        uint64_t n = test == "rpc" ? std::min(config.rpcCount, kCountRpc)
                                                   : std::min(config.streamCount, kCountStream);
                        RunCase run{program, paths[program], placement, test, size, n, true};
                        RunOutcome o = runner.Run(run);
                        Cell& c = row.cells[program];
                        if (!std::isnan(o.sysCaller) && !std::isnan(o.sysPeer)) {
                            c.counted = true;
                            c.sysCaller = o.sysCaller;
                            c.sysPeer = o.sysPeer;
                        }
                        record(row, run, o, "counting run");
                    }
                }
                report.rows.push_back(row);
            }
        }
    }

    for (const auto& entry : leftovers) {
        std::string names;
        for (size_t i = 0; i < entry.second.size() && i < 4; ++i) {
            names += (i ? ", " : "") + entry.second[i];
        }
        report.notes.push_back(entry.first + " left " + std::to_string(entry.second.size()) +
                               " file(s) behind, removed by ipc_bench (" + names +
                               (entry.second.size() > 4 ? ", ..." : "") + ")");
    }
    if (config.json) {
        PrintJson(report, config);
    } else {
        PrintMarkdown(report, config);
    }
    if (!report.failures.empty()) {
        fprintf(stderr, "ipc_bench: %zu failure(s):\n", report.failures.size());
        for (const std::string& f : report.failures) fprintf(stderr, "  %s\n", f.c_str());
        return 1;
    }
    return 0;
}
