// Name length, real path and file loading checks.
#ifndef SABLE_API_NUX_CHECK_H
#define SABLE_API_NUX_CHECK_H

#include <cstddef>
#include <sstream>
#include <string>

// Callers pass len = strnlen(name, 101) and maxLen = 100. 0 or -EINVAL, with an error line.
int CheckInputName(const char* name, size_t len, size_t maxLen);
// Replaces `path` by its canonical absolute form; 0 or a negative errno.
int TransferToRealPath(std::string& path);
// Appends the file to `out` (each 1023-byte chunk up to its first NUL); 0, -1 or the error of
// TransferToRealPath. An empty file is an error.
int LoadFile(const std::string& path, std::stringstream& out);

#endif
