// What a pipe does with what it receives: responses handed to waiting callers, callbacks run in
// order or side by side, and requests cached while a pipe has no callback.
#include <errno.h>
#include <gtest/gtest.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <future>
#include <random>
#include <stdexcept>
#include <thread>

#include "LogCapture.h"
#include "PipeRig.h"
#include "pipe/InRequest.h"
#include "pipe/OutRequest.h"

using namespace pipe_test;
using sable_test::LogCapture;
using sable_test::WaitUntil;

// "a" keeps the requests it is sent and the test answers them by hand; "b" is the caller.
TEST(Rpc, WaitEndsWithTheResponseATimeOutOrTheClose) {
    PipeRig rig;
    Recorder server, client;
    std::shared_ptr<SablePipeImpl> a, b;
    rig.OpenPair(a, b, server.Callback(), client.Callback());
    Payload p(5, 100);
    auto answer = [&](const SabloRequest& req) {
        return a->Send(SabloResponse{req.id, p.bytes.data(), 100});
    };
    LogCapture cap;

    // A time-out removes the entry; the late response is dropped (and freed).
    SabloRequest late = p.Request();
    SabloResponse lateRsp{};
    ASSERT_EQ(Call(*b, late, lateRsp, 30), 0);
    EXPECT_EQ(b->WaitForResponse(late, lateRsp, 30), -ETIMEDOUT);
    EXPECT_EQ(b->GetOutReqCount(), 0u);
    EXPECT_TRUE(cap.Contains("SabloRPC WaitForResponse timeout, id=" + std::to_string(late.id) +
                             ",size=100,timeout=30 ms,err=-110"));
    ASSERT_EQ(answer(late), 0);

    // A response there before the caller looks: even a zero budget gets it. (Frames are handled
    // in order, so the late one has been handled by then.)
    SabloRequest early = p.Request();
    SabloResponse rsp{};
    ASSERT_EQ(Call(*b, early, rsp, 5000), 0);
    ASSERT_TRUE(server.WaitForCount(2));
    ASSERT_EQ(answer(early), 0);
    ASSERT_TRUE(WaitUntil([&] { return b->GetOutReqCount() == 0; }, 10000));
    EXPECT_EQ(b->WaitForResponse(early, rsp, 0), 0);
    EXPECT_EQ(Bytes(rsp), p.bytes);
    DestroyResponse(&rsp);
    EXPECT_EQ(lateRsp.data, nullptr) << "the late response reached nobody";

    // A negative budget waits without limit.
    SabloRequest slow = p.Request();
    ASSERT_EQ(Call(*b, slow, rsp, -1), 0);
    auto waiting =
        std::async(std::launch::async, [&] { return b->WaitForResponse(slow, rsp, -1); });
    EXPECT_TRUE(server.WaitForCount(3));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // let the caller wait
    EXPECT_EQ(answer(slow), 0);
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(waiting.get(), 0);
    EXPECT_EQ(Bytes(rsp), p.bytes);
    DestroyResponse(&rsp);

    // A close releases a waiting caller, and one that has not looked yet, with -EPIPE.
    SabloRequest waited = p.Request(), unwaited = p.Request();
    SabloResponse unwaitedRsp{};
    ASSERT_EQ(Call(*b, waited, rsp, -1), 0);
    ASSERT_EQ(Call(*b, unwaited, unwaitedRsp, 5000), 0);
    auto closing =
        std::async(std::launch::async, [&] { return b->WaitForResponse(waited, rsp, -1); });
    EXPECT_TRUE(server.WaitForCount(5));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // let the caller wait
    b->DeInitPipe();
    ASSERT_EQ(closing.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(closing.get(), -EPIPE);
    EXPECT_EQ(b->WaitForResponse(unwaited, unwaitedRsp, 5000), -EPIPE);
    EXPECT_EQ(rsp.data, nullptr);
    EXPECT_TRUE(cap.Contains("Self=" + rig.Name("b") + ", Remote=" + rig.Name("a") +
                             " failed. Caught exception."));
    EXPECT_TRUE(client.Snapshot().empty()) << "responses never reach the request callback";
}

// A caller that reads the FIFO itself (polling) is released from another thread (a close) at
// any moment, also while it stops polling and goes to sleep on the request: each round, the
// wait ends with -EPIPE. A lost wake-up would leave a round hanging past its bound.
TEST(Rpc, AReleaseFromAnotherThreadEndsAPollingWaitAtAnyMoment) {
    const int kick = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    ASSERT_GE(kick, 0);
    std::mt19937 random(12345);
    for (int round = 0; round < 400; ++round) {
        SabloResponse rsp{};
        auto entry = std::make_shared<OutSyncTimedRequest>(nullptr, round, rsp, -1);
        const int pollUs = static_cast<int>(random() % 40);
        const int releaseUs = static_cast<int>(random() % 40);
        auto waiter = std::async(std::launch::async, [&] {
            if (entry->StartPolling(kick)) {
                std::this_thread::sleep_for(std::chrono::microseconds(pollUs));
                entry->StopPolling();
            }
            return entry->WaitUntil(nullptr);
        });
        std::this_thread::sleep_for(std::chrono::microseconds(releaseUs));
        entry->Cancel();
        ASSERT_EQ(waiter.wait_for(std::chrono::seconds(2)), std::future_status::ready)
            << "round " << round;
        EXPECT_EQ(waiter.get(), -EPIPE);
    }
    close(kick);
}

TEST(PipeDispatch, OrderedPipeRunsCallbacksOneAtATimeInArrivalOrder) {
    PipeRig rig;
    Recorder seen;
    std::shared_ptr<SablePipeImpl> a, b;
    // One callback throws: the worker goes on with the next request.
    rig.OpenPair(a, b, [record = seen.Callback()](int fd, SabloRequest* req) {
        record(fd, req);
        if (req != nullptr && req->id == 7) throw std::runtime_error("callback 7 failed");
    });
    LogCapture cap;
    constexpr uint32_t kCount = 300;
    Payload p(1, 8);
    for (uint32_t i = 0; i < kCount; ++i) ASSERT_EQ(b->Send(p.Request(i), 100), 0);
    ASSERT_TRUE(seen.WaitForCount(kCount, true));
    const auto got = seen.Snapshot();
    ASSERT_EQ(got.size(), kCount);
    for (uint32_t i = 0; i < kCount; ++i) {
        EXPECT_EQ(got[i].id, i);
        EXPECT_EQ(got[i].thread, got[0].thread) << "the pipe's one worker";
    }
    EXPECT_TRUE(cap.WaitFor("callback 7 failed", 5000));
}

TEST(PipeDispatch, ConcurrentPipeDropsARequestBeyond200InFlightButNotTheClose) {
    PipeRig rig(256);
    Recorder gate(true);
    std::shared_ptr<SablePipeImpl> a, b;
    rig.OpenPair(a, b, gate.Callback(), {}, true);
    LogCapture cap;
    Payload p(1, 1);
    for (uint32_t i = 0; i < 201; ++i) ASSERT_EQ(b->Send(p.Request(i), 100), 0);
    ASSERT_TRUE(gate.WaitForCount(200));
    ASSERT_TRUE(
        cap.WaitFor("Callback occupied over 200 threads fail. Drop the current callback "
                    "for Remote=" +
                        rig.Name("b") + ", fd=" + std::to_string(a->GetPipeFd()) + ".",
                    10000));
    EXPECT_EQ(gate.Snapshot().size(), 200u) << "the 201st is dropped, not queued";

    // One returns: room for exactly one more.
    gate.Release(1);
    ASSERT_TRUE(gate.WaitForCount(1, true));
    ASSERT_TRUE(WaitUntil([&] { return a->GetCallbacksInFlight() == 199u; }, 10000));
    ASSERT_EQ(b->Send(p.Request(500), 100), 0);
    ASSERT_TRUE(gate.WaitForCount(201));

    // Every slot is taken again: the remote's close still reaches the callback.
    b->DeInitPipe();
    ASSERT_TRUE(gate.WaitForCount(202));
    EXPECT_TRUE(gate.Snapshot().back().isNull);
    gate.Release(1000);
    EXPECT_TRUE(rig.WaitClosed(*a));
    EXPECT_TRUE(WaitUntil([&] { return a->GetCallbacksInFlight() == 0u; }, 10000));
}

TEST(PipeDispatch, PipeWithoutCallbackCachesUpTo1000Requests) {
    PipeRig rig;
    std::shared_ptr<SablePipeImpl> a, b;
    rig.OpenPair(a, b);
    LogCapture cap;
    Payload p(1, 2);
    for (uint32_t i = 0; i < 1001; ++i) ASSERT_EQ(b->Send(p.Request(i), 100), 0) << i;
    ASSERT_TRUE(cap.WaitFor("Add InRequest failed, out of space\n", 10000));
    EXPECT_EQ(cap.Count("Add InRequest failed, out of space"), 1u);
    const auto cached = a->GetInReqList();
    ASSERT_EQ(cached.size(), 1000u);
    uint32_t expect = 0;
    for (const auto& r : cached) EXPECT_EQ(r->Record().id, expect++) << "the first 1000 stay";
}
