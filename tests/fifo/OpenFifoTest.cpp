#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "LogCapture.h"
#include "PrivateDir.h"
#include "base/UniqueFd.h"
#include "fifo/nux_fifo.h"

using sable_test::LogCapture;
using sable_test::PrivateDir;

namespace {

int CancelState() {
    int state = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    pthread_setcancelstate(state, nullptr);
    return state;
}

}  // namespace

class OpenFifoTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.Valid());
        fifo = dir.Path("f");
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    }
    PrivateDir dir;
    std::string fifo;
};

TEST_F(OpenFifoTest, NonBlockingWriteWithoutReaderIsENXIOAndSilent) {
    LogCapture cap;
    EXPECT_EQ(OpenFifo(fifo, O_WRONLY | O_NONBLOCK | O_CLOEXEC), -ENXIO);
    EXPECT_TRUE(cap.Lines().empty());
}

TEST_F(OpenFifoTest, OpensBothEndsThroughTheRealPath) {
    // A path with "." and ".." components still lands on the FIFO.
    std::string indirect = dir.Dir() + "/./../" + dir.Dir().substr(dir.Dir().rfind('/') + 1) + "/f";
    sable::UniqueFd reader(OpenFifo(indirect, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(reader.Valid()) << reader.Get();
    sable::UniqueFd writer(OpenFifo(fifo, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(writer.Valid()) << writer.Get();
    EXPECT_NE(fcntl(writer.Get(), F_GETFD) & FD_CLOEXEC, 0);
    ASSERT_EQ(write(writer.Get(), "x", 1), 1);
    char c = 0;
    EXPECT_EQ(read(reader.Get(), &c, 1), 1);
    EXPECT_EQ(c, 'x');
}

TEST_F(OpenFifoTest, MissingPathFailsInResolution) {
    LogCapture cap;
    std::string missing = dir.Path("nothing");
    EXPECT_EQ(OpenFifo(missing, O_RDONLY | O_NONBLOCK), -ENOENT);
    EXPECT_TRUE(cap.Contains("Transfer real path fail, path name=" + missing + ", ret=-2.\n"));
}

TEST_F(OpenFifoTest, OtherOpenFailuresAreLogged) {
    LogCapture cap;
    EXPECT_EQ(OpenFifo(dir.Dir(), O_WRONLY | O_NONBLOCK), -EISDIR);
    ASSERT_TRUE(cap.Contains("Open fifo " + dir.Dir() + " fail, fd=-1, errno=21.\n"));
    EXPECT_EQ(cap.Lines().at(0).level, LOG_ERR);
}

TEST_F(OpenFifoTest, CallersCancelStateIsRestored) {
    int original = 0;
    ASSERT_EQ(pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &original), 0);
    sable::UniqueFd reader(OpenFifo(fifo, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_TRUE(reader.Valid());
    EXPECT_EQ(CancelState(), PTHREAD_CANCEL_DISABLE);
    EXPECT_EQ(OpenFifo(dir.Path("nothing"), O_RDONLY), -ENOENT);
    EXPECT_EQ(OpenFifo(dir.Dir(), O_WRONLY), -EISDIR);
    EXPECT_EQ(CancelState(), PTHREAD_CANCEL_DISABLE);
    pthread_setcancelstate(original, nullptr);
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
    while (!job->cancelSent.load()) {
        sched_yield();
    }
    // No writer ever comes: only the cancellation can end this open.
    int fd = OpenFifo(job->path, O_RDONLY | O_CLOEXEC);
    job->returned = true;
    if (fd >= 0) close(fd);
    return nullptr;
}

}  // namespace

TEST_F(OpenFifoTest, BlockingOpenIsCancellableInAThreadThatDisabledCancellation) {
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

TEST(EpollHelpers, AddedDescriptorReportsTheGivenDataAndCanBeRemoved) {
    sable::UniqueFd ep(epoll_create1(EPOLL_CLOEXEC));
    ASSERT_TRUE(ep.Valid());
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    sable::UniqueFd readEnd(fds[0]);
    sable::UniqueFd writeEnd(fds[1]);

    LogCapture cap;
    ASSERT_EQ(AddFdToEpoll(ep.Get(), readEnd.Get(), 77, EPOLLIN), 0);
    EXPECT_TRUE(cap.Lines().empty());
    ASSERT_EQ(write(writeEnd.Get(), "z", 1), 1);
    struct epoll_event ev {};
    ASSERT_EQ(epoll_wait(ep.Get(), &ev, 1, 5000), 1);
    EXPECT_EQ(ev.data.fd, 77);
    EXPECT_NE(ev.events & EPOLLIN, 0u);

    EXPECT_EQ(AddFdToEpoll(ep.Get(), readEnd.Get(), 78, EPOLLIN), -EEXIST);
    EXPECT_TRUE(cap.Contains("Insert fd=" + std::to_string(readEnd.Get()) + " to epoll-fd=" +
                             std::to_string(ep.Get()) + " failed, ret=-1, errno=-17.\n"));

    ASSERT_EQ(RemoveFdFromEpoll(ep.Get(), readEnd.Get()), 0);
    EXPECT_EQ(epoll_wait(ep.Get(), &ev, 1, 0), 0);  // still readable, but no longer watched

    cap.Clear();
    EXPECT_EQ(RemoveFdFromEpoll(ep.Get(), readEnd.Get()), -ENOENT);
    EXPECT_TRUE(cap.Contains("Remove fd=" + std::to_string(readEnd.Get()) + " from epoll-fd=" +
                             std::to_string(ep.Get()) + " failed, ret=-1, errno=-2.\n"));
    EXPECT_EQ(AddFdToEpoll(-1, readEnd.Get(), 1, EPOLLIN), -EBADF);
}
