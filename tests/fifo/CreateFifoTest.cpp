#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <thread>

#include "LogCapture.h"
#include "PrivateDir.h"
#include "TestEnv.h"
#include "base/UniqueFd.h"
#include "fifo/nux_fifo.h"

using sable_test::LogCapture;
using sable_test::PrivateDir;

namespace {

constexpr unsigned kNoGroup = 0xFFFFFFFFu;

bool IsFifoAt(const std::string& path, struct stat* out = nullptr) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || !S_ISFIFO(st.st_mode)) return false;
    if (out != nullptr) *out = st;
    return true;
}

bool Missing(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) != 0 && errno == ENOENT;
}

void MakeFile(const std::string& path) {
    sable::UniqueFd fd(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    ASSERT_TRUE(fd.Valid());
}

class UmaskScope {
public:
    explicit UmaskScope(mode_t mask) : old(umask(mask)) {}
    ~UmaskScope() { umask(old); }

private:
    mode_t old;
};

// A gid this process may give its files other than its own group, or its own group.
gid_t OtherGroup() {
    if (geteuid() == 0) return getgid() + 4242;
    gid_t groups[64];
    int n = getgroups(64, groups);
    for (int i = 0; i < n; ++i) {
        if (groups[i] != getgid()) return groups[i];
    }
    return getgid();
}

}  // namespace

class CreateFifoTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.Valid());
        name = "p_" + std::to_string(getpid()) + "__to__q";
        path = dir.Path(name);
    }
    // Nothing but the final name (or nothing at all) may be left in the directory.
    void ExpectOnlyFinalName(bool present) {
        std::set<std::string> expected;
        if (present) expected.insert(name);
        EXPECT_EQ(dir.Entries(), expected);
    }

    PrivateDir dir;
    std::string name;
    std::string path;
};

TEST_F(CreateFifoTest, FifoGets0660WhateverTheUmask) {
    for (mode_t mask : {mode_t{0077}, mode_t{0}, mode_t{0022}}) {
        UmaskScope scope(mask);
        ASSERT_EQ(CreateFifo(path, getgid(), -1, SABLO_DOMAIN_NONE, ""), 0);
        struct stat st;
        ASSERT_TRUE(IsFifoAt(path, &st));
        EXPECT_EQ(st.st_mode & 07777, 0660u) << "umask " << mask;
        EXPECT_EQ(st.st_gid, getgid());
        ExpectOnlyFinalName(true);
    }
}

TEST_F(CreateFifoTest, FifoGetsTheRequestedGroup) {
    gid_t group = OtherGroup();
    ASSERT_EQ(CreateFifo(path, group, -1, SABLO_DOMAIN_NONE, ""), 0);
    struct stat st;
    ASSERT_TRUE(IsFifoAt(path, &st));
    EXPECT_EQ(st.st_gid, group);

    // "No group" leaves the creator's group.
    ASSERT_EQ(CreateFifo(path, kNoGroup, -1, SABLO_DOMAIN_NONE, ""), 0);
    ASSERT_TRUE(IsFifoAt(path, &st));
    EXPECT_EQ(st.st_gid, getegid());
}

TEST_F(CreateFifoTest, WhateverStoodAtThePathIsReplaced) {
    MakeFile(path);
    ASSERT_EQ(CreateFifo(path, getgid(), -1, SABLO_DOMAIN_NONE, ""), 0);
    EXPECT_TRUE(IsFifoAt(path));
    ExpectOnlyFinalName(true);

    // A link is removed, never followed: its target stays as it was.
    PrivateDir other;
    ASSERT_TRUE(other.Valid());
    std::string target = other.Path("target");
    MakeFile(target);
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
    ASSERT_EQ(CreateFifo(path, getgid(), -1, SABLO_DOMAIN_NONE, ""), 0);
    EXPECT_TRUE(IsFifoAt(path));
    struct stat st;
    ASSERT_EQ(lstat(target.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));

    // So is a link that points nowhere.
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_EQ(symlink(other.Path("gone").c_str(), path.c_str()), 0);
    ASSERT_EQ(CreateFifo(path, getgid(), -1, SABLO_DOMAIN_NONE, ""), 0);
    EXPECT_TRUE(IsFifoAt(path));
    ExpectOnlyFinalName(true);
}

