// The command-line tool against real processes: listing with holders and stale pairs, removing
// stale files, calls to a pipe service and to a server, serving library callers, bad input.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "TestEnv.h"

namespace {

using sable_test::ChildProcess;
using sable_test::EnsureFifoDir;
using sable_test::UniqueName;
using sable_test::WaitUntil;

#ifdef SABLECTL_PATH
const char* const kCtl = SABLECTL_PATH;
#else
const char* const kCtl = nullptr;
#endif

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool Exists(const std::string& name) {
    struct stat st {};
    return lstat((EnsureFifoDir() + name).c_str(), &st) == 0;
}

// sablectl in a child process, its output going to files of this test.
class Ctl {
  public:
    explicit Ctl(const std::vector<std::string>& args, const std::string& stdinText = "") {
        static int counter = 0;
        const std::string base =
            "/tmp/sablectl_test_" + std::to_string(getpid()) + "_" + std::to_string(counter++);
        outPath = base + ".out";
        errPath = base + ".err";
        std::string in = "</dev/null";
        if (!stdinText.empty()) {
            inPath = base + ".in";
            std::ofstream(inPath) << stdinText;
            in = "<" + inPath;
        }
        std::vector<std::string> sh{
            "-c",
            "exec $SABLE_TEST_EMULATOR \"$0\" \"$@\" >" + outPath + " 2>" + errPath + " " + in,
            kCtl};
        sh.insert(sh.end(), args.begin(), args.end());
        child = std::make_unique<ChildProcess>("/bin/sh", sh);
    }
    ~Ctl() {
        child.reset();
        unlink(outPath.c_str());
        unlink(errPath.c_str());
        if (!inPath.empty()) unlink(inPath.c_str());
    }

    // Waits for the exit; the status, or -1 when it did not end in time.
    int Wait(int timeoutMs = 30000) {
        int status = child->Wait(timeoutMs);
        if (status >= 0) child->ExpectExit(status);
        return status;
    }
    void Stop(int sig) { child->Kill(sig); }
    pid_t Pid() const { return child->Pid(); }
    std::string Out() const { return ReadFile(outPath); }
    std::string Err() const { return ReadFile(errPath); }
    bool OutHas(const std::string& text, int timeoutMs = 20000) const {
        return WaitUntil([&] { return Out().find(text) != std::string::npos; }, timeoutMs);
    }

  private:
    std::unique_ptr<ChildProcess> child;
    std::string outPath, errPath, inPath;
};

// The line of `ls --json` (one object per line) for the file `name`.
std::string LsLine(const std::string& json, const std::string& name) {
    std::istringstream in(json);
    for (std::string line; std::getline(in, line);) {
        if (line.find("\"name\":\"" + name + "\"") != std::string::npos) return line;
    }
    return "";
}

class SablectlTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (kCtl == nullptr) GTEST_SKIP() << "built without the command-line tool";
        EnsureFifoDir();
    }
    // Files a test made that nothing else removes (a killed process's pair).
    void TearDown() override {
        for (const auto& n : leftovers) unlink((EnsureFifoDir() + n).c_str());
    }
    std::vector<std::string> leftovers;
};

