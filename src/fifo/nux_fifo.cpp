#include "fifo/nux_fifo.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "api/nux_check.h"
#include "api/sable_comm_internal.h"
#include "base/safe_c.h"
#include "env/EnvManager.h"
#include "fifo/check_file_attr.h"
#include "fifo/nux_auth.h"
#include "log/NuxSyslog.h"

namespace {

constexpr size_t kClockDigits = 32;

const std::string& FileContextsDir() {
    static const std::string dir = std::string("/etc/selinux/") + "targeted" + "/contexts/files/";
    return dir;
}

// A name beside `path` (so the final link stays on one file system) that no other creator is
// likely to draw at the same moment; a collision shows as EEXIST and draws again.
bool TempNameFor(const std::string& path, std::string& tmp) {
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    char digits[kClockDigits + 1] = {0};
    if (sable::SnprintfCount(digits, sizeof(digits), kClockDigits, "%ld",
                             static_cast<long>(ts.tv_nsec)) < 0) {
        return false;
    }
    tmp = path + digits;
    return true;
}

void LabelSingleDomain(const std::string& tmp, int pid, const std::string& targetCon) {
    LOGI("nux_fifo: single domain restore context.\n");
    LOGI(
        "[single domain] resorecon, access contexts for %s, curHostName is %d, pid is %d, "
        "context is %s.\n",
        tmp.c_str(), EnvManager::HostName(), pid, targetCon.c_str());
    LOGI("[single domain] TryResorecon enter, inName=%s, targetPid=%d. targetCon=%s\n", tmp.c_str(),
         pid, targetCon.c_str());
    if (IsAuthEnabled() <= 0) {
        LOGI("[single domain] Auth is disabled.\n");
        return;
    }
    if (pid < 0 && targetCon.empty()) {
        LOGW("[single domain] No need SetFileCon, inName=%s, targetPid=%d. targetCon=%s\n",
             tmp.c_str(), pid, targetCon.c_str());
        return;
    }
    if (CanAccessFileContexts() != 0) {
        LOGW(
            "[single domain] Can not access contexts for %s, maybe auth policy is installed "
            "wrong.\n",
            tmp.c_str());
        return;
    }
    if (targetCon.empty()) {
        // Label the FIFO like the peer process itself, so that a confined peer may open it.
        char* pipeContext = nullptr;
        int ret = AuthGetPidCon(pid, &pipeContext);
        if (ret < 0 || pipeContext == nullptr) {
            LOGE("[single domain] Get pid context failed, inName=%s, targetPid=%d.\n", tmp.c_str(),
                 pid);
            return;
        }
        ret = AuthSetFileCon(tmp.c_str(), pipeContext);
        if (ret != 0) {
            LOGE("[single domain] The ret of restorecon for file %s is %d, pipeContext is %s\n",
                 tmp.c_str(), ret, pipeContext);
        }
        AuthFreeCon(pipeContext);
        return;
    }
    int ret = AuthSetFileCon(tmp.c_str(), targetCon.c_str());
    if (ret != 0) {
        LOGE("[single domain] The ret of restorecon for file %s is %d, targetCon is %s\n",
             tmp.c_str(), ret, targetCon.c_str());
    }
}

void LabelCrossDomain(const std::string& tmp, SabloDomain domain, const std::string& targetCon) {
    int host = EnvManager::HostName();
    LOGI("nux_fifo: cross domain restore context.\n");
    LOGI(
        "[cross domain] TryResorecon, access contexts for %s, curHostName is %d, targetCon is "
        "%s\n",
        tmp.c_str(), host, targetCon.c_str());
    if (targetCon.empty()) {
        LOGI("[cross domain] targetCon is empty, inName is %s.\n", tmp.c_str());
        return;
    }
    if (IsAuthEnabled() <= 0) {
        LOGI("[cross domain] auth is disabled, inName is %s.\n", tmp.c_str());
        return;
    }
    if (CanAccessFileContexts() != 0) {
        LOGW("[cross domain] Auth Can not access contexts for %s. curHostName is %d\n", tmp.c_str(),
             host);
        return;
    }
    if (host == SABLO_DOMAIN_ELM) {
        // The Elm host's policy speaks full contexts already.
        int ret = AuthSelinuxSetFileCon(tmp.c_str(), targetCon.c_str());
        if (ret != 0) {
            LOGE(
                "[cross domain] The ret of restorecon for file %s is %d. domain is %d, "
                "targetCon is %s\n",
                tmp.c_str(), ret, static_cast<int>(domain), targetCon.c_str());
        }
        return;
    }
    // Elsewhere the peer names only its type; make the full context from it.
    char* converted = nullptr;
    int ret = GetSelinuxConByCmacCon(targetCon.c_str(), &converted);
    if (ret < 0 || converted == nullptr) {
        LOGE("Convert context failed!\n");
        return;
    }
    LOGI("[cross domain] targetCon convert result is %s", converted);
    ret = AuthSelinuxSetFileCon(tmp.c_str(), converted);
    if (ret != 0) {
        LOGE(
            "[cross domain] The ret of restorecon for file %s is %d. curHostName is %d, "
            "context is %s\n",
            tmp.c_str(), ret, host, converted);
    }
    AuthProxyFree(converted);
}

// Never fails the creation: an unlabelled FIFO is still usable by peers of this domain.
void LabelFifo(const std::string& tmp, int pid, SabloDomain domain, const std::string& targetCon) {
    if (domain == SABLO_DOMAIN_NONE || domain == EnvManager::HostName()) {
        LabelSingleDomain(tmp, pid, targetCon);
    } else {
        LabelCrossDomain(tmp, domain, targetCon);
    }
}

// access(F_OK) that does not follow a symbolic link: a dangling link at the FIFO name counts as
// something standing there, or it would make every later link of the name fail with EEXIST.
bool Exists(const std::string& path) {
    return faccessat(AT_FDCWD, path.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

// Result of publishing `tmp` under `path` when link said EEXIST: another creator won the race,
// which is fine as long as what it left there is a real FIFO.
int AcceptExisting(const std::string& path) {
    if (IsFifoFile(path) != 0) {
        LOGE("Existing file %s is not fifo file.\n", path.c_str());
        return -EACCES;
    }
    if (IsLink(path) != 0) {
        LOGE("Fifo file %s is a symbolic link.\n", path.c_str());
        return -EINVAL;
    }
    LOGI("Fifo file %s already exists.\n", path.c_str());
    return 0;
}

}  // namespace

int IsFifoFile(const std::string& path) {
    struct stat st;
    int ret = GetFileState(path, st);
    if (ret != 0) {
        LOGE("Get file %s state failed, ret=%d.\n", path.c_str(), ret);
        return ret;
    }
    if (!S_ISFIFO(st.st_mode)) {
        LOGE("File %s(mode=%u) exists but is not fifo file.\n", path.c_str(),
             static_cast<unsigned>(st.st_mode));
        return -EACCES;
    }
    return 0;
}

int CanAccessFileContexts() {
    struct stat st;
    int ret = GetFileState(FileContextsDir(), st);
    if (ret != 0) {
        return ret;
    }
    constexpr mode_t kReadableByAll = S_IRUSR | S_IRGRP | S_IROTH;
    if ((st.st_mode & kReadableByAll) != kReadableByAll) {
        return -EACCES;
    }
    return 0;
}

int OpenFifo(const std::string& path, int oflag) {
    std::string resolved = path;
    int ret = TransferToRealPath(resolved);
    if (ret != 0) {
        LOGE("Transfer real path fail, path name=%s, ret=%d.\n", path.c_str(), ret);
        return ret;
    }
    // A blocking FIFO open waits for the other end, possibly for good: let the owner cancel it
    // even from a thread that otherwise runs with cancellation disabled.
    int oldState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &oldState);
    int fd = open(resolved.c_str(), oflag, FIFO_MODE);
    int savedErrno = errno;
    pthread_setcancelstate(oldState, nullptr);
    if (fd < 0) {
        // ENXIO: a non-blocking write open while nobody reads yet; the caller simply retries.
        if (savedErrno != ENXIO) {
            LOGE("Open fifo %s fail, fd=%d, errno=%d.\n", path.c_str(), fd, savedErrno);
        }
        return -savedErrno;
    }
    return fd;
}

int AddFdToEpoll(int epollFd, int fd, int data, unsigned int events) {
    struct epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.events = events;
    ev.data.fd = data;
    int ret = epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &ev);
    if (ret != 0) {
        int savedErrno = errno;
        LOGE("Insert fd=%d to epoll-fd=%d failed, ret=%d, errno=%d.\n", fd, epollFd, ret,
             -savedErrno);
        return -savedErrno;
    }
    LOGI("Insert to epoll fd(%d) success: fd = %d, ret = %d.\n", epollFd, fd, ret);
    return 0;
}

