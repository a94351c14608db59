#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "LogCapture.h"
#include "env/EnvManager.h"
#include "log/NuxSyslog.h"

using sable_test::LogCapture;

namespace {

std::string LocalHms(time_t t) {
    struct tm local {};
    localtime_r(&t, &local);
    char buf[32];
    strftime(buf, sizeof(buf), "%T", &local);
    return buf;
}

// The only captured line; fails the test when there is not exactly one.
std::string OnlyLine(const LogCapture& cap) {
    auto lines = cap.Lines();
    EXPECT_EQ(lines.size(), 1u);
    return lines.empty() ? "" : lines[0].text;
}

}  // namespace

TEST(NuxSyslogLine, PrefixCarriesTagNameTimePidThreadAndSiteInOrder) {
    LogCapture cap;
    time_t before = time(nullptr);
    NuxSyslog(LOG_SABLECOMM, LOG_WARNING, 42, "file.cpp", "hello %d\n", 7);
    time_t after = time(nullptr);

    auto lines = cap.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, LOG_WARNING);  // no facility bits added
    const std::string& line = lines[0].text;

    std::string head = std::string("[SABLECOMM][") + EnvManager::ProcName() + "][";
    ASSERT_EQ(line.compare(0, head.size(), head), 0) << line;
    std::string stamp = line.substr(head.size(), 15);
    EXPECT_TRUE(std::regex_match(stamp, std::regex(R"(\d\d:\d\d:\d\d\.\d{6})"))) << stamp;
    std::string hms = stamp.substr(0, 8);
    EXPECT_TRUE(hms == LocalHms(before) || hms == LocalHms(after)) << hms;

    std::string expected = head + stamp + "][" + std::to_string(getpid()) + "][" +
                           std::to_string(static_cast<unsigned long>(pthread_self())) +
                           "][file.cpp:42] hello 7\n";
    EXPECT_EQ(line, expected);
}

TEST(NuxSyslogLine, EachUnrestrainedTypePrintsItsTag) {
    const char* tags[] = {"[NUX][", "[SABLECOMM][", "[FAULTEVENT][", "[HEARTBEAT]["};
    for (int type = LOG_NUX; type <= LOG_HEARTBEAT; ++type) {
        LogCapture cap;
        NuxSyslog(static_cast<NUXLogType>(type), LOG_ERR, 1, "f.cpp", "x");
        EXPECT_EQ(OnlyLine(cap).rfind(tags[type], 0), 0u) << "type " << type;
    }
}

TEST(NuxSyslogLine, NullFileIsShownAsUnknowFile) {
    LogCapture cap;
    NuxSyslog(LOG_NUX, LOG_ERR, 9, nullptr, "m");
    EXPECT_NE(OnlyLine(cap).find("][UnknowFile:9] m"), std::string::npos);
}

TEST(NuxSyslogLine, TypesFromEightOnPrintTheBareMessage) {
    LogCapture cap;
    NuxSyslog(static_cast<NUXLogType>(8), LOG_ERR, 3, "bare8.cpp", "just %s\n", "this");
    NuxSyslog(static_cast<NUXLogType>(100), LOG_ERR, 3, "bare100.cpp", "and this");
    auto lines = cap.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "just this\n");
    EXPECT_EQ(lines[1].text, "and this");
}

TEST(NuxSyslogLength, MessageOf255CharactersOrMoreBecomesF) {
    LogCapture cap;
    std::string longest(254, 'a');
    NuxSyslog(static_cast<NUXLogType>(8), LOG_ERR, 1, "len254.cpp", "%s", longest.c_str());
    std::string tooLong(255, 'b');
    NuxSyslog(static_cast<NUXLogType>(8), LOG_ERR, 1, "len255.cpp", "%s", tooLong.c_str());
    NuxSyslog(LOG_SABLECOMM, LOG_ERR, 1, "len300.cpp", "%s", std::string(300, 'c').c_str());
    auto lines = cap.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text, longest);  // no prefix: all 254 characters fit
    EXPECT_EQ(lines[1].text, "F");
    EXPECT_NE(lines[2].text.find("[len300.cpp:1] F"), std::string::npos);
    EXPECT_EQ(lines[2].text.back(), 'F');
}

TEST(NuxSyslogLength, PrefixAndMessageAreCutTo254Characters) {
    std::string message;
    for (int i = 0; i < 20; ++i) message += "0123456789";  // 200 characters
    for (size_t fileLen : {10u, 60u, 150u}) {
        LogCapture cap;
        std::string file(fileLen, 'f');
        NuxSyslog(LOG_FAULTEVENT, LOG_ERR, 77, file.c_str(), "%s", message.c_str());
        std::string line = OnlyLine(cap);
        std::string siteEnd = file + ":77] ";
        size_t prefixLen = line.find(siteEnd);
        ASSERT_NE(prefixLen, std::string::npos) << line;
        prefixLen += siteEnd.size();
        size_t room = 254 - prefixLen;
        EXPECT_EQ(line.size(), std::min<size_t>(254, prefixLen + message.size())) << fileLen;
        EXPECT_EQ(line.substr(prefixLen), message.substr(0, room)) << fileLen;
    }
}

TEST(NuxSyslogLength, PrefixThatCannotFitIsLeftOut) {
    LogCapture cap;
    std::string file(250, 'g');
    NuxSyslog(LOG_HEARTBEAT, LOG_ERR, 5, file.c_str(), "message survives");
    EXPECT_EQ(OnlyLine(cap), "message survives");
}

TEST(NuxSyslogLevels, InfoAndDebugAreDroppedAndLeaveErrnoAlone) {
    LogCapture cap;
    errno = EAGAIN;
    NuxSyslog(LOG_SABLECOMM, LOG_INFO, 1, "lvl.cpp", "info");
    EXPECT_EQ(errno, EAGAIN);
    NuxSyslog(LOG_NUX, LOG_DEBUG, 1, "lvl.cpp", "debug");
    EXPECT_EQ(errno, EAGAIN);
    NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_INFO, 1, "lvl.cpp", "restrained info");
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_TRUE(cap.Lines().empty());

    NuxSyslog(LOG_SABLECOMM, LOG_NOTICE, 1, "lvl.cpp", "notice");
    EXPECT_EQ(cap.Count("notice"), 1u);
}

TEST(NuxSyslogLevels, PrintedLineKeepsTheCallersErrno) {
    LogCapture cap;
    errno = ENOSPC;
    NuxSyslog(LOG_SABLECOMM, LOG_ERR, 1, "errno.cpp", "first line %d", 1);
    EXPECT_EQ(errno, ENOSPC);
    errno = EPIPE;
    NuxSyslog(LOG_SABLECOMM, LOG_ERR, 1, "errno.cpp", "%s", std::string(400, 'z').c_str());
    EXPECT_EQ(errno, EPIPE);  // also when the message failed and became "F"
    EXPECT_EQ(cap.Lines().size(), 2u);
}

TEST(NuxSyslogLevels, DroppedLevelsDoNotEvaluateMacroArguments) {
    int evaluated = 0;
    auto touch = [&evaluated] { return ++evaluated; };
    LogCapture cap;
    LOGI("%d\n", touch());
    LOGD("%d\n", touch());
    LOGI_R("%d\n", touch());
    EXPECT_EQ(evaluated, 0);
    LOGE("%d\n", touch());
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(cap.Lines().size(), 1u);
}
