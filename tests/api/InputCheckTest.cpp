#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "FreshProcess.h"
#include "LogCapture.h"
#include "TestEnv.h"
#include "api/nux_check.h"
#include "api/sable_comm_check.h"
#include "env/EnvManager.h"

using sable_test::LogCapture;

namespace {

SabloAttr ValidAttr() {
    SabloAttr attr;
    attr.targetName = "peer_proc";
    attr.mode = SABLO_MODE_CREATE;
    attr.priority = SABLO_PRIORITY_REALTIME;
    attr.selfName = "self_proc";
    return attr;
}

int CheckServer(const char* selfName, int priority) {
    return CheckInputServerAttr(
        {nullptr, nullptr, 0, static_cast<SabloPriority>(priority), selfName});
}

// A file under /tmp holding `bytes`, removed at the end of the test.
struct TempFile {
    explicit TempFile(const std::string& bytes) : path("/tmp/" + sable_test::UniqueName("conf")) {
        std::ofstream(path, std::ios::binary) << bytes;
    }
    ~TempFile() { unlink(path.c_str()); }
    std::string path;
};

}  // namespace

TEST(NameCheck, LengthIsOneTo100AndMustMatchTheName) {
    LogCapture cap;
    auto check = [](const std::string& name) {
        return CheckInputName(name.c_str(), strnlen(name.c_str(), 101), 100);
    };
    EXPECT_EQ(check(std::string(100, 'a')), 0);
    EXPECT_TRUE(cap.Lines().empty());
    EXPECT_EQ(check(std::string(101, 'a')), -EINVAL);
    EXPECT_TRUE(cap.Contains("Length of process name is invalid, value=101, range(0, 100]\n"));
    EXPECT_EQ(check(""), -EINVAL);
    EXPECT_TRUE(cap.Contains("Length of process name is invalid, value=0, range(0, 100]\n"));
    EXPECT_EQ(CheckInputName(nullptr, 0, 100), -EINVAL);
    EXPECT_TRUE(cap.Contains("The input parameter target process-name is NULL.\n"));
    EXPECT_EQ(CheckInputName("abcdef", 3, 100), -EINVAL);
    EXPECT_TRUE(
        cap.Contains("Length of process name(value=3) is not equal to the length of "
                     "target process(value=6)\n"));
}

TEST(BlackList, RefusesShellAndPathSequencesAnywhereButNotSingleDots) {
    for (const char* name : {"a..b", "x;y", "a$", "p(1)", "a)b", "a|b", "a>b", "a<b", "a`b", "a&b",
                             "../etc", "dir/..", "proc/sub", "/abs", "x/"}) {
        EXPECT_TRUE(BlackListCheck(name)) << name;
    }
    for (const char* name : {"a.b", "a-b_c", "name.1", "x.y.z"}) {
        EXPECT_FALSE(BlackListCheck(name)) << name;
    }
}

TEST(PipeAttrCheck, ChecksTargetModeAndSelfFieldsOnly) {
    LogCapture cap;
    SabloAttr attr = ValidAttr();
    attr.mode = SABLO_MODE_JOIN;
    attr.domain = static_cast<SabloDomain>(9);  // fields that are not checked pass as given
    EXPECT_EQ(CheckInputPipeAttr(attr), 0);
    EXPECT_TRUE(cap.Lines().empty());

    std::string tooLong(101, 't');
    for (const char* target : {static_cast<const char*>(nullptr), tooLong.c_str()}) {
        attr.targetName = target;
        EXPECT_EQ(CheckInputPipeAttr(attr), -EINVAL);
    }
    EXPECT_EQ(cap.Count("Intput targetName is not valid.\n"), 2u);
    attr.targetName = "x;y";
    EXPECT_EQ(CheckInputPipeAttr(attr), -EINVAL);
    EXPECT_TRUE(cap.Contains("Intput targetName=x;y is not valid.\n"));
    // A slash is refused like the other sequences, in the target and in the own name.
    attr.targetName = "x/y";
    EXPECT_EQ(CheckInputPipeAttr(attr), -EINVAL);
    EXPECT_TRUE(cap.Contains("Intput targetName=x/y is not valid.\n"));
    attr = ValidAttr();
    attr.selfName = "me/up";
    EXPECT_EQ(CheckInputPipeAttr(attr), -EINVAL);
    EXPECT_TRUE(cap.Contains("Intput selfName=me/up is not valid.\n"));

    attr = ValidAttr();
    for (int mode : {2, -1}) {
        attr.mode = static_cast<SabloMode>(mode);
        EXPECT_EQ(CheckInputPipeAttr(attr), -EINVAL);
        EXPECT_TRUE(cap.Contains("Intput mode=" + std::to_string(mode) + " is not valid.\n"));
    }
    attr = ValidAttr();
    attr.priority = static_cast<SabloPriority>(3);
    EXPECT_EQ(CheckInputPipeAttr(attr), -EINVAL);
    EXPECT_TRUE(cap.Contains("Intput attr priority is not valid, prio=3.\n"));
}

