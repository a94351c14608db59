// What a pipe does with a received request: the order of callbacks, the bound on concurrent
// callbacks, the cache of a pipe without callback, and the remote-close notification.
#include <errno.h>
#include <gtest/gtest.h>

#include <set>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "PipeRig.h"
#include "pipe/InRequest.h"

using namespace pipe_test;
using sable_test::ChildProcess;
using sable_test::FifoFilesWith;
using sable_test::LogCapture;

TEST(PipeDispatch, OrderedPipeRunsCallbacksOneAtATimeInArrivalOrder) {
    PipeRig rig;
    std::mutex mu;
    std::vector<uint32_t> order;
    std::set<std::thread::id> threads;
    std::atomic<int> active{0};
    std::atomic<int> overlaps{0};
    std::atomic<int> done{0};
    std::shared_ptr<SablePipeImpl> a, b;
    EndSpec ea;
    ea.callback = [&](int, SabloRequest* req) {
        if (req == nullptr) return;
        if (active.fetch_add(1) != 0) overlaps++;
        if (req->id % 16 == 0) std::this_thread::sleep_for(std::chrono::microseconds(300));
        {
            std::lock_guard<std::mutex> lock(mu);
            order.push_back(req->id);
            threads.insert(std::this_thread::get_id());
        }
        active--;
        done++;
    };
    rig.OpenPair(ea, {}, a, b);
    constexpr uint32_t kCount = 300;
    Payload p(1, 8);
    for (uint32_t i = 0; i < kCount; ++i) ASSERT_EQ(b->Send(p.Request(i), 100), 0);
    ASSERT_TRUE(sable_test::WaitUntil([&] { return done == static_cast<int>(kCount); }, 20000));
    std::lock_guard<std::mutex> lock(mu);
    EXPECT_EQ(overlaps, 0);
    ASSERT_EQ(order.size(), kCount);
    for (uint32_t i = 0; i < kCount; ++i) EXPECT_EQ(order[i], i);
    EXPECT_EQ(threads.size(), 1u) << "the pipe's own worker";
    EXPECT_EQ(rig.observer.requestsIn, static_cast<int>(kCount));
    EXPECT_EQ(rig.observer.asyncIn, 0);
}

TEST(PipeDispatch, ConcurrentPipeDropsTheRequestBeyond200InFlight) {
    PipeRig rig(256, 4);
    Gate gate;
    std::shared_ptr<SablePipeImpl> a, b;
    EndSpec ea;
    ea.isConcur = true;
    ea.callback = gate.Callback();
    rig.OpenPair(ea, {}, a, b);
    LogCapture cap;
    Payload p(1, 1);
    for (uint32_t i = 0; i < 201; ++i) ASSERT_EQ(b->Send(p.Request(i), 100), 0);
    ASSERT_TRUE(gate.WaitEntered(200, 30000));
    ASSERT_TRUE(
        cap.WaitFor("Callback occupied over 200 threads fail. Drop the current callback "
                    "for Remote=" +
                        rig.Name("b") + ", fd=" + std::to_string(a->GetPipeFd()) + ".",
                    10000));
    EXPECT_EQ(a->GetCallbacksInFlight(), 200u);
    EXPECT_EQ(gate.Entered(), 200) << "the 201st is dropped, not queued";
    EXPECT_EQ(rig.observer.asyncIn, 200);

    // One callback returns: room for exactly one more.
    gate.Release();
    ASSERT_TRUE(gate.WaitLeft(1));
    ASSERT_TRUE(sable_test::WaitUntil([&] { return a->GetCallbacksInFlight() == 199u; }, 10000));
    ASSERT_EQ(b->Send(p.Request(500), 100), 0);
    ASSERT_TRUE(gate.WaitEntered(201));
    EXPECT_EQ(a->GetCallbacksInFlight(), 200u);

    gate.OpenAll();
    ASSERT_TRUE(gate.WaitLeft(201, 30000));
    EXPECT_TRUE(sable_test::WaitUntil([&] { return a->GetCallbacksInFlight() == 0u; }, 10000));
}

