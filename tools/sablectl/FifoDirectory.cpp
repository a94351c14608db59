#include "FifoDirectory.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <selinux/selinux.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>

namespace sablectl {

namespace {

// The library's directory and the prefix it puts in front for the other domain's pipes.
const char* const kFifoDir = "/dev/shm/nux/sable_comm/";
const char* const kElmPrefix = "/local";
const char* const kPairSeparator = "__to__";

std::string ReadFirstLine(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

std::string GroupName(gid_t gid) {
    std::vector<char> buf(4096);
    group gr{}, *res = nullptr;
    if (getgrgid_r(gid, &gr, buf.data(), buf.size(), &res) == 0 && res != nullptr) {
        return gr.gr_name;
    }
    return std::to_string(gid);
}

std::string Label(const std::string& path) {
    char* con = nullptr;
    if (lgetfilecon(path.c_str(), &con) < 0 || con == nullptr) return "";
    std::string out = con;
    freecon(con);
    return out;
}

using Key = std::pair<dev_t, ino_t>;

// Every descriptor of every process that points at a file of the directories, by inode.
std::map<Key, std::vector<Holder>> ScanHolders(const std::vector<std::string>& dirs, bool* hidden) {
    std::map<Key, std::vector<Holder>> out;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return out;
    while (dirent* p = readdir(proc)) {
        char* end = nullptr;
        long pid = strtol(p->d_name, &end, 10);
        if (pid <= 0 || *end != '\0') continue;
        const std::string base = std::string("/proc/") + p->d_name;
        DIR* fds = opendir((base + "/fd").c_str());
        if (fds == nullptr) {
            if (errno == EACCES) *hidden = true;
            continue;
        }
        std::string comm;
        while (dirent* f = readdir(fds)) {
            if (f->d_name[0] == '.') continue;
            const std::string link = base + "/fd/" + f->d_name;
            char target[4096];
            ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
            if (n <= 0) continue;
            target[n] = '\0';
            bool ours = std::any_of(dirs.begin(), dirs.end(), [&](const std::string& d) {
                return strncmp(target, d.c_str(), d.size()) == 0;
            });
            if (!ours) continue;
            struct stat st {};
            if (stat(link.c_str(), &st) != 0) continue;
            if (comm.empty()) comm = ReadFirstLine(base + "/comm");
            // fdinfo's "flags:" line is octal; its access mode says which end this is.
            std::string access = "?";
            std::ifstream info(base + "/fdinfo/" + f->d_name);
            for (std::string line; std::getline(info, line);) {
                if (line.rfind("flags:", 0) == 0) {
                    int acc = static_cast<int>(strtol(line.c_str() + 6, nullptr, 8)) & O_ACCMODE;
                    access = acc == O_RDONLY ? "r" : acc == O_WRONLY ? "w" : "rw";
                }
            }
            auto& list = out[{st.st_dev, st.st_ino}];
            auto same = std::find_if(list.begin(), list.end(), [&](const Holder& h) {
                return h.pid == static_cast<pid_t>(pid);
            });
            if (same == list.end()) {
                list.push_back({static_cast<pid_t>(pid), comm, access});
            } else if (same->access != access) {
                same->access = "rw";
            }
        }
        closedir(fds);
    }
    closedir(proc);
    return out;
}

// Files locked now (a running server holds an exclusive lock on its FIFO): inode -> pid.
std::map<Key, pid_t> ScanLocks() {
    std::map<Key, pid_t> out;
    std::ifstream in("/proc/locks");
    for (std::string line; std::getline(in, line);) {
        // "1: FLOCK  ADVISORY  WRITE 1234 00:1a:5678 0 EOF"; blocked waiters carry "->".
        if (line.find("->") != std::string::npos) continue;
        char type[16], kind[16], mode[16];
        int pid = 0;
        unsigned maj = 0, min = 0;
        unsigned long ino = 0;
        if (sscanf(line.c_str(), "%*d: %15s %15s %15s %d %x:%x:%lu", type, kind, mode, &pid, &maj,
                   &min, &ino) == 7) {
            out[{makedev(maj, min), static_cast<ino_t>(ino)}] = pid;
        }
    }
    return out;
}

double AgeSeconds(const struct stat& st) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec - st.st_ctim.tv_sec) +
           static_cast<double>(now.tv_nsec - st.st_ctim.tv_nsec) / 1e9;
}

}  // namespace

std::string FifoDirectory::MainDir() {
    return kFifoDir;
}

std::vector<std::string> FifoDirectory::Dirs() {
    return {kFifoDir, std::string(kElmPrefix) + kFifoDir};
}

void FifoDirectory::Scan() {
    entries.clear();
    hidden = false;
    const auto dirs = Dirs();
    for (size_t i = 0; i < dirs.size(); ++i) {
        DIR* d = opendir(dirs[i].c_str());
        if (d == nullptr) continue;
        std::vector<std::string> names;
        while (dirent* e = readdir(d)) {
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) {
                names.push_back(e->d_name);
            }
        }
        closedir(d);
        std::sort(names.begin(), names.end());
        for (const auto& name : names) {
            FifoEntry e;
            e.dir = dirs[i];
            e.domain = i == 0 ? "dp" : "elm";
            e.name = name;
            struct stat st {};
            if (lstat(e.Path().c_str(), &st) != 0) continue;  // gone meanwhile
            e.mode = st.st_mode & 07777;
            e.gid = st.st_gid;
            e.uid = st.st_uid;
            e.group = GroupName(st.st_gid);
            e.label = Label(e.Path());
            e.dev = st.st_dev;
            e.ino = st.st_ino;
            e.ageSeconds = AgeSeconds(st);
            auto sep = name.find(kPairSeparator);
            if (!S_ISFIFO(st.st_mode)) {
                e.kind = "other";
            } else if (sep != std::string::npos && sep > 0) {
                e.kind = "pipe";
                e.writer = name.substr(0, sep);
                e.reader = name.substr(sep + strlen(kPairSeparator));
            } else {
                e.kind = "server";
            }
            entries.push_back(std::move(e));
        }
    }
    auto holders = ScanHolders(dirs, &hidden);
    auto locks = ScanLocks();
    std::set<std::string> held;  // paths of pipe FIFOs some process holds
    for (auto& e : entries) {
        auto h = holders.find({e.dev, e.ino});
        if (h != holders.end()) e.holders = h->second;
        auto l = locks.find({e.dev, e.ino});
        if (l != locks.end()) e.lockedBy = l->second;
        if (!e.holders.empty() || e.lockedBy != 0) held.insert(e.Path());
    }
    // A pipe is one pair: while one end has not opened yet, the other's FIFO counts for both.
    for (auto& e : entries) {
        if (e.kind == "other") continue;
        bool inUse = held.count(e.Path()) != 0;
        if (e.kind == "pipe") {
            inUse = inUse || held.count(e.dir + e.reader + kPairSeparator + e.writer) != 0;
        }
        e.stale = !inUse;
    }
}

bool FifoDirectory::InUse(const FifoEntry& entry) {
    FifoDirectory again;
    again.Scan();
    for (const auto& e : again.Entries()) {
        if (e.dir == entry.dir && e.name == entry.name) return !e.stale || e.ino != entry.ino;
    }
    return false;
}

}  // namespace sablectl