TEST(SelfCheck, PriorityIsZeroToTwoAndTheNameIsLengthAndBlacklistChecked) {
    LogCapture cap;
    for (int priority : {0, 1, 2}) EXPECT_EQ(CheckServer("me", priority), 0);
    EXPECT_EQ(CheckServer("me", -1), -EINVAL);
    EXPECT_TRUE(cap.Contains("Intput attr priority is not valid, prio=-1.\n"));
    EXPECT_EQ(CheckServer(std::string(101, 's').c_str(), 1), -EINVAL);
    EXPECT_EQ(CheckServer("", 1), -EINVAL);
    EXPECT_EQ(cap.Count("Intput selfName is not valid.\n"), 2u);
    EXPECT_EQ(CheckInputSelfNameAndPriority("srv&", SABLO_PRIORITY_NORMAL), -EINVAL);
    EXPECT_TRUE(cap.Contains("Intput selfName=srv& is not valid.\n"));
    EXPECT_EQ(CheckInputSelfNameAndPriority("srv/x", SABLO_PRIORITY_NORMAL), -EINVAL);
    EXPECT_TRUE(cap.Contains("Intput selfName=srv/x is not valid.\n"));
}

TEST(SelfCheck, NullSelfNameChecksTheProcessName) {
    SABLE_EXPECT_IN_FRESH_PROCESS([] {
        sable_test::Problems p;
        setenv("PROC_NAME", "good.name", 1);
        SabloAttr attr = ValidAttr();
        attr.selfName = nullptr;
        p.Eq(CheckInputPipeAttr(attr), 0, "good process name");
        LogCapture cap;
        EnvManager::SetProcName("bad..name");
        p.Eq(CheckServer(nullptr, 1), -EINVAL, "blacklisted process name");
        p.True(cap.Contains("Intput selfName=(null) is not valid.\n"), "(null) logged");
        EnvManager::SetProcName("");
        p.Eq(CheckInputSelfNameAndPriority(nullptr, SABLO_PRIORITY_NORMAL), -EINVAL, "empty");
        p.True(cap.Contains("Intput selfName is not valid.\n"), "empty name logged");
        return p.Text();
    });
}

TEST(LoadFile, AppendsEveryChunkUpToItsFirstNulAndFailsOnAnEmptyOrUnreadableFile) {
    auto before = sable_test::OpenFds();
    std::string content;
    for (int i = 0; i < 300; ++i) content += "line " + std::to_string(i) + "\n";  // > 2 chunks
    std::string first = std::string("ab") + '\0' + "hidden";
    first.resize(1023, 'p');  // the rest of the first 1023-byte chunk is not kept either
    TempFile big(content);
    TempFile nul(first + "cd" + '\0' + "gone");
    std::stringstream out;
    out << "kept:";
    LogCapture cap;
    EXPECT_EQ(LoadFile(big.path, out), 0);
    EXPECT_EQ(LoadFile(nul.path, out), 0);
    EXPECT_EQ(out.str(), "kept:" + content + "abcd");
    EXPECT_TRUE(cap.Lines().empty());

    TempFile empty("");
    EXPECT_EQ(LoadFile(empty.path, out), -1);
    std::string line = cap.Find("Read Config file fail: ret=0, errno=");
    EXPECT_EQ(line.rfind("[NUX][", 0), 0u) << line;  // the log type of the config checks
    EXPECT_EQ(LoadFile("/tmp", out), -1);
    EXPECT_TRUE(cap.Contains("Read Config file fail: ret=-1, errno=" + std::to_string(EISDIR)));
    EXPECT_EQ(LoadFile(empty.path + "_missing", out), -ENOENT);
    EXPECT_TRUE(cap.Contains("Transfer RealPath fail err=-2.\n"));
    EXPECT_EQ(out.str(), "kept:" + content + "abcd");
    EXPECT_EQ(sable_test::OpenFds(), before);
}
