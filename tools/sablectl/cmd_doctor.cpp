// sablectl doctor: is this host set up for the library, and what to fix when it is not.
#include <pwd.h>
#include <selinux/selinux.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "Args.h"
#include "Commands.h"
#include "FifoDirectory.h"
#include "Payload.h"

namespace sablectl {

namespace {

// Where the library looks before it labels a FIFO.
const char* const kFileContextsDir = "/etc/selinux/targeted/contexts/files/";

struct Check {
    std::string name;
    std::string level;  // "ok", "warn", "fail", "info"
    std::string detail;
    std::string fix;
};

std::string UserName(uid_t uid) {
    passwd pw{}, *res = nullptr;
    char buf[4096];
    if (getpwuid_r(uid, &pw, buf, sizeof(buf), &res) == 0 && res != nullptr) return pw.pw_name;
    return std::to_string(uid);
}

std::string Octal(unsigned mode) {
    char b[8];
    snprintf(b, sizeof(b), "%04o", mode);
    return b;
}

void CheckDir(const std::string& dir, bool required, std::vector<Check>& out) {
    struct stat st {};
    const std::string name = "directory " + dir;
    if (lstat(dir.c_str(), &st) != 0) {
        if (required) {
            out.push_back({name, "fail", "does not exist",
                           "create it: mkdir -p " + dir +
                               " (mode 1777, or 0770 with the group of "
                               "the processes that talk)"});
        } else {
            out.push_back(
                {name, "info", "does not exist (needed only on hosts of the elm domain)", ""});
        }
        return;
    }
    if (S_ISLNK(st.st_mode)) {
        out.push_back({name, "fail", "is a symbolic link; the library refuses to follow it",
                       "replace it by a real directory: rm " + dir.substr(0, dir.size() - 1) +
                           " && mkdir -p " + dir});
        return;
    }
    if (!S_ISDIR(st.st_mode)) {
        out.push_back(
            {name, "fail", "exists but is not a directory", "remove it and mkdir -p " + dir});
        return;
    }
    const unsigned mode = st.st_mode & 07777;
    std::string detail = "mode " + Octal(mode) + ", owner " + UserName(st.st_uid) + ", group " +
                         std::to_string(st.st_gid);
    if (access(dir.c_str(), W_OK | X_OK) != 0) {
        out.push_back({name, "fail", detail + "; this user cannot create FIFOs in it",
                       "give the users of the library write access (chmod 1777 " + dir +
                           ", or chgrp their group and chmod 2770)"});
    } else if ((mode & 0002) != 0 && (mode & 01000) == 0) {
        out.push_back({name, "warn", detail + "; anyone may remove anyone's FIFO files",
                       "set the sticky bit: chmod +t " + dir});
    } else if (st.st_uid != 0 && st.st_uid != getuid()) {
        out.push_back(
            {name, "warn", detail + "; owned by another unprivileged user", "chown root " + dir});
    } else {
        out.push_back({name, "ok", detail, ""});
    }
}

void CheckSelinux(std::vector<Check>& out) {
    int enabled = is_selinux_enabled();
    if (enabled <= 0) {
        out.push_back({"SELinux", "info", "disabled: FIFO files carry no label", ""});
    } else {
        int enforce = security_getenforce();
        out.push_back(
            {"SELinux", "ok", enforce == 1 ? "enabled, enforcing" : "enabled, permissive", ""});
    }
    struct stat st {};
    if (stat(kFileContextsDir, &st) != 0) {
        out.push_back({"file contexts", enabled > 0 ? "warn" : "info",
                       std::string(kFileContextsDir) + " is missing: FIFO files are not labelled",
                       enabled > 0 ? "install the targeted policy's file contexts" : ""});
    } else if ((st.st_mode & 0444) != 0444) {
        out.push_back({"file contexts", "warn",
                       std::string(kFileContextsDir) + " is not readable by everyone (mode " +
                           Octal(st.st_mode & 07777) + "): FIFO files are not labelled",
                       std::string("chmod a+r ") + kFileContextsDir});
    } else {
        out.push_back({"file contexts", "ok", std::string(kFileContextsDir) + " readable", ""});
    }
}

}  // namespace

int CmdDoctor(const Argv& argv) {
    Args args;
    std::string error;
    if (!args.Parse(argv, {}, {"--json"}, error)) return Fail(kExitUsage, error);
    if (!args.Positional().empty()) {
        return Fail(kExitUsage, "doctor takes no arguments, not '" + args.Positional()[0] + "'");
    }
    std::vector<Check> checks;
    auto dirs = FifoDirectory::Dirs();
    CheckDir(dirs[0], true, checks);
    CheckDir(dirs[1], false, checks);
    CheckSelinux(checks);

    FifoDirectory dir;
    dir.Scan();
    int stale = 0, other = 0;
    for (const auto& e : dir.Entries()) {
        if (e.kind == "other") {
            ++other;
        } else if (e.stale) {
            ++stale;
        }
    }
    if (dir.OtherProcessesHidden()) {
        checks.push_back({"holders", "info",
                          "not every process's descriptors are readable by this user: stale counts "
                          "may include live files",
                          "run as root for an exact answer"});
    }
    checks.push_back(
        {"stale FIFO files", stale ? "warn" : "ok",
         std::to_string(stale) + " stale of " + std::to_string(dir.Entries().size() - other),
         stale ? "see 'sablectl gc', remove them with 'sablectl gc --delete'" : ""});
    if (other) {
        checks.push_back({"other files", "warn",
                          std::to_string(other) + " files that are not FIFOs",
                          "look at them with 'sablectl ls' and remove them by hand"});
    }

    bool bad = false;
    if (args.Has("--json")) {
        printf("[");
        for (size_t i = 0; i < checks.size(); ++i) {
            const auto& c = checks[i];
            printf("%s{\"check\":%s,\"level\":%s,\"detail\":%s,\"fix\":%s}", i ? ",\n " : "",
                   Json(c.name).c_str(), Json(c.level).c_str(), Json(c.detail).c_str(),
                   c.fix.empty() ? "null" : Json(c.fix).c_str());
        }
        printf("]\n");
    }
    for (const auto& c : checks) {
        if (c.level == "fail" || c.level == "warn") bad = true;
        if (args.Has("--json")) continue;
        printf("[%-4s] %s: %s\n", c.level.c_str(), c.name.c_str(), c.detail.c_str());
        if (!c.fix.empty()) printf("       fix: %s\n", c.fix.c_str());
    }
    return bad ? kExitFailed : kExitOk;
}

}  // namespace sablectl
