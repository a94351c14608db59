#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <regex>
#include <string>
#include <thread>

#include "FreshProcess.h"
#include "LogCapture.h"
#include "env/EnvManager.h"
#include "log/NuxRestrainedLog.h"
#include "log/NuxSyslog.h"
#include "log/run_time_record.h"

using NuxCore::NuxRestrainedLog;
using sable_test::LogCapture;
using SableComm::RunTimeRecord;

namespace {

const NUXLogType kBare = static_cast<NUXLogType>(8);
const char kNoPoint[] = "] print point time log failed, point num is = 0";

void Restrained(int line, const char* file, const char* text) {
    NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_ERR, line, file, "%s\n", text);
}

// The restraint key of a call site on the calling thread, named the way the logger names it.
uint64_t SiteKey(int line, const char* file) {
    char key[256] = {0};
    sable::AppendReversedDigits(key, static_cast<uint64_t>(pthread_self()));
    sable::AppendReversedDigits(key, static_cast<uint64_t>(line));
    strncat(key, file, sizeof(key) - strlen(key) - 1);
    return std::hash<std::string>{}(std::string(key));
}

timespec At(time_t sec, long nsec) {
    return {sec, nsec};
}

}  // namespace

TEST(NuxSyslogLine, PrefixFieldsInOrderTagPerTypeAndUnknowFileFallback) {
    LogCapture cap;
    NuxSyslog(LOG_SABLECOMM, LOG_WARNING, 42, "file.cpp", "hello %d\n", 7);
    NuxSyslog(LOG_NUX, LOG_ERR, 9, nullptr, "m");
    auto lines = cap.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, LOG_WARNING);  // no facility bits added
    std::string expected = R"(\[SABLECOMM\]\[)" + std::string(EnvManager::ProcName()) +
                           R"(\]\[\d\d:\d\d:\d\d\.\d{6}\]\[)" + std::to_string(getpid()) +
                           R"(\]\[)" + std::to_string(static_cast<unsigned long>(pthread_self())) +
                           R"(\]\[file\.cpp:42\] hello 7\n)";
    EXPECT_TRUE(std::regex_match(lines[0].text, std::regex(expected))) << lines[0].text;
    EXPECT_EQ(lines[1].text.substr(lines[1].text.size() - 17), "][UnknowFile:9] m");

    // 4 to 7 print the tag of the type 4 below; from 8 on the line is the bare message.
    const char* tags[] = {"[NUX][", "[SABLECOMM][", "[FAULTEVENT][", "[HEARTBEAT]["};
    for (int type = 0; type <= 8; ++type) {
        std::string file = "tag" + std::to_string(type) + ".cpp";
        NuxSyslog(static_cast<NUXLogType>(type), LOG_ERR, 1, file.c_str(), "%s\n", file.c_str());
        EXPECT_EQ(cap.Find(file).rfind(type < 8 ? tags[type % 4] : file + "\n", 0), 0u) << type;
    }
}

TEST(NuxSyslogLength, MessageOf255BecomesFAndPrefixPlusMessageStopAt254) {
    LogCapture cap;
    NuxSyslog(kBare, LOG_ERR, 1, "len254.cpp", "%s", std::string(254, 'a').c_str());
    NuxSyslog(kBare, LOG_ERR, 1, "len255.cpp", "%s", std::string(255, 'b').c_str());
    NuxSyslog(LOG_SABLECOMM, LOG_ERR, 1, "len300.cpp", "%s", std::string(300, 'c').c_str());
    std::string message;
    for (int i = 0; i < 20; ++i) message += "0123456789";
    NuxSyslog(LOG_FAULTEVENT, LOG_ERR, 77, "cut.cpp", "%s", message.c_str());
    // A prefix that cannot be built within 255 characters is left out.
    NuxSyslog(LOG_HEARTBEAT, LOG_ERR, 5, std::string(250, 'g').c_str(), "message survives");
    auto lines = cap.Lines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0].text, std::string(254, 'a'));
    EXPECT_EQ(lines[1].text, "F");
    EXPECT_EQ(lines[2].text.substr(lines[2].text.size() - 16), "[len300.cpp:1] F");
    size_t prefixLen = lines[3].text.find("[cut.cpp:77] ") + 13;
    ASSERT_LT(prefixLen, 254u) << lines[3].text;
    EXPECT_EQ(lines[3].text.substr(prefixLen), message.substr(0, 254 - prefixLen));
    EXPECT_EQ(lines[4].text, "message survives");
}

