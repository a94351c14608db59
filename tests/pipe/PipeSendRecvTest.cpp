// Frames on the wire between two pipe objects of this process and between two processes:
// delivery, the non-blocking send's failures, and the hang-up of a remote that goes away.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <future>
#include <set>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "PipeRig.h"

using namespace pipe_test;
using sable_test::ChildProcess;
using sable_test::FifoFilesWith;
using sable_test::LogCapture;

namespace {

std::set<uint32_t> Ids(const std::vector<Seen>& seen) {
    std::set<uint32_t> ids;
    for (const auto& s : seen) ids.insert(s.id);
    return ids;
}

}  // namespace

TEST(PipeSendRecv, FramesFlowBothWaysAndEachIsSeenOnce) {
    PipeRig rig;
    Recorder ra, rb;
    std::shared_ptr<SablePipeImpl> a, b;
    EndSpec ea, eb;
    ea.callback = ra.Callback();
    eb.callback = rb.Callback();
    rig.OpenPair(ea, eb, a, b);

    constexpr uint32_t kFrames = 100;
    for (uint32_t i = 0; i < kFrames; ++i) {
        Payload pa(i, i % 2 == 0 ? 1 : 4000);
        Payload pb(i + 1000, i % 2 == 0 ? 4000 : 1);
        ASSERT_EQ(SendPatiently(*b, pb.Request(i)), 0) << i;
        ASSERT_EQ(SendPatiently(*a, pa.Request(i)), 0) << i;
    }
    ASSERT_TRUE(ra.WaitForCount(kFrames));
    ASSERT_TRUE(rb.WaitForCount(kFrames));
    auto seenA = ra.Snapshot();
    auto seenB = rb.Snapshot();
    EXPECT_EQ(seenA.size(), kFrames);
    EXPECT_EQ(seenB.size(), kFrames);
    EXPECT_EQ(Ids(seenA).size(), kFrames);
    EXPECT_EQ(Ids(seenB).size(), kFrames);
    for (const auto& s : seenA) {
        EXPECT_EQ(s.fd, a->GetPipeFd());
        EXPECT_EQ(s.data, Payload(s.id + 1000, s.id % 2 == 0 ? 4000 : 1).bytes) << s.id;
    }
    for (const auto& s : seenB) {
        EXPECT_EQ(s.fd, b->GetPipeFd());
        EXPECT_EQ(s.data, Payload(s.id, s.id % 2 == 0 ? 1 : 4000).bytes) << s.id;
    }
}

TEST(PipeSendRecv, FramesOfUnknownTypeAndUnmatchedResponsesAreDropped) {
    PipeRig rig;
    Recorder ra;
    std::shared_ptr<SablePipeImpl> a, b;
    EndSpec ea;
    ea.callback = ra.Callback();
    rig.OpenPair(ea, {}, a, b);
    Payload p(7, 300);
    SabloRequest req = p.Request(5);
    OutMessage odd(5, req, 100);
    odd.type = 2;
    ASSERT_EQ(b->Write(odd), 0);
    SabloResponse stray{123456, p.bytes.data(), p.Size()};
    ASSERT_EQ(b->Send(stray), 0);
    ASSERT_EQ(b->Send(p.Request(6), 100), 0);  // frames are handled in order: this one last
    ASSERT_TRUE(ra.WaitForCount(1));
    auto seen = ra.Snapshot();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].id, 6u);
    EXPECT_EQ(rig.observer.requestsIn, 1);
}

TEST(PipeSendRecv, PayloadOutsideOneTo4000BytesIsRefused) {
    PipeRig rig;
    std::shared_ptr<SablePipeImpl> a, b;
    rig.OpenPair({}, {}, a, b);
    LogCapture cap;
    Payload big(1, 4001);
    EXPECT_EQ(b->Send(big.Request(1), 100), -EINVAL);
    EXPECT_TRUE(cap.Contains("Send size 4001 is not valid"));
    uint8_t byte = 0;
    EXPECT_EQ(b->Send(SabloRequest{2, &byte, 0}, 100), -EINVAL);
}

