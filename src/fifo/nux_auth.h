// Security contexts of files and processes: thin wrappers over libselinux, and the conversions
// between the library's short context form (a bare type name such as "foo_t") and a full
// context ("system_u:object_r:foo_t:s0").
//
// Unless said otherwise a wrapper returns what libselinux returns (0, or -1 with errno set).
// Labelling through the gated wrappers (AuthGetPidCon, AuthGetCon, AuthSetFileCon,
// AuthSelinuxSetFileCon, AuthSetCon) is switched off in this build: IsAuthEnabled() is -1, so
// they touch neither files nor processes. All functions are thread-safe.
#ifndef SABLE_FIFO_NUX_AUTH_H
#define SABLE_FIFO_NUX_AUTH_H

#include <sys/types.h>

#include <cstdint>

// Flag bits of AuthRestoreCon and AuthSelinuxRestoreCon.
enum AuthRestoreConFlag : unsigned int {
    AUTH_RESTORECON_SYSLOG_CHANGES = 1u << 0,  // log every relabel to syslog
    AUTH_RESTORECON_IGNORE_NOENTRY = 1u << 1,  // a missing path is not an error
    AUTH_RESTORECON_IGNORE_MOUNTS = 1u << 2,   // do not descend into other mounts
};

// Always -1: labelling is disabled in this build.
int IsAuthEnabled();
// 1 enforcing, 0 permissive, -1 when SELinux is not available.
int AuthSecurityGetEnforce();
int AuthSecurityCheckContext(const char* con);
// Restores the default label of `path`; `flags` is a set of AuthRestoreConFlag bits.
int AuthRestoreCon(const char* path, unsigned int flags);
int AuthSelinuxRestoreCon(const char* path, unsigned int flags);
// Access decision of `scon` on `tcon`; `*allowed` goes in as the decision's allowed mask and
// comes back as the kernel's answer. A null `allowed` is -1 with errno EINVAL.
int AuthSecurityComputeAv(const char* scon, const char* tcon, uint16_t tclass, uint32_t requested,
                          uint32_t* allowed);
// 0 when the name is unknown.
uint32_t AuthStringToAvPerm(uint16_t tclass, const char* name);
uint16_t AuthStringToSecurityClass(const char* name);
// Gated: 1 and `*con` untouched while labelling is disabled; else getpidcon / getcon.
int AuthGetPidCon(pid_t pid, char** con);
int AuthGetCon(char** con);
// Frees a context of AuthGetPidCon/AuthGetCon; null is ignored.
void AuthFreeCon(char* con);
// Gated: 0 (nothing done) while labelling is disabled; else setfilecon / setcon.
int AuthSetFileCon(const char* path, const char* con);
int AuthSelinuxSetFileCon(const char* path, const char* con);
int AuthSetCon(const char* con);
// Frees a buffer of the conversions below; null is ignored.
void AuthProxyFree(void* p);

// "foo_t" -> "system_u:object_r:foo_t:s0" in a malloc'd `*out` (free with AuthProxyFree).
// 0; -1 with `*out` untouched for a null or empty `shortCon`; -1 with `*out` null when the
// buffer cannot be made.
int GetSelinuxConByCmacCon(const char* shortCon, char** out);
// The type of a context of exactly four non-empty ':'-separated pieces (user:role:type:level),
// else the empty string (still 0), in a malloc'd `*out`. -1 with `*out` untouched for a null or
// empty context; -1 with `*out` null when the buffer cannot be made.
int GetCmacConBySelinuxCon(const char* selinuxCon, char** out);

#endif
