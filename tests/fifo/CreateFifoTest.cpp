#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>

#include "LogCapture.h"
#include "TestEnv.h"
#include "base/UniqueFd.h"
#include "fifo/nux_fifo.h"

using sable_test::LogCapture;

namespace {

// A group other than this process's own that it may give its files (root may give any).
gid_t OtherGroup() {
    if (geteuid() == 0) return getgid() + 4242;
    gid_t groups[64];
    int n = getgroups(64, groups);
    for (int i = 0; i < n; ++i) {
        if (groups[i] != getgid()) return groups[i];
    }
    return getgid();
}

bool MakeFile(const std::string& path) {
    return sable::UniqueFd(open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644))
        .Valid();
}

}  // namespace

class CreateFifoTest : public ::testing::Test {
  protected:
    void TearDown() override { unlink(path.c_str()); }
    int Create() { return CreateFifo(path, getgid(), -1, SABLO_DOMAIN_NONE, ""); }
    bool IsFifo() {
        struct stat st;
        return lstat(path.c_str(), &st) == 0 && S_ISFIFO(st.st_mode);
    }
    // Files of this test in the FIFO directory: the temporary names start with the final one.
    std::set<std::string> Files() { return sable_test::FifoFilesWith(name); }

    std::string name = sable_test::UniqueName("cf") + "__to__q";
    std::string path = sable_test::EnsureFifoDir() + name;
    const std::set<std::string> justTheFifo{name};
};

TEST_F(CreateFifoTest, ReplacesWhatStoodThereWithAFifoOfMode0660AndTheGroup) {
    LogCapture cap;
    const gid_t group = OtherGroup();
    struct Case {
        mode_t umask;
        SabloDomain domain;
        int pid;
        const char* con;
    } cases[] = {{0077, SABLO_DOMAIN_NONE, -1, ""},
                 {0, SABLO_DOMAIN_DP, getpid(), "peer_t"},
                 {0022, SABLO_DOMAIN_ELM, -1, "system_u:object_r:x_t:s0"}};
    ASSERT_TRUE(MakeFile(path));
    for (const Case& c : cases) {
        mode_t old = umask(c.umask);
        int ret = CreateFifo(path, group, c.pid, c.domain, c.con);
        umask(old);
        ASSERT_EQ(ret, 0) << c.domain;
        struct stat st;
        ASSERT_EQ(lstat(path.c_str(), &st), 0);
        EXPECT_TRUE(S_ISFIFO(st.st_mode));
        EXPECT_EQ(st.st_mode & 07777, 0660u) << "umask " << c.umask;
        EXPECT_EQ(st.st_gid, group);
        EXPECT_EQ(Files(), justTheFifo);
        // Next, a link that points nowhere (a check that follows links would miss it).
        ASSERT_EQ(unlink(path.c_str()), 0);
        ASSERT_EQ(symlink((path + "_gone").c_str(), path.c_str()), 0);
    }
    // Labelling is off in this build, so only info lines (which the logger drops) are written.
    EXPECT_TRUE(cap.Lines().empty()) << cap.Lines().front().text;

    std::string noDir = sable_test::EnsureFifoDir() + "absent_" + name + "/" + name;
    EXPECT_EQ(CreateFifo(noDir, getgid(), -1, SABLO_DOMAIN_NONE, ""), -ENOENT);
    EXPECT_TRUE(cap.Contains("Make fifo " + noDir + " failed, ret=-2.\n"));
}

// Two creators at a time (a third one's clearing could remove the FIFO of the first between
// the second's checks), in threads or in processes by turns.
TEST_F(CreateFifoTest, TwoCreatorsAtOnceInThreadsOrProcessesBothSucceed) {
    for (int round = 0; round < 60; ++round) {
        int go[2];
        ASSERT_EQ(pipe2(go, O_CLOEXEC), 0);
        sable::UniqueFd goRead(go[0]);
        sable::UniqueFd goWrite(go[1]);
        auto second = [&] {
            char c;
            return read(goRead.Get(), &c, 1) == 1 ? Create() : 1;
        };
        int other = 1;
        std::thread thread;
        pid_t child = 0;
        if (round % 2 == 0) {
            thread = std::thread([&] { other = second(); });
        } else if ((child = fork()) == 0) {
            _exit(second() == 0 ? 0 : 1);
        }
        EXPECT_EQ(write(goWrite.Get(), "g", 1), 1);
        goWrite.Reset();  // never leaves the other creator waiting
        int mine = Create();
        if (thread.joinable()) {
            thread.join();
        } else if (child > 0) {
            int status = 0;
            bool exited = sable_test::WaitUntil(
                [&] { return waitpid(child, &status, WNOHANG) == child; }, 20000);
            if (!exited) {
                kill(child, SIGKILL);
                waitpid(child, &status, 0);
            }
            other = exited && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        EXPECT_EQ(mine, 0) << "round " << round;
        EXPECT_EQ(other, 0) << "round " << round;
        EXPECT_TRUE(IsFifo());
        ASSERT_EQ(Files(), justTheFifo);
    }
}

// A planter thread puts a regular file at the name the moment CreateFifo has cleared it and
// before it links its FIFO there. A real race, which the planter wins most of the time (the
// creator still has to make, chmod and label its temporary FIFO); rounds repeat until it wins.
TEST_F(CreateFifoTest, NonFifoAppearingBeforeThePublishIsRefusedAndRemoved) {
    LogCapture cap;
    bool refused = false;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (int round = 0; !refused && round < 2000 && std::chrono::steady_clock::now() < deadline;
         ++round) {
        // A marker at the name, so that "missing" means CreateFifo has just cleared it.
        unlink(path.c_str());
        ASSERT_TRUE(MakeFile(path));
        std::atomic<bool> stop{false};
        std::atomic<bool> spinning{false};
        std::atomic<bool> planted{false};
        std::thread planter([&] {
            struct stat st;
            spinning = true;
            while (!stop.load(std::memory_order_relaxed)) {
                if (lstat(path.c_str(), &st) != 0 && errno == ENOENT) {
                    planted = MakeFile(path);
                    return;
                }
            }
        });
        while (!spinning.load()) std::this_thread::yield();
        int result = Create();
        stop = true;
        planter.join();
        // The planter can only win before the link; afterwards the FIFO holds the name.
        ASSERT_EQ(result == -EACCES, planted.load()) << result;
        refused = result == -EACCES;
        EXPECT_EQ(Files(), refused ? std::set<std::string>{} : justTheFifo);
    }
    ASSERT_TRUE(refused) << "the planter never won";
    EXPECT_TRUE(cap.Contains("Existing file " + path + " is not fifo file.\n"));
}
