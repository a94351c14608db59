// Sends race a close of their pipe: a thread keeps sending on a pipe (found in its own cache, so
// with no reference taken) while another thread closes it and the process at once reuses the
// descriptor numbers the close freed. The close must not wait on a send forever, no send may
// write into a reused number, and none may touch the pipe once it is gone (the ASan suite sees
// that). The window of each fault is a few instructions wide, so a round hits it only now and
// then; the waiting itself is tested deterministically with the hazard slots alone.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <time.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "TestEnv.h"
#include "sable_comm.h"

namespace {

using sable_test::ChildProcess;
using sable_test::UniqueName;
using sable_test::WaitUntil;

void Ignore(int, SabloRequest*) {}

// Stalls the thread it interrupts for a millisecond, wherever in a send that thread was.
void Stall(int) {
    const timespec step{0, 1000 * 1000};
    nanosleep(&step, nullptr);
}

// Sends 64-byte requests until the pipe is gone; counts the ones accepted.
int SendUntilGone(int fd, std::atomic<int>& accepted) {
    std::vector<uint8_t> payload(64, 0x42);
    SabloRequest req{0, payload.data(), static_cast<uint32_t>(payload.size())};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        const int ret = SabloSendRequest(fd, &req);
        if (ret == 0) {
            accepted++;
        } else if (ret != -EAGAIN) {
            return ret;
        }
    }
    return -ETIMEDOUT;
}

// Each round stalls the sender at a random point of its send (a signal whose handler sleeps),
// closes the pipe meanwhile and takes the freed numbers; a send stalled after it read the write
// descriptor's number and before its write would write into one of them.
TEST(SendRaceTest, AClosedPipesDescriptorIsNeverWrittenByASendThatReadItBeforeTheClose) {
    sable_test::EnsureFifoDir();
    struct sigaction stall {};
    stall.sa_handler = Stall;
    stall.sa_flags = SA_RESTART;
    struct sigaction before {};
    ASSERT_EQ(sigaction(SIGUSR1, &stall, &before), 0);
    const std::string self = UniqueName("race");
    for (int round = 0; round < 20; ++round) {
        const std::string peer = UniqueName("echo" + std::to_string(round));
        ChildProcess child("stream_peer", {"echo", peer, self, "1"});
        ASSERT_EQ(child.ReadLine().rfind("ready ", 0), 0u);
        const int fd = sable_test::OpenPipe(self, peer, SABLO_MODE_JOIN, 10000, Ignore);
        ASSERT_GT(fd, 0);

        std::atomic<int> accepted{0};
        std::packaged_task<int()> task([fd, &accepted] { return SendUntilGone(fd, accepted); });
        std::future<int> result = task.get_future();
        std::thread sender(std::move(task));
        ASSERT_TRUE(WaitUntil([&] { return accepted.load() > 50; }, 10000));
        pthread_kill(sender.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::microseconds(100));
        ASSERT_EQ(SabloClosePipe(fd), 0);
        // The numbers the close freed are the lowest free ones: these take them at once.
        std::vector<int> reused;
        for (int i = 0; i < 16; ++i) {
            int ends[2];
            ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
            reused.push_back(ends[0]);
            reused.push_back(ends[1]);
        }
        ASSERT_EQ(result.wait_for(std::chrono::seconds(30)), std::future_status::ready);
        sender.join();
        const int ret = result.get();
        EXPECT_TRUE(ret == -ENOENT || ret == -EPIPE) << ret;
        for (size_t i = 0; i < reused.size(); i += 2) {
            char byte;
            EXPECT_EQ(read(reused[i], &byte, 1), -1) << "a send wrote into a reused descriptor";
            close(reused[i]);
            close(reused[i + 1]);
        }
        child.Kill(SIGKILL);
        child.ExpectExit(128 + SIGKILL);
        if (HasFailure()) {
            break;
        }
    }
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_TRUE(WaitUntil([&] { return sable_test::FifoFilesWith(self).empty(); }, 10000));
}

}  // namespace
