// Requests that wait for their response: the round trip over a pipe pair, time-outs, late
// responses, closing during a wait, the out-request list and the timed lock.
#include <errno.h>
#include <gtest/gtest.h>

#include <future>

#include "FreshProcess.h"
#include "LogCapture.h"
#include "PipeRig.h"
#include "pipe/OutRequest.h"
#include "pipe/OutRequestList.h"
#include "pipe/TimedLock.h"

using namespace pipe_test;
using sable_test::LogCapture;

namespace {

// A pair whose "a" end answers every request ("server") and whose "b" end makes the calls.
struct RpcPair {
    explicit RpcPair(PipeRig& rig, SabloCallback serverCallback = {}) {
        auto ref = std::make_shared<PipeRef>();
        EndSpec ea;
        ea.callback = serverCallback ? serverCallback : EchoCallback(ref);
        EndSpec eb;
        eb.callback = seenByClient.Callback();
        rig.OpenPair(ea, eb, server, client);
        ref->Set(server);
    }
    // Records and sends `req`; 0 or the error.
    int Start(SabloRequest& req, SabloResponse& rsp, int timeoutMs) {
        int ret = client->RecordOutRequest(req, rsp, timeoutMs);
        if (ret != 0) return ret;
        ret = client->Send(req, timeoutMs);
        if (ret != 0) client->RemoveRequest(req);
        return ret;
    }
    std::shared_ptr<SablePipeImpl> server, client;
    Recorder seenByClient;
};

// A request that counts its cancellations.
class CountingRequest : public OutRequest {
  public:
    explicit CountingRequest(unsigned id) : OutRequest(id) {}
    void Process(SabloResponse&) override {}
    int Wait() override { return 0; }
    void Cancel() override { cancels++; }
    std::atomic<int> cancels{0};
};

uint8_t* Bytes(uint32_t n, uint8_t fill) {
    uint8_t* data = new uint8_t[n];
    memset(data, fill, n);
    return data;
}

}  // namespace

TEST(Rpc, RoundTripsOf1And4000Bytes) {
    PipeRig rig;
    RpcPair pair(rig);
    for (int i = 0; i < 400; ++i) {
        Payload p(static_cast<uint32_t>(i), i % 2 == 0 ? 1 : 4000);
        SabloRequest req = p.Request();
        SabloResponse rsp{};
        ASSERT_EQ(pair.Start(req, rsp, 5000), 0);
        ASSERT_EQ(pair.client->WaitForResponse(req, rsp, 5000), 0) << i;
        EXPECT_EQ(req.id, static_cast<uint32_t>(i)) << "ids count up from 0";
        EXPECT_EQ(rsp.id, req.id);
        ASSERT_EQ(rsp.size, p.Size());
        EXPECT_EQ(std::vector<uint8_t>(rsp.data, rsp.data + rsp.size), p.bytes);
        DestroyResponse(&rsp);
        EXPECT_EQ(rsp.data, nullptr);
    }
    EXPECT_EQ(pair.client->GetOutReqCount(), 0u);
    EXPECT_EQ(pair.seenByClient.Count(), 0u) << "responses never reach the request callback";
}

TEST(Rpc, ResponseThatArrivesBeforeTheWaiterLooksReturnsAtOnce) {
    PipeRig rig;
    RpcPair pair(rig);
    Payload p(9, 32);
    SabloRequest req = p.Request();
    SabloResponse rsp{};
    ASSERT_EQ(pair.Start(req, rsp, 5000), 0);
    ASSERT_TRUE(sable_test::WaitUntil([&] { return pair.client->GetOutReqCount() == 0; }, 10000));
    // A zero budget would fail any real wait.
    EXPECT_EQ(pair.client->WaitForResponse(req, rsp, 0), 0);
    EXPECT_EQ(std::vector<uint8_t>(rsp.data, rsp.data + rsp.size), p.bytes);
    DestroyResponse(&rsp);
}

