// The table's life: its first building, disabling it, and entry functions called while the
// process exits. Each case that builds or disables the table runs in a fresh process.
#include <errno.h>
#include <signal.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "FreshProcess.h"
#include "TestEnv.h"
#include "sable_comm.h"
#include "table/SableTable.h"
#include "table/TableFactory.h"

namespace {

using sable_test::ChildProcess;
using sable_test::FifoFilesWith;
using sable_test::Problems;
using sable_test::UniqueName;
using sable_test::WaitUntil;

int OpenCreating(const std::string& self, const std::string& target, SabloCallback callback,
                 int timeout = 0) {
    SabloAttr attr;
    attr.selfName = self.c_str();
    attr.targetName = target.c_str();
    attr.mode = SABLO_MODE_CREATE;
    attr.timeout = timeout;
    attr.priority = SABLO_PRIORITY_DEFAULT;
    attr.callback = std::move(callback);
    return SabloOpen(&attr);
}

TEST(TableLifeTest, TwoThreadsAskingFirstAtOnceGetTheSameTable) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        std::atomic<int> waiting{0};
        std::atomic<bool> go{false};
        auto ask = [&] {
            waiting++;
            while (!go.load()) {
            }
            return TableFactory::GetInstance();
        };
        std::future<std::shared_ptr<SableTable>> a = std::async(std::launch::async, ask);
        std::future<std::shared_ptr<SableTable>> b = std::async(std::launch::async, ask);
        while (waiting.load() < 2) {
        }
        go = true;
        std::shared_ptr<SableTable> first = a.get();
        std::shared_ptr<SableTable> second = b.get();
        p.True(first != nullptr, "a table");
        p.True(first == second, "one table for both threads");
        p.True(TableFactory::GetInstance() == first, "the same table later");
        return p.Text();
    });
}

TEST(TableLifeTest, FinishingTheServerDisablesTheTableButLaterOpensStillWork) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        sable_test::EnsureFifoDir();
        const std::string self = UniqueName("fin");
        int fd = OpenCreating(self, UniqueName("before"), nullptr);
        p.True(fd > 0, "open before");
        p.True(SabloServiceIsExist(), "service exists while the table is in use");
        SabloCfgFinishServer();
        p.True(!SabloServiceIsExist(), "service gone after finishing");
        p.Eq(TableFactory::GetInstance()->Size(), 0, "pipes after disabling");
        p.True(FifoFilesWith(self).empty(), "disabling closed the pipe and removed its files");
        // The table is not locked against reuse: an open still reaches it.
        int later = OpenCreating(self, UniqueName("after"), nullptr);
        p.True(later > fd, "open after disabling");
        p.Eq(SabloClosePipe(later), 0, "close after disabling");
        p.True(FifoFilesWith(self).empty(), "files of the later pipe removed");
        return p.Text();
    });
}

void KeepSigpipe(int) {}

TEST(TableLifeTest, FirstUseLeavesTheSigpipeDispositionAlone) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        signal(SIGPIPE, SIG_DFL);
        (void)SabloServiceIsExist();
        struct sigaction now {};
        sigaction(SIGPIPE, nullptr, &now);
        p.True(now.sa_handler == SIG_DFL, "the default action stays");
        return p.Text();
    });
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        signal(SIGPIPE, KeepSigpipe);
        (void)SabloServiceIsExist();
        struct sigaction now {};
        sigaction(SIGPIPE, nullptr, &now);
        p.True(now.sa_handler == KeepSigpipe, "the application's handler stays");
        return p.Text();
    });
}

std::atomic<int> finishedInCallback{0};

void FinishFromCallback(int, SabloRequest* req) {
    if (req == nullptr) return;
    // On a worker of the pool that this call destroys: it must not wait for itself.
    SabloCfgFinishServer();
    finishedInCallback++;
}

TEST(TableLifeTest, ARequestCallbackMayDisableTheTable) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        sable_test::EnsureFifoDir();
        const std::string self = UniqueName("cbfin");
        const std::string peer = UniqueName("peer");
        int fd = OpenCreating(self, peer, FinishFromCallback, 10000);
        p.True(fd > 0, "open");
        ChildProcess child("sable_peer", {"send-exit", peer, self, "0"});
        p.Eq(child.Wait(10000), 0, "child exit");
        p.True(WaitUntil([] { return finishedInCallback.load() == 1; }, 10000),
               "the callback's finish returned");
        p.True(!SabloServiceIsExist(), "service gone");
        p.True(WaitUntil([&] { return FifoFilesWith(self).empty(); }, 10000), "files removed");
        // The worker that disabled the table could not join itself; the pool's destructor
        // does, so this process ends through the static destructors rather than _exit.
        if (p.Text().empty()) std::exit(0);
        return p.Text();
    });
}

std::atomic<bool> holding{false};
std::atomic<bool> released{false};

void HoldTableAcrossExit(int, SabloRequest* req) {
    if (req == nullptr) return;
    {
        // Like an entry function called from a callback just as the process exits: this
        // worker keeps the table past the exit sequence's release of it.
        std::shared_ptr<SableTable> held = TableFactory::GetInstance();
        holding = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    released = true;
}

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
        sable_test::EnsureFifoDir();
        const std::string self = UniqueName("hold");
        const std::string peer = UniqueName("peer");
        p.True(OpenCreating(self, peer, HoldTableAcrossExit, 10000) > 0, "open");
        ChildProcess child("sable_peer", {"send-exit", peer, self, "0"});
        p.Eq(child.Wait(10000), 0, "child exit");
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
    EXPECT_EQ(child.ReadLine().rfind("ready ", 0), 0u);
    EXPECT_EQ(child.Wait(10000), 0) << "5: an entry function did not answer -ENOENT";
    // The table's destructor closed the pipe on the way out.
    EXPECT_EQ(FifoFilesWith(target), std::set<std::string>{});
}

}  // namespace
