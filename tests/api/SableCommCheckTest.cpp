#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <string>

#include "FreshProcess.h"
#include "LogCapture.h"
#include "api/nux_check.h"
#include "api/sable_comm_check.h"

using sable_test::LogCapture;
using sable_test::Problems;

namespace {

SabloAttr ValidAttr() {
    SabloAttr attr;
    attr.targetName = "peer_proc";
    attr.mode = SABLO_MODE_CREATE;
    attr.priority = SABLO_PRIORITY_REALTIME;
    attr.selfName = "self_proc";
    return attr;
}

SabloServerAttr ServerAttr(const char* selfName, int priority) {
    SabloServerAttr attr {};
    attr.selfName = selfName;
    attr.priority = static_cast<SabloPriority>(priority);
    return attr;
}

int CheckName(const std::string& name) {
    return CheckInputName(name.c_str(), strnlen(name.c_str(), 101), 100);
}

}  // namespace

// ---- names ----

TEST(NameCheck, LengthRangeIsOneTo100) {
    LogCapture cap;
    EXPECT_EQ(CheckName(std::string(100, 'a')), 0);
    EXPECT_EQ(CheckName("a"), 0);
    EXPECT_TRUE(cap.Lines().empty());

    EXPECT_EQ(CheckName(std::string(101, 'a')), -EINVAL);
    EXPECT_TRUE(cap.Contains("Length of process name is invalid, value=101, range(0, 100]\n"));
    EXPECT_EQ(CheckName(std::string(500, 'a')), -EINVAL);  // measured with a bound of 101
    EXPECT_EQ(cap.Count("value=101, range(0, 100]"), 2u);

    EXPECT_EQ(CheckName(""), -EINVAL);
    EXPECT_TRUE(cap.Contains("Length of process name is invalid, value=0, range(0, 100]\n"));
}

TEST(NameCheck, NullAndMismatchedLengthAreRefused) {
    LogCapture cap;
    EXPECT_EQ(CheckInputName(nullptr, 0, 100), -EINVAL);
    EXPECT_TRUE(cap.Contains("The input parameter target process-name is NULL.\n"));

    EXPECT_EQ(CheckInputName("abcdef", 3, 100), -EINVAL);
    EXPECT_TRUE(cap.Contains("Length of process name(value=3) is not equal to the length of "
                             "target process(value=6)\n"));
}

TEST(BlackList, RefusesShellAndPathSequencesAnywhere) {
    for (const char* name : {"a..b", "x;y", "a$", "p(1)", "a|b", "a>b", "a<b", "a>>b", "a`b",
                             "a&&b", "a&b", "a)b", "..", "../etc", "dir/..", "a||b"}) {
        EXPECT_TRUE(BlackListCheck(name)) << name;
    }
}

TEST(BlackList, AcceptsOrdinaryNamesWithSingleDots) {
    for (const char* name : {"a.b", "a-b_c", "name.1", "x.y.z", "proc/sub", "A1 b2"}) {
        EXPECT_FALSE(BlackListCheck(name)) << name;
    }
}

// ---- pipe attributes ----

TEST(PipeAttrCheck, AcceptsAValidRecordWhateverTheUncheckedFields) {
    LogCapture cap;
    SabloAttr attr = ValidAttr();
    EXPECT_EQ(CheckInputPipeAttr(attr), 0);
    attr.mode = SABLO_MODE_JOIN;
    attr.priority = SABLO_PRIORITY_DEFAULT;
    attr.timeout = -5;
    attr.gid = 0;
    attr.targetPid = 0;
    attr.domain = static_cast<SabloDomain>(9);
    attr.targetCon = "not:a:context";
    EXPECT_EQ(CheckInputPipeAttr(attr), 0);
    EXPECT_TRUE(cap.Lines().empty());
}

TEST(PipeAttrCheck, RefusesABadTargetName) {
    LogCapture cap;
    SabloAttr attr = ValidAttr();
    attr.targetName = nullptr;
    EXPECT_EQ(CheckInputPipeAttr(attr), -EINVAL);
    EXPECT_EQ(cap.Count("Intput targetName is not valid.\n"), 1u);

    std::string tooLong(101, 't');
    attr.targetName = tooLong.c_str();
    EXPECT_EQ(CheckInputPipeAttr(attr), -EINVAL);
    EXPECT_EQ(cap.Count("Intput targetName is not valid.\n"), 2u);
    EXPECT_TRUE(cap.Contains("value=101, range(0, 100]"));

    attr.targetName = "a..b";
    EXPECT_EQ(CheckInputPipeAttr(attr), -EINVAL);
    EXPECT_TRUE(cap.Contains("Intput targetName=a..b is not valid.\n"));
}