TEST(Rpc, TimeOutRemovesTheEntryAndTheLateResponseIsDropped) {
    PipeRig rig;
    Recorder held;  // the server keeps the requests and answers later
    RpcPair pair(rig, held.Callback());
    Payload p(5, 100);
    SabloRequest req = p.Request();
    SabloResponse rsp{};
    LogCapture cap;
    ASSERT_EQ(pair.Start(req, rsp, 30), 0);
    EXPECT_EQ(pair.client->WaitForResponse(req, rsp, 30), -ETIMEDOUT);
    EXPECT_EQ(pair.client->GetOutReqCount(), 0u);
    EXPECT_EQ(rsp.data, nullptr);
    EXPECT_EQ(rsp.size, 0u);
    EXPECT_TRUE(cap.Contains("SabloRPC WaitForResponse timeout, id=" + std::to_string(req.id) +
                             ",size=100,timeout=30 ms,err=-110"));

    ASSERT_TRUE(held.WaitForCount(1));
    SabloResponse late{req.id, p.bytes.data(), p.Size()};
    ASSERT_EQ(pair.server->Send(late), 0);
    // Frames are handled in order: once this request is seen the late response was handled.
    ASSERT_EQ(pair.server->Send(p.Request(77), 100), 0);
    ASSERT_TRUE(pair.seenByClient.WaitForCount(1));
    EXPECT_EQ(pair.seenByClient.Snapshot()[0].id, 77u);
    EXPECT_EQ(rsp.data, nullptr) << "the caller's record stays untouched";
}

TEST(Rpc, CloseDuringAWaitReleasesTheCallerWithEpipe) {
    PipeRig rig;
    Recorder held;
    RpcPair pair(rig, held.Callback());
    Payload p(5, 10);
    SabloRequest req = p.Request();
    SabloResponse rsp{};
    ASSERT_EQ(pair.Start(req, rsp, -1), 0);
    auto waiting =
        std::async(std::launch::async, [&] { return pair.client->WaitForResponse(req, rsp, -1); });
    ASSERT_TRUE(held.WaitForCount(1));
    LogCapture cap;
    pair.client->DeInitPipe();
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(waiting.get(), -EPIPE);
    EXPECT_EQ(rsp.data, nullptr);
    EXPECT_TRUE(cap.Contains("Self=" + rig.Name("b") + ", Remote=" + rig.Name("a") +
                             " failed. Caught exception."));
    // A closed pipe takes no new request.
    SabloRequest again = p.Request();
    EXPECT_EQ(pair.client->RecordOutRequest(again, rsp, 100), -EPIPE);
}

TEST(Rpc, CloseBetweenSendAndWaitIsEpipeNotSuccess) {
    PipeRig rig;
    Recorder held;
    RpcPair pair(rig, held.Callback());
    Payload p(5, 10);
    SabloRequest req = p.Request();
    SabloResponse rsp{};
    ASSERT_EQ(pair.Start(req, rsp, 1000), 0);
    pair.client->DeInitPipe();
    EXPECT_EQ(pair.client->WaitForResponse(req, rsp, 1000), -EPIPE);
    EXPECT_EQ(rsp.data, nullptr);
}

TEST(Rpc, NegativeBudgetWaitsForASlowResponse) {
    PipeRig rig;
    auto ref = std::make_shared<PipeRef>();
    auto echo = EchoCallback(ref);
    RpcPair pair(rig, [echo](int fd, SabloRequest* req) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        echo(fd, req);
    });
    ref->Set(pair.server);
    Payload p(5, 10);
    SabloRequest req = p.Request();
    SabloResponse rsp{};
    ASSERT_EQ(pair.Start(req, rsp, -1), 0);
    EXPECT_EQ(pair.client->WaitForResponse(req, rsp, -1), 0);
    EXPECT_EQ(std::vector<uint8_t>(rsp.data, rsp.data + rsp.size), p.bytes);
    DestroyResponse(&rsp);
}

// The run mode is read once per process, so this runs in a fresh one.
TEST(Rpc, RunMode1LetsEveryRequestWaitFiveHours) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        sable_test::Problems problems;
        setenv("DATAGLEN_RUN_MODE", "1", 1);
        PipeRig rig;
        auto ref = std::make_shared<PipeRef>();
        auto echo = EchoCallback(ref);
        RpcPair pair(rig, [echo](int fd, SabloRequest* req) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            echo(fd, req);
        });
        ref->Set(pair.server);
        Payload p(5, 10);
        SabloRequest req = p.Request();
        SabloResponse rsp{};
        problems.Eq(pair.Start(req, rsp, 10), 0, "send");
        problems.Eq(pair.client->WaitForResponse(req, rsp, 10), 0, "a 10 ms budget outlasted");
        problems.True(rsp.data != nullptr, "response delivered");
        DestroyResponse(&rsp);
        return problems.Text();
    });
}