TEST_F(CreateFifoTest, EveryDomainSucceedsWithoutAWarningWhileLabellingIsOff) {
    LogCapture cap;
    struct Case {
        SabloDomain domain;
        int pid;
        const char* con;
    } cases[] = {
        {SABLO_DOMAIN_NONE, -1, ""},        {SABLO_DOMAIN_NONE, getpid(), ""},
        {SABLO_DOMAIN_DP, -1, "peer_t"},    {SABLO_DOMAIN_ELM, -1, ""},
        {SABLO_DOMAIN_ELM, -1, "peer_t"},   {SABLO_DOMAIN_ELM, getpid(), "system_u:object_r:x_t:s0"},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(CreateFifo(path, getgid(), c.pid, c.domain, c.con), 0) << c.domain;
        struct stat st;
        ASSERT_TRUE(IsFifoAt(path, &st));
        EXPECT_EQ(st.st_mode & 07777, 0660u);  // no Elm-domain pipe on this host
        ExpectOnlyFinalName(true);
    }
    EXPECT_TRUE(cap.Lines().empty()) << cap.Lines().front().text;
}

TEST_F(CreateFifoTest, MkfifoFailureLeavesNothing) {
    LogCapture cap;
    std::string noDir = dir.Path("absent") + "/" + name;
    EXPECT_EQ(CreateFifo(noDir, getgid(), -1, SABLO_DOMAIN_NONE, ""), -ENOENT);
    EXPECT_EQ(cap.Count("Make fifo " + noDir), 2u);  // temporary name, then the final one
    EXPECT_TRUE(cap.Contains("Make fifo " + noDir + " failed, ret=-2.\n"));
    ExpectOnlyFinalName(false);

    // A final name of the longest length leaves no room for the temporary suffix.
    std::string longName(255, 'n');
    cap.Clear();
    EXPECT_EQ(CreateFifo(dir.Path(longName), getgid(), -1, SABLO_DOMAIN_NONE, ""),
              -ENAMETOOLONG);
    // (The texts exceed the logger's line length, so only the two lines themselves show.)
    EXPECT_EQ(cap.Lines().size(), 2u);
    ExpectOnlyFinalName(false);
}

TEST_F(CreateFifoTest, TwoThreadsCreatingAtOnceBothSucceed) {
    for (int round = 0; round < 100; ++round) {
        std::atomic<int> ready{0};
        int results[2] = {1, 1};
        auto body = [&](int i) {
            ready.fetch_add(1);
            while (ready.load() < 2) {
            }
            results[i] = CreateFifo(path, getgid(), -1, SABLO_DOMAIN_NONE, "");
        };
        std::thread a(body, 0);
        std::thread b(body, 1);
        a.join();
        b.join();
        ASSERT_EQ(results[0], 0) << "round " << round;
        ASSERT_EQ(results[1], 0) << "round " << round;
        struct stat st;
        ASSERT_TRUE(IsFifoAt(path, &st));
        EXPECT_EQ(st.st_mode & 07777, 0660u);
        ExpectOnlyFinalName(true);
    }
}

TEST_F(CreateFifoTest, TwoProcessesCreatingAtOnceBothSucceed) {
    for (int round = 0; round < 30; ++round) {
        int go[2];
        ASSERT_EQ(pipe2(go, O_CLOEXEC), 0);
        sable::UniqueFd goRead(go[0]);
        sable::UniqueFd goWrite(go[1]);
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            char c;
            if (read(goRead.Get(), &c, 1) != 1) _exit(3);
            _exit(CreateFifo(path, getgid(), -1, SABLO_DOMAIN_NONE, "") == 0 ? 0 : 1);
        }
        ASSERT_EQ(write(goWrite.Get(), "g", 1), 1);
        int mine = CreateFifo(path, getgid(), -1, SABLO_DOMAIN_NONE, "");

        int status = 0;
        bool exited = sable_test::WaitUntil(
            [&] { return waitpid(child, &status, WNOHANG) == child; }, 20000);
        if (!exited) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
        }
        ASSERT_TRUE(exited);
        EXPECT_EQ(mine, 0) << "round " << round;
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0) << "round " << round;
        ASSERT_TRUE(IsFifoAt(path));
        ExpectOnlyFinalName(true);
    }
}

