// Peers with write access to the FIFO directory plant links, files and directories there: the
// library must touch nothing outside the directory and open nothing but FIFOs.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "LogCapture.h"
#include "TestEnv.h"
#include "base/UniqueFd.h"
#include "fifo/nux_fifo.h"
#include "sable_comm.h"

using sable_test::LogCapture;
using sable_test::UniqueName;

namespace {

// What an outside file is: content, mode, owner and group.
struct FileState {
    std::string content;
    mode_t mode = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    bool operator==(const FileState& o) const {
        return content == o.content && mode == o.mode && uid == o.uid && gid == o.gid;
    }
};

std::ostream& operator<<(std::ostream& out, const FileState& s) {
    return out << "[" << s.content << "] mode " << std::oct << s.mode << std::dec << " uid "
               << s.uid << " gid " << s.gid;
}

// A directory outside the FIFO directory with precious files in it; removed at the end.
class OutsideDir {
  public:
    OutsideDir() : path("/tmp/" + UniqueName("outside")) { mkdir(path.c_str(), 0700); }
    ~OutsideDir() {
        for (const auto& entry : Entries()) unlink((path + "/" + entry).c_str());
        rmdir(path.c_str());
    }
    std::string Add(const std::string& name) {
        const std::string file = path + "/" + name;
        std::ofstream(file) << "precious " << name;
        chmod(file.c_str(), 0600);
        return file;
    }
    std::set<std::string> Entries() const {
        std::set<std::string> out;
        DIR* d = opendir(path.c_str());
        while (dirent* e = d != nullptr ? readdir(d) : nullptr) {
            if (e->d_name[0] != '.') out.insert(e->d_name);
        }
        if (d != nullptr) closedir(d);
        return out;
    }
    std::map<std::string, FileState> States() const {
        std::map<std::string, FileState> out;
        for (const auto& entry : Entries()) {
            const std::string file = path + "/" + entry;
            struct stat st {};
            lstat(file.c_str(), &st);
            std::ifstream in(file);
            std::stringstream text;
            text << in.rdbuf();
            out[entry] = FileState{text.str(), st.st_mode, st.st_uid, st.st_gid};
        }
        return out;
    }
    const std::string path;
};

// Removes the given FIFO directory entries (links, files, directories) at the end.
struct Planted {
    ~Planted() {
        for (const auto& entry : entries) {
            if (unlink(entry.c_str()) != 0) rmdir(entry.c_str());
        }
    }
    std::set<std::string> entries;
};

const std::string& Dir() {
    static const std::string dir = sable_test::EnsureFifoDir();
    return dir;
}

}  // namespace

TEST(OutsideFiles, ASlashNameReachesNothingThroughADirectoryLinkPlantedInTheFifoDirectory) {
    OutsideDir outside;
    const std::string self = UniqueName("me");
    const std::string link = UniqueName("lnk");
    // The files a pipe from `self` to "<link>/victim" would name: <link>/victim__to__<self> and
    // <self>__to__<link>/victim.
    outside.Add("victim__to__" + self);
    outside.Add("victim");
    const auto before = outside.States();
    Planted planted;
    for (const std::string& name : {link, self + "__to__" + link}) {
        ASSERT_EQ(symlink(outside.path.c_str(), (Dir() + name).c_str()), 0);
        planted.entries.insert(Dir() + name);
    }
    LogCapture cap;
    const std::string target = link + "/victim";
    for (SabloMode mode : {SABLO_MODE_CREATE, SABLO_MODE_JOIN}) {
        SabloAttr attr;
        attr.selfName = self.c_str();
        attr.targetName = target.c_str();
        attr.mode = mode;
        attr.timeout = 200;
        attr.gid = getgid() + 4242;
        EXPECT_EQ(SabloOpen(&attr), -EINVAL);
        attr.selfName = target.c_str();
        attr.targetName = self.c_str();
        EXPECT_EQ(SabloOpen(&attr), -EINVAL);
    }
    EXPECT_TRUE(cap.Contains("Intput targetName=" + target + " is not valid.\n"));
    EXPECT_TRUE(cap.Contains("Intput selfName=" + target + " is not valid.\n"));
    SabloServerAttr server{nullptr, nullptr, 0xFFFFFFFFu, SABLO_PRIORITY_DEFAULT, target.c_str()};
    EXPECT_EQ(SabloCreateServer(&server), -EINVAL);

    // Below the checks too: the FIFO directory of a path must be a real directory.
    EXPECT_LT(CreateFifo(Dir() + target, getgid(), -1, SABLO_DOMAIN_NONE, ""), 0);
    EXPECT_LT(OpenFifo(Dir() + target, O_RDONLY | O_NONBLOCK), 0);
    EXPECT_EQ(outside.States(), before);
}