TEST(Rpc, ConcurrentCallersEachGetTheirOwnResponse) {
    PipeRig rig;
    RpcPair pair(rig);
    std::vector<std::thread> callers;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) {
                Payload p(static_cast<uint32_t>(t * 100 + i), 64);
                SabloRequest req = p.Request();
                SabloResponse rsp{};
                int ret = pair.Start(req, rsp, 5000);
                if (ret == 0) ret = pair.client->WaitForResponse(req, rsp, 5000);
                if (ret == 0 && std::vector<uint8_t>(rsp.data, rsp.data + rsp.size) == p.bytes) {
                    good++;
                }
                DestroyResponse(&rsp);
            }
        });
    }
    for (auto& c : callers) c.join();
    EXPECT_EQ(good, 200);
}

// ---------------------------------------------------------------- the request objects

TEST(OutSyncTimedRequest, ResponseBeforeWaitIsReturnedAtOnce) {
    uint8_t stale = 0;
    SabloResponse caller{1, &stale, 9};
    OutSyncTimedRequest req(nullptr, 4, caller, 0);
    EXPECT_EQ(caller.data, nullptr) << "cleared at construction";
    EXPECT_EQ(caller.size, 0u);
    SabloResponse got{4, Bytes(3, 7), 3};
    req.Process(got);
    EXPECT_EQ(req.Wait(), 0);
    ASSERT_NE(caller.data, nullptr);
    EXPECT_EQ(caller.size, 3u);
    EXPECT_EQ(caller.data[2], 7);
    DestroyResponse(&caller);
}

TEST(OutSyncTimedRequest, CancelWithoutResponseIsEpipe) {
    SabloResponse caller{};
    OutSyncTimedRequest req(nullptr, 4, caller, 1000);
    req.Cancel();
    EXPECT_EQ(req.Wait(), -EPIPE);
}

TEST(OutSyncTimedRequest, LateResponseAfterTimeOutIsFreedNotDelivered) {
    SabloResponse caller{};
    OutSyncTimedRequest req(nullptr, 4, caller, 10);
    EXPECT_EQ(req.Wait(), -ETIMEDOUT);
    SabloResponse late{4, Bytes(100, 1), 100};
    req.Process(late);  // freed here (AddressSanitizer would report a leak otherwise)
    EXPECT_EQ(caller.data, nullptr);
    EXPECT_EQ(caller.size, 0u);
}

