#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "FreshProcess.h"
#include "LogCapture.h"
#include "log/NuxRestrainedLog.h"
#include "log/NuxSyslog.h"
#include "sable_comm.h"

using NuxCore::NuxRestrainedLog;
using sable_test::LogCapture;

namespace {

int32_t NowSeconds() {
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int32_t>(ts.tv_sec);
}

// The restraint entry of a call site of the calling thread, built the way the logger names
// sites: thread id and line by their reversed digits, then the file name.
uint64_t SiteKey(int line, const char* file) {
    char key[256] = {0};
    sable::AppendReversedDigits(key, static_cast<uint64_t>(pthread_self()));
    sable::AppendReversedDigits(key, static_cast<uint64_t>(static_cast<int64_t>(line)));
    strncat(key, file, sizeof(key) - strlen(key) - 1);
    return std::hash<std::string>{}(std::string(key));
}

}  // namespace

TEST(NuxRestrainedLog, SameSiteTwicePrintsOnceAndOtherSitesStillPrint) {
    LogCapture cap;
    for (int i = 0; i < 3; ++i) {
        NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_ERR, 31, "same_site.cpp", "repeat %d\n", i);
    }
    NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_ERR, 31, "other_file.cpp", "other file\n");
    NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_ERR, 32, "same_site.cpp", "other line\n");
    auto lines = cap.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].text.find("[SABLECOMM]["), std::string::npos);
    EXPECT_NE(lines[0].text.find("[same_site.cpp:31] repeat 0\n"), std::string::npos);
    EXPECT_NE(lines[1].text.find("other file"), std::string::npos);
    EXPECT_NE(lines[2].text.find("other line"), std::string::npos);
}

TEST(NuxRestrainedLog, EveryTypeFromFourOnIsRestrained) {
    LogCapture cap;
    for (int type : {4, 6, 7, 8, 42}) {
        std::string file = "every_type_" + std::to_string(type) + ".cpp";
        NuxSyslog(static_cast<NUXLogType>(type), LOG_ERR, 11, file.c_str(), "t%d", type);
        NuxSyslog(static_cast<NUXLogType>(type), LOG_ERR, 11, file.c_str(), "t%d", type);
    }
    EXPECT_EQ(cap.Lines().size(), 5u);
    EXPECT_EQ(cap.Count("[NUX]["), 1u);  // type 4 prints the tag of type 0
    EXPECT_EQ(cap.Count("[FAULTEVENT]["), 1u);
    EXPECT_EQ(cap.Count("[HEARTBEAT]["), 1u);
}

TEST(NuxRestrainedLog, UnrestrainedTypesRepeatFreely) {
    LogCapture cap;
    for (int i = 0; i < 3; ++i) {
        NuxSyslog(LOG_SABLECOMM, LOG_ERR, 12, "free.cpp", "again\n");
    }
    EXPECT_EQ(cap.Count("again"), 3u);
}

TEST(NuxRestrainedLog, NullFileDropsARestrainedLine) {
    LogCapture cap;
    NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_ERR, 13, nullptr, "never\n");
    EXPECT_TRUE(cap.Lines().empty());
}

TEST(NuxRestrainedLog, LinesDifferingOnlyInTheLeadingDigitShareOneEntry) {
    // The site key leaves out the most significant digit of the line number.
    LogCapture cap;
    NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_ERR, 15, "digits.cpp", "line 15\n");
    NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_ERR, 25, "digits.cpp", "line 25\n");
    NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_ERR, 16, "digits.cpp", "line 16\n");
    EXPECT_TRUE(cap.Contains("line 15"));
    EXPECT_FALSE(cap.Contains("line 25"));
    EXPECT_TRUE(cap.Contains("line 16"));
}

TEST(NuxRestrainedLog, AnotherThreadAtTheSameSitePrintsItsOwnLine) {
    LogCapture cap;
    // Both threads stay alive until both have logged, so their ids differ.
    pthread_barrier_t logged;
    pthread_barrier_init(&logged, nullptr, 2);
    auto body = [&logged] {
        NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_ERR, 14, "threads.cpp", "from a thread\n");
        NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_ERR, 14, "threads.cpp", "from a thread\n");
        pthread_barrier_wait(&logged);
    };
    std::thread a(body);
    std::thread b(body);
    a.join();
    b.join();
    pthread_barrier_destroy(&logged);
    EXPECT_EQ(cap.Count("from a thread"), 2u);
}

