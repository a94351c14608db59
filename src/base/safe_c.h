// The bounds-checked C functions, and the one place that turns a "count" argument (the most
// characters to write) into the C11 form, which only knows the destination size.
#ifndef SABLE_BASE_SAFE_C_H
#define SABLE_BASE_SAFE_C_H

#include <cstdarg>
#include <cstddef>

extern "C" {
#include <safe_lib_errno.h>
#include <safe_mem_lib.h>
#include <safe_str_lib.h>
}

namespace sable {

// Formats into `dest` (of `destSize` bytes) using at most min(destSize, count) bytes, the
// terminator included, as the counted form of the platform library does. A text of that many
// characters or more, like a failing format, gives a negative result and an empty `dest`.
inline int VsnprintfCount(char* dest, size_t destSize, size_t count, const char* fmt, va_list ap) {
    size_t dmax = destSize < count + 1 ? destSize : count;
    int ret = vsnprintf_s(dest, dmax, fmt, ap);
    // A text of exactly dmax characters comes back cut to dmax - 1 with a positive count
    // instead of an error; callers rely on a cut text being reported, so report it here.
    if (ret >= 0 && static_cast<size_t>(ret) >= dmax) {
        dest[0] = '\0';
        return -ESNOSPC;
    }
    return ret;
}

__attribute__((format(printf, 4, 5))) inline int SnprintfCount(char* dest, size_t destSize,
                                                               size_t count, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int ret = VsnprintfCount(dest, destSize, count, fmt, ap);
    va_end(ap);
    return ret;
}

}  // namespace sable

#endif
