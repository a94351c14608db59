#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "PrivateDir.h"
#include "fifo/nux_auth.h"

using sable_test::PrivateDir;

namespace {

// Runs a conversion and returns its result and text; "<untouched>" when `out` was not set.
std::pair<int, std::string> Convert(int (*fn)(const char*, char**), const char* in) {
    char sentinel = 0;
    char* out = &sentinel;
    int ret = fn(in, &out);
    if (out == &sentinel) return {ret, "<untouched>"};
    if (out == nullptr) return {ret, "<null>"};
    std::string text = out;
    AuthProxyFree(out);
    return {ret, text};
}

}  // namespace

TEST(NuxAuth, ShortAndFullContextsConvertBothWays) {
    EXPECT_EQ(Convert(GetCmacConBySelinuxCon, "system_u:object_r:foo_t:s0"),
              std::make_pair(0, std::string("foo_t")));
    EXPECT_EQ(Convert(GetSelinuxConByCmacCon, "foo_t"),
              std::make_pair(0, std::string("system_u:object_r:foo_t:s0")));
}

TEST(NuxAuth, ContextsWithoutExactlyFourPiecesHaveAnEmptyShortForm) {
    for (const char* con : {"system_u:object_r:foo_t:s0:c0.c1023", "system_u:object_r:foo_t:s0:c1,c2",
                            "system_u:object_r:foo_t", "foo_t", "a:b:c:d:e"}) {
        EXPECT_EQ(Convert(GetCmacConBySelinuxCon, con), std::make_pair(0, std::string()))
            << con;
    }
    // Empty pieces do not count.
    EXPECT_EQ(Convert(GetCmacConBySelinuxCon, "::u::r:t_t::s0:"),
              std::make_pair(0, std::string("t_t")));
}

TEST(NuxAuth, EmptyInputIsRefusedAndLeavesTheOutputAlone) {
    EXPECT_EQ(Convert(GetSelinuxConByCmacCon, ""), std::make_pair(-1, std::string("<untouched>")));
    EXPECT_EQ(Convert(GetSelinuxConByCmacCon, nullptr),
              std::make_pair(-1, std::string("<untouched>")));
    EXPECT_EQ(Convert(GetCmacConBySelinuxCon, ""), std::make_pair(-1, std::string("<untouched>")));
    EXPECT_EQ(Convert(GetCmacConBySelinuxCon, nullptr),
              std::make_pair(-1, std::string("<untouched>")));
}

TEST(NuxAuth, GatedWrappersTouchNothingWhileLabellingIsOff) {
    EXPECT_EQ(IsAuthEnabled(), -1);
    char sentinel = 0;
    char* con = &sentinel;
    EXPECT_EQ(AuthGetPidCon(getpid(), &con), 1);
    EXPECT_EQ(con, &sentinel);
    EXPECT_EQ(AuthGetCon(&con), 1);
    EXPECT_EQ(con, &sentinel);

    PrivateDir dir;
    ASSERT_TRUE(dir.Valid());
    std::string file = dir.Path("f");
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    struct stat before;
    ASSERT_EQ(lstat(file.c_str(), &before), 0);
    // /dev/shm on this host need not carry labels at all; the wrapper never asks.
    EXPECT_EQ(AuthSetFileCon(file.c_str(), "system_u:object_r:foo_t:s0"), 0);
    EXPECT_EQ(AuthSelinuxSetFileCon(file.c_str(), "system_u:object_r:foo_t:s0"), 0);
    EXPECT_EQ(AuthSetFileCon(dir.Path("missing").c_str(), "x"), 0);
    EXPECT_EQ(AuthSetCon("system_u:system_r:foo_t:s0"), 0);
    struct stat after;
    ASSERT_EQ(lstat(file.c_str(), &after), 0);
    EXPECT_EQ(after.st_ctim.tv_sec, before.st_ctim.tv_sec);
    EXPECT_EQ(after.st_ctim.tv_nsec, before.st_ctim.tv_nsec);

    AuthFreeCon(nullptr);
    AuthProxyFree(nullptr);
}

TEST(NuxAuth, ComputeAvRefusesAMissingAnswer) {
    errno = 0;
    EXPECT_EQ(AuthSecurityComputeAv("a", "b", 1, 1, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}