TEST_F(SablectlTest, LsShowsALivePairWithItsHoldersAndAKilledProcessesPairStaleGcRemovesOnlyThat) {
    const std::string tag = UniqueName("ctlgc");
    const std::string liveA = tag + "_la", liveB = tag + "_lb";
    const std::string deadA = tag + "_da", deadB = tag + "_db";
    leftovers = {liveA + "__to__" + liveB, liveB + "__to__" + liveA, deadA + "__to__" + deadB,
                 deadB + "__to__" + deadA};
    // Two creating ends that wait to be killed, each holding the read end of its pair.
    ChildProcess live("pipe_peer", {"burst", liveA, liveB, "1", "0", "0"});
    ChildProcess dead("pipe_peer", {"burst", deadA, deadB, "1", "0", "0"});
    ASSERT_EQ(live.ReadLine().rfind("ready", 0), 0u);
    ASSERT_EQ(dead.ReadLine().rfind("ready", 0), 0u);
    // The kernel's name of the process ("pipe_peer", or the emulator's name under emulation).
    std::string liveComm = ReadFile("/proc/" + std::to_string(live.Pid()) + "/comm");
    liveComm = liveComm.substr(0, liveComm.find('\n'));

    {
        Ctl ls({"ls", "--json", tag + "*"});
        ASSERT_EQ(ls.Wait(), 0) << ls.Err();
        const std::string json = ls.Out();
        // The creating end reads the FIFO its peer writes: it holds that one for reading.
        std::string held = LsLine(json, liveB + "__to__" + liveA);
        EXPECT_NE(held.find("\"pid\":" + std::to_string(live.Pid()) + ",\"name\":\"" + liveComm +
                            "\",\"access\":\"r\""),
                  std::string::npos)
            << json;
        EXPECT_NE(held.find("\"kind\":\"pipe\",\"writer\":\"" + liveB + "\",\"reader\":\"" + liveA +
                            "\""),
                  std::string::npos)
            << held;
        EXPECT_NE(held.find("\"mode\":\"0660\""), std::string::npos) << held;
        EXPECT_NE(held.find("\"stale\":false"), std::string::npos) << held;
        // Its own write end is not open yet; the pair is still live.
        EXPECT_NE(LsLine(json, liveA + "__to__" + liveB).find("\"stale\":false"), std::string::npos)
            << json;
    }

    dead.Kill(SIGKILL);
    ASSERT_EQ(dead.Wait(), 128 + SIGKILL);
    dead.ExpectExit(128 + SIGKILL);
    {
        Ctl ls({"ls", tag + "*"});
        ASSERT_EQ(ls.Wait(), 0) << ls.Err();
        const std::string table = ls.Out();
        for (const auto& n : {deadA + "__to__" + deadB, deadB + "__to__" + deadA}) {
            auto at = table.find(n + " ");
            ASSERT_NE(at, std::string::npos) << table;
            const std::string row = table.substr(at, table.find('\n', at) - at);
            EXPECT_NE(row.find("STALE"), std::string::npos) << row;
        }
        auto at = table.find(liveB + "__to__" + liveA + " ");
        ASSERT_NE(at, std::string::npos) << table;
        const std::string row = table.substr(at, table.find('\n', at) - at);
        EXPECT_NE(row.find("live"), std::string::npos) << row;
        EXPECT_NE(row.find(std::to_string(live.Pid()) + "(" + liveComm + ":r)"), std::string::npos)
            << row;
    }
    {
        Ctl gc({"gc", tag + "*"});  // only lists
        ASSERT_EQ(gc.Wait(), 0) << gc.Err();
        EXPECT_NE(gc.Out().find("2 stale files"), std::string::npos) << gc.Out();
        EXPECT_TRUE(Exists(deadA + "__to__" + deadB));
    }
    {
        Ctl gc({"gc", "--delete", "--min-age", "0", tag + "*"});
        ASSERT_EQ(gc.Wait(), 0) << gc.Err();
        EXPECT_NE(gc.Out().find(deadA + "__to__" + deadB + "  deleted"), std::string::npos)
            << gc.Out();
    }
    EXPECT_FALSE(Exists(deadA + "__to__" + deadB));
    EXPECT_FALSE(Exists(deadB + "__to__" + deadA));
    EXPECT_TRUE(Exists(liveA + "__to__" + liveB));
    EXPECT_TRUE(Exists(liveB + "__to__" + liveA));
    live.Kill(SIGKILL);
    live.Wait();
    live.ExpectExit(128 + SIGKILL);
}

