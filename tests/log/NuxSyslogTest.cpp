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

const NUXLogType kBare = static_cast<NUXLogType>(8);

std::string LocalHms(time_t t) {
    struct tm local {};
    localtime_r(&t, &local);
    char buf[32];
    strftime(buf, sizeof(buf), "%T", &local);
    return buf;
}

}  // namespace

TEST(NuxSyslogLine, PrefixFieldsInOrderPerTypeTagWithUnknowFileFallback) {
    LogCapture cap;
    time_t before = time(nullptr);
    NuxSyslog(LOG_SABLECOMM, LOG_WARNING, 42, "file.cpp", "hello %d\n", 7);
    time_t after = time(nullptr);
    NuxSyslog(LOG_NUX, LOG_ERR, 9, nullptr, "m");
    NuxSyslog(LOG_FAULTEVENT, LOG_ERR, 1, "f.cpp", "x");
    NuxSyslog(LOG_HEARTBEAT, LOG_ERR, 1, "f.cpp", "x");
    NuxSyslog(kBare, LOG_ERR, 3, "bare.cpp", "just %s\n", "this");
    auto lines = cap.Lines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0].level, LOG_WARNING);  // no facility bits added

    const std::string& line = lines[0].text;
    std::string head = std::string("[SABLECOMM][") + EnvManager::ProcName() + "][";
    ASSERT_EQ(line.compare(0, head.size(), head), 0) << line;
    std::string stamp = line.substr(head.size(), 15);
    EXPECT_TRUE(std::regex_match(stamp, std::regex(R"(\d\d:\d\d:\d\d\.\d{6})"))) << stamp;
    EXPECT_TRUE(stamp.rfind(LocalHms(before), 0) == 0 || stamp.rfind(LocalHms(after), 0) == 0);
    EXPECT_EQ(line.substr(head.size() + 15),
              "][" + std::to_string(getpid()) + "][" +
                  std::to_string(static_cast<unsigned long>(pthread_self())) +
                  "][file.cpp:42] hello 7\n");

    EXPECT_EQ(lines[1].text.rfind("[NUX][", 0), 0u);
    EXPECT_NE(lines[1].text.find("][UnknowFile:9] m"), std::string::npos);
    EXPECT_EQ(lines[2].text.rfind("[FAULTEVENT][", 0), 0u);
    EXPECT_EQ(lines[3].text.rfind("[HEARTBEAT][", 0), 0u);
    EXPECT_EQ(lines[4].text, "just this\n");  // types from 8 on print the bare message
}

TEST(NuxSyslogLength, MessageOf255BecomesFAndPrefixPlusMessageStopAt254) {
    LogCapture cap;
    NuxSyslog(kBare, LOG_ERR, 1, "len254.cpp", "%s", std::string(254, 'a').c_str());
    NuxSyslog(kBare, LOG_ERR, 1, "len255.cpp", "%s", std::string(255, 'b').c_str());
    NuxSyslog(LOG_SABLECOMM, LOG_ERR, 1, "len300.cpp", "%s", std::string(300, 'c').c_str());
    std::string message;
    for (int i = 0; i < 20; ++i) message += "0123456789";
    std::string file(60, 'f');
    NuxSyslog(LOG_FAULTEVENT, LOG_ERR, 77, file.c_str(), "%s", message.c_str());
    // A prefix that cannot be built within 255 characters is left out.
    NuxSyslog(LOG_HEARTBEAT, LOG_ERR, 5, std::string(250, 'g').c_str(), "message survives");

    auto lines = cap.Lines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0].text, std::string(254, 'a'));
    EXPECT_EQ(lines[1].text, "F");
    EXPECT_EQ(lines[2].text.substr(lines[2].text.size() - 16), "[len300.cpp:1] F");
    size_t prefixLen = lines[3].text.find(file + ":77] ") + file.size() + 5;
    ASSERT_LT(prefixLen, 254u) << lines[3].text;
    EXPECT_EQ(lines[3].text.size(), 254u);
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
