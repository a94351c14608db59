// The bounds-checked C functions, and the one place that turns a "count" argument (the most
// characters to write) into the C11 form, which only knows the destination size.
#ifndef SABLE_BASE_SAFE_C_H
#define SABLE_BASE_SAFE_C_H

#include <cstdarg>
#include <cstddef>

extern "C" {
#include <safe_mem_lib.h>
#include <safe_str_lib.h>
}

namespace sable {

// Formats at most `count` characters (terminator excluded) into `dest` of `destSize` bytes.
// Negative when the text does not fit or the format fails; `dest` then holds an empty string.
inline int VsnprintfCount(char* dest, size_t destSize, size_t count, const char* fmt, va_list ap) {
    size_t dmax = destSize < count + 1 ? destSize : count;
    return vsnprintf_s(dest, dmax, fmt, ap);
}

__attribute__((format(printf, 4, 5))) inline int SnprintfCount(char* dest, size_t destSize,
                                                               size_t count, const char* fmt,
                                                               ...) {
    va_list ap;
    va_start(ap, fmt);
    int ret = VsnprintfCount(dest, destSize, count, fmt, ap);
    va_end(ap);
    return ret;
}

}  // namespace sable

#endif