TEST(PipeDispatch, ConcurrentPipeAt200InFlightStillHearsOfTheRemoteClose) {
    PipeRig rig(256, 4);
    Gate gate;
    Recorder closes;
    std::shared_ptr<SablePipeImpl> a, b;
    EndSpec ea;
    ea.isConcur = true;
    auto block = gate.Callback();
    auto note = closes.Callback();
    ea.callback = [block, note](int fd, SabloRequest* req) {
        req ? block(fd, req) : note(fd, req);
    };
    rig.OpenPair(ea, {}, a, b);
    Payload p(1, 1);
    for (uint32_t i = 0; i < 200; ++i) ASSERT_EQ(b->Send(p.Request(i), 100), 0);
    ASSERT_TRUE(gate.WaitEntered(200, 30000));
    b->DeInitPipe();  // a hangs up while every slot is taken
    ASSERT_TRUE(closes.WaitForCount(1));
    EXPECT_TRUE(closes.Snapshot()[0].isNull);
    EXPECT_TRUE(rig.WaitClosed(*a));
    gate.OpenAll();
    EXPECT_TRUE(gate.WaitLeft(200, 30000));
    EXPECT_TRUE(sable_test::WaitUntil([&] { return a->GetCallbacksInFlight() == 0u; }, 10000));
}

TEST(PipeDispatch, ConcurrentPipeRunsCallbacksSideBySide) {
    PipeRig rig;
    Gate gate;
    std::shared_ptr<SablePipeImpl> a, b;
    EndSpec ea;
    ea.isConcur = true;
    ea.callback = gate.Callback();
    rig.OpenPair(ea, {}, a, b);
    Payload p(1, 1);
    for (uint32_t i = 0; i < 3; ++i) ASSERT_EQ(b->Send(p.Request(i), 100), 0);
    // All three are inside the callback at once.
    EXPECT_TRUE(gate.WaitEntered(3));
    gate.OpenAll();
    EXPECT_TRUE(gate.WaitLeft(3));
}

TEST(PipeDispatch, PipeWithoutCallbackCachesUpTo1000Requests) {
    PipeRig rig;
    std::shared_ptr<SablePipeImpl> a, b;
    rig.OpenPair({}, {}, a, b);
    LogCapture cap;
    Payload p(1, 2);
    for (uint32_t i = 0; i < 1001; ++i) ASSERT_EQ(b->Send(p.Request(i), 100), 0) << i;
    ASSERT_TRUE(cap.WaitFor("Add InRequest failed, out of space\n", 10000));
    EXPECT_EQ(cap.Count("Add InRequest failed, out of space"), 1u);
    auto cached = a->GetInReqList();
    ASSERT_EQ(cached.size(), 1000u);
    uint32_t expect = 0;
    for (const auto& r : cached) EXPECT_EQ(r->Record().id, expect++);
    EXPECT_EQ(rig.observer.requestsIn, 0);
}

TEST(PipeDispatch, RequestReachingAClosedPipeIsDroppedSilently) {
    PipeRig rig;
    Recorder seen;
    auto a = rig.Make(
        {rig.Name("a"), rig.Name("b"), SABLO_MODE_CREATE, 0, seen.Callback(), false, true});
    ASSERT_EQ(a->TimedOpen(0), 0);
    a->CloseFd();
    LogCapture cap;
    InMessage msg(3, 0, 4);
    ASSERT_NE(msg.GetData(), nullptr);
    a->ProcessMessage(msg);
    EXPECT_EQ(rig.observer.requestsIn, 0);
    EXPECT_TRUE(cap.Lines().empty());
    EXPECT_EQ(seen.Count(), 0u);
}

TEST(PipeDispatch, CallbackThatThrowsDoesNotStopThePipe) {
    PipeRig rig;
    std::atomic<int> calls{0};
    std::shared_ptr<SablePipeImpl> a, b;
    EndSpec ea;
    ea.callback = [&](int, SabloRequest* req) {
        if (req == nullptr) return;
        calls++;
        if (req->id == 0) throw std::runtime_error("boom");
    };
    rig.OpenPair(ea, {}, a, b);
    LogCapture cap;
    Payload p(1, 1);
    ASSERT_EQ(b->Send(p.Request(0), 100), 0);
    ASSERT_EQ(b->Send(p.Request(1), 100), 0);
    EXPECT_TRUE(sable_test::WaitUntil([&] { return calls == 2; }, 10000));
    EXPECT_TRUE(cap.WaitFor("boom", 5000));
}

// ---------------------------------------------------------------- remote close

