// Who this process is, where the FIFO files live, and the environment of started processes.
#ifndef SABLE_ENV_ENV_MANAGER_H
#define SABLE_ENV_ENV_MANAGER_H

#include <mutex>
#include <string>

#include "sable_comm.h"

class EnvManager {
  public:
    static constexpr size_t PROC_NAME_SIZE = 101;

    // The one process-wide environment mutex: every read-modify of the environment and of the
    // cached values takes it. Lock order: taken after the logger's mutex (the first log line
    // resolves the process name), so nothing logs while holding it.
    static std::mutex& Instance();

    // The process name: PROC_NAME, else the kernel's name of the process ("process-manager" is
    // "PROCMGR"); resolved once. Never NULL; empty when nothing could be found. A later
    // SetProcName (EnvInit, SetEnv of PROC_NAME) does not change the text a caller already
    // holds: every name is kept, unchanged, for the life of the process, and the pointer to
    // the present one is swapped; so any thread may read the name while another sets it.
    static const char* ProcName();
    // 0, or a non-zero status when `name` is 101 characters or more (the name is then empty).
    // Thread-safe.
    static int SetProcName(const std::string& name);
    static void EnableDefaultProcName();

    // 1 for a "dp" host, 2 for an "elm" host; fixed at build time.
    static int HostName();
    static bool IsElmDomain() { return HostName() == 2; }
    static std::string GetLocalDomainName();
    static std::string FifoPrefix();
    static std::string ElmFifoDirPrefix();

    // 0 when `path` names the library, -EINVAL otherwise, -ENAMETOOLONG beyond 4096 characters.
    static int CheckNuxlibPath(const std::string& path);
    // Caller holds Instance(). Also updates the process name for "PROC_NAME".
    static int SetEnv(const std::string& name, const std::string& value);
    // Puts the library in front of LD_PRELOAD once; 0 or a negative errno.
    static int UpdateLdPreload();
    // Prepares the environment of a process about to be started; 0 or the first failure.
    static int EnvInit(const std::string& procName);
    static bool CheckEnvPreparation();
    // DATAGLEN_RUN_MODE, cached once it was found non-empty.
    static std::string GetRunMode();
    // True when the run mode (as GetRunMode gives it) is "1". Once a run mode is cached this
    // takes no lock; until then it looks the variable up as GetRunMode does.
    static bool LongRunMode();
    // SABLE_WORKER_STACK_KB as a number of KiB; 0 when unset or not a positive number.
    static size_t GetWorkerStackKb();

    static const std::string& LibraryPath();
};

// Exported, read by nobody inside the library.
extern "C" bool nuxPerfFlag;

#endif
