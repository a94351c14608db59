#include "fifo/nux_fifo.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "base/UniqueFd.h"
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

void LabelSingleDomain(const std::string& tmp, const char* target, int pid,
                       const std::string& targetCon) {
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
        ret = AuthSetFileCon(target, pipeContext);
        if (ret != 0) {
            LOGE("[single domain] The ret of restorecon for file %s is %d, pipeContext is %s\n",
                 tmp.c_str(), ret, pipeContext);
        }
        AuthFreeCon(pipeContext);
        return;
    }
    int ret = AuthSetFileCon(target, targetCon.c_str());
    if (ret != 0) {
        LOGE("[single domain] The ret of restorecon for file %s is %d, targetCon is %s\n",
             tmp.c_str(), ret, targetCon.c_str());
    }
}

void LabelCrossDomain(const std::string& tmp, const char* target, SabloDomain domain,
                      const std::string& targetCon) {
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
        int ret = AuthSelinuxSetFileCon(target, targetCon.c_str());
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
    ret = AuthSelinuxSetFileCon(target, converted);
    if (ret != 0) {
        LOGE(
            "[cross domain] The ret of restorecon for file %s is %d. curHostName is %d, "
            "context is %s\n",
            tmp.c_str(), ret, host, converted);
    }
    AuthProxyFree(converted);
}

// Never fails the creation: an unlabelled FIFO is still usable by peers of this domain. `tmp`
// names the file in the lines; the label goes through `fd`, the descriptor of the very file this
// process made (its /proc/self/fd entry leads to that file whatever now stands at the name).
void LabelFifo(const std::string& tmp, int fd, int pid, SabloDomain domain,
               const std::string& targetCon) {
    const std::string target = "/proc/self/fd/" + std::to_string(fd);
    if (domain == SABLO_DOMAIN_NONE || domain == EnvManager::HostName()) {
        LabelSingleDomain(tmp, target.c_str(), pid, targetCon);
    } else {
        LabelCrossDomain(tmp, target.c_str(), domain, targetCon);
    }
}

// `path` as its directory (with the final slash) and its last component; trailing slashes
// belong to the last component's name, so a directory given as "dir/" is "dir" in its parent.
void SplitPath(const std::string& path, std::string& dir, std::string& base) {
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') {
        trimmed.pop_back();
    }
    size_t slash = trimmed.rfind('/');
    if (slash == std::string::npos) {
        dir = "./";
        base = trimmed;
        return;
    }
    dir = trimmed.substr(0, slash + 1);
    base = trimmed.substr(slash + 1);
}

