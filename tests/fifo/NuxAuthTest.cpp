#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "TestEnv.h"
#include "fifo/nux_auth.h"

namespace {

// Runs a conversion and returns its result and text; "<untouched>" when `out` was not set.
std::pair<int, std::string> Convert(int (*fn)(const char*, char**), const char* in) {
    char sentinel = 0;
    char* out = &sentinel;
    int ret = fn(in, &out);
    if (out == &sentinel) return {ret, "<untouched>"};
    std::string text = out == nullptr ? "<null>" : out;
    AuthProxyFree(out);
    return {ret, text};
}

}  // namespace

TEST(NuxAuth, ContextConversions) {
    using R = std::pair<int, std::string>;
    EXPECT_EQ(Convert(GetCmacConBySelinuxCon, "system_u:object_r:foo_t:s0"), R(0, "foo_t"));
    EXPECT_EQ(Convert(GetSelinuxConByCmacCon, "foo_t"), R(0, "system_u:object_r:foo_t:s0"));
    // Anything but exactly four non-empty pieces has an empty short form, which is no error.
    for (const char* con : {"system_u:object_r:foo_t:s0:c0.c1023", "system_u:object_r:foo_t"}) {
        EXPECT_EQ(Convert(GetCmacConBySelinuxCon, con), R(0, "")) << con;
    }
    EXPECT_EQ(Convert(GetCmacConBySelinuxCon, "::u::r:t_t::s0:"), R(0, "t_t"));
    for (auto fn : {GetSelinuxConByCmacCon, GetCmacConBySelinuxCon}) {
        EXPECT_EQ(Convert(fn, ""), R(-1, "<untouched>"));
        EXPECT_EQ(Convert(fn, nullptr), R(-1, "<untouched>"));
    }
}

TEST(NuxAuth, GatedWrappersTouchNothingWhileLabellingIsOff) {
    char sentinel = 0;
    char* con = &sentinel;
    EXPECT_EQ(AuthGetPidCon(getpid(), &con), 1);
    EXPECT_EQ(con, &sentinel);

    std::string file = sable_test::EnsureFifoDir() + sable_test::UniqueName("auth");
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    struct stat before {
    }, after{};
    EXPECT_EQ(lstat(file.c_str(), &before), 0);
    // /dev/shm on this host need not carry labels at all; the wrapper never asks.
    EXPECT_EQ(AuthSetFileCon(file.c_str(), "system_u:object_r:foo_t:s0"), 0);
    EXPECT_EQ(AuthSelinuxSetFileCon(file.c_str(), "system_u:object_r:foo_t:s0"), 0);
    EXPECT_EQ(lstat(file.c_str(), &after), 0);
    unlink(file.c_str());
    EXPECT_EQ(after.st_ctim.tv_nsec, before.st_ctim.tv_nsec);
    EXPECT_EQ(after.st_ctim.tv_sec, before.st_ctim.tv_sec);
}
