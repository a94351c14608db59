#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "LogCapture.h"
#include "TestEnv.h"
#include "api/nux_check.h"

using sable_test::LogCapture;

namespace {

// A private directory under /tmp, removed with everything in it at the end of the test.
class ScratchDir {
public:
    ScratchDir() {
        std::string tmpl = "/tmp/" + sable_test::UniqueName("nux_check") + "_XXXXXX";
        char* made = mkdtemp(tmpl.data());
        if (made != nullptr) path = made;
    }
    ~ScratchDir() {
        std::error_code ignored;
        if (!path.empty()) std::filesystem::remove_all(path, ignored);
    }
    std::string Write(const std::string& name, const std::string& bytes) const {
        std::string file = path + "/" + name;
        std::ofstream(file, std::ios::binary) << bytes;
        return file;
    }
    std::string path;
};

}  // namespace

TEST(TransferToRealPath, GivesTheCanonicalAbsolutePath) {
    ScratchDir dir;
    ASSERT_FALSE(dir.path.empty());
    std::string file = dir.Write("conf", "x");
    ASSERT_EQ(mkdir((dir.path + "/sub").c_str(), 0700), 0);
    ASSERT_EQ(symlink(file.c_str(), (dir.path + "/link").c_str()), 0);

    std::string path = dir.path + "/sub/../sub/./../link";
    EXPECT_EQ(TransferToRealPath(path), 0);
    EXPECT_EQ(path, file);
}

TEST(TransferToRealPath, MissingPathFailsAndKeepsTheInput) {
    std::string path = "/nonexistent_" + sable_test::UniqueName("dir") + "/x";
    std::string original = path;
    EXPECT_EQ(TransferToRealPath(path), -ENOENT);
    EXPECT_EQ(path, original);
    std::string empty;
    EXPECT_EQ(TransferToRealPath(empty), -ENOENT);
}

TEST(LoadFile, AppendsTheWholeFileAcrossChunks) {
    ScratchDir dir;
    std::string content;
    for (int i = 0; i < 300; ++i) content += "line " + std::to_string(i) + "\n";  // > 2 chunks
    std::string file = dir.Write("big.conf", content);
    std::stringstream out;
    out << "kept:";
    LogCapture cap;
    EXPECT_EQ(LoadFile(file, out), 0);
    EXPECT_EQ(out.str(), "kept:" + content);
    EXPECT_TRUE(cap.Lines().empty());
}

TEST(LoadFile, EmptyFileIsAnError) {
    ScratchDir dir;
    std::string file = dir.Write("empty.conf", "");
    std::stringstream out;
    LogCapture cap;
    EXPECT_EQ(LoadFile(file, out), -1);
    EXPECT_EQ(out.str(), "");
    std::string line = cap.Find("Read Config file fail: ret=0, errno=");
    EXPECT_EQ(line.rfind("[NUX][", 0), 0u) << line;  // logged with the type of config checks
}

TEST(LoadFile, EachChunkEndsAtItsFirstNul) {
    ScratchDir dir;
    std::string first = std::string("ab") + '\0' + "hidden";
    first.resize(1023, 'p');  // the rest of the first 1023-byte chunk is not kept either
    std::string second = std::string("cd") + '\0' + "gone";
    std::string file = dir.Write("nul.conf", first + second);
    std::stringstream out;
    EXPECT_EQ(LoadFile(file, out), 0);
    EXPECT_EQ(out.str(), "abcd");
}

TEST(LoadFile, MissingFileReportsTheRealPathError) {
    std::stringstream out;
    LogCapture cap;
    EXPECT_EQ(LoadFile("/nonexistent_" + sable_test::UniqueName("conf"), out), -ENOENT);
    EXPECT_TRUE(cap.Contains("Transfer RealPath fail err=-2.\n"));
}

TEST(LoadFile, DirectoryCannotBeRead) {
    ScratchDir dir;
    std::stringstream out;
    LogCapture cap;
    EXPECT_EQ(LoadFile(dir.path, out), -1);
    EXPECT_TRUE(cap.Contains("Read Config file fail: ret=-1, errno=" + std::to_string(EISDIR)));
}

TEST(LoadFile, LeavesNoDescriptorOpen) {
    ScratchDir dir;
    std::string good = dir.Write("good.conf", "content");
    std::string empty = dir.Write("empty.conf", "");
    auto before = sable_test::OpenFds();
    std::stringstream out;
    EXPECT_EQ(LoadFile(good, out), 0);
    EXPECT_EQ(LoadFile(empty, out), -1);
    EXPECT_EQ(LoadFile(dir.path, out), -1);
    EXPECT_EQ(sable_test::OpenFds(), before);
}
