// Reports the descriptors it inherited through exec, for the close-on-exec checks:
//   fd_peer        report "fds" followed by " <fd>=<what it is>" for every descriptor other than
//                  0, 1, 2 and the handshake descriptor, then exit 0
#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "ChildProcess.h"

int main() {
    const char* handshake = getenv("SABLE_TEST_HANDSHAKE_FD");
    const int own = handshake != nullptr ? atoi(handshake) : -1;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return 1;
    std::string line = "fds";
    while (dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        const int fd = atoi(e->d_name);
        if (fd <= 2 || fd == own || fd == dirfd(dir)) continue;
        char target[256] = {0};
        ssize_t n = readlink((std::string("/proc/self/fd/") + e->d_name).c_str(), target,
                             sizeof(target) - 1);
        line += " " + std::to_string(fd) + "=" + (n > 0 ? std::string(target, n) : "?");
    }
    closedir(dir);
    sable_test::SignalReady(line);
    return 0;
}
