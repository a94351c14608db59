// One write(2) as the bare system call: no cancellation point (a thread is never cancelled
// half-way through a frame), and no errno: the result is the count or the negative errno, as
// the kernel gives it. On the two architectures the library ships for, the instruction itself;
// elsewhere, the C library's syscall().
#ifndef SABLE_BASE_RAW_WRITE_H
#define SABLE_BASE_RAW_WRITE_H

#include <errno.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>

namespace sable {

// Writes up to `len` bytes of `buf` to `fd`: the count written, or -errno. Async-signal-safe.
inline long RawWrite(int fd, const void* buf, size_t len) {
#if defined(__x86_64__)
    long ret;
    __asm__ volatile("syscall"
                     : "=a"(ret)
                     : "0"(static_cast<long>(SYS_write)), "D"(static_cast<long>(fd)), "S"(buf),
                       "d"(len)
                     : "rcx", "r11", "memory");
    return ret;
#elif defined(__aarch64__)
    register long x8 __asm__("x8") = SYS_write;
    register long x0 __asm__("x0") = fd;
    register const void* x1 __asm__("x1") = buf;
    register size_t x2 __asm__("x2") = len;
    __asm__ volatile("svc 0" : "+r"(x0) : "r"(x8), "r"(x1), "r"(x2) : "memory");
    return x0;
#else
    const long ret = syscall(SYS_write, fd, buf, len);
    return ret < 0 ? -errno : ret;
#endif
}

}  // namespace sable

#endif
