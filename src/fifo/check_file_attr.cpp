#include "fifo/check_file_attr.h"

#include <errno.h>

#include "base/safe_c.h"
#include "log/NuxSyslog.h"

int GetFileState(const std::string& path, struct stat& st) {
    errno_t ret = memset_s(&st, sizeof(st), 0, sizeof(st));
    if (ret != 0) {
        LOGE("Function memset_s failed, ret=%d.\n", ret);
        return -ret;
    }
    // lstat: a link planted at a FIFO path must be seen as the link, never as its target.
    if (lstat(path.c_str(), &st) != 0) {
        return -errno;
    }
    return 0;
}

int IsLink(const std::string& path) {
    struct stat st;
    int ret = GetFileState(path, st);
    if (ret != 0) {
        LOGE("Get the state of file %s failed, ret=%d.\n", path.c_str(), ret);
        return ret;
    }
    if (S_ISLNK(st.st_mode)) {
        LOGE("File %s is a symbolic link.\n", path.c_str());
        return -EINVAL;
    }
    return 0;
}
