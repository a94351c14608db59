#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/prctl.h>

#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "FreshProcess.h"
#include "env/EnvManager.h"

using sable_test::Problems;

namespace {

const std::string kLib = "/usr/lib64/libnux.so.1";

std::string Env(const char* name) {
    const char* v = getenv(name);
    return v != nullptr ? v : "<unset>";
}

// Restores the variables the environment tests touch, so the cases also hold when the binary
// runs them all in one process (and no later child inherits a preload of a missing library).
class EnvManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* name : kVars) {
            const char* v = getenv(name);
            saved[name] = v != nullptr ? std::optional<std::string>(v) : std::nullopt;
            unsetenv(name);
        }
    }
    void TearDown() override {
        for (const auto& [name, value] : saved) {
            if (value) {
                setenv(name.c_str(), value->c_str(), 1);
            } else {
                unsetenv(name.c_str());
            }
        }
    }

private:
    static constexpr const char* kVars[] = {"LD_PRELOAD", "NUX_LIB_PATH", "NUX_STATUS",
                                            "DATAGLEN_RUN_MODE"};
    std::map<std::string, std::optional<std::string>> saved;
};

}  // namespace

// ---- process name (resolved once per process: each case runs in a fresh process) ----

TEST(EnvProcName, ProcNameVariableWinsOverTheKernelName) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        prctl(PR_SET_NAME, "kernel_name");
        setenv("PROC_NAME", "from_env", 1);
        p.Eq(std::string(EnvManager::ProcName()), "from_env", "ProcName");
        return p.Text();
    });
}

TEST(EnvProcName, KernelNameIsUsedWithoutProcNameVariable) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        unsetenv("PROC_NAME");
        prctl(PR_SET_NAME, "sable_kernel15");
        p.Eq(std::string(EnvManager::ProcName()), "sable_kernel15", "ProcName");
        return p.Text();
    });
}

TEST(EnvProcName, ProcessManagerIsKnownAsPROCMGR) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        unsetenv("PROC_NAME");
        prctl(PR_SET_NAME, "process-manager");
        p.Eq(std::string(EnvManager::ProcName()), "PROCMGR", "ProcName");
        return p.Text();
    });
}

TEST(EnvProcName, ResolvedOnceThenOnlySetEnvChangesIt) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        setenv("PROC_NAME", "first", 1);
        const char* name = EnvManager::ProcName();
        p.Eq(std::string(name), "first", "first resolution");
        setenv("PROC_NAME", "second", 1);
        prctl(PR_SET_NAME, "renamed");
        p.Eq(std::string(EnvManager::ProcName()), "first", "after setenv and prctl");
        p.True(EnvManager::ProcName() == name, "same storage on every call");
        {
            std::lock_guard<std::mutex> lock(EnvManager::Instance());
            p.Eq(EnvManager::SetEnv("PROC_NAME", "third"), 0, "SetEnv");
        }
        p.Eq(std::string(EnvManager::ProcName()), "third", "after SetEnv");
        p.Eq(Env("PROC_NAME"), "third", "PROC_NAME");
        return p.Text();
    });
}

TEST(EnvProcName, NameSetBeforeTheFirstLookupIsKept) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        setenv("PROC_NAME", "ignored", 1);
        p.Eq(EnvManager::SetProcName("preset"), 0, "SetProcName");
        p.Eq(std::string(EnvManager::ProcName()), "preset", "ProcName");
        return p.Text();
    });
}

TEST(EnvProcName, RacingFirstLookupsAgree) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        setenv("PROC_NAME", "raced", 1);
        std::vector<std::string> seen(8);
        std::vector<std::thread> threads;
        for (size_t i = 0; i < seen.size(); ++i) {
            threads.emplace_back([&seen, i] { seen[i] = EnvManager::ProcName(); });
        }
        for (auto& t : threads) t.join();
        for (const auto& s : seen) p.Eq(s, "raced", "ProcName seen by a thread");
        return p.Text();
    });
}

TEST(EnvProcName, OverlongProcNameLeavesTheNameEmpty) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        setenv("PROC_NAME", std::string(101, 'n').c_str(), 1);
        p.Eq(std::string(EnvManager::ProcName()), "", "ProcName");
        return p.Text();
    });
}

TEST(EnvProcName, SetProcNameTakesUpTo100Characters) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        std::string hundred(100, 'h');
        p.Eq(EnvManager::SetProcName(hundred), 0, "100 characters");
        p.Eq(std::string(EnvManager::ProcName()), hundred, "ProcName");
        p.True(EnvManager::SetProcName(std::string(101, 'x')) != 0, "101 characters refused");
        p.Eq(std::string(EnvManager::ProcName()), "", "ProcName after refusal");
        return p.Text();
    });
}

// ---- preload and environment preparation ----

TEST_F(EnvManagerTest, UpdateLdPreloadPutsTheLibraryFirstOnce) {
    EXPECT_EQ(EnvManager::UpdateLdPreload(), 0);
    EXPECT_EQ(Env("LD_PRELOAD"), kLib + " ");  // trailing space kept with an empty preload
    EXPECT_EQ(EnvManager::UpdateLdPreload(), 0);
    EXPECT_EQ(Env("LD_PRELOAD"), kLib + " ");

    setenv("LD_PRELOAD", "libother.so", 1);
    EXPECT_EQ(EnvManager::UpdateLdPreload(), 0);
    EXPECT_EQ(Env("LD_PRELOAD"), kLib + " libother.so");
    EXPECT_EQ(EnvManager::UpdateLdPreload(), 0);
    EXPECT_EQ(Env("LD_PRELOAD"), kLib + " libother.so");
}

