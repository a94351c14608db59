// What lies in the FIFO directories of this host: pipe FIFOs (named writer "__to__" reader),
// server FIFOs (the server's bare name), the processes that hold them open and the locks on them.
// Read-only except for Remove, which gc uses.
#ifndef SABLECTL_FIFO_DIRECTORY_H
#define SABLECTL_FIFO_DIRECTORY_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace sablectl {

struct Holder {
    pid_t pid = 0;
    std::string name;    // /proc/<pid>/comm
    std::string access;  // "r", "w" or "rw"
};

struct FifoEntry {
    std::string dir;             // the directory, with its trailing '/'
    std::string domain;          // "dp" (plain directory) or "elm" (the /local one)
    std::string name;            // file name within dir
    std::string kind;            // "pipe", "server" or "other" (not a FIFO)
    std::string writer, reader;  // pipes only
    unsigned mode = 0;           // permission bits
    gid_t gid = 0;
    uid_t uid = 0;
    std::string group;  // group name, or the number
    std::string label;  // security label, empty when none can be read
    std::vector<Holder> holders;
    pid_t lockedBy = 0;  // pid holding a lock on the file (a running server), or 0
    bool stale = false;  // nothing holds it (nor, for a pipe, its partner in the other direction)
    double ageSeconds = 0;  // since the file's last status change
    dev_t dev = 0;
    ino_t ino = 0;

    std::string Path() const { return dir + name; }
};

class FifoDirectory {
  public:
    // The directory of this host's domain and the one of the other domain's pipes.
    static std::vector<std::string> Dirs();
    static std::string MainDir();

    // Reads every directory that exists. Holders come from /proc/*/fd: processes of other users
    // are seen only with the rights to read their descriptors (see OtherProcessesHidden).
    void Scan();
    const std::vector<FifoEntry>& Entries() const { return entries; }
    // true when some process's descriptors could not be read (not root).
    bool OtherProcessesHidden() const { return hidden; }

    // Holders and lock of one file, looked at again right now.
    static bool InUse(const FifoEntry& entry);

  private:
    std::vector<FifoEntry> entries;
    bool hidden = false;
};

}  // namespace sablectl

#endif