TEST(NuxRestrainedLog, SiteStaysSilentFor599SecondsAndPrintsAgainAt600) {
    auto restraint = NuxRestrainedLog::GetInstance(true);
    ASSERT_TRUE(restraint);
    const unsigned long key = 0x5ab1e0001ul;
    const int32_t t0 = 1000000;
    EXPECT_EQ(restraint->PrintTableInsert(key, t0), 0);
    EXPECT_EQ(restraint->PrintTableInsert(key, t0), -1);
    EXPECT_EQ(restraint->PrintTableInsert(key, t0 + 599), -1);
    EXPECT_EQ(restraint->PrintTableInsert(0x5ab1e0002ul, t0 + 599), 0);  // other site
    EXPECT_EQ(restraint->PrintTableInsert(key, t0 + 600), 0);
    // Printing again restarts the period from that moment.
    EXPECT_EQ(restraint->PrintTableInsert(key, t0 + 1199), -1);
    EXPECT_EQ(restraint->PrintTableInsert(key, t0 + 1200), 0);
}

TEST(NuxRestrainedLog, LoggerFollowsTheTimeItLastLetTheSiteThrough) {
    auto restraint = NuxRestrainedLog::GetInstance(true);
    ASSERT_TRUE(restraint);
    LogCapture cap;

    // Let through 600 s ago: the logger prints now, and that restarts the period.
    ASSERT_EQ(restraint->PrintTableInsert(SiteKey(401, "aged.cpp"), NowSeconds() - 600), 0);
    NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_ERR, 401, "aged.cpp", "aged out\n");
    NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_ERR, 401, "aged.cpp", "aged out\n");
    EXPECT_EQ(cap.Count("aged out"), 1u);

    // Let through 300 s ago: still silent.
    ASSERT_EQ(restraint->PrintTableInsert(SiteKey(402, "recent.cpp"), NowSeconds() - 300), 0);
    NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_ERR, 402, "recent.cpp", "too soon\n");
    EXPECT_FALSE(cap.Contains("too soon"));
}

TEST(NuxRestrainedLog, GetInstanceHandsOutOneSingleton) {
    auto first = NuxRestrainedLog::GetInstance(true);
    NuxLogGetInstance(true);
    auto second = NuxRestrainedLog::GetInstance(true);
    ASSERT_TRUE(first);
    EXPECT_EQ(first.get(), second.get());
}

TEST(NuxRestrainedLog, SwitchingOffSilencesOnlyRestrainedTypesForGood) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        sable_test::Problems p;
        LogCapture cap;
        NuxLogGetInstance(false);
        for (int type = 0; type <= 8; ++type) {
            NuxSyslog(static_cast<NUXLogType>(type), LOG_ERR, 500 + type, "off.cpp", "type=%d|",
                      type);
        }
        for (int type = 0; type <= 8; ++type) {
            std::string text = "type=" + std::to_string(type) + "|";
            p.Eq(cap.Contains(text), type <= 3, text + " printed");
        }
        p.True(!NuxRestrainedLog::GetInstance(true), "singleton handed out after switch-off");
        NuxLogGetInstance(true);
        p.True(!NuxRestrainedLog::GetInstance(true), "switch-off undone");
        return p.Text();
    });
}

TEST(AppendReversedDigits, WritesDigitsLeastSignificantFirstWithoutTheLeadingOne) {
    char buf[256] = "k";
    EXPECT_EQ(sable::AppendReversedDigits(buf, 12345), 0);
    EXPECT_STREQ(buf, "k5432");
    EXPECT_EQ(sable::AppendReversedDigits(buf, 7), 0);  // one digit adds nothing
    EXPECT_STREQ(buf, "k5432");
    EXPECT_EQ(sable::AppendReversedDigits(buf, 0), 0);
    EXPECT_STREQ(buf, "k5432");
}

TEST(AppendReversedDigits, RefusesAFullBuffer) {
    char full[256];
    memset(full, 'x', sizeof(full));  // no terminator at all
    EXPECT_EQ(sable::AppendReversedDigits(full, 123), -1);

    char nearlyFull[256];
    memset(nearlyFull, 'x', sizeof(nearlyFull));
    nearlyFull[252] = '\0';
    EXPECT_EQ(sable::AppendReversedDigits(nearlyFull, 1234567890123ull), -1);
    EXPECT_EQ(nearlyFull[255], '\0');
    EXPECT_EQ(strnlen(nearlyFull, sizeof(nearlyFull)), 255u);
}
