// The table's life: disabling it, and the process exiting while the table is in use or already
// gone. Each case that builds or disables the table runs in a fresh process.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "FreshProcess.h"
#include "TestEnv.h"
#include "sable_comm.h"
#include "table/TableFactory.h"

namespace {

using sable_test::ChildProcess;
using sable_test::FifoFilesWith;
using sable_test::Problems;
using sable_test::UniqueName;
using sable_test::WaitUntil;

const std::string self = UniqueName("life");
const std::string peer = UniqueName("peer");

// Opens a pipe with `callback` to a child that sends one request and exits without closing.
void RequestFromALeavingChild(Problems& p, SabloCallback callback) {
    sable_test::EnsureFifoDir();
    SabloAttr attr;
    attr.selfName = self.c_str();
    attr.targetName = peer.c_str();
    attr.mode = SABLO_MODE_CREATE;
    attr.timeout = 10000;
    attr.callback = std::move(callback);
    p.True(SabloOpen(&attr) > 0, "open");
    p.True(SabloServiceIsExist(), "service exists while the table is in use");
    ChildProcess child("sable_peer", {"leave", peer, self, "0"});
    p.Eq(child.Wait(10000), 0, "child exit");
}

void KeepSigpipe(int) {}

std::atomic<int> finishedInCallback{0};

TEST(TableLifeTest, ARequestCallbackMayDisableTheTableAndSigpipeIsLeftAlone) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        signal(SIGPIPE, KeepSigpipe);
        // On a worker of the pool that the finish destroys: it must not wait for itself.
        RequestFromALeavingChild(p, [](int, SabloRequest* req) {
            if (req == nullptr) return;
            SabloCfgFinishServer();
            finishedInCallback++;
        });
        p.True(WaitUntil([] { return finishedInCallback.load() == 1; }, 10000),
               "the callback's finish returned");
        p.True(!SabloServiceIsExist(), "service gone");
        p.True(WaitUntil([] { return FifoFilesWith(self).empty(); }, 10000), "files removed");
        struct sigaction now {};
        sigaction(SIGPIPE, nullptr, &now);
        p.True(now.sa_handler == KeepSigpipe, "the application's SIGPIPE handler stays");
        // The worker that disabled the table could not join itself; the pool's destructor
        // does, so this process ends through the static destructors rather than _exit.
        if (p.Text().empty()) std::exit(0);
        return p.Text();
    });
}

std::atomic<bool> holding{false};
std::atomic<bool> released{false};

// Built before the table's statics, so destroyed after them: keeps the process exiting until
// the worker has let the table go (and a moment longer), so that what the worker does then
// happens while the process still runs.
struct ExitWaiter {
    ~ExitWaiter() {
        WaitUntil([] { return released.load(); }, 5000);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
};

TEST(TableLifeTest, AProcessExitingWhileAWorkerHoldsTheTableEndsCleanly) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        static ExitWaiter waiter;
        Problems p;
        RequestFromALeavingChild(p, [](int, SabloRequest* req) {
            if (req == nullptr) return;
            {
                // Like an entry function called from a callback just as the process exits:
                // this worker keeps the table past the exit sequence's release of it.
                auto held = TableFactory::GetInstance();
                holding = true;
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
            }
            released = true;
        });
        p.True(WaitUntil([] { return holding.load(); }, 10000), "callback holds the table");
        // The table must not be destroyed on the worker, which still uses its pipe, nor the
        // pools on one of their own workers.
        if (p.Text().empty()) std::exit(0);
        return p.Text();
    });
}

TEST(TableLifeTest, EntryFunctionsCalledAfterTheTableDiedAtExitAnswerTableGone) {
    sable_test::EnsureFifoDir();
    const std::string target = UniqueName("atexit");
    ChildProcess child("sable_peer", {"exit-in-destructor", target});
    EXPECT_EQ(child.Wait(10000), 0) << "5: an entry function did not answer -ENOENT";
    // The table's destructor closed the pipe on the way out.
    EXPECT_EQ(FifoFilesWith(target), std::set<std::string>{});
}

}  // namespace
