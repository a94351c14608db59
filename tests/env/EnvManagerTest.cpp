#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/prctl.h>

#include <string>
#include <thread>
#include <vector>

#include "FreshProcess.h"
#include "env/EnvManager.h"

// Each case runs in a fresh process: the process name and the run mode are resolved once per
// process, and the environment changes must not reach the other cases.
using sable_test::Problems;

namespace {

const std::string kLib = "/usr/lib64/libnux.so.1";

std::string Env(const char* name) {
    const char* v = getenv(name);
    return v != nullptr ? v : "<unset>";
}

}  // namespace

TEST(EnvProcName, ProcNameVariableWinsIsResolvedOnceAndFollowsSetEnv) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        prctl(PR_SET_NAME, "kernel_name");
        setenv("PROC_NAME", "from_env", 1);
        std::vector<std::string> seen(4);
        std::vector<std::thread> threads;
        for (auto& s : seen) threads.emplace_back([&s] { s = EnvManager::ProcName(); });
        for (auto& t : threads) t.join();
        for (const auto& s : seen) p.Eq(s, "from_env", "racing first lookups");
        setenv("PROC_NAME", "second", 1);
        prctl(PR_SET_NAME, "renamed");
        p.Eq(std::string(EnvManager::ProcName()), "from_env", "after setenv and prctl");
        {
            std::lock_guard<std::mutex> lock(EnvManager::Instance());
            p.Eq(EnvManager::SetEnv("PROC_NAME", "third"), 0, "SetEnv");
        }
        p.Eq(std::string(EnvManager::ProcName()), "third", "after SetEnv");
        p.Eq(Env("PROC_NAME"), "third", "PROC_NAME");
        p.Eq(EnvManager::SetProcName(std::string(100, 'h')), 0, "100 characters");
        p.True(EnvManager::SetProcName(std::string(101, 'x')) != 0, "101 characters refused");
        p.Eq(std::string(EnvManager::ProcName()), "", "ProcName after refusal");
        return p.Text();
    });
}

TEST(EnvProcName, KernelNameServesWithoutProcNameAndProcessManagerIsPROCMGR) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        unsetenv("PROC_NAME");
        prctl(PR_SET_NAME, "sable_kernel15");
        p.Eq(std::string(EnvManager::ProcName()), "sable_kernel15", "kernel name");
        prctl(PR_SET_NAME, "process-manager");
        EnvManager::EnableDefaultProcName();
        p.Eq(std::string(EnvManager::ProcName()), "PROCMGR", "process-manager");
        return p.Text();
    });
}

TEST(EnvPreload, LibraryGoesFirstOnceAndNuxLibPathMustNameIt) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        unsetenv("LD_PRELOAD");
        unsetenv("NUX_LIB_PATH");
        for (int i = 0; i < 2; ++i) {
            p.Eq(EnvManager::UpdateLdPreload(), 0, "empty preload");
            p.Eq(Env("LD_PRELOAD"), kLib + " ", "preload from empty");  // trailing space kept
        }
        setenv("LD_PRELOAD", "libother.so", 1);
        for (int i = 0; i < 2; ++i) {
            p.Eq(EnvManager::UpdateLdPreload(), 0, "other preload");
            p.Eq(Env("LD_PRELOAD"), kLib + " libother.so", "preload in front");
        }
        setenv("LD_PRELOAD", "libother.so", 1);
        setenv("NUX_LIB_PATH", "/opt/lib/libnux.so.2", 1);
        p.Eq(EnvManager::UpdateLdPreload(), -EINVAL, "other library");
        setenv("NUX_LIB_PATH", ("/" + std::string(4096, 'd') + kLib).c_str(), 1);
        p.Eq(EnvManager::UpdateLdPreload(), -ENAMETOOLONG, "overlong path");
        p.Eq(Env("LD_PRELOAD"), "libother.so", "preload after refusals");
        setenv("NUX_LIB_PATH", ("/sysroot" + kLib).c_str(), 1);
        p.Eq(EnvManager::UpdateLdPreload(), 0, "library in a sysroot");
        p.Eq(Env("LD_PRELOAD"), "/sysroot" + kLib + " libother.so", "sysroot preload");

        std::string exact = std::string(4096 - kLib.size(), '/') + kLib;
        p.Eq(EnvManager::CheckNuxlibPath(exact), 0, "4096 characters");
        p.Eq(EnvManager::CheckNuxlibPath("/" + exact), -ENAMETOOLONG, "4097 characters");
        return p.Text();
    });
}

TEST(EnvPreload, EnvInitStopsAtABadLibraryAndPreparesTheEnvironmentOtherwise) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        setenv("LD_PRELOAD", "libother.so", 1);
        setenv("NUX_LIB_PATH", "/elsewhere/libnux.so", 1);
        p.Eq(EnvManager::EnvInit("half_done"), -EINVAL, "EnvInit with a bad library");
        p.Eq(Env("PROC_NAME"), "half_done", "PROC_NAME");  // the steps before the preload
        p.Eq(Env("NUX_STATUS"), "READY", "NUX_STATUS");
        p.Eq(Env("LD_PRELOAD"), "libother.so", "LD_PRELOAD after failure");
        p.True(EnvManager::CheckEnvPreparation(), "PROC_NAME and NUX_STATUS");

        unsetenv("NUX_LIB_PATH");
        p.Eq(EnvManager::EnvInit("child_proc"), 0, "EnvInit");
        p.Eq(Env("LD_PRELOAD"), kLib + " libother.so", "LD_PRELOAD");
        p.Eq(std::string(EnvManager::ProcName()), "child_proc", "ProcName");
        unsetenv("NUX_STATUS");
        p.True(EnvManager::CheckEnvPreparation(), "PROC_NAME and the preload");
        setenv("LD_PRELOAD", "libother.so", 1);
        p.True(!EnvManager::CheckEnvPreparation(), "PROC_NAME alone");
        setenv("NUX_STATUS", "READY", 1);
        unsetenv("PROC_NAME");
        p.True(!EnvManager::CheckEnvPreparation(), "NUX_STATUS without PROC_NAME");
        return p.Text();
    });
}

TEST(EnvRunMode, ReadUntilFoundNonEmptyAndThenKept) {
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
        return p.Text();
    });
}