TEST(PipeSendRecv, SendOnAFullFifoFailsWithEagainAtOnce) {
    PipeRig rig;
    std::shared_ptr<SablePipeImpl> a, b;
    EndSpec eb;
    eb.watch = false;  // nobody reads b's FIFO
    rig.OpenPair({}, eb, a, b);
    Payload p(3, 4000);
    int ret = 0;
    int sent = 0;
    while (sent < 1000 && (ret = a->Send(p.Request(sent), 100)) == 0) sent++;
    EXPECT_EQ(ret, -EAGAIN);
    // 64 KiB of FIFO hold 16 frames of 4032 bytes; none is ever cut.
    EXPECT_EQ(sent, 65536 / 4032);
    EXPECT_EQ(a->Send(p.Request(99), 100), -EAGAIN);
    EXPECT_NE(fcntl(a->GetWriteFd(), F_GETFL) & O_NONBLOCK, 0);
    // Smaller frames still fit into what is left.
    Payload small(4, 1);
    EXPECT_EQ(a->Send(small.Request(100), 100), 0);
}

TEST(PipeSendRecv, SendAfterTheReaderHasGoneReturnsEpipe) {
    // The default action of SIGPIPE would end this process: the send must report instead.
    struct sigaction old {};
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigaction(SIGPIPE, &dfl, &old);
    {
        PipeRig rig;
        std::shared_ptr<SablePipeImpl> a, b;
        EndSpec ea;
        ea.watch = false;  // a itself does not notice that b left
        rig.OpenPair(ea, {}, a, b);
        Payload p(1, 10);
        ASSERT_EQ(a->Send(p.Request(1), 100), 0);
        b->DeInitPipe();
        LogCapture cap;
        EXPECT_EQ(a->Send(p.Request(2), 100), -EPIPE);
        EXPECT_EQ(a->Send(p.Request(3), 100), -EPIPE);
        sigset_t pending;
        sigpending(&pending);
        EXPECT_EQ(sigismember(&pending, SIGPIPE), 0) << "no SIGPIPE left pending";
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        EXPECT_EQ(sigismember(&mask, SIGPIPE), 0) << "the thread's mask is restored";
    }
    sigaction(SIGPIPE, &old, nullptr);
}

TEST(PipeSendRecv, SendFromAThreadThatBlocksSigpipeLeavesItsSignalToIt) {
    PipeRig rig;
    std::shared_ptr<SablePipeImpl> a, b;
    EndSpec ea;
    ea.watch = false;
    rig.OpenPair(ea, {}, a, b);
    Payload p(1, 10);
    ASSERT_EQ(a->Send(p.Request(1), 100), 0);
    b->DeInitPipe();
    auto result = std::async(std::launch::async, [&] {
        sigset_t pipeSet;
        sigemptyset(&pipeSet);
        sigaddset(&pipeSet, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipeSet, nullptr);
        int ret = a->Send(p.Request(2), 100);
        sigset_t pending;
        sigpending(&pending);
        bool left = sigismember(&pending, SIGPIPE) == 1;
        const struct timespec now = {0, 0};
        sigtimedwait(&pipeSet, nullptr, &now);
        return std::make_pair(ret, left);
    });
    auto r = result.get();
    EXPECT_EQ(r.first, -EPIPE);
    EXPECT_TRUE(r.second) << "the thread blocked SIGPIPE itself: it gets the signal";
}

TEST(PipeSendRecv, CreatingEndWithoutReaderFailsItsFirstSend) {
    PipeRig rig;
    auto a = rig.Make({rig.Name("a"), rig.Name("b"), SABLO_MODE_CREATE, 0, {}, false, true});
    ASSERT_EQ(a->TimedOpen(0), 0);
    Payload p(1, 10);
    EXPECT_EQ(a->Send(p.Request(1), 100), -ENXIO);
    EXPECT_LT(a->GetWriteFd(), 0);
}

