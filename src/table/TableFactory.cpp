#include "table/TableFactory.h"

#include <errno.h>
#include <signal.h>

#include "base/SingletonProtector.h"
#include "log/NuxSyslog.h"
#include "pool/CallbackPool.h"
#include "pool/WorkerPool.h"
#include "table/SableTable.h"

namespace {
constexpr unsigned int kWorkers = 1024;
constexpr unsigned int kUrgentWorkers = 20;
// A write to a FIFO whose reader has gone raises SIGPIPE before it fails with EPIPE, and the
// default action of SIGPIPE ends the process: a peer that closes while an answer is on its way
// would take the answering process down with it. Sends are meant to report that case as
// -EPIPE, so the signal is ignored unless the application has chosen a disposition of its own.
bool IgnoreSigpipeByDefault() {
    struct sigaction current {};
    if (sigaction(SIGPIPE, nullptr, &current) != 0) {
        int savedErrno = errno;
        LOGE("Read SIGPIPE disposition failed, errno = %d\n", savedErrno);
        return false;
    }
    if ((current.sa_flags & SA_SIGINFO) != 0 || current.sa_handler != SIG_DFL) {
        return false;
    }
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    if (sigaction(SIGPIPE, &ignore, nullptr) != 0) {
        int savedErrno = errno;
        LOGE("Ignore SIGPIPE failed, errno = %d\n", savedErrno);
        return false;
    }
    return true;
}
}  // namespace

std::shared_ptr<SableTable> TableFactory::GetInstance() {
    // Before any pipe can write.
    static const bool sigpipeIgnored = IgnoreSigpipeByDefault();
    (void)sigpipeIgnored;
    // Destroyed at exit in reverse order: the protector first, so a call made from a later
    // static destructor gets nothing instead of a dying table.
    static std::shared_ptr<WorkerPool> workerPool =
        std::make_shared<WorkerPool>(kWorkers, kUrgentWorkers);
    static std::shared_ptr<CallbackPool> callbackPool = std::make_shared<CallbackPool>(workerPool);
    static std::shared_ptr<SableTable> table = std::make_shared<SableTable>(callbackPool);
    static sable::SingletonProtector<SableTable> protector(table);
    return protector.Get();
}