TEST(OutSyncTimedRequest, UnlimitedWaitEndsWithTheResponse) {
    SabloResponse caller{};
    OutSyncTimedRequest req(nullptr, 4, caller, -1);
    auto waiting = std::async(std::launch::async, [&] { return req.Wait(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    SabloResponse got{4, Bytes(2, 5), 2};
    req.Process(got);
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(waiting.get(), 0);
    DestroyResponse(&caller);
}

TEST(OutSyncTimedRequest, TimeOutRemovesItselfFromItsPipe) {
    PipeRig rig;
    std::shared_ptr<SablePipeImpl> a, b;
    rig.OpenPair({}, {}, a, b);
    Payload p(1, 4);
    SabloRequest req = p.Request();
    SabloResponse rsp{};
    ASSERT_EQ(b->RecordOutRequest(req, rsp, 10), 0);
    EXPECT_EQ(b->GetOutReqCount(), 1u);
    EXPECT_EQ(b->WaitForResponse(req, rsp, 10), -ETIMEDOUT);
    EXPECT_EQ(b->GetOutReqCount(), 0u);
}

// ---------------------------------------------------------------- the list

TEST(OutRequestList, HoldsAtMost1000Entries) {
    OutRequestList list;
    list.Enable();
    for (unsigned i = 0; i < 1000; ++i)
        ASSERT_EQ(list.PushBack(std::make_shared<CountingRequest>(i)), 0);
    LogCapture cap;
    EXPECT_EQ(list.PushBack(std::make_shared<CountingRequest>(1000)), -ENOMEM);
    EXPECT_TRUE(cap.Contains("Add OutRequest failed, outReqList size=1000 bytes."));
    EXPECT_EQ(list.Size(), 1000u);
    list.Disable();
}

TEST(OutRequestList, RefusesEntriesBeforeEnableAndAfterDisable) {
    OutRequestList list;
    LogCapture cap;
    EXPECT_EQ(list.PushBack(std::make_shared<CountingRequest>(1)), -EPIPE);
    EXPECT_TRUE(cap.Contains("Add OutRequest failed, outReqList is not valid."));
    list.Enable();
    EXPECT_EQ(list.PushBack(std::make_shared<CountingRequest>(1)), 0);
    list.Disable();
    EXPECT_EQ(list.PushBack(std::make_shared<CountingRequest>(2)), -EPIPE);
    EXPECT_EQ(list.Size(), 0u);
}

TEST(OutRequestList, DisableCancelsEveryEntryExactlyOnce) {
    OutRequestList list;
    list.Enable();
    std::vector<std::shared_ptr<CountingRequest>> reqs;
    for (unsigned i = 0; i < 10; ++i) {
        reqs.push_back(std::make_shared<CountingRequest>(i % 3));  // ids repeat
        ASSERT_EQ(list.PushBack(reqs.back()), 0);
    }
    list.Disable();
    EXPECT_EQ(list.Size(), 0u);
    for (const auto& r : reqs) {
        EXPECT_EQ(r->cancels, 1);
        EXPECT_EQ(r.use_count(), 1) << "the list let go of it";
    }
    list.Disable();
    for (const auto& r : reqs) EXPECT_EQ(r->cancels, 1);
}

TEST(OutRequestList, FindKeepsPopRemovesTheFirstMatch) {
    OutRequestList list;
    list.Enable();
    auto first = std::make_shared<CountingRequest>(7);
    auto second = std::make_shared<CountingRequest>(7);
    auto other = std::make_shared<CountingRequest>(8);
    list.PushBack(first);
    list.PushBack(other);
    list.PushBack(second);
    EXPECT_EQ(list.Find(99), nullptr);
    EXPECT_EQ(list.Pop(99), nullptr);
    EXPECT_EQ(list.Size(), 3u);
    EXPECT_EQ(list.Find(7), first);
    EXPECT_EQ(list.Size(), 3u);
    EXPECT_EQ(list.Pop(7), first);
    EXPECT_EQ(list.Find(7), second);
    list.Erase(7);
    EXPECT_EQ(list.Find(7), nullptr);
    list.Erase(7);
    EXPECT_EQ(list.Size(), 1u);
    list.Disable();
    EXPECT_EQ(first->cancels + second->cancels, 0);
    EXPECT_EQ(other->cancels, 1);
}

// ---------------------------------------------------------------- timed lock

TEST(TimedLock, ZeroBudgetFailsAtOnceWhenHeld) {
    std::timed_mutex mu;
    std::promise<void> held, release;
    std::thread holder([&] {
        std::lock_guard<std::timed_mutex> lock(mu);
        held.set_value();
        release.get_future().wait();
    });
    held.get_future().wait();
    {
        TimedLock lock(&mu, 0);
        EXPECT_EQ(lock.Lock(), -ETIMEDOUT);
    }
    {
        TimedLock lock(&mu, 20);
        EXPECT_EQ(lock.Lock(), -ETIMEDOUT);
    }
    release.set_value();
    holder.join();
}

TEST(TimedLock, LocksAFreeMutexAndUnlocksOnDestruction) {
    std::timed_mutex mu;
    {
        TimedLock lock(&mu, 0);
        EXPECT_EQ(lock.Lock(), 0);
        EXPECT_EQ(lock.GetRemainingTime(), 0);
    }
    {
        TimedLock lock(&mu, 1000);
        EXPECT_EQ(lock.Lock(), 0);
        EXPECT_GT(lock.GetRemainingTime(), 0);
        EXPECT_LE(lock.GetRemainingTime(), 1000);
    }
    {
        TimedLock lock(&mu, -1);
        EXPECT_EQ(lock.Lock(), 0);
        EXPECT_EQ(lock.GetRemainingTime(), -1);
    }
    {
        TimedLock unlocked(&mu, 10);  // never locked: nothing to unlock
    }
    EXPECT_TRUE(mu.try_lock());
    mu.unlock();
}
