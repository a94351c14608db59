// Pipes between two pipe objects of this process and between two processes: the open
// handshake, frames on the wire, the non-blocking send's failures, and the hang-up of a remote
// that goes away.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>

#include "ChildProcess.h"
#include "FreshProcess.h"
#include "LogCapture.h"
#include "PipeRig.h"
#include "base/UniqueFd.h"

using namespace pipe_test;
using sable_test::ChildProcess;
using sable_test::FifoFilesWith;
using sable_test::OpenFds;

TEST(PipePair, FramesFlowBothWaysEachSeenOnceAndNothingLeaks) {
    const auto before = OpenFds();
    {
        PipeRig rig;
        Recorder ra, rb;
        std::shared_ptr<SablePipeImpl> a, b;
        rig.OpenPair(a, b, ra.Callback(), rb.Callback());
        // A second open of an open pipe returns at once (a real one would wait for a creating
        // end that never reappears) and opens nothing.
        const auto open = OpenFds();
        EXPECT_EQ(b->TimedOpen(-1), 0);
        EXPECT_EQ(a->TimedOpen(-1), 0);
        EXPECT_EQ(OpenFds(), open);

        // Fewer bytes each way than a FIFO holds: no send meets a full one.
        constexpr uint32_t kFrames = 20;
        for (uint32_t i = 0; i < kFrames; ++i) {
            ASSERT_EQ(a->Send(Payload(i, i % 2 ? 4000 : 1).Request(i), 100), 0);
            ASSERT_EQ(b->Send(Payload(i + 100, i % 2 ? 1 : 4000).Request(i), 100), 0);
        }
        ASSERT_TRUE(ra.WaitForCount(kFrames));
        ASSERT_TRUE(rb.WaitForCount(kFrames));
        const auto seenA = ra.Snapshot(), seenB = rb.Snapshot();
        ASSERT_EQ(seenA.size(), kFrames);
        ASSERT_EQ(seenB.size(), kFrames);
        for (uint32_t i = 0; i < kFrames; ++i) {
            EXPECT_EQ(seenA[i].id, i);
            EXPECT_EQ(seenA[i].fd, a->GetPipeFd());
            EXPECT_EQ(seenA[i].data, Payload(i + 100, i % 2 ? 1 : 4000).bytes);
            EXPECT_EQ(seenB[i].id, i);
            EXPECT_EQ(seenB[i].fd, b->GetPipeFd());
            EXPECT_EQ(seenB[i].data, Payload(i, i % 2 ? 4000 : 1).bytes);
        }
        // A pipe that never opened takes its descriptors along as well.
        auto never = rig.Make(rig.Name("n"), rig.Name("m"), SABLO_MODE_JOIN, 10);
        EXPECT_EQ(never->TimedOpen(10), -ETIMEDOUT);
    }
    EXPECT_EQ(OpenFds(), before);
}

