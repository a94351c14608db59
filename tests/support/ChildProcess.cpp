#include "ChildProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "TestEnv.h"

namespace sable_test {

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::vector<std::string>& env) {
    std::string path =
        program.find('/') == std::string::npos ? TestBinDir() + "/" + program : program;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2: " << strerror(errno);
        return;
    }
    pid_t parent = getpid();
    pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        close(fds[0]);
        int wfd = dup(fds[1]);  // without close-on-exec
        setenv("SABLE_TEST_HANDSHAKE_FD", std::to_string(wfd).c_str(), 1);
        for (const auto& kv : env) {
            auto eq = kv.find('=');
            if (eq != std::string::npos) {
                setenv(kv.substr(0, eq).c_str(), kv.substr(eq + 1).c_str(), 1);
            }
        }
        std::vector<char*> argv;
        // Under user-mode emulation a peer program of the test build cannot be exec'd
        // directly: the emulator runs it.
        const char* emulator = getenv("SABLE_TEST_EMULATOR");
        if (emulator != nullptr && *emulator != '\0' && program.find('/') == std::string::npos) {
            argv.push_back(const_cast<char*>(emulator));
        }
        argv.push_back(const_cast<char*>(path.c_str()));
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(fds[1]);
    handshakeFd = fds[0];
    if (pid < 0) {
        ADD_FAILURE() << "fork: " << strerror(errno);
    }
}

ChildProcess::~ChildProcess() {
    if (pid > 0 && !reaped) {
        int code = Wait(20000);
        if (!reaped) {
            Kill(SIGKILL);
            code = Wait(5000);
            ADD_FAILURE() << "child " << pid << " did not exit in time";
        } else {
            EXPECT_EQ(code, expectedExit) << "child " << pid << " exit status";
        }
    } else if (reaped) {
        EXPECT_EQ(exitStatus, expectedExit) << "child " << pid << " exit status";
    }
    if (handshakeFd >= 0) close(handshakeFd);
}

std::string ChildProcess::ReadLine(int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (true) {
        auto nl = pending.find('\n');
        if (nl != std::string::npos) {
            std::string line = pending.substr(0, nl);
            pending.erase(0, nl + 1);
            return line;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0 || handshakeFd < 0) return "";
        pollfd p{handshakeFd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
        char buf[256];
        ssize_t n = read(handshakeFd, buf, sizeof(buf));
        if (n <= 0) return "";
        pending.append(buf, static_cast<size_t>(n));
    }
}

int ChildProcess::Wait(int timeoutMs) {
    if (reaped) return exitStatus;
    if (pid <= 0) return -1;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (true) {
        int status = 0;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) {
            reaped = true;
            exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return exitStatus;
        }
        if (r < 0 || std::chrono::steady_clock::now() > deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void ChildProcess::Kill(int sig) {
    if (pid > 0 && !reaped) kill(pid, sig);
}

void SignalReady(const std::string& line) {
    const char* env = getenv("SABLE_TEST_HANDSHAKE_FD");
    if (env == nullptr) return;
    std::string out = line + "\n";
    ssize_t n = write(atoi(env), out.data(), out.size());
    (void)n;
}

}  // namespace sable_test
