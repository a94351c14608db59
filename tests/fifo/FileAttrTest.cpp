#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "LogCapture.h"
#include "PrivateDir.h"
#include "fifo/check_file_attr.h"
#include "fifo/nux_fifo.h"

using sable_test::LogCapture;
using sable_test::PrivateDir;

namespace {

void MakeFile(const std::string& path) {
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    close(fd);
}

}  // namespace

class FileAttr : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.Valid());
        fifo = dir.Path("fifo");
        file = dir.Path("file");
        linkToFifo = dir.Path("link");
        missing = dir.Path("missing");
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        MakeFile(file);
        ASSERT_EQ(chmod(file.c_str(), 0644), 0);
        ASSERT_EQ(symlink(fifo.c_str(), linkToFifo.c_str()), 0);
    }

    PrivateDir dir;
    std::string fifo, file, linkToFifo, missing;
};

TEST_F(FileAttr, GetFileStateLooksAtTheLinkItself) {
    LogCapture cap;
    struct stat st;
    ASSERT_EQ(GetFileState(linkToFifo, st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    ASSERT_EQ(GetFileState(fifo, st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_EQ(GetFileState(missing, st), -ENOENT);
    EXPECT_TRUE(cap.Lines().empty());
}

TEST_F(FileAttr, IsLinkRefusesOnlySymbolicLinks) {
    LogCapture cap;
    EXPECT_EQ(IsLink(fifo), 0);
    EXPECT_EQ(IsLink(file), 0);
    EXPECT_TRUE(cap.Lines().empty());
    EXPECT_EQ(IsLink(linkToFifo), -EINVAL);
    EXPECT_TRUE(cap.Contains("File " + linkToFifo + " is a symbolic link.\n"));
    EXPECT_EQ(IsLink(missing), -ENOENT);
    EXPECT_TRUE(cap.Contains("Get the state of file " + missing + " failed, ret=-2.\n"));
}

TEST_F(FileAttr, IsFifoFileAcceptsOnlyARealFifo) {
    LogCapture cap;
    EXPECT_EQ(IsFifoFile(fifo), 0);
    EXPECT_TRUE(cap.Lines().empty());

    EXPECT_EQ(IsFifoFile(file), -EACCES);
    EXPECT_TRUE(cap.Contains("File " + file + "(mode=" + std::to_string(S_IFREG | 0644) +
                             ") exists but is not fifo file.\n"));
    // A link to a FIFO is not a FIFO: peers must never be steered elsewhere.
    EXPECT_EQ(IsFifoFile(linkToFifo), -EACCES);
    EXPECT_EQ(IsFifoFile(dir.Dir()), -EACCES);
    EXPECT_EQ(IsFifoFile(missing), -ENOENT);
    EXPECT_TRUE(cap.Contains("Get file " + missing + " state failed, ret=-2.\n"));
    for (const auto& line : cap.Lines()) EXPECT_EQ(line.level, LOG_ERR);
}

TEST(FileContexts, AccessibleExactlyWhenThePolicyDirectoryIsReadableByAll) {
    struct stat st;
    int expected = 0;
    if (lstat("/etc/selinux/targeted/contexts/files/", &st) != 0) {
        expected = -errno;
    } else if ((st.st_mode & 0444) != 0444) {
        expected = -EACCES;
    }
    EXPECT_EQ(CanAccessFileContexts(), expected);
}