// The directory that holds the FIFOs, opened as a real directory: a symbolic link (or anything
// else) at its last step is refused (-ELOOP, -ENOTDIR). Every later step names files relative to
// this descriptor, so the directory cannot be swapped under a creation or an open either.
int OpenFifoDir(const std::string& dir) {
    std::string trimmed = dir;
    while (trimmed.size() > 1 && trimmed.back() == '/') {
        trimmed.pop_back();  // a trailing slash would make open follow a link
    }
    int fd = open(trimmed.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    return fd < 0 ? -errno : fd;
}

// access(F_OK) that does not follow a symbolic link: a dangling link at the FIFO name counts as
// something standing there, or it would make every later link of the name fail with EEXIST.
bool Exists(int dirFd, const std::string& base) {
    return faccessat(dirFd, base.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

void LogNotFifo(const std::string& path, const struct stat& st) {
    LOGE("File %s(mode=%u) exists but is not fifo file.\n", path.c_str(),
         static_cast<unsigned>(st.st_mode));
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
    // Only a FIFO in a real directory is ever opened: the directory without following a link,
    // the file without following one either (O_NOFOLLOW), and the opened descriptor checked
    // once more, since the name may be swapped between the look and the open.
    std::string dir;
    std::string base;
    SplitPath(path, dir, base);
    sable::UniqueFd dirFd(OpenFifoDir(dir));
    if (!dirFd.Valid()) {
        LOGE("Open fifo %s fail, fd=%d, errno=%d.\n", path.c_str(), -1, -dirFd.Get());
        return dirFd.Get();
    }
    struct stat st {};
    if (fstatat(dirFd.Get(), base.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        int ret = -errno;
        LOGE("Transfer real path fail, path name=%s, ret=%d.\n", path.c_str(), ret);
        return ret;
    }
    if (!S_ISFIFO(st.st_mode)) {
        LogNotFifo(path, st);
        return -EACCES;
    }
    // A blocking FIFO open waits for the other end, possibly for good: let the owner cancel it
    // even from a thread that otherwise runs with cancellation disabled.
    int oldState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &oldState);
    int fd = openat(dirFd.Get(), base.c_str(), oflag | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    int savedErrno = errno;
    pthread_setcancelstate(oldState, nullptr);
    if (fd < 0) {
        // ENXIO: a non-blocking write open while nobody reads yet; the caller simply retries.
        if (savedErrno != ENXIO) {
            LOGE("Open fifo %s fail, fd=%d, errno=%d.\n", path.c_str(), fd, savedErrno);
        }
        return -savedErrno;
    }
    if (fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) {
        LogNotFifo(path, st);
        close(fd);
        return -EACCES;
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

namespace {

// Makes the temporary FIFO of `base` in `dirFd` and gives it its mode, group and label through
// its own descriptor, so that a link or file swapped in under the temporary name is never
// touched. Returns 0 with the temporary name, or -errno (logged; no temporary name left
// behind).
int MakeTempFifo(int dirFd, const std::string& dir, const std::string& base, unsigned int gid,
                 int pid, SabloDomain domain, const std::string& targetCon, std::string& tmpBase) {
    const std::string path = dir + base;
    for (;;) {
        if (!TempNameFor(base, tmpBase)) {
            LOGE("Make fifo %s failed, ret=%d.\n", path.c_str(), -EINVAL);
            return -EINVAL;
        }
        if (mkfifoat(dirFd, tmpBase.c_str(), FIFO_MODE) == 0) {
            break;
        }
        int savedErrno = errno;
        if (savedErrno == EEXIST) {
            continue;  // same nanosecond as another creator: draw again
        }
        LOGE("Make fifo %s failed, ret=%d.\n", (dir + tmpBase).c_str(), -savedErrno);
        LOGE("Make fifo %s failed, ret=%d.\n", path.c_str(), -savedErrno);
        return -savedErrno;
    }
    const std::string tmp = dir + tmpBase;
    // Read side, non-blocking: opening does not wait, and nobody can write to the FIFO before
    // it is published. Closed again before the publication, so no peer ever takes this
    // descriptor for a reader of the final name.
    sable::UniqueFd fd(
        openat(dirFd, tmpBase.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
    // What was opened must be the FIFO just made: this process's, and not a hard link to
    // someone else's file.
    struct stat made {};
    if (!fd.Valid() || fstat(fd.Get(), &made) != 0 || !S_ISFIFO(made.st_mode) ||
        made.st_nlink != 1 || made.st_uid != geteuid()) {
        int ret = fd.Valid() ? -EACCES : -errno;
        unlinkat(dirFd, tmpBase.c_str(), 0);
        LOGE("Make fifo %s failed, ret=%d.\n", tmp.c_str(), ret);
        LOGE("Make fifo %s failed, ret=%d.\n", path.c_str(), ret);
        return ret;
    }
    if (!IsElmDomainPipe(domain)) {
        // mkfifo applied the umask; the peer's group needs read and write.
        if (fchmod(fd.Get(), FIFO_MODE) != 0) {
            int savedErrno = errno;
            LOGE("Change the mode of fifo %s failed, ret=%d.\n", tmp.c_str(), -savedErrno);
            unlinkat(dirFd, tmpBase.c_str(), 0);
            LOGE("Set fifo permission failed fifo=%s, ret=%d.\n", path.c_str(), -savedErrno);
            return -savedErrno;
        }
        // Only the owner or a privileged process may change the group; the FIFO still works
        // for processes of the creator's own group.
        if (fchown(fd.Get(), static_cast<uid_t>(-1), static_cast<gid_t>(gid)) != 0) {
            LOGI("Changes fifo %s's gid to %u, ret=%d.\n", tmp.c_str(), gid, errno);
        }
    }
    LabelFifo(tmp, fd.Get(), pid, domain, targetCon);
    return 0;
}

}  // namespace

int CreateFifo(const std::string& path, unsigned int gid, int pid, SabloDomain domain,
               const std::string& targetCon) {
    std::string dir;
    std::string base;
    SplitPath(path, dir, base);
    sable::UniqueFd dirFd(OpenFifoDir(dir));
    if (!dirFd.Valid()) {
        LOGE("Make fifo %s failed, ret=%d.\n", path.c_str(), dirFd.Get());
        return dirFd.Get();
    }
    // Whatever stands at the name goes, whatever it is: the name is ours to (re)create. (A link
    // is removed itself; nothing it points at is touched.)
    if (Exists(dirFd.Get(), base)) {
        unlinkat(dirFd.Get(), base.c_str(), 0);
    }

    std::string tmpBase;
    int ret = MakeTempFifo(dirFd.Get(), dir, base, gid, pid, domain, targetCon, tmpBase);
    if (ret != 0) {
        return ret;
    }
    const std::string tmp = dir + tmpBase;

    int result = 0;
    if (linkat(dirFd.Get(), tmpBase.c_str(), dirFd.Get(), base.c_str(), 0) == 0) {
        unlinkat(dirFd.Get(), tmpBase.c_str(), 0);
        LOGI("Create fifo success, file name=%s.\n", path.c_str());
    } else {
        int savedErrno = errno;
        unlinkat(dirFd.Get(), tmpBase.c_str(), 0);
        if (savedErrno == EEXIST) {
            result = AcceptExisting(path);
        } else {
            result = -savedErrno;
            LOGE("Link fifo %s to %s failed, ret=%d.\n", tmp.c_str(), path.c_str(), result);
        }
    }
    if (result != 0) {
        // Do not leave a planted object where peers will look for the FIFO.
        if (Exists(dirFd.Get(), base)) {
            unlinkat(dirFd.Get(), base.c_str(), 0);
        }
        LOGE("Link tmp fifo to real fifo failed tmpfifo=%s, realfifo=%s ret=%d.\n", tmp.c_str(),
             path.c_str(), result);
        return result;
    }

    if (!IsElmDomainPipe(domain)) {
        // Again on the final name: an existing FIFO accepted above was made by another creator.
        // Never through a link (AcceptExisting refused one; one swapped in since is left alone).
        if (fchownat(dirFd.Get(), base.c_str(), static_cast<uid_t>(-1), static_cast<gid_t>(gid),
                     AT_SYMLINK_NOFOLLOW) != 0) {
            LOGI("Changes fifo %s's gid to %u, ret=%d.\n", tmp.c_str(), gid, errno);
        }
    }
    return 0;
}
