#include "fifo/nux_auth.h"

#include <errno.h>
#include <selinux/restorecon.h>
#include <selinux/selinux.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "base/safe_c.h"

namespace {

unsigned int ToRestoreconFlags(unsigned int flags) {
    unsigned int f = 0;
    if ((flags & AUTH_RESTORECON_SYSLOG_CHANGES) != 0) {
        f |= SELINUX_RESTORECON_SYSLOG_CHANGES;
    }
    if ((flags & AUTH_RESTORECON_IGNORE_NOENTRY) != 0) {
        f |= SELINUX_RESTORECON_IGNORE_NOENTRY;
    }
    if ((flags & AUTH_RESTORECON_IGNORE_MOUNTS) != 0) {
        f |= SELINUX_RESTORECON_IGNORE_MOUNTS;
    }
    return f;
}

// Hands `len` bytes of `text` plus a terminating NUL back in a malloc'd buffer.
int HandOut(const char* text, size_t len, char** out) {
    char* buf = static_cast<char*>(malloc(len + 1));
    *out = buf;
    if (buf == nullptr) {
        return -1;
    }
    if (len != 0 && memcpy_s(buf, len + 1, text, len) != 0) {
        AuthProxyFree(buf);
        *out = nullptr;
        return -1;
    }
    buf[len] = '\0';
    return 0;
}

}  // namespace

int IsAuthEnabled() {
    // Deliberately off in this build: FIFO files keep the label the policy gives new files in
    // their directory instead of one chosen per peer.
    return -1;
}

int AuthSecurityGetEnforce() {
    return security_getenforce();
}

int AuthSecurityCheckContext(const char* con) {
    return security_check_context(con);
}

int AuthRestoreCon(const char* path, unsigned int flags) {
    return selinux_restorecon(path, ToRestoreconFlags(flags));
}

int AuthSelinuxRestoreCon(const char* path, unsigned int flags) {
    return AuthRestoreCon(path, flags);
}

int AuthSecurityComputeAv(const char* scon, const char* tcon, uint16_t tclass, uint32_t requested,
                          uint32_t* allowed) {
    if (allowed == nullptr) {
        errno = EINVAL;
        return -1;
    }
    struct av_decision avd;
    memset(&avd, 0, sizeof(avd));
    avd.allowed = *allowed;
    int ret = security_compute_av(scon, tcon, tclass, requested, &avd);
    *allowed = avd.allowed;
    return ret;
}

uint32_t AuthStringToAvPerm(uint16_t tclass, const char* name) {
    return string_to_av_perm(tclass, name);
}

uint16_t AuthStringToSecurityClass(const char* name) {
    return string_to_security_class(name);
}

int AuthGetPidCon(pid_t pid, char** con) {
    if (IsAuthEnabled() < 1) {
        return 1;
    }
    return getpidcon(pid, con);
}

int AuthGetCon(char** con) {
    if (IsAuthEnabled() < 1) {
        return 1;
    }
    return getcon(con);
}

void AuthFreeCon(char* con) {
    if (con != nullptr) {
        freecon(con);
    }
}

int AuthSetFileCon(const char* path, const char* con) {
    if (IsAuthEnabled() < 1) {
        return 0;
    }
    return setfilecon(path, con);
}

int AuthSelinuxSetFileCon(const char* path, const char* con) {
    return AuthSetFileCon(path, con);
}

int AuthSetCon(const char* con) {
    if (IsAuthEnabled() < 1) {
        return 0;
    }
    return setcon(con);
}

void AuthProxyFree(void* p) {
    if (p != nullptr) {
        free(p);
    }
}

int GetSelinuxConByCmacCon(const char* shortCon, char** out) {
    if (shortCon == nullptr || shortCon[0] == '\0' || out == nullptr) {
        return -1;
    }
    static const char kPrefix[] = "system_u:object_r:";
    static const char kSuffix[] = ":s0";
    std::string full;
    try {
        full.reserve(sizeof(kPrefix) + strlen(shortCon) + sizeof(kSuffix));
        full.append(kPrefix).append(shortCon).append(kSuffix);
    } catch (const std::bad_alloc&) {
        *out = nullptr;
        return -1;
    }
    return HandOut(full.c_str(), full.size(), out);
}

int GetCmacConBySelinuxCon(const char* selinuxCon, char** out) {
    if (selinuxCon == nullptr || selinuxCon[0] == '\0' || out == nullptr) {
        return -1;
    }
    // Walk the non-empty pieces between ':' and remember the third; only a context of exactly
    // four pieces has an unambiguous type (a category range such as s0:c1,c2 adds pieces).
    const char* type = nullptr;
    size_t typeLen = 0;
    size_t pieces = 0;
    const char* p = selinuxCon;
    while (*p != '\0') {
        if (*p == ':') {
            ++p;
            continue;
        }
        const char* start = p;
        while (*p != '\0' && *p != ':') {
            ++p;
        }
        ++pieces;
        if (pieces == 3) {
            type = start;
            typeLen = static_cast<size_t>(p - start);
        }
    }
    if (pieces != 4) {
        return HandOut("", 0, out);
    }
    return HandOut(type, typeLen, out);
}