TEST(OutsideFiles, CreatingAFifoRemovesAPlantedLinkItselfAndRefusesAPlantedDirectory) {
    OutsideDir outside;
    const std::string victim = outside.Add("victim");
    const auto before = outside.States();
    const std::string path = Dir() + UniqueName("cf") + "__to__x";
    Planted planted;
    planted.entries.insert(path);
    ASSERT_EQ(symlink(victim.c_str(), path.c_str()), 0);
    EXPECT_EQ(CreateFifo(path, getgid() + 4242, -1, SABLO_DOMAIN_NONE, ""), 0);
    struct stat st {};
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    ASSERT_EQ(unlink(path.c_str()), 0);

    // A directory at the name cannot be cleared: the creation fails and the directory stays.
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(CreateFifo(path, getgid(), -1, SABLO_DOMAIN_NONE, ""), -EACCES);
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(OpenFifo(path, O_RDONLY | O_NONBLOCK), -EACCES);
    EXPECT_EQ(outside.States(), before);
}

// The temporary name of a creation is swapped for a link to an outside file while the creation
// runs (a watcher replaces every temporary name it sees). Whoever wins, the outside file keeps
// its mode and group: they are only ever changed through the descriptor of the FIFO made.
TEST(OutsideFiles, ALinkSwappedInUnderTheTemporaryNameIsNeverChangedThrough) {
    OutsideDir outside;
    const std::string victim = outside.Add("victim");
    const auto before = outside.States();
    const std::string name = UniqueName("swap") + "__to__x";
    const std::string path = Dir() + name;
    std::atomic<bool> stop{false};
    std::atomic<int> swaps{0};
    std::thread swapper([&] {
        while (!stop.load()) {
            DIR* d = opendir(Dir().c_str());
            while (dirent* e = d != nullptr ? readdir(d) : nullptr) {
                const std::string entry = e->d_name;
                if (entry.size() > name.size() && entry.compare(0, name.size(), name) == 0) {
                    const std::string tmp = Dir() + entry;
                    if (unlink(tmp.c_str()) == 0 && symlink(victim.c_str(), tmp.c_str()) == 0) {
                        ++swaps;
                    }
                }
            }
            if (d != nullptr) closedir(d);
        }
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    for (int round = 0; round < 3000 && std::chrono::steady_clock::now() < deadline; ++round) {
        CreateFifo(path, getgid() + 4242, -1, SABLO_DOMAIN_NONE, "");
    }
    stop = true;
    swapper.join();
    // Links the swapper left behind, and the FIFO.
    for (const auto& entry : sable_test::FifoFilesWith(name)) unlink((Dir() + entry).c_str());
    EXPECT_EQ(outside.States(), before) << swaps.load() << " swaps";
    std::cout << "swaps won by the watcher: " << swaps.load() << "\n";
}

// A joining end finds a link to an outside file, or a regular file, at the name it writes or at
// the name it reads: the open fails with -EACCES and nothing is written anywhere.
TEST(OutsideFiles, AJoiningEndOpensNothingButFifos) {
    OutsideDir outside;
    const std::string victim = outside.Add("victim");
    const auto before = outside.States();
    for (bool atWriteName : {true, false}) {
        for (bool asLink : {true, false}) {
            const std::string self = UniqueName("join");
            const std::string remote = UniqueName("peer");
            const std::string writeName = Dir() + self + "__to__" + remote;
            const std::string readName = Dir() + remote + "__to__" + self;
            Planted planted;
            planted.entries = {writeName, readName};
            const std::string bad = atWriteName ? writeName : readName;
            sable::UniqueFd reader;
            if (!atWriteName) {
                // A real FIFO with a reader at the write name, so that the open gets to the read
                // name.
                ASSERT_EQ(mkfifo(writeName.c_str(), 0660), 0);
                reader.Reset(open(writeName.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
            }
            if (asLink) {
                ASSERT_EQ(symlink(victim.c_str(), bad.c_str()), 0);
            } else {
                std::ofstream(bad) << "planted";
            }
            LogCapture cap;
            SabloAttr attr;
            attr.selfName = self.c_str();
            attr.targetName = remote.c_str();
            attr.mode = SABLO_MODE_JOIN;
            attr.timeout = 1000;
            const int fd = SabloOpen(&attr);
            EXPECT_EQ(fd, -EACCES) << atWriteName << asLink;
            if (fd > 0) {
                uint8_t byte = 7;
                SabloRequest req{0, &byte, 1};
                SabloSendRequest(fd, &req);
                SabloClosePipe(fd);
            }
            EXPECT_TRUE(cap.Contains("File " + bad + "(mode=")) << atWriteName << asLink;
            EXPECT_TRUE(cap.Contains("exists but is not fifo file.\n"));
            if (!asLink) {
                std::ifstream in(bad);
                std::stringstream text;
                text << in.rdbuf();
                EXPECT_EQ(text.str(), "planted");
            }
        }
    }
    EXPECT_EQ(outside.States(), before);
}
