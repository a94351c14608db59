// A directory of its own under /dev/shm for one test, removed with everything in it.
#ifndef SABLE_TESTS_FIFO_PRIVATE_DIR_H
#define SABLE_TESTS_FIFO_PRIVATE_DIR_H

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

namespace sable_test {

class PrivateDir {
public:
    PrivateDir() {
        std::string tmpl = "/dev/shm/sable_fifo_" + std::to_string(getpid()) + "_XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) != nullptr) {
            dir = buf.data();
        }
    }
    ~PrivateDir() {
        if (dir.empty()) return;
        for (const auto& name : Entries()) unlink(Path(name).c_str());
        rmdir(dir.c_str());
    }
    PrivateDir(const PrivateDir&) = delete;
    PrivateDir& operator=(const PrivateDir&) = delete;

    bool Valid() const { return !dir.empty(); }
    const std::string& Dir() const { return dir; }
    std::string Path(const std::string& name) const { return dir + "/" + name; }
    // Names in the directory (without "." and "..").
    std::set<std::string> Entries() const {
        std::set<std::string> names;
        DIR* d = opendir(dir.c_str());
        if (d == nullptr) return names;
        while (dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") names.insert(n);
        }
        closedir(d);
        return names;
    }

private:
    std::string dir;
};

}  // namespace sable_test

#endif
