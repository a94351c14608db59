// Stopping the server with SabloCfgFinishServer, which also disables the process's table: each
// case runs in a fresh process.
#include <errno.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "FreshProcess.h"
#include "ServerSupport.h"
#include "TestEnv.h"
#include "sable_comm.h"

namespace {

using sable_test::ChildProcess;
using sable_test::Problems;
using sable_test::UniqueName;
using sable_test::WaitUntil;
using server_test::Log;
using server_test::ServerThreads;

// Runs SabloCfgFinishServer on another thread and reports whether it returned in time. The
// thread is left to itself when it hangs (the fresh process ends with _exit).
bool FinishWithin(int ms) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    std::thread([done] {
        SabloCfgFinishServer();
        done->set_value();
    }).detach();
    return finished.wait_for(std::chrono::milliseconds(ms)) == std::future_status::ready;
}

TEST(ServerLifeTest, FinishingStopsTheServerThreadAndANewServerCanStart) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        const std::string name = UniqueName("life") + "x";
        const std::string fifo = sable_test::EnsureFifoDir() + name;
        SabloServerAttr attr = server_test::Attr(name);
        p.Eq(SabloCreateServer(&attr), 0, "first start");
        // The thread names itself once it runs.
        p.True(WaitUntil([] { return ServerThreads() == 1; }, 10000), "server thread running");
        p.True(SabloServiceIsExist(), "service while running");

        p.True(FinishWithin(10000), "finish returned");
        p.Eq(ServerThreads(), 0, "server threads after finishing");
        p.True(!SabloServiceIsExist(), "service after finishing");

        p.Eq(SabloCreateServer(&attr), 0, "second start");
        p.True(WaitUntil([] { return ServerThreads() == 1; }, 10000), "server thread restarted");
        {
            // A client still gets its pipe opened (the table's workers are gone for good, so
            // it only connects).
            const std::string client = UniqueName("late");
            ChildProcess child("sable_peer", {"client", client, name, "0"});
            p.Eq(child.Wait(10000), 0, "client exit");
            p.True(Log().FdOf(client + "_" + std::to_string(child.Pid())) > 0, "connected");
        }
        p.True(FinishWithin(10000), "second finish returned");
        p.Eq(ServerThreads(), 0, "server threads at the end");
        unlink(fifo.c_str());
        return p.Text();
    });
}

std::atomic<int> restartResult{1};
std::atomic<int> callbackDone{0};

void FinishFromConnect(int fd, SabloClientInfo info) {
    server_test::RecordConnect(fd, info);
    // On the server thread itself: it cannot be joined from here.
    SabloCfgFinishServer();
    const std::string other = std::string(info.name) + "x";
    SabloServerAttr attr = server_test::Attr(other);
    restartResult = SabloCreateServer(&attr);
    callbackDone++;
}

TEST(ServerLifeTest, AConnectCallbackMayFinishTheServerButNotRestartIt) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        const std::string name = UniqueName("self") + "x";
        const std::string fifo = sable_test::EnsureFifoDir() + name;
        SabloServerAttr attr = server_test::Attr(name, FinishFromConnect);
        p.Eq(SabloCreateServer(&attr), 0, "start");
        {
            // Its pipe is closed under it; whatever the client makes of that does not matter.
            ChildProcess child("sable_peer", {"client", UniqueName("cli"), name, "0", "300"});
            child.Wait(10000);
            child.ExpectExit(child.Wait(0));
        }
        p.True(WaitUntil([] { return callbackDone.load() == 1; }, 10000), "callback returned");
        p.Eq(restartResult.load(), -EBUSY, "restart from the callback");
        p.True(WaitUntil([] { return ServerThreads() == 0; }, 10000), "server thread ended");
        p.True(!SabloServiceIsExist(), "service after finishing");

        // The thread that stopped itself is joined by the next start.
        attr = server_test::Attr(name);
        p.Eq(SabloCreateServer(&attr), 0, "start again");
        p.True(WaitUntil([] { return ServerThreads() == 1; }, 10000), "server thread restarted");
        p.True(FinishWithin(10000), "finish returned");
        p.Eq(ServerThreads(), 0, "server threads at the end");
        unlink(fifo.c_str());
        return p.Text();
    });
}

std::atomic<int> phase{0};
std::atomic<int> lateCreate{1};

void CallInWhileFinishing(int fd, SabloClientInfo info) {
    server_test::RecordConnect(fd, info);
    phase = 1;
    // Another thread is finishing the server and waits for this thread to end.
    WaitUntil([] { return phase.load() == 2; }, 10000);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const std::string other = std::string(info.name) + "x";
    SabloServerAttr attr = server_test::Attr(other);
    lateCreate = SabloCreateServer(&attr);
    phase = 3;
}

TEST(ServerLifeTest, AConnectCallbackMayCallIntoTheServerWhileAnotherThreadFinishesIt) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        const std::string name = UniqueName("busy") + "x";
        const std::string fifo = sable_test::EnsureFifoDir() + name;
        SabloServerAttr attr = server_test::Attr(name, CallInWhileFinishing);
        p.Eq(SabloCreateServer(&attr), 0, "start");
        {
            ChildProcess child("sable_peer", {"client", UniqueName("cli"), name, "0", "300"});
            p.True(WaitUntil([] { return phase.load() == 1; }, 10000), "in the callback");
            phase = 2;
            p.True(FinishWithin(10000), "finish returned");
            p.Eq(phase.load(), 3, "callback finished");
            p.Eq(lateCreate.load(), -EEXIST, "create from the callback while stopping");
            p.Eq(ServerThreads(), 0, "server threads after finishing");
            child.Wait(10000);
            child.ExpectExit(child.Wait(0));
        }
        unlink(fifo.c_str());
        return p.Text();
    });
}

}  // namespace
