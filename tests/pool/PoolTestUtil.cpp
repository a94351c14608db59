#include "PoolTestUtil.h"

#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace pool_test {

std::string RunInChild(
    const std::function<void(const std::function<void(const std::string&)>&)>& body) {
    int fds[2];
    if (pipe(fds) != 0) {
        return "pipe failed";
    }
    pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        return "fork failed";
    }
    if (pid == 0) {
        close(fds[0]);
        int out = fds[1];
        body([out](const std::string& text) {
            ssize_t ignored = write(out, text.data(), text.size());
            (void)ignored;
        });
        close(out);
        _exit(0);
    }
    close(fds[1]);
    std::string report;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(WAIT_MS);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0) {
            report += "child timed out";
            kill(pid, SIGKILL);
            break;
        }
        struct pollfd pfd = {fds[0], POLLIN, 0};
        if (poll(&pfd, 1, static_cast<int>(left)) <= 0) {
            continue;
        }
        char buf[256];
        ssize_t n = read(fds[0], buf, sizeof(buf));
        if (n <= 0) {
            break;
        }
        report.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        report += " child ended abnormally";
    }
    return report;
}

bool DropRealtimeRights() {
    struct rlimit none = {0, 0};
    if (setrlimit(RLIMIT_RTPRIO, &none) != 0) {
        return false;
    }
    if (geteuid() == 0) {
        // An unprivileged user id clears the effective capabilities (CAP_SYS_NICE among them).
        const uid_t nobody = 65534;
        if (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace pool_test