TEST(PipeOpen, JoiningEndWithoutCreatingEndTimesOutOrEndsWithItsClose) {
    PipeRig rig;
    auto b = rig.Make(rig.Name("b"), rig.Name("a"), SABLO_MODE_JOIN, 60);
    auto timed = std::async(std::launch::async, [&] { return b->TimedOpen(60); });
    ASSERT_EQ(timed.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(timed.get(), -ETIMEDOUT);
    EXPECT_TRUE(FifoFilesWith(rig.tag).empty()) << "the joining end creates nothing";

    // While an unlimited wait holds the pipe a second open gives up at once; a close ends both.
    auto c = rig.Make(rig.Name("c"), rig.Name("a"), SABLO_MODE_JOIN, -1);
    auto unlimited = std::async(std::launch::async, [&] { return c->TimedOpen(-1); });
    EXPECT_TRUE(sable_test::WaitUntil([&] { return c->GetCloseFdAction() == 1; }, 5000));
    EXPECT_EQ(c->TimedOpen(0), -ETIMEDOUT);
    c->CloseFd();
    ASSERT_EQ(unlimited.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(unlimited.get(), -ECANCELED);
    EXPECT_EQ(c->TimedOpen(100), -ECANCELED) << "a closed pipe stays closed";

    // A creating end that died after making its files: they are not the joining end's to remove.
    auto d = rig.Make(rig.Name("d"), rig.Name("e"), SABLO_MODE_JOIN, 50);
    ASSERT_EQ(mkfifo(d->GetWriteFifoName().c_str(), 0660), 0);
    ASSERT_EQ(mkfifo(d->GetReadFifoName().c_str(), 0660), 0);
    EXPECT_EQ(d->TimedOpen(50), -ETIMEDOUT) << "nobody reads its write FIFO";
    d->CloseFd();
    EXPECT_EQ(FifoFilesWith(rig.tag).size(), 2u);
    unlink(d->GetWriteFifoName().c_str());
    unlink(d->GetReadFifoName().c_str());
}

TEST(PipeOpen, FifoPathOf255CharactersFailsAndCreatesNothing) {
    PipeRig rig;
    // A FIFO path is dir + self + "__to__" + remote: names for a path of `total` characters.
    const size_t fixed = sable_test::EnsureFifoDir().size() + 6;
    auto make = [&](size_t total, SabloMode mode) {
        const std::string self = rig.Name("s"), remote = rig.Name("r");
        const size_t selfLen = (total - fixed) / 2;
        return rig.Make(self + std::string(selfLen - self.size(), 'x'),
                        remote + std::string(total - fixed - selfLen - remote.size(), 'x'), mode,
                        200);
    };
    EXPECT_EQ(make(254, SABLO_MODE_CREATE)->GetWriteFifoName().size(), 254u);
    for (SabloMode mode : {SABLO_MODE_CREATE, SABLO_MODE_JOIN}) {
        sable_test::LogCapture cap;
        EXPECT_EQ(make(255, mode)->TimedOpen(200), -EINVAL);
        EXPECT_TRUE(cap.Contains("set go name fail"));
        EXPECT_TRUE(FifoFilesWith(rig.tag).empty()) << "mode " << mode;
    }
}

namespace {

std::atomic<int> applicationSigpipes{0};
void CountSigpipe(int) {
    applicationSigpipes++;
}

// Sends once more after the pipe's reader has gone: the result, with what was wrong if
// anything, in `p`.
int SendToAGoneReader(PipeRig& rig, const std::string& suffix) {
    auto a = rig.Make(rig.Name("a" + suffix), rig.Name("b" + suffix), SABLO_MODE_CREATE, 0);
    if (a->TimedOpen(0) != 0) return 1;
    Payload p(5, 64);
    {
        sable::UniqueFd reader(
            open(a->GetWriteFifoName().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        if (a->Send(p.Request(), 100) != 0) return 2;
    }
    return a->Send(p.Request(), 100);
}

void ExpectNothingPending(sable_test::Problems& p) {
    sigset_t pending;
    sigpending(&pending);
    p.True(sigismember(&pending, SIGPIPE) == 0, "no SIGPIPE left pending");
}

// How the process ends when it raises SIGPIPE outside the library (in a child of this one).
int OwnSigpipeEndsBy() {
    pid_t child = fork();
    if (child == 0) {
        int fds[2];
        if (pipe(fds) == 0) {
            close(fds[0]);
            ssize_t n = write(fds[1], "x", 1);  // not the library's: the default action applies
            (void)n;
        }
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? WTERMSIG(status) : -WEXITSTATUS(status);
}

}  // namespace

// Whatever the application made of SIGPIPE, a send to a gone reader answers -EPIPE and the
// signal reaches neither the process nor the application's handler; a SIGPIPE of the
// application's own still gets its own disposition, the default action included.
TEST(PipeSend, AGoneReaderNeverSignalsTheProcessWhateverItsSigpipeDisposition) {
    SABLE_EXPECT_IN_FRESH_PROCESS(([] {
        sable_test::Problems p;
        signal(SIGPIPE, SIG_DFL);
        PipeRig rig;
        p.Eq(SendToAGoneReader(rig, "d"), -EPIPE, "default action: the send");
        ExpectNothingPending(p);
        p.Eq(OwnSigpipeEndsBy(), SIGPIPE, "the process's own SIGPIPE ends it as before");
        // The application sets a handler, and later the default action again: the library
        // follows (at the next open here).
        signal(SIGPIPE, CountSigpipe);
        p.Eq(SendToAGoneReader(rig, "h"), -EPIPE, "own handler: the send");
        p.Eq(applicationSigpipes.load(), 0, "the application's handler heard nothing");
        raise(SIGPIPE);
        p.Eq(applicationSigpipes.load(), 1, "the application's handler has its own signals");
        signal(SIGPIPE, SIG_DFL);
        p.Eq(SendToAGoneReader(rig, "e"), -EPIPE, "default action again: the send");
        p.Eq(OwnSigpipeEndsBy(), SIGPIPE, "the process's own SIGPIPE still ends it");
        ExpectNothingPending(p);
        return p.Text();
    }));
    SABLE_EXPECT_IN_FRESH_PROCESS(([] {
        sable_test::Problems p;
        signal(SIGPIPE, SIG_IGN);
        PipeRig rig;
        p.Eq(SendToAGoneReader(rig, "i"), -EPIPE, "ignored: the send");
        struct sigaction now {};
        sigaction(SIGPIPE, nullptr, &now);
        p.True(now.sa_handler == SIG_IGN, "an ignored SIGPIPE stays ignored");
        ExpectNothingPending(p);
        return p.Text();
    }));
}

TEST(PipeSend, FullFifoIsEagainAGoneReaderEpipeAndAClosedPipeStaysClosed) {
    PipeRig rig;
    auto a = rig.Make(rig.Name("a"), rig.Name("b"), SABLO_MODE_CREATE, 0);
    ASSERT_EQ(a->TimedOpen(0), 0);
    Payload p(3, 4000);
    EXPECT_EQ(a->Send(p.Request(), 100), -ENXIO) << "no reader yet";
    // The reader: this test, which reads nothing.
    sable::UniqueFd reader(open(a->GetWriteFifoName().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(reader.Valid());
    int ret = 0, sent = 0;
    while (sent < 100 && (ret = a->Send(p.Request(), 100)) == 0) sent++;
    EXPECT_EQ(ret, -EAGAIN);
    EXPECT_EQ(sent, 65536 / 4032) << "a 64 KiB FIFO holds 16 whole frames";
    EXPECT_EQ(a->Send(Payload(4, 1).Request(), 100), 0) << "a smaller frame still fits";
    EXPECT_EQ(a->Send(Payload(4, 4001).Request(), 100), -EINVAL);

    // The default action of SIGPIPE would end this process: the send reports instead.
    reader.Reset();
    EXPECT_EQ(a->Send(p.Request(), 100), -EPIPE);
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGPIPE), 0) << "the thread's mask is restored";
    std::thread([&] {  // a thread that blocks SIGPIPE itself gets its signal
        sigset_t pipeSet;
        sigemptyset(&pipeSet);
        sigaddset(&pipeSet, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipeSet, nullptr);
        EXPECT_EQ(a->Send(p.Request(), 100), -EPIPE);
        const struct timespec now = {0, 0};
        EXPECT_EQ(sigtimedwait(&pipeSet, nullptr, &now), SIGPIPE);
    })
        .join();

    a->CloseFd();
    const auto fds = OpenFds();
    EXPECT_EQ(a->Send(p.Request(), 100), -EPIPE) << "a closed pipe answers as a gone remote";
    EXPECT_EQ(a->OpenWriteFifo(), -1);
    EXPECT_LT(a->GetWriteFd(), 0);
    EXPECT_EQ(OpenFds(), fds);
}

// ---------------------------------------------------------------- two processes

class PipeAcrossProcesses : public ::testing::TestWithParam<SabloMode> {};

// This process opens with the mode under test, the peer with the other one; a joining end here
// starts before the peer exists and must wait for it.
TEST_P(PipeAcrossProcesses, FramesAndRoundTripsFlowBothWays) {
    const bool joins = GetParam() == SABLO_MODE_JOIN;
    PipeRig rig;
    Recorder seen;
    const std::string me = rig.Name("me"), peerName = rig.Name("peer");
    auto pipe = rig.Make(me, peerName, GetParam(), joins ? 10000 : 0, seen.Callback());
    std::atomic<bool> opened{false};
    auto open = std::async(std::launch::async, [&] {
        int ret = pipe->TimedOpen(joins ? 10000 : 0);
        opened = true;
        return ret;
    });
    if (joins) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_FALSE(opened) << "no creating end yet";
    } else {
        ASSERT_EQ(open.get(), 0);
    }
    constexpr uint32_t kPush = 50, kRpcs = 40;
    ChildProcess peer("pipe_peer", {"echo", peerName, me, joins ? "1" : "0", "0",
                                    std::to_string(kPush), std::to_string(kRpcs)});
    if (joins) {
        ASSERT_EQ(open.wait_for(std::chrono::seconds(15)), std::future_status::ready);
        ASSERT_EQ(open.get(), 0);
    }
    ASSERT_EQ(peer.ReadLine().rfind("ready ", 0), 0u);

    for (uint32_t i = 0; i < kRpcs; ++i) {
        Payload p(i, i % 2 ? 4000 : 1);
        SabloRequest req = p.Request();
        SabloResponse rsp{};
        ASSERT_EQ(Call(*pipe, req, rsp, 5000), 0);
        ASSERT_EQ(pipe->WaitForResponse(req, rsp, 5000), 0) << i;
        EXPECT_EQ(rsp.id, req.id);
        EXPECT_EQ(Bytes(rsp), p.bytes);
        DestroyResponse(&rsp);  // the caller's own copy (AddressSanitizer checks the rest)
        EXPECT_EQ(rsp.data, nullptr);
    }
    ASSERT_TRUE(seen.WaitForCount(kPush));
    const auto got = seen.Snapshot();
    ASSERT_EQ(got.size(), kPush);
    for (uint32_t i = 0; i < kPush; ++i) EXPECT_EQ(got[i].id, i + 1);

    pipe->DeInitPipe();  // the peer sees the hang-up and exits 0 once it answered all
    EXPECT_EQ(peer.Wait(15000), 0);
    EXPECT_TRUE(rig.WaitClosed(*pipe));
}

INSTANTIATE_TEST_SUITE_P(BothRoles, PipeAcrossProcesses,
                         ::testing::Values(SABLO_MODE_CREATE, SABLO_MODE_JOIN),
                         [](const ::testing::TestParamInfo<SabloMode>& param) {
                             return param.param == SABLO_MODE_CREATE ? "ThisEndCreates"
                                                                     : "ThisEndJoins";
                         });

// The peer sends its frames and exits without closing.
TEST(PipeHangUp, EveryFrameComesFirstThenTheCallbackSeesNullOnceOnThePipesWorker) {
    PipeRig rig;
    Recorder seen;
    const std::string me = rig.Name("me"), peerName = rig.Name("peer");
    auto pipe = rig.Make(me, peerName, SABLO_MODE_CREATE, 0, seen.Callback());
    ASSERT_EQ(pipe->TimedOpen(0), 0);
    constexpr uint32_t kCount = 300;
    ChildProcess peer("pipe_peer", {"burst", peerName, me, "0", "5000", std::to_string(kCount)});
    ASSERT_EQ(peer.ReadLine().rfind("ready ", 0), 0u);
    EXPECT_EQ(peer.Wait(), 0);

    ASSERT_TRUE(seen.WaitForCount(kCount + 1));
    ASSERT_TRUE(rig.WaitClosed(*pipe));
    const auto got = seen.Snapshot();
    ASSERT_EQ(got.size(), kCount + 1);
    for (uint32_t i = 0; i <= kCount; ++i) {
        EXPECT_EQ(got[i].isNull, i == kCount) << i;
        EXPECT_EQ(got[i].id, i < kCount ? i + 1 : 0);
        EXPECT_EQ(got[i].fd, pipe->GetPipeFd());
        EXPECT_EQ(got[i].thread, got[0].thread) << "requests and the close share one worker";
    }
    EXPECT_EQ(rig.observer.remoteClosed, 1);
    EXPECT_EQ(rig.monitor.Size(), 0u);
}

TEST(PipeHangUp, KilledPeerIsDetectedAndAPipeWithoutCallbackStillCloses) {
    PipeRig rig;
    const std::string me = rig.Name("me"), peerName = rig.Name("peer");
    auto pipe = rig.Make(me, peerName, SABLO_MODE_CREATE, 0);
    ASSERT_EQ(pipe->TimedOpen(0), 0);
    ChildProcess peer("pipe_peer", {"burst", peerName, me, "0", "5000", "0"});
    ASSERT_EQ(peer.ReadLine().rfind("ready ", 0), 0u);
    ASSERT_EQ(rig.monitor.Size(), 1u);
    peer.Kill(SIGKILL);
    peer.ExpectExit(128 + SIGKILL);
    EXPECT_TRUE(rig.WaitClosed(*pipe));
    EXPECT_EQ(rig.observer.remoteClosed, 1);
    EXPECT_EQ(rig.monitor.Size(), 0u);
}
