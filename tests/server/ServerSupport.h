// Shared by the server tests: what the server's callbacks saw, and the server thread count.
#ifndef SABLE_TESTS_SERVER_SUPPORT_H
#define SABLE_TESTS_SERVER_SUPPORT_H

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "sable_comm.h"

namespace server_test {

struct Connect {
    int fd;
    int32_t pid;
    uint32_t gid;
    std::string name;
};

// Filled by the callbacks below, which run on the server thread and on library workers.
class ServerLog {
public:
    void Reset() {
        std::lock_guard<std::mutex> lock(mu);
        connects.clear();
        closed.clear();
    }
    void AddConnect(int fd, const SabloClientInfo& info) {
        std::lock_guard<std::mutex> lock(mu);
        connects.push_back({fd, info.pid, info.gid, info.name != nullptr ? info.name : ""});
    }
    void AddClosed(int fd) {
        std::lock_guard<std::mutex> lock(mu);
        closed.push_back(fd);
    }
    std::vector<Connect> Connects() {
        std::lock_guard<std::mutex> lock(mu);
        return connects;
    }
    bool Closed(int fd) {
        std::lock_guard<std::mutex> lock(mu);
        return std::find(closed.begin(), closed.end(), fd) != closed.end();
    }
    // The pipe number the server gave the client `name`, or -1.
    int FdOf(const std::string& name) {
        std::lock_guard<std::mutex> lock(mu);
        for (const auto& c : connects) {
            if (c.name == name) return c.fd;
        }
        return -1;
    }

private:
    std::mutex mu;
    std::vector<Connect> connects;
    std::vector<int> closed;
};

inline ServerLog& Log() {
    static ServerLog log;
    return log;
}

inline void RecordConnect(int fd, SabloClientInfo info) { Log().AddConnect(fd, info); }

inline void EchoRequest(int fd, SabloRequest* req) {
    if (req == nullptr) {
        Log().AddClosed(fd);
        return;
    }
    SabloResponse rsp{req->id, req->data, req->size};
    SabloSendResponse(fd, &rsp);
}

// `name` must outlive the record.
inline SabloServerAttr Attr(const std::string& name,
                            void (*onConnect)(int, SabloClientInfo) = RecordConnect) {
    SabloServerAttr attr{};
    attr.serverCallback = onConnect;
    attr.callback = EchoRequest;
    attr.gid = 0xFFFFFFFFu;
    attr.priority = SABLO_PRIORITY_DEFAULT;
    attr.selfName = name.c_str();
    return attr;
}

// Threads of this process named as the server thread (the kernel keeps 15 characters).
inline int ServerThreads() {
    int count = 0;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) return -1;
    while (dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        if (name == std::string("sable_comm_server").substr(0, 15)) ++count;
    }
    closedir(dir);
    return count;
}

}  // namespace server_test

#endif