namespace {

// Plants an object at `path` once, the moment CreateFifo has cleared the name and before it
// links its FIFO there: a real race, which the planter wins most of the time because it only
// has to notice the name is free while the creator still makes, chmods and labels its
// temporary FIFO. Rounds are repeated until it wins once.
struct RaceOutcome {
    bool sawRefusal = false;
    int rounds = 0;
};

RaceOutcome RaceUntilRefused(const std::string& path,
                             const std::function<bool(const std::string&)>& plant,
                             const std::function<void(int result, bool planted)>& check) {
    RaceOutcome outcome;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (; outcome.rounds < 2000 && std::chrono::steady_clock::now() < deadline;
         ++outcome.rounds) {
        // A marker at the name, so that "missing" means CreateFifo has just cleared it.
        unlink(path.c_str());
        {
            sable::UniqueFd marker(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        }
        std::atomic<bool> stop{false};
        std::atomic<bool> spinning{false};
        std::atomic<bool> planted{false};
        std::thread planter([&] {
            struct stat st;
            spinning = true;
            while (!stop.load(std::memory_order_relaxed)) {
                if (lstat(path.c_str(), &st) != 0 && errno == ENOENT) {
                    planted = plant(path);
                    return;
                }
            }
        });
        while (!spinning.load()) {
            std::this_thread::yield();
        }
        int result = CreateFifo(path, getgid(), -1, SABLO_DOMAIN_NONE, "");
        stop = true;
        planter.join();
        check(result, planted.load());
        if (result == -EACCES) {
            outcome.sawRefusal = true;
            break;
        }
    }
    return outcome;
}

}  // namespace

TEST_F(CreateFifoTest, RegularFileAppearingBeforeThePublishIsRefusedAndRemoved) {
    LogCapture cap;
    auto plant = [](const std::string& p) {
        sable::UniqueFd fd(open(p.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644));
        return fd.Valid();
    };
    auto check = [&](int result, bool planted) {
        // The planter only succeeds before the link (afterwards the FIFO holds the name).
        ASSERT_EQ(result == -EACCES, planted) << result;
        if (planted) {
            EXPECT_TRUE(Missing(path));
            ExpectOnlyFinalName(false);
        } else {
            ASSERT_EQ(result, 0);
            EXPECT_TRUE(IsFifoAt(path));
            ExpectOnlyFinalName(true);
        }
    };
    RaceOutcome outcome = RaceUntilRefused(path, plant, check);
    ASSERT_TRUE(outcome.sawRefusal) << "the planter never won in " << outcome.rounds << " rounds";
    RecordProperty("rounds", outcome.rounds);
    EXPECT_TRUE(cap.Contains("Existing file " + path + " is not fifo file.\n"));
    EXPECT_TRUE(cap.Contains("Link tmp fifo to real fifo failed tmpfifo=" + path));
    EXPECT_TRUE(cap.Contains("realfifo=" + path + " ret=-13.\n"));
}

TEST_F(CreateFifoTest, LinkToAFifoAppearingBeforeThePublishIsRefusedAndRemoved) {
    PrivateDir other;
    ASSERT_TRUE(other.Valid());
    std::string decoy = other.Path("decoy");
    ASSERT_EQ(mkfifo(decoy.c_str(), 0600), 0);
    auto plant = [&](const std::string& p) { return symlink(decoy.c_str(), p.c_str()) == 0; };
    auto check = [&](int result, bool planted) {
        // Seen as "not a FIFO" (the link itself is looked at), never as a symbolic-link error.
        ASSERT_EQ(result == -EACCES, planted) << result;
        if (planted) {
            EXPECT_TRUE(Missing(path));
            ExpectOnlyFinalName(false);
        }
    };
    RaceOutcome outcome = RaceUntilRefused(path, plant, check);
    ASSERT_TRUE(outcome.sawRefusal) << "the planter never won in " << outcome.rounds << " rounds";
    RecordProperty("rounds", outcome.rounds);
    EXPECT_TRUE(IsFifoAt(decoy));
}
