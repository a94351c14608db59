#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "LogCapture.h"
#include "TestEnv.h"
#include "base/UniqueFd.h"
#include "fifo/check_file_attr.h"
#include "fifo/nux_fifo.h"

using sable_test::LogCapture;

class OpenFifoTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0); }
    void TearDown() override {
        for (const char* suffix : {"", "_file", "_link"}) unlink((fifo + suffix).c_str());
    }

    std::string dir = sable_test::EnsureFifoDir();
    std::string name = sable_test::UniqueName("of");
    std::string fifo = dir + name;
};

TEST_F(OpenFifoTest, WriteEndNeedsAReaderAndOnlyOtherFailuresAreLogged) {
    LogCapture cap;
    EXPECT_EQ(OpenFifo(fifo, O_WRONLY | O_NONBLOCK | O_CLOEXEC), -ENXIO);
    EXPECT_TRUE(cap.Lines().empty());

    // The path is resolved first: "." and ".." still land on the FIFO.
    sable::UniqueFd reader(OpenFifo(dir + "./../sable_comm/" + name, O_RDONLY | O_NONBLOCK));
    ASSERT_TRUE(reader.Valid()) << reader.Get();
    sable::UniqueFd writer(OpenFifo(fifo, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(writer.Valid()) << writer.Get();
    ASSERT_EQ(write(writer.Get(), "x", 1), 1);
    char c = 0;
    EXPECT_EQ(read(reader.Get(), &c, 1), 1);

    EXPECT_EQ(OpenFifo(fifo + "_missing", O_RDONLY | O_NONBLOCK), -ENOENT);
    // Nothing but a FIFO is opened: a directory is refused before any open.
    EXPECT_EQ(OpenFifo(dir, O_WRONLY | O_NONBLOCK), -EACCES);
    EXPECT_TRUE(cap.Contains("File " + dir + "(mode="));
}

TEST_F(OpenFifoTest, OnlyARealFifoPassesTheFileChecks) {
    std::string file = fifo + "_file";
    std::string link = fifo + "_link";
    sable::UniqueFd fd(open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    ASSERT_TRUE(fd.Valid());
    ASSERT_EQ(symlink(fifo.c_str(), link.c_str()), 0);
    EXPECT_EQ(IsFifoFile(fifo), 0);
    EXPECT_EQ(IsFifoFile(file), -EACCES);
    // A link to a FIFO is not a FIFO: peers must never be steered elsewhere.
    EXPECT_EQ(IsFifoFile(link), -EACCES);
    EXPECT_EQ(IsFifoFile(fifo + "_missing"), -ENOENT);
    EXPECT_EQ(IsLink(fifo), 0);
    EXPECT_EQ(IsLink(link), -EINVAL);
}

namespace {

struct BlockedOpen {
    std::string path;
    std::atomic<bool> cancelSent{false};
    std::atomic<bool> returned{false};
};

void* OpenWithCancellationDisabled(void* arg) {
    auto* job = static_cast<BlockedOpen*>(arg);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    while (!job->cancelSent.load()) sched_yield();
    // No writer ever comes: only the cancellation can end this open.
    int fd = OpenFifo(job->path, O_RDONLY | O_CLOEXEC);
    job->returned = true;
    if (fd >= 0) close(fd);
    return nullptr;
}

}  // namespace

TEST_F(OpenFifoTest, BlockingOpenIsCancellableThoughTheCallerDisabledCancellation) {
    int original = 0;
    int after = 0;
    ASSERT_EQ(pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &original), 0);
    EXPECT_GE(sable::UniqueFd(OpenFifo(fifo, O_RDONLY | O_NONBLOCK | O_CLOEXEC)).Get(), 0);
    pthread_setcancelstate(original, &after);
    EXPECT_EQ(after, PTHREAD_CANCEL_DISABLE);  // the caller's state, given back

    BlockedOpen job;
    job.path = fifo;
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, OpenWithCancellationDisabled, &job), 0);
    ASSERT_EQ(pthread_cancel(thread), 0);  // stays pending while the thread disables it
    job.cancelSent = true;
    struct timespec deadline {};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 20;
    void* result = nullptr;
    int joined = pthread_timedjoin_np(thread, &result, &deadline);
    if (joined != 0) {
        // Release the thread so that the test does not leave it behind.
        sable::UniqueFd writer(open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        pthread_join(thread, &result);
    }
    EXPECT_EQ(joined, 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_FALSE(job.returned.load());
}

TEST(EpollHelpers, AddedDescriptorReportsTheGivenDataUntilRemoved) {
    sable::UniqueFd ep(epoll_create1(EPOLL_CLOEXEC));
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    sable::UniqueFd readEnd(fds[0]);
    sable::UniqueFd writeEnd(fds[1]);
    ASSERT_EQ(AddFdToEpoll(ep.Get(), readEnd.Get(), 77, EPOLLIN), 0);
    ASSERT_EQ(write(writeEnd.Get(), "z", 1), 1);
    struct epoll_event ev {};
    ASSERT_EQ(epoll_wait(ep.Get(), &ev, 1, 5000), 1);
    EXPECT_EQ(ev.data.fd, 77);  // the caller's data (a pipe index), not the descriptor
    EXPECT_EQ(AddFdToEpoll(ep.Get(), readEnd.Get(), 78, EPOLLIN), -EEXIST);

    ASSERT_EQ(RemoveFdFromEpoll(ep.Get(), readEnd.Get()), 0);
    EXPECT_EQ(epoll_wait(ep.Get(), &ev, 1, 0), 0);  // still readable, but no longer watched
    EXPECT_EQ(RemoveFdFromEpoll(ep.Get(), readEnd.Get()), -ENOENT);
}
