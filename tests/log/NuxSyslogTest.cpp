#include <errno.h>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "log/NuxSyslog.h"

using sable_test::LogCapture;

TEST(NuxSyslog, LineCarriesPrefixAndMessage) {
    LogCapture cap;
    NuxSyslog(LOG_SABLECOMM, LOG_ERR, 42, "file.cpp", "hello %d\n", 7);
    auto lines = cap.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, LOG_ERR);
    EXPECT_NE(lines[0].text.find("[SABLECOMM]["), std::string::npos);
    EXPECT_NE(lines[0].text.find("[file.cpp:42] hello 7\n"), std::string::npos);
}
