#include "api/nux_check.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>

#include "log/NuxSyslog.h"

int CheckInputName(const char* name, size_t len, size_t maxLen) {
    if (name == nullptr) {
        LOGE("The input parameter target process-name is NULL.\n");
        return -EINVAL;
    }
    if (len == 0) {
        LOGE("Length of process name is invalid, value=0, range(0, %zu]\n", maxLen);
        return -EINVAL;
    }
    if (len > maxLen) {
        LOGE("Length of process name is invalid, value=%zu, range(0, %zu]\n", len, maxLen);
        return -EINVAL;
    }
    size_t trueLen = strlen(name);
    if (trueLen != len) {
        LOGE(
            "Length of process name(value=%zu) is not equal to the length of target "
            "process(value=%zu)\n",
            len, trueLen);
        return -EINVAL;
    }
    return 0;
}

int TransferToRealPath(std::string& path) {
    char resolved[PATH_MAX + 1];
    memset(resolved, 0, sizeof(resolved));
    if (realpath(path.c_str(), resolved) == nullptr) {
        int savedErrno = errno;
        return savedErrno < 0 ? savedErrno : -savedErrno;
    }
    size_t len = strnlen(resolved, PATH_MAX);
    if (len == 0) {
        return -EINVAL;
    }
    if (len >= PATH_MAX) {
        return -ENAMETOOLONG;
    }
    path.assign(resolved, len);
    return 0;
}

namespace {

constexpr size_t kChunk = 1023;

void CloseConfig(int fd) {
    int ret = close(fd);
    if (ret != 0) {
        SABLE_LOG_TYPE(LOG_NUX, LOG_ERR, "Close Config file fail: ret=%d.\n", ret);
    }
}

}  // namespace

int LoadFile(const std::string& path, std::stringstream& out) {
    std::string resolved = path;
    int ret = TransferToRealPath(resolved);
    if (ret != 0) {
        SABLE_LOG_TYPE(LOG_NUX, LOG_ERR, "Transfer RealPath fail err=%d.\n", ret);
        return ret;
    }
    int fd = open(resolved.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        SABLE_LOG_TYPE(LOG_NUX, LOG_ERR, "Open Config file %s failed.\n", resolved.c_str());
        return -1;
    }
    char buf[kChunk + 1];
    memset(buf, 0, sizeof(buf));
    ssize_t n = read(fd, buf, kChunk);
    if (n < 1) {
        SABLE_LOG_TYPE(LOG_NUX, LOG_ERR, "Read Config file fail: ret=%d, errno=%d.\n",
                       static_cast<int>(n), errno);
        CloseConfig(fd);
        return -1;
    }
    while (n > 0) {
        buf[n] = '\0';
        out << buf;  // as a C string: the chunk ends at its first NUL
        n = read(fd, buf, kChunk);
        if (n < 0) {
            SABLE_LOG_TYPE(LOG_NUX, LOG_ERR, "Read Config file fail: ret=%d.\n",
                           static_cast<int>(n));
            CloseConfig(fd);
            return -1;
        }
    }
    CloseConfig(fd);
    return 0;
}