TEST_F(SablectlTest, GcKeepsARunningServersFifoAndRemovesAStaleOne) {
    const std::string name = UniqueName("ctlsrv");
    const std::string staleName = UniqueName("ctlsrv");
    leftovers = {staleName, name};
    ASSERT_EQ(mkfifo((EnsureFifoDir() + staleName).c_str(), 0660), 0);
    ChildProcess server("echo_server", {name});
    ASSERT_EQ(server.ReadLine(), "server 0");
    {
        Ctl ls({"ls", "--json", name});
        ASSERT_EQ(ls.Wait(), 0) << ls.Err();
        std::string line = LsLine(ls.Out(), name);
        EXPECT_NE(line.find("\"kind\":\"server\""), std::string::npos) << line;
        EXPECT_NE(line.find("\"locked_by\":" + std::to_string(server.Pid())), std::string::npos)
            << line;
    }
    Ctl gc({"gc", "--delete", "--min-age", "0", name, staleName});
    ASSERT_EQ(gc.Wait(), 0) << gc.Err();
    EXPECT_TRUE(Exists(name));
    EXPECT_FALSE(Exists(staleName));
    server.Kill(SIGTERM);
}

TEST_F(SablectlTest, CallGetsTheAnswerOfAServerAndOfAPipeService) {
    const std::string name = UniqueName("ctlcall");
    const std::string svc = UniqueName("ctlsvc"), self = UniqueName("ctlself");
    leftovers = {name, svc + "__to__" + self, self + "__to__" + svc};  // should a step fail
    ChildProcess server("echo_server", {name});
    ASSERT_EQ(server.ReadLine(), "server 0");
    {
        Ctl call({"call", name, "--data", "hello server"});
        ASSERT_EQ(call.Wait(), 0) << call.Err();
        EXPECT_NE(call.Out().find("12 bytes:\nhello server\n"), std::string::npos) << call.Out();
        EXPECT_NE(call.Out().find("round trip "), std::string::npos) << call.Out();
    }
    {
        Ctl call({"call", name, "--hex", "00 01 fe ff", "--count", "20", "--json"});
        ASSERT_EQ(call.Wait(), 0) << call.Err();
        EXPECT_NE(call.Out().find("\"ok\":20,\"failed\":0"), std::string::npos) << call.Out();
        EXPECT_NE(call.Out().find("\"hex\":\"0001feff\""), std::string::npos) << call.Out();
        EXPECT_NE(call.Out().find("\"p99\":"), std::string::npos) << call.Out();
    }
    {
        Ctl call({"call", name, "--file", "-"}, std::string("\x01\x02", 2));  // binary: hex dump
        ASSERT_EQ(call.Wait(), 0) << call.Err();
        EXPECT_NE(call.Out().find("00000000  01 02"), std::string::npos) << call.Out();
    }
    server.Kill(SIGTERM);
    ASSERT_EQ(server.Wait(), 0);

    // A pipe service: the other process created the pair and answers on it.
    ChildProcess service("pipe_peer", {"echo", svc, self, "1", "0", "0", "1"});
    ASSERT_EQ(service.ReadLine().rfind("ready", 0), 0u);
    Ctl call({"call", svc, "--pipe", "--self", self, "--data", "ping"});
    ASSERT_EQ(call.Wait(), 0) << call.Err();
    EXPECT_NE(call.Out().find("4 bytes:\nping\n"), std::string::npos) << call.Out();
    EXPECT_EQ(service.Wait(), 0);  // it saw our close after answering once
    EXPECT_TRUE(WaitUntil([&] { return !Exists(svc + "__to__" + self); }, 10000));
}

