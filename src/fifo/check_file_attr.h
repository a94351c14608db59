// What lies at a path, without following a symbolic link there.
#ifndef SABLE_FIFO_CHECK_FILE_ATTR_H
#define SABLE_FIFO_CHECK_FILE_ATTR_H

#include <sys/stat.h>

#include <string>

// lstat of `path` into a cleared `st`: 0 or a negative errno. Logs only a failed clear.
int GetFileState(const std::string& path, struct stat& st);
// 0 when `path` exists and is not a symbolic link; -EINVAL for a link, or the error of
// GetFileState. Both failures are logged.
int IsLink(const std::string& path);

#endif
