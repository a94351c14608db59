#include "TestEnv.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <thread>
#include <utility>

#include "sable_comm.h"

namespace sable_test {

std::string EnsureFifoDir() {
    const std::string dir = "/dev/shm/nux/sable_comm/";
    mkdir("/dev/shm/nux", 0777);
    mkdir(dir.c_str(), 0777);
    return dir;
}

std::string UniqueName(const std::string& prefix) {
    static std::atomic<int> counter{0};
    return prefix + "_" + std::to_string(getpid()) + "_" + std::to_string(counter++);
}

std::set<int> OpenFds() {
    std::set<int> fds;
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr) return fds;
    int self = dirfd(d);
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        int fd = atoi(e->d_name);
        if (fd != self) fds.insert(fd);
    }
    closedir(d);
    return fds;
}

std::set<std::string> FifoFilesWith(const std::string& needle) {
    std::set<std::string> names;
    DIR* d = opendir(EnsureFifoDir().c_str());
    if (d == nullptr) return names;
    while (dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n.find(needle) != std::string::npos) names.insert(n);
    }
    closedir(d);
    return names;
}

bool WaitUntil(const std::function<bool()>& pred, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::string TestBinDir() {
#ifdef SABLE_TEST_BIN_DIR
    return SABLE_TEST_BIN_DIR;
#else
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0) return ".";
    std::string exe(buf, static_cast<size_t>(n));
    return exe.substr(0, exe.rfind('/'));
#endif
}

bool FinishServerWithin(int ms) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    std::thread([done] {
        SabloCfgFinishServer();
        done->set_value();
    }).detach();
    return finished.wait_for(std::chrono::milliseconds(ms)) == std::future_status::ready;
}

int OpenPipe(const std::string& self, const std::string& target, SabloMode mode, int timeoutMs,
             SabloCallback callback, SabloPriority priority) {
    SabloAttr attr;
    attr.selfName = self.c_str();
    attr.targetName = target.c_str();
    attr.mode = mode;
    attr.timeout = timeoutMs;
    attr.priority = priority;
    attr.callback = std::move(callback);
    return SabloOpen(&attr);
}

}  // namespace sable_test
