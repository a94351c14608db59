// Creating, checking and opening FIFO files, and adding descriptors to epoll sets.
//
// Stateless free functions, safe in any thread. Results are 0 (OpenFifo: the descriptor) or a
// negative errno.
#ifndef SABLE_FIFO_NUX_FIFO_H
#define SABLE_FIFO_NUX_FIFO_H

#include <string>

#include "sable_comm.h"

// Mode of every FIFO file the library creates.
constexpr unsigned int FIFO_MODE = 0660;

// 0 when `path` is a FIFO itself (a symbolic link to one is not); -EACCES (with its mode in the
// error line) for anything else, or the lstat error.
int IsFifoFile(const std::string& path);

// Used by CreateFifo: 0 when the SELinux file-contexts directory of the installed policy is
// readable by everyone (so labels can be looked up), -EACCES when not, or the lstat error.
int CanAccessFileContexts();

// open(2) of the FIFO `path` with `oflag` (O_NOFOLLOW, O_NOCTTY and O_CLOEXEC are always added).
// Returns the descriptor or a negative errno. Only a FIFO in a real directory is opened: a
// directory that is a symbolic link fails (-ELOOP, or -ENOTDIR, with the "Open fifo" line); a
// missing file is the lstat error ("Transfer real path fail" line, -ENOENT); anything at the name
// that is not a FIFO, a link included, is -EACCES with the "not fifo file" line, checked on the
// name before the open and on the opened descriptor after it.
// A blocking open (a FIFO waiting for its other end) is a cancellation point even in a thread
// that disabled cancellation; the thread's cancel state is restored on return. -ENXIO (a
// non-blocking write open with no reader yet) is the expected answer and not logged.
// Must not be called where a thread cancellation could not unwind (e.g. in a noexcept frame).
int OpenFifo(const std::string& path, int oflag);

// EPOLL_CTL_ADD of `fd` with `events`, the 32-bit `data` coming back in ev.data.fd.
int AddFdToEpoll(int epollFd, int fd, int data, unsigned int events);
// EPOLL_CTL_DEL of `fd`.
int RemoveFdFromEpoll(int epollFd, int fd);

// Creates the FIFO `path` (mode FIFO_MODE whatever the umask, group `gid`, except for an
// Elm-domain pipe, which keeps what mkfifo gives it) so that it never appears under its name
// before it is complete: it is made under a temporary name in the same directory and then
// hard-linked into place. Whatever stood at `path` is removed first. The label is chosen for the
// process `pid` or given by `targetCon`; `domain` is the remote end's. Labelling and group
// failures are logged and ignored.
//
// 0 also when another creator published a FIFO at `path` first (it is accepted as it is);
// -EACCES when something that is not a FIFO appeared there (it is removed); -EINVAL for a
// symbolic link; otherwise the errno of mkfifo, chmod or link. No temporary file is left behind.
// Nothing outside the FIFO's directory is ever touched: the directory must be a real one (a
// link there fails with -ELOOP or -ENOTDIR), every name is resolved relative to it without
// following a link, and mode, group and label go through the descriptor of the FIFO made here.
int CreateFifo(const std::string& path, unsigned int gid, int pid, SabloDomain domain,
               const std::string& targetCon);

#endif