TEST(PipeSendRecv, ClosedPipeNeverReopensItsWriteEnd) {
    PipeRig rig;
    std::shared_ptr<SablePipeImpl> a, b;
    rig.OpenPair({}, {}, a, b);
    // a's write end was never opened and b still reads: only the close stops a reopen.
    ASSERT_LT(a->GetWriteFd(), 0);
    a->CloseFd();
    auto fds = sable_test::OpenFds();
    Payload p(1, 10);
    EXPECT_EQ(a->Send(p.Request(1), 100), -1);
    EXPECT_EQ(a->OpenWriteFifo(), -1);
    EXPECT_EQ(a->RetryOpenWriteFifo(1), -1);
    EXPECT_LT(a->GetWriteFd(), 0);
    EXPECT_EQ(sable_test::OpenFds(), fds);

    // An end whose write end was open loses it for good as well.
    ASSERT_GE(b->GetWriteFd(), 0);
    b->CloseFd();
    EXPECT_EQ(b->Send(p.Request(2), 100), -1);
    EXPECT_LT(b->GetWriteFd(), 0);
    EXPECT_EQ(b->TimedOpen(100), -ECANCELED);
}

TEST(PipeSendRecv, ConcurrentSendersNeverInterleaveFrames) {
    PipeRig rig;
    Recorder ra;
    std::shared_ptr<SablePipeImpl> a, b;
    EndSpec ea;
    ea.callback = ra.Callback();
    rig.OpenPair(ea, {}, a, b);
    constexpr int kThreads = 4;
    constexpr uint32_t kEach = 50;
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            for (uint32_t i = 0; i < kEach; ++i) {
                uint32_t id = static_cast<uint32_t>(t) * 1000 + i;
                Payload p(id, 500 + id % 7);
                EXPECT_EQ(SendPatiently(*b, p.Request(id)), 0);
            }
        });
    }
    for (auto& t : senders) t.join();
    ASSERT_TRUE(ra.WaitForCount(kThreads * kEach));
    auto seen = ra.Snapshot();
    EXPECT_EQ(Ids(seen).size(), kThreads * kEach);
    for (const auto& s : seen) EXPECT_EQ(s.data, Payload(s.id, 500 + s.id % 7).bytes);
}

// ---------------------------------------------------------------- two processes

class PipeAcrossProcesses : public ::testing::TestWithParam<SabloMode> {};

