#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/prctl.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "FreshProcess.h"
#include "LogCapture.h"
#include "log/NuxSyslog.h"
#include "api/sable_comm_internal.h"
#include "env/EnvManager.h"

// The environment cases run in a fresh process each: the process name and the run mode are
// resolved once per process, and the environment changes must not reach the other cases.
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
        p.Eq(std::string(EnvManager::ProcName()), "from_env", "first lookup");
        setenv("PROC_NAME", "second", 1);
        p.Eq(std::string(EnvManager::ProcName()), "from_env", "after setenv");
        {
            std::lock_guard<std::mutex> lock(EnvManager::Instance());
            p.Eq(EnvManager::SetEnv("PROC_NAME", "third"), 0, "SetEnv");
        }
        p.Eq(std::string(EnvManager::ProcName()) + Env("PROC_NAME"), "thirdthird", "SetEnv");
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

// EnvInit renames the process while another thread logs: every line carries one whole name
// (under ThreadSanitizer: and no data race), and a name read before stays readable.
TEST(EnvProcName, ANameSetWhileAnotherThreadLogsIsReadWhole) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        unsetenv("NUX_LIB_PATH");
        setenv("PROC_NAME", "first_name", 1);
        const char* first = EnvManager::ProcName();
        sable_test::LogCapture cap;
        std::atomic<bool> done{false};
        std::thread logger([&] {
            for (int i = 0; i < 2000; ++i) LOGE("probe %d\n", i);
            done = true;
        });
        for (int i = 0; !done.load() || i < 200; ++i) {
            EnvManager::EnvInit(i % 2 == 0 ? "name_even" : "a_longer_odd_name");
        }
        logger.join();
        p.Eq(std::string(first), "first_name", "a name read before the change");
        size_t probes = 0;
        for (const auto& line : cap.Lines()) {
            if (line.text.find("probe ") == std::string::npos) continue;
            ++probes;
            bool whole = line.text.find("[first_name]") != std::string::npos ||
                         line.text.find("[name_even]") != std::string::npos ||
                         line.text.find("[a_longer_odd_name]") != std::string::npos;
            p.True(whole, "a line without a whole name: " + line.text);
        }
        p.Eq(probes, size_t{2000}, "probe lines");
        return p.Text();
    });
}

TEST(EnvPreload, LibraryGoesFirstOnceNuxLibPathMustNameItAndEnvInitStopsAtAFailure) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        unsetenv("NUX_LIB_PATH");
        for (std::string start : {"", "libother.so"}) {
            setenv("LD_PRELOAD", start.c_str(), 1);
            for (int i = 0; i < 2; ++i) {
                p.Eq(EnvManager::UpdateLdPreload(), 0, "UpdateLdPreload");
                p.Eq(Env("LD_PRELOAD"), kLib + " " + start, "preload of [" + start + "]");
            }
        }
        setenv("LD_PRELOAD", "libother.so", 1);
        setenv("NUX_LIB_PATH", "/opt/lib/libnux.so.2", 1);
        p.Eq(EnvManager::UpdateLdPreload(), -EINVAL, "other library");
        p.Eq(Env("LD_PRELOAD"), "libother.so", "preload after refusal");
        setenv("NUX_LIB_PATH", ("/sysroot" + kLib).c_str(), 1);
        p.Eq(EnvManager::UpdateLdPreload(), 0, "library in a sysroot");
        p.Eq(Env("LD_PRELOAD"), "/sysroot" + kLib + " libother.so", "sysroot preload");
        std::string exact = std::string(4096 - kLib.size(), '/') + kLib;
        p.Eq(EnvManager::CheckNuxlibPath(exact), 0, "4096 characters");
        p.Eq(EnvManager::CheckNuxlibPath("/" + exact), -ENAMETOOLONG, "4097 characters");

        setenv("LD_PRELOAD", "libother.so", 1);
        setenv("NUX_LIB_PATH", "/elsewhere/libnux.so", 1);
        p.Eq(EnvManager::EnvInit("half_done"), -EINVAL, "EnvInit with a bad library");
        p.Eq(Env("PROC_NAME") + Env("NUX_STATUS") + Env("LD_PRELOAD"), "half_doneREADYlibother.so",
             "steps before the preload made");
        unsetenv("NUX_LIB_PATH");
        p.Eq(EnvManager::EnvInit("child_proc"), 0, "EnvInit");
        p.Eq(Env("LD_PRELOAD"), kLib + " libother.so", "LD_PRELOAD");
        p.True(EnvManager::CheckEnvPreparation(), "PROC_NAME and NUX_STATUS");
        unsetenv("NUX_STATUS");
        p.True(EnvManager::CheckEnvPreparation(), "PROC_NAME and the preload");
        setenv("LD_PRELOAD", "libother.so", 1);
        p.True(!EnvManager::CheckEnvPreparation(), "PROC_NAME alone");
        return p.Text();
    });
}

TEST(EnvRunMode, ReadUntilFoundNonEmptyAndThenKept) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        for (const char* value : {"", "1", "2"}) {
            setenv("DATAGLEN_RUN_MODE", value, 1);
            p.Eq(EnvManager::GetRunMode(), *value == '\0' ? "" : "1", value);
        }
        return p.Text();
    });
}

// The library under test is built for the host domain in SABLE_TEST_HOST_DOMAIN; the "elm"
// host build has its own test executable.
TEST(DpHost, OnlyAnotherNamedDomainIsCrossDomainAndNoPipeIsAnElmPipe) {
    if (std::string(SABLE_TEST_HOST_DOMAIN) != "dp") GTEST_SKIP() << SABLE_TEST_HOST_DOMAIN;
    EXPECT_EQ(GetCurrDomain(), SABLO_DOMAIN_DP);
    EXPECT_EQ(EnvManager::GetLocalDomainName(), "dp:");
    for (SabloDomain domain : {SABLO_DOMAIN_NONE, SABLO_DOMAIN_DP, SABLO_DOMAIN_ELM}) {
        EXPECT_FALSE(IsElmDomainPipe(domain)) << domain;
        EXPECT_EQ(IsCrossDomainPipe(domain), domain == SABLO_DOMAIN_ELM) << domain;
    }
}