TEST_F(EnvManagerTest, NuxLibPathMustNameTheLibrary) {
    setenv("LD_PRELOAD", "libother.so", 1);
    setenv("NUX_LIB_PATH", "/opt/lib/libnux.so.2", 1);
    EXPECT_EQ(EnvManager::UpdateLdPreload(), -EINVAL);
    EXPECT_EQ(Env("LD_PRELOAD"), "libother.so");

    setenv("NUX_LIB_PATH", ("/" + std::string(4096, 'd') + kLib).c_str(), 1);
    EXPECT_EQ(EnvManager::UpdateLdPreload(), -ENAMETOOLONG);
    EXPECT_EQ(Env("LD_PRELOAD"), "libother.so");

    setenv("NUX_LIB_PATH", ("/sysroot" + kLib).c_str(), 1);
    EXPECT_EQ(EnvManager::UpdateLdPreload(), 0);
    EXPECT_EQ(Env("LD_PRELOAD"), "/sysroot" + kLib + " libother.so");
}

TEST_F(EnvManagerTest, CheckNuxlibPathBoundsTheLengthAt4096) {
    std::string exact = std::string(4096 - kLib.size(), '/') + kLib;
    ASSERT_EQ(exact.size(), 4096u);
    EXPECT_EQ(EnvManager::CheckNuxlibPath(exact), 0);
    EXPECT_EQ(EnvManager::CheckNuxlibPath("/" + exact), -ENAMETOOLONG);
    EXPECT_EQ(EnvManager::CheckNuxlibPath(kLib), 0);
    EXPECT_EQ(EnvManager::CheckNuxlibPath("/usr/lib64/libnux.so"), -EINVAL);
}

TEST_F(EnvManagerTest, EnvInitPreparesAStartedProcess) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        unsetenv("LD_PRELOAD");
        unsetenv("NUX_LIB_PATH");
        p.Eq(EnvManager::EnvInit("child_proc"), 0, "EnvInit");
        p.Eq(Env("PROC_NAME"), "child_proc", "PROC_NAME");
        p.Eq(Env("NUX_STATUS"), "READY", "NUX_STATUS");
        p.Eq(Env("LD_PRELOAD"), kLib + " ", "LD_PRELOAD");
        p.Eq(std::string(EnvManager::ProcName()), "child_proc", "ProcName");
        p.True(EnvManager::CheckEnvPreparation(), "prepared");
        return p.Text();
    });
}

TEST_F(EnvManagerTest, EnvInitStopsAtABadLibraryPath) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        setenv("LD_PRELOAD", "libother.so", 1);
        setenv("NUX_LIB_PATH", "/elsewhere/libnux.so", 1);
        p.Eq(EnvManager::EnvInit("half_done"), -EINVAL, "EnvInit");
        // The steps before the preload have been made.
        p.Eq(Env("PROC_NAME"), "half_done", "PROC_NAME");
        p.Eq(Env("NUX_STATUS"), "READY", "NUX_STATUS");
        p.Eq(Env("LD_PRELOAD"), "libother.so", "LD_PRELOAD");
        return p.Text();
    });
}

TEST_F(EnvManagerTest, PreparedEnvironmentNeedsProcNameAndAMarker) {
    std::optional<std::string> procName;
    if (const char* v = getenv("PROC_NAME")) procName = v;
    unsetenv("PROC_NAME");

    setenv("NUX_STATUS", "READY", 1);
    setenv("LD_PRELOAD", kLib.c_str(), 1);
    EXPECT_FALSE(EnvManager::CheckEnvPreparation());  // no PROC_NAME

    setenv("PROC_NAME", "p", 1);
    EXPECT_TRUE(EnvManager::CheckEnvPreparation());  // PROC_NAME and NUX_STATUS

    unsetenv("NUX_STATUS");
    EXPECT_TRUE(EnvManager::CheckEnvPreparation());  // PROC_NAME and the preload
    setenv("LD_PRELOAD", "libother.so", 1);
    EXPECT_FALSE(EnvManager::CheckEnvPreparation());
    unsetenv("LD_PRELOAD");
    EXPECT_FALSE(EnvManager::CheckEnvPreparation());

    if (procName) {
        setenv("PROC_NAME", procName->c_str(), 1);
    } else {
        unsetenv("PROC_NAME");
    }
}

// ---- run mode (cached for the rest of the process once found non-empty) ----

TEST_F(EnvManagerTest, RunModeIsReadUntilFoundAndThenKept) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        unsetenv("DATAGLEN_RUN_MODE");
        p.Eq(EnvManager::GetRunMode(), "", "unset");
        setenv("DATAGLEN_RUN_MODE", "", 1);
        p.Eq(EnvManager::GetRunMode(), "", "empty");
        setenv("DATAGLEN_RUN_MODE", "1", 1);
        p.Eq(EnvManager::GetRunMode(), "1", "first value");
        setenv("DATAGLEN_RUN_MODE", "2", 1);
        p.Eq(EnvManager::GetRunMode(), "1", "after a change");
        unsetenv("DATAGLEN_RUN_MODE");
        p.Eq(EnvManager::GetRunMode(), "1", "after unset");
        return p.Text();
    });
}

// ---- fixed places ----

TEST(EnvPlaces, FifoDirectoriesAndLibraryPath) {
    EXPECT_EQ(EnvManager::FifoPrefix(), "/dev/shm/nux/sable_comm/");
    EXPECT_EQ(EnvManager::ElmFifoDirPrefix() + EnvManager::FifoPrefix(),
              "/local/dev/shm/nux/sable_comm/");
    EXPECT_EQ(EnvManager::LibraryPath(), kLib);
}