int RemoveFdFromEpoll(int epollFd, int fd) {
    int ret = epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, nullptr);
    if (ret != 0) {
        int savedErrno = errno;
        LOGE("Remove fd=%d from epoll-fd=%d failed, ret=%d, errno=%d.\n", fd, epollFd, ret,
             -savedErrno);
        return -savedErrno;
    }
    LOGI("Remove fd success. epoll_fd = %d, fd = %d, ret = %d.\n", epollFd, fd, ret);
    return 0;
}

int CreateFifo(const std::string& path, unsigned int gid, int pid, SabloDomain domain,
               const std::string& targetCon) {
    // Whatever stands at the name goes, whatever it is: the name is ours to (re)create.
    if (Exists(path)) {
        unlink(path.c_str());
    }

    std::string tmp;
    for (;;) {
        if (!TempNameFor(path, tmp)) {
            LOGE("Make fifo %s failed, ret=%d.\n", path.c_str(), -EINVAL);
            return -EINVAL;
        }
        if (mkfifo(tmp.c_str(), FIFO_MODE) == 0) {
            break;
        }
        int savedErrno = errno;
        if (savedErrno == EEXIST) {
            continue;  // same nanosecond as another creator: draw again
        }
        LOGE("Make fifo %s failed, ret=%d.\n", tmp.c_str(), -savedErrno);
        LOGE("Make fifo %s failed, ret=%d.\n", path.c_str(), -savedErrno);
        return -savedErrno;
    }

    bool elmPipe = IsElmDomainPipe(domain);
    if (!elmPipe) {
        // mkfifo applied the umask; the peer's group needs read and write.
        if (chmod(tmp.c_str(), FIFO_MODE) != 0) {
            int savedErrno = errno;
            LOGE("Change the mode of fifo %s failed, ret=%d.\n", tmp.c_str(), -savedErrno);
            unlink(tmp.c_str());
            LOGE("Set fifo permission failed fifo=%s, ret=%d.\n", path.c_str(), -savedErrno);
            return -savedErrno;
        }
        // Only the owner or a privileged process may change the group; the FIFO still works
        // for processes of the creator's own group.
        if (chown(tmp.c_str(), static_cast<uid_t>(-1), static_cast<gid_t>(gid)) != 0) {
            LOGI("Changes fifo %s's gid to %u, ret=%d.\n", tmp.c_str(), gid, errno);
        }
    }

    LabelFifo(tmp, pid, domain, targetCon);

    int result = 0;
    if (link(tmp.c_str(), path.c_str()) == 0) {
        unlink(tmp.c_str());
        LOGI("Create fifo success, file name=%s.\n", path.c_str());
    } else {
        int savedErrno = errno;
        unlink(tmp.c_str());
        if (savedErrno == EEXIST) {
            result = AcceptExisting(path);
        } else {
            result = -savedErrno;
            LOGE("Link fifo %s to %s failed, ret=%d.\n", tmp.c_str(), path.c_str(), result);
        }
        if (result != 0) {
            // Do not leave a planted object where peers will look for the FIFO.
            if (Exists(path)) {
                unlink(path.c_str());
            }
            LOGE("Link tmp fifo to real fifo failed tmpfifo=%s, realfifo=%s ret=%d.\n", tmp.c_str(),
                 path.c_str(), result);
            return result;
        }
    }

    if (!elmPipe) {
        // Again on the final name: an existing FIFO accepted above was made by another creator.
        if (chown(path.c_str(), static_cast<uid_t>(-1), static_cast<gid_t>(gid)) != 0) {
            LOGI("Changes fifo %s's gid to %u, ret=%d.\n", tmp.c_str(), gid, errno);
        }
    }
    return 0;
}