TEST(NuxSyslogLevels, InfoAndDebugAreDroppedUnevaluatedAndErrnoSurvivesEveryCall) {
    LogCapture cap;
    int evaluated = 0;
    errno = EAGAIN;
    NuxSyslog(LOG_SABLECOMM, LOG_INFO, 1, "lvl.cpp", "info");
    NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_DEBUG, 1, "lvl.cpp", "debug");
    LOGI("%d\n", ++evaluated);
    LOGD("%d\n", ++evaluated);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(evaluated, 0);
    EXPECT_TRUE(cap.Lines().empty());
    errno = EPIPE;
    NuxSyslog(LOG_SABLECOMM, LOG_NOTICE, 1, "lvl.cpp", "%s", std::string(400, 'z').c_str());
    EXPECT_EQ(errno, EPIPE);  // also when the message failed and became "F"
    EXPECT_EQ(cap.Count("[lvl.cpp:1] F"), 1u);
}

TEST(NuxRestrainedLog, EachSitePrintsOncePerThreadLineAndFile) {
    LogCapture cap;
    for (const char* text : {"first", "repeat"}) {
        Restrained(31, "site.cpp", text);
        Restrained(31, "other.cpp", "other file");
        Restrained(32, "site.cpp", "other line");
        Restrained(42, "site.cpp", "leading digit");  // the key leaves it out: same as 32
        Restrained(33, nullptr, "no file");
        NuxSyslog(LOG_SABLECOMM, LOG_ERR, 31, "site.cpp", "unrestrained\n");
    }
    std::thread([] { Restrained(31, "site.cpp", "from a thread"); }).join();
    for (const char* once : {"first", "other file", "other line", "from a thread"}) {
        EXPECT_EQ(cap.Count(once), 1u) << once;
    }
    for (const char* never : {"repeat", "leading digit", "no file"}) {
        EXPECT_FALSE(cap.Contains(never)) << never;
    }
    EXPECT_EQ(cap.Count("unrestrained"), 2u);
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

TEST(RunTimeRecord, BudgetIsReachedAtExactlyItsLengthFromTheFirstPointToNow) {
    RunTimeRecord record(50);
    EXPECT_EQ(record.CalculationInterval(At(2, 100000), At(1, 999000000)), 1100);
    EXPECT_EQ(record.CalculationInterval(At(7, 1999), At(7, 1000)), 0);  // under 1 us
    EXPECT_TRUE(record.ExceedsBudget(record.CalculationInterval(At(3, 50000000), At(3, 0))));
    EXPECT_FALSE(record.ExceedsBudget(record.CalculationInterval(At(3, 49999999), At(3, 0))));
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    record.RecordTime(At(now.tv_sec - 1, now.tv_nsec));
    EXPECT_TRUE(record.WhetherTotalTimeHasTimeout());
    LogCapture cap;
    EXPECT_FALSE(RunTimeRecord(0).WhetherTotalTimeHasTimeout());
    EXPECT_EQ(cap.Count(kNoPoint), 1u);
}

TEST(RunTimeRecord, PrintListsIntervalsNewestFirstZeroWhereTheClockSteppedBackThenTheTotal) {
    RunTimeRecord many(50);
    for (timespec t : {At(1, 0), At(1, 2000), At(1, 6000), At(0, 0) /* stepped back */,
                       At(1, 20000), At(1, 30000), At(1, 42000)}) {
        many.RecordTime(t);
    }
    RunTimeRecord one(50);
    one.RecordCurrentTime();
    LogCapture cap;
    many.RunTimePrint("M");
    one.RunTimePrint("write to peer ");
    auto lines = cap.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, LOG_NOTICE);
    auto message = [](const std::string& line) { return line.substr(line.rfind("] ") + 2); };
    EXPECT_EQ(message(lines[0].text),
              "M t65 = 12us, t54 = 10us, t43 = 1000020us, t32 = 0us, t21 = 4us, t10 = 2us,"
              "totalTime=42us");
    EXPECT_EQ(message(lines[1].text), "write to peer totalTime=0us");
}