// This process opens `GetParam()`, the peer the other mode; when this end joins it is started
// before the peer exists and must wait for it.
TEST_P(PipeAcrossProcesses, FramesFlowBothWaysAndEachIsSeenOnce) {
    const SabloMode mine = GetParam();
    PipeRig rig;
    Recorder seen;
    const std::string me = rig.Name("me"), peerName = rig.Name("peer");
    const int timeout = mine == SABLO_MODE_JOIN ? 10000 : 0;
    auto pipe = rig.Make({me, peerName, mine, timeout, seen.Callback(), false, true});
    constexpr int kPush = 50;
    constexpr int kRpcs = 40;

    std::atomic<bool> opened{false};
    std::future<int> open;
    if (mine == SABLO_MODE_JOIN) {
        open = std::async(std::launch::async, [&] {
            int ret = pipe->TimedOpen(timeout);
            opened = true;
            return ret;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_FALSE(opened.load()) << "no creating end yet";
    } else {
        ASSERT_EQ(pipe->TimedOpen(timeout), 0);
    }
    ChildProcess peer("pipe_peer", {"echo", peerName, me, mine == SABLO_MODE_JOIN ? "1" : "0", "0",
                                    std::to_string(kPush), std::to_string(kRpcs), "20"});
    if (mine == SABLO_MODE_JOIN) {
        ASSERT_EQ(open.wait_for(std::chrono::seconds(15)), std::future_status::ready);
        ASSERT_EQ(open.get(), 0);
    }
    ASSERT_EQ(peer.ReadLine().rfind("ready ", 0), 0u);

    for (int i = 0; i < kRpcs; ++i) {
        Payload p(static_cast<uint32_t>(i), i % 2 == 0 ? 1 : 4000);
        SabloRequest req = p.Request();
        SabloResponse rsp{};
        ASSERT_EQ(pipe->RecordOutRequest(req, rsp, 5000), 0);
        int ret;
        // A creating end opens its write end at the first send; the joining peer has its
        // reader by the time it reported ready.
        ASSERT_EQ(ret = pipe->Send(req, 5000), 0);
        ASSERT_EQ(pipe->WaitForResponse(req, rsp, 5000), 0) << i;
        EXPECT_EQ(rsp.id, req.id);
        EXPECT_EQ(std::vector<uint8_t>(rsp.data, rsp.data + rsp.size), p.bytes);
        DestroyResponse(&rsp);
    }
    ASSERT_TRUE(seen.WaitForCount(kPush));
    auto got = seen.Snapshot();
    EXPECT_EQ(got.size(), static_cast<size_t>(kPush));
    std::set<uint32_t> ids = Ids(got);
    EXPECT_EQ(ids.size(), static_cast<size_t>(kPush));
    EXPECT_EQ(*ids.begin(), 1u);
    EXPECT_EQ(*ids.rbegin(), static_cast<uint32_t>(kPush));

    pipe->DeInitPipe();  // the peer sees the hang-up and exits 0 once it answered all
    EXPECT_EQ(peer.Wait(15000), 0);
    EXPECT_TRUE(rig.WaitClosed(*pipe));
}

INSTANTIATE_TEST_SUITE_P(BothRoles, PipeAcrossProcesses,
                         ::testing::Values(SABLO_MODE_CREATE, SABLO_MODE_JOIN),
                         [](const ::testing::TestParamInfo<SabloMode>& param) {
                             return param.param == SABLO_MODE_CREATE ? std::string("ThisEndCreates")
                                                                     : std::string("ThisEndJoins");
                         });

TEST(PipeHangUp, KilledPeerIsDetectedByTheMonitor) {
    PipeRig rig;
    Recorder seen;
    const std::string me = rig.Name("me"), peerName = rig.Name("peer");
    auto pipe = rig.Make({me, peerName, SABLO_MODE_CREATE, 0, seen.Callback(), false, true});
    ASSERT_EQ(pipe->TimedOpen(0), 0);
    ChildProcess peer("pipe_peer", {"hold", peerName, me, "0", "5000", "30"});
    ASSERT_EQ(peer.ReadLine().rfind("ready ", 0), 0u);
    ASSERT_EQ(rig.monitor.Size(), 1u);
    peer.Kill(SIGKILL);
    peer.ExpectExit(128 + SIGKILL);
    EXPECT_GE(peer.Wait(), 0);

    ASSERT_TRUE(seen.WaitForCount(1));
    EXPECT_TRUE(seen.Snapshot()[0].isNull);
    EXPECT_TRUE(rig.WaitClosed(*pipe));
    EXPECT_EQ(rig.observer.remoteClosed, 1);
    EXPECT_EQ(rig.monitor.Size(), 0u);
}

TEST(PipeHangUp, FramesWrittenBeforeTheRemoteLeftAreAllDeliveredFirst) {
    PipeRig rig;
    Recorder seen;
    const std::string me = rig.Name("me"), peerName = rig.Name("peer");
    auto pipe = rig.Make({me, peerName, SABLO_MODE_CREATE, 0, seen.Callback(), false, true});
    ASSERT_EQ(pipe->TimedOpen(0), 0);
    constexpr int kCount = 300;
    ChildProcess peer("pipe_peer", {"burst", peerName, me, "0", "5000", std::to_string(kCount)});
    ASSERT_EQ(peer.ReadLine().rfind("ready ", 0), 0u);
    EXPECT_EQ(peer.Wait(), 0);

    ASSERT_TRUE(seen.WaitForCount(kCount + 1));
    auto got = seen.Snapshot();
    ASSERT_EQ(got.size(), static_cast<size_t>(kCount + 1));
    for (int i = 0; i < kCount; ++i) {
        EXPECT_FALSE(got[i].isNull) << i;
        EXPECT_EQ(got[i].id, static_cast<uint32_t>(i + 1));
    }
    EXPECT_TRUE(got.back().isNull) << "the close comes after the last frame";
    EXPECT_TRUE(rig.WaitClosed(*pipe));
    EXPECT_EQ(rig.observer.remoteClosed, 1);
}