TEST(PipeAttrCheck, ModeMustBeJoinOrCreate) {
    LogCapture cap;
    SabloAttr attr = ValidAttr();
    attr.mode = static_cast<SabloMode>(2);
    EXPECT_EQ(CheckInputPipeAttr(attr), -EINVAL);
    EXPECT_TRUE(cap.Contains("Intput mode=2 is not valid.\n"));
    attr.mode = static_cast<SabloMode>(-1);
    EXPECT_EQ(CheckInputPipeAttr(attr), -EINVAL);
    EXPECT_TRUE(cap.Contains("Intput mode=-1 is not valid.\n"));
}

TEST(PipeAttrCheck, TargetIsCheckedBeforeModeAndSelf) {
    LogCapture cap;
    SabloAttr attr = ValidAttr();
    attr.targetName = "x;y";
    attr.mode = static_cast<SabloMode>(5);
    attr.selfName = "also;bad";
    EXPECT_EQ(CheckInputPipeAttr(attr), -EINVAL);
    EXPECT_EQ(cap.Lines().size(), 1u);
    EXPECT_TRUE(cap.Contains("Intput targetName=x;y is not valid.\n"));
}

TEST(PipeAttrCheck, SelfNameAndPriorityAreCheckedLast) {
    LogCapture cap;
    SabloAttr attr = ValidAttr();
    attr.selfName = "me$";
    EXPECT_EQ(CheckInputPipeAttr(attr), -EINVAL);
    EXPECT_TRUE(cap.Contains("Intput selfName=me$ is not valid.\n"));

    attr = ValidAttr();
    attr.priority = static_cast<SabloPriority>(3);
    EXPECT_EQ(CheckInputPipeAttr(attr), -EINVAL);
    EXPECT_TRUE(cap.Contains("Intput attr priority is not valid, prio=3.\n"));
}

// ---- self name and priority (pipe and server records alike) ----

TEST(SelfCheck, PriorityRangeIsZeroToTwo) {
    LogCapture cap;
    for (int priority : {0, 1, 2}) {
        EXPECT_EQ(CheckInputSelfNameAndPriority("me", static_cast<SabloPriority>(priority)), 0);
        EXPECT_EQ(CheckInputServerAttr(ServerAttr("me", priority)), 0);
    }
    EXPECT_EQ(CheckInputSelfNameAndPriority("me", static_cast<SabloPriority>(3)), -EINVAL);
    EXPECT_EQ(CheckInputServerAttr(ServerAttr("me", -1)), -EINVAL);
    EXPECT_TRUE(cap.Contains("Intput attr priority is not valid, prio=-1.\n"));
}

TEST(SelfCheck, SelfNameLengthAndBlacklist) {
    LogCapture cap;
    std::string tooLong(101, 's');
    EXPECT_EQ(CheckInputSelfNameAndPriority(tooLong.c_str(), SABLO_PRIORITY_NORMAL), -EINVAL);
    EXPECT_TRUE(cap.Contains("Intput selfName is not valid.\n"));
    EXPECT_EQ(CheckInputServerAttr(ServerAttr("", 1)), -EINVAL);
    EXPECT_EQ(cap.Count("Intput selfName is not valid.\n"), 2u);
    EXPECT_EQ(CheckInputServerAttr(ServerAttr("srv&", 1)), -EINVAL);
    EXPECT_TRUE(cap.Contains("Intput selfName=srv& is not valid.\n"));
}

TEST(SelfCheck, NullSelfNameChecksTheProcessName) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        setenv("PROC_NAME", "good.name", 1);
        p.Eq(CheckInputSelfNameAndPriority(nullptr, SABLO_PRIORITY_NORMAL), 0, "good name");
        SabloAttr attr = ValidAttr();
        attr.selfName = nullptr;
        p.Eq(CheckInputPipeAttr(attr), 0, "pipe record without self name");
        return p.Text();
    });
}

TEST(SelfCheck, NullSelfNameWithABlacklistedProcessNameFails) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        setenv("PROC_NAME", "bad..name", 1);
        LogCapture cap;
        p.Eq(CheckInputServerAttr(ServerAttr(nullptr, 1)), -EINVAL, "result");
        p.True(cap.Contains("Intput selfName=(null) is not valid.\n"), "log line");
        return p.Text();
    });
}

TEST(SelfCheck, NullSelfNameWithAnEmptyProcessNameFails) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        Problems p;
        setenv("PROC_NAME", "", 1);
        LogCapture cap;
        p.Eq(CheckInputSelfNameAndPriority(nullptr, SABLO_PRIORITY_NORMAL), -EINVAL, "result");
        p.True(cap.Contains("Intput selfName is not valid.\n"), "log line");
        return p.Text();
    });
}
