#include "env/EnvManager.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <sstream>
#include <set>

#include "base/UniqueFd.h"
#include "base/safe_c.h"
#include "log/NuxSyslog.h"

#ifndef SABLE_HOST_DOMAIN_NAME
#define SABLE_HOST_DOMAIN_NAME "dp"
#endif

extern "C" {
bool nuxPerfFlag = false;
}

namespace {

// Every process name set so far, never changed nor freed (a set keeps its elements in place),
// so that a pointer handed out by ProcName stays valid and its text stable while the name is
// set again; and the present one. A name set again reuses its entry, so the set grows only
// with distinct names.
std::mutex& NamesMutex() {
    static std::mutex* mu = new std::mutex;  // a leaf: taken after the environment mutex
    return *mu;
}
std::set<std::string>& Names() {
    static auto* names = new std::set<std::string>;
    return *names;
}
std::atomic<const char*> procName{""};
std::once_flag procNameOnce;
std::string runMode;  // guarded by EnvManager::Instance()
// Set (once, under the same lock) when runMode is cached: 1 when it is "1", 2 otherwise. A
// cached run mode never changes, so it is read from here without the lock.
std::atomic<int> runModeCached{0};

constexpr const char* kHostDomainName = SABLE_HOST_DOMAIN_NAME;
constexpr int kLibMajorVersion = 1;

// Names of the process managers, kept for the labelling code of the platform.
[[maybe_unused]] const std::string kProcMgrNames[] = {"PROCMGR", "EM", "ELM_PROCMGR", "elm_EM"};

}  // namespace

std::mutex& EnvManager::Instance() {
    // Never destroyed: the logger reads the process name from static destructors.
    static std::mutex* mu = new std::mutex;
    return *mu;
}

const std::string& EnvManager::LibraryPath() {
    static const std::string* path =
        new std::string("/usr/lib64/libnux.so." + std::to_string(kLibMajorVersion));
    return *path;
}

int EnvManager::SetProcName(const std::string& name) {
    // The bounded copy decides, as for a fixed buffer of PROC_NAME_SIZE bytes.
    char copy[PROC_NAME_SIZE] = {0};
    int ret = strcpy_s(copy, sizeof(copy), name.c_str());
    if (ret != 0) {
        copy[0] = '\0';
    }
    copy[PROC_NAME_SIZE - 1] = '\0';
    std::lock_guard<std::mutex> lock(NamesMutex());
    const std::string& kept = *Names().emplace(copy).first;
    procName.store(kept.c_str(), std::memory_order_release);
    return ret;
}

void EnvManager::EnableDefaultProcName() {
    // Read with a close-on-exec descriptor: a thread that execs meanwhile passes nothing on.
    const std::string path = "/proc/" + std::to_string(getpid()) + "/comm";
    sable::UniqueFd comm(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!comm.Valid()) {
        return;
    }
    char text[64] = {0};
    ssize_t n = read(comm.Get(), text, sizeof(text) - 1);
    if (n <= 0) {
        return;
    }
    // The first word, as the kernel's name ends with a newline.
    std::istringstream in(std::string(text, static_cast<size_t>(n)));
    std::string word;
    in >> word;
    if (word.size() >= 17) {
        return;
    }
    SetProcName(word == "process-manager" ? "PROCMGR" : word);
}

const char* EnvManager::ProcName() {
    std::call_once(procNameOnce, [] {
        std::lock_guard<std::mutex> lock(Instance());
        if (*procName.load(std::memory_order_acquire) != '\0') {
            return;
        }
        const char* env = getenv("PROC_NAME");
        if (env != nullptr) {
            SetProcName(env);
        } else {
            EnableDefaultProcName();
        }
    });
    return procName.load(std::memory_order_acquire);
}

int EnvManager::HostName() {
    if (strcmp(kHostDomainName, "dp") == 0) {
        return 1;
    }
    return strcmp(kHostDomainName, "elm") == 0 ? 2 : 1;
}

std::string EnvManager::GetLocalDomainName() {
    return std::string(kHostDomainName) + ":";
}

std::string EnvManager::FifoPrefix() {
    return "/dev/shm/nux/sable_comm/";
}

std::string EnvManager::ElmFifoDirPrefix() {
    return "/local";
}

int EnvManager::CheckNuxlibPath(const std::string& path) {
    if (path.size() > 4096) {
        return -ENAMETOOLONG;
    }
    return path.find(LibraryPath()) != std::string::npos ? 0 : -EINVAL;
}

int EnvManager::SetEnv(const std::string& name, const std::string& value) {
    // The C library reads TZ (getenv) at the first local-time conversion of the process, which
    // the logger makes on any thread, without a lock that setenv respects: it is read before
    // the environment changes, so that no conversion looks at it meanwhile.
    sable::LoadTimeZoneOnce();
    unsetenv(name.c_str());
    if (setenv(name.c_str(), value.c_str(), 0) == -1) {
        return -errno;
    }
    if (name == "PROC_NAME") {
        SetProcName(value);
    }
    return 0;
}

int EnvManager::UpdateLdPreload() {
    const char* env = getenv("LD_PRELOAD");
    std::string current = env != nullptr ? env : "";
    if (current.find(LibraryPath()) != std::string::npos) {
        return 0;
    }
    std::string lib = LibraryPath();
    const char* custom = getenv("NUX_LIB_PATH");
    if (custom != nullptr) {
        lib = custom;
        int ret = CheckNuxlibPath(lib);
        if (ret != 0) {
            return ret;
        }
    }
    return SetEnv("LD_PRELOAD", lib + " " + current);
}

int EnvManager::EnvInit(const std::string& name) {
    std::lock_guard<std::mutex> lock(Instance());
    int ret = SetEnv("PROC_NAME", name);
    if (ret == 0) {
        ret = SetEnv("NUX_STATUS", "READY");
    }
    if (ret == 0) {
        ret = UpdateLdPreload();
    }
    return ret;
}

bool EnvManager::CheckEnvPreparation() {
    std::lock_guard<std::mutex> lock(Instance());
    if (getenv("PROC_NAME") == nullptr) {
        return false;
    }
    if (getenv("NUX_STATUS") != nullptr) {
        return true;
    }
    const char* preload = getenv("LD_PRELOAD");
    return preload != nullptr && strstr(preload, LibraryPath().c_str()) != nullptr;
}

size_t EnvManager::GetWorkerStackKb() {
    std::lock_guard<std::mutex> lock(Instance());
    const char* env = getenv("SABLE_WORKER_STACK_KB");
    if (env == nullptr || *env == '\0') {
        return 0;
    }
    char* end = nullptr;
    unsigned long long kb = strtoull(env, &end, 10);
    return (*end == '\0' && env[0] != '-') ? static_cast<size_t>(kb) : 0;
}

std::string EnvManager::GetRunMode() {
    std::lock_guard<std::mutex> lock(Instance());
    if (runMode.empty()) {
        const char* env = getenv("DATAGLEN_RUN_MODE");
        if (env != nullptr) {
            runMode = env;
            if (!runMode.empty()) {
                runModeCached.store(runMode == "1" ? 1 : 2, std::memory_order_release);
            }
        }
    }
    return runMode;
}

bool EnvManager::LongRunMode() {
    const int cached = runModeCached.load(std::memory_order_acquire);
    if (cached != 0) {
        return cached == 1;
    }
    return GetRunMode() == "1";  // not cached yet: looked up (and cached once it is set)
}