TEST_F(SablectlTest, ServeEchoAnswersALibraryClientAndAPipePeerThenRemovesItsFiles) {
    const std::string name = UniqueName("ctlserve");
    const std::string peer = UniqueName("ctlpeer");
    leftovers = {name, name + "__to__" + peer, peer + "__to__" + name};  // should a step fail
    {
        Ctl serve({"serve", name, "--echo"});
        ASSERT_TRUE(serve.OutHas("serving " + name)) << serve.Out() << serve.Err();
        // A library client makes RPCs of 64 and 4000 bytes and checks every answer.
        ChildProcess client("sable_peer", {"call", UniqueName("ctlcli"), name, "client", "6"});
        EXPECT_EQ(client.Wait(30000), 0);
        EXPECT_TRUE(serve.OutHas("echoed"));
        EXPECT_TRUE(serve.OutHas("connect pipe"));
        serve.Stop(SIGTERM);
        EXPECT_EQ(serve.Wait(), 0);
        EXPECT_NE(serve.Out().find("stopped"), std::string::npos);
        EXPECT_FALSE(Exists(name));
    }
    Ctl serve({"serve", name, "--pipe", peer, "--echo"});
    ASSERT_TRUE(serve.OutHas("open: " + name + " <-> " + peer)) << serve.Err();
    // The peer joins and sends three requests; it exits 0 once we have closed.
    ChildProcess client("pipe_peer", {"echo", peer, name, "0", "10000", "3", "0"});
    ASSERT_EQ(client.ReadLine().rfind("ready", 0), 0u);
    EXPECT_TRUE(serve.OutHas(" id 3, 4 bytes, echoed"));
    serve.Stop(SIGINT);
    EXPECT_EQ(serve.Wait(), 0);
    EXPECT_EQ(client.Wait(), 0);
    EXPECT_FALSE(Exists(name + "__to__" + peer));
    EXPECT_FALSE(Exists(peer + "__to__" + name));
}

TEST_F(SablectlTest, BadInputGivesAMessageAndANonZeroStatus) {
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string message;
    };
    const std::string nobody = UniqueName("ctlnobody");
    const std::vector<Case> cases = {
        {{"call", nobody, "--data", "x"}, 1, "no server named '" + nobody + "'"},
        {{"call", nobody, "--hex", "0g"}, 2, "bad hex: 'g'"},
        {{"call", nobody, "--hex", "abc"}, 2, "odd number of digits"},
        {{"call", nobody, "--data", std::string(4001, 'x')},
         2,
         "4001 bytes; a request carries at most 4000"},
        {{"call", nobody, "--data", ""}, 2, "payload is empty"},
        {{"call", nobody, "--pipe", "--self", "a", "--timeout", "200", "--data", "x"},
         1,
         "ETIMEDOUT"},
        {{"call", "a/b", "--data", "x"}, 2, "not a process name"},
        {{"call", nobody, "--count", "0", "--data", "x"}, 2, "--count takes a whole number"},
        {{"serve", nobody, "--mode", "join"}, 2, "--mode goes with --pipe"},
        {{"ls", "--bogus"}, 2, "unknown option --bogus"},
        {{"frobnicate"}, 2, "unknown command 'frobnicate'"},
        {{}, 2, "Usage: sablectl COMMAND"},
    };
    for (const auto& c : cases) {
        Ctl ctl(c.args);
        EXPECT_EQ(ctl.Wait(), c.status) << c.args.size();
        EXPECT_NE(ctl.Err().find(c.message), std::string::npos) << ctl.Err();
    }
    for (const std::string cmd : {"ls", "call", "send", "serve", "gc", "doctor"}) {
        Ctl help({cmd, "--help"});
        EXPECT_EQ(help.Wait(), 0);
        EXPECT_EQ(
            help.Out().rfind("Usage: sablectl " + (cmd == "send" ? std::string("call") : cmd), 0),
            0u)
            << help.Out();
    }
    // A server name that another process already serves.
    const std::string name = UniqueName("ctltwice");
    leftovers = {name};
    ChildProcess server("echo_server", {name});
    ASSERT_EQ(server.ReadLine(), "server 0");
    Ctl second({"serve", name});
    EXPECT_EQ(second.Wait(), 1);
    EXPECT_NE(second.Err().find("cannot start the server"), std::string::npos) << second.Err();
    EXPECT_TRUE(Exists(name));
    server.Kill(SIGTERM);
}

}  // namespace
