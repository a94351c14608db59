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

void Restrained(int line, const char* file, const char* text) {
    NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_ERR, line, file, "%s\n", text);
}

// The restraint key of a call site on the calling thread, named the way the logger names it.
uint64_t SiteKey(int line, const char* file) {
    char key[256] = {0};
    sable::AppendReversedDigits(key, static_cast<uint64_t>(pthread_self()));
    sable::AppendReversedDigits(key, static_cast<uint64_t>(static_cast<int64_t>(line)));
    strncat(key, file, sizeof(key) - strlen(key) - 1);
    return std::hash<std::string>{}(std::string(key));
}

}  // namespace

TEST(NuxRestrainedLog, EachSitePrintsOncePerThreadLineAndFile) {
    LogCapture cap;
    for (int i = 0; i < 2; ++i) {
        Restrained(31, "site.cpp", i == 0 ? "first" : "repeat");
        Restrained(31, "other.cpp", "other file");
        Restrained(32, "site.cpp", "other line");
        Restrained(42, "site.cpp", "leading digit");  // the key leaves it out: same as 32
        Restrained(33, nullptr, "no file");
        NuxSyslog(LOG_SABLECOMM, LOG_ERR, 31, "site.cpp", "unrestrained\n");
    }
    std::thread([] { Restrained(31, "site.cpp", "from a thread"); }).join();
    EXPECT_EQ(cap.Count("first"), 1u);
    EXPECT_FALSE(cap.Contains("repeat"));
    EXPECT_EQ(cap.Count("other file"), 1u);
    EXPECT_EQ(cap.Count("other line"), 1u);
    EXPECT_FALSE(cap.Contains("leading digit"));
    EXPECT_FALSE(cap.Contains("no file"));
    EXPECT_EQ(cap.Count("unrestrained"), 2u);
    EXPECT_EQ(cap.Count("from a thread"), 1u);

    // Every type from 4 on is restrained; 4 to 7 carry the tag of the type 4 below.
    const char* tags[] = {"[NUX][", "[SABLECOMM][", "[FAULTEVENT][", "[HEARTBEAT]["};
    for (int type = 4; type <= 9; ++type) {
        std::string text = "type" + std::to_string(type) + ".cpp";  // the key has no type
        for (int i = 0; i < 2; ++i) {
            NuxSyslog(static_cast<NUXLogType>(type), LOG_ERR, 11, text.c_str(), "%s", text.c_str());
        }
        EXPECT_EQ(cap.Count(text), 1u) << type;
        EXPECT_EQ(cap.Find(text).rfind(type <= 7 ? tags[type - 4] : text, 0), 0u) << type;
    }
}

TEST(NuxRestrainedLog, SiteStaysSilentFor599SecondsAndPrintsAgainAt600) {
    auto restraint = NuxRestrainedLog::GetInstance(true);
    ASSERT_TRUE(restraint);
    const unsigned long key = 0x5ab1e0001ul;
    const int32_t t0 = 1000000;
    EXPECT_EQ(restraint->PrintTableInsert(key, t0), 0);
    EXPECT_EQ(restraint->PrintTableInsert(key, t0 + 599), -1);
    EXPECT_EQ(restraint->PrintTableInsert(key + 1, t0 + 599), 0);  // other site
    EXPECT_EQ(restraint->PrintTableInsert(key, t0 + 600), 0);
    EXPECT_EQ(restraint->PrintTableInsert(key, t0 + 1199), -1);  // the period restarted

    // The logger keeps its sites in the same table, by the realtime clock.
    LogCapture cap;
    int32_t now = static_cast<int32_t>(time(nullptr));
    ASSERT_EQ(restraint->PrintTableInsert(SiteKey(401, "aged.cpp"), now - 600), 0);
    Restrained(401, "aged.cpp", "aged out");
    Restrained(401, "aged.cpp", "aged out");
    EXPECT_EQ(cap.Count("aged out"), 1u);
    ASSERT_EQ(restraint->PrintTableInsert(SiteKey(402, "recent.cpp"), now - 300), 0);
    Restrained(402, "recent.cpp", "too soon");
    EXPECT_FALSE(cap.Contains("too soon"));
}

TEST(NuxRestrainedLog, SwitchingOffSilencesOnlyRestrainedTypesForGood) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        sable_test::Problems p;
        LogCapture cap;
        NuxLogGetInstance(false);
        for (int type = 0; type <= 8; ++type) {
            NuxSyslog(static_cast<NUXLogType>(type), LOG_ERR, 5, "off.cpp", "type=%d|", type);
            std::string text = "type=" + std::to_string(type) + "|";
            p.Eq(cap.Contains(text), type <= 3, text + " printed");
        }
        NuxLogGetInstance(true);
        p.True(!NuxRestrainedLog::GetInstance(true), "switch-off undone");
        return p.Text();
    });
}