TEST(PipeRemoteClose, CallbackSeesNullOnceOnThePipesWorkerThenThePipeCloses) {
    PipeRig rig;
    Recorder seen;
    const std::string me = rig.Name("me"), peerName = rig.Name("peer");
    auto pipe = rig.Make({me, peerName, SABLO_MODE_CREATE, 0, seen.Callback(), false, true});
    ASSERT_EQ(pipe->TimedOpen(0), 0);
    ChildProcess peer("pipe_peer", {"burst", peerName, me, "0", "5000", "3"});
    ASSERT_EQ(peer.ReadLine().rfind("ready ", 0), 0u);
    EXPECT_EQ(peer.Wait(), 0);

    ASSERT_TRUE(seen.WaitForCount(4));
    EXPECT_TRUE(sable_test::WaitUntil([&] { return rig.observer.freedWorkers == 1; }, 10000));
    auto got = seen.Snapshot();
    ASSERT_EQ(got.size(), 4u);
    for (const auto& s : got) {
        EXPECT_EQ(s.fd, pipe->GetPipeFd());
        EXPECT_EQ(s.thread, got[0].thread) << "requests and the close share the pipe's worker";
    }
    EXPECT_TRUE(got[3].isNull);
    EXPECT_FALSE(pipe->IsCallbackHandleRemoteClose());
    EXPECT_TRUE(rig.WaitClosed(*pipe));
    EXPECT_EQ(rig.observer.remoteClosed, 1);
    EXPECT_EQ(rig.monitor.Size(), 0u);
    // A later close changes nothing and notifies nobody.
    pipe->HandleRemoteClosed();
    EXPECT_EQ(seen.Count(), 4u);
}

TEST(PipeRemoteClose, CallbackRunsWhileTheFlagIsSet) {
    PipeRig rig;
    std::atomic<int> flagDuringClose{-1};
    auto ref = std::make_shared<PipeRef>();
    const std::string me = rig.Name("me"), peerName = rig.Name("peer");
    auto pipe = rig.Make({me, peerName, SABLO_MODE_CREATE, 0,
                          [&, ref](int, SabloRequest* req) {
                              auto self = ref->Get();
                              if (req == nullptr && self) {
                                  flagDuringClose = self->IsCallbackHandleRemoteClose() ? 1 : 0;
                              }
                          },
                          false, true});
    ref->Set(pipe);
    ASSERT_EQ(pipe->TimedOpen(0), 0);
    ChildProcess peer("pipe_peer", {"burst", peerName, me, "0", "5000", "1"});
    ASSERT_EQ(peer.ReadLine().rfind("ready ", 0), 0u);
    EXPECT_EQ(peer.Wait(), 0);
    ASSERT_TRUE(sable_test::WaitUntil([&] { return flagDuringClose != -1; }, 10000));
    EXPECT_EQ(flagDuringClose, 1);
    EXPECT_TRUE(sable_test::WaitUntil([&] { return rig.observer.freedWorkers == 1; }, 10000));
    EXPECT_FALSE(pipe->IsCallbackHandleRemoteClose());
}

TEST(PipeRemoteClose, PipeWithoutCallbackStillCloses) {
    PipeRig rig;
    const std::string me = rig.Name("me"), peerName = rig.Name("peer");
    auto pipe = rig.Make({me, peerName, SABLO_MODE_CREATE, 0, {}, false, true});
    ASSERT_EQ(pipe->TimedOpen(0), 0);
    ChildProcess peer("pipe_peer", {"burst", peerName, me, "0", "5000", "2"});
    ASSERT_EQ(peer.ReadLine().rfind("ready ", 0), 0u);
    EXPECT_EQ(peer.Wait(), 0);
    ASSERT_TRUE(rig.WaitClosed(*pipe));
    EXPECT_EQ(rig.observer.remoteClosed, 1);
    EXPECT_EQ(rig.observer.requestsIn, 0) << "nothing is queued for the user";
    EXPECT_EQ(pipe->GetInReqList().size(), 2u) << "the requests stay cached";
}

TEST(PipeRemoteClose, ClosingTheJoiningEndHangsUpTheCreatingEnd) {
    PipeRig rig;
    Recorder ra;
    std::shared_ptr<SablePipeImpl> a, b;
    EndSpec ea;
    ea.callback = ra.Callback();
    rig.OpenPair(ea, {}, a, b);
    b->DeInitPipe();
    ASSERT_TRUE(ra.WaitForCount(1));
    EXPECT_TRUE(ra.Snapshot()[0].isNull);
    EXPECT_TRUE(rig.WaitClosed(*a));
    EXPECT_TRUE(sable_test::WaitUntil([&] { return rig.observer.freedWorkers == 1; }, 10000));
}
