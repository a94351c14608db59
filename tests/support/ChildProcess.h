// A peer program in a child process, for tests that need two real processes.
#ifndef SABLE_TESTS_CHILD_PROCESS_H
#define SABLE_TESTS_CHILD_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace sable_test {

// fork/exec of `program` (a path, or a name in TestBinDir()) with `args`; a name in TestBinDir()
// runs through the emulator named by SABLE_TEST_EMULATOR when that is set. The child dies with
// the test (PR_SET_PDEATHSIG). It reports readiness by writing one line to the descriptor
// named by the environment variable SABLE_TEST_HANDSHAKE_FD (see SignalReady).
//
// The destructor waits (bounded) for the child, kills it if it is still running, and fails the
// current test unless it exited with `expectedExit` (set it with ExpectExit).
class ChildProcess {
  public:
    ChildProcess(const std::string& program, const std::vector<std::string>& args,
                 const std::vector<std::string>& env = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const { return pid; }
    // Reads the child's next handshake line; "" on time-out or end of file.
    std::string ReadLine(int timeoutMs = 10000);
    // Waits up to `timeoutMs` for the exit; returns the exit code, 128+signal, or -1.
    int Wait(int timeoutMs = 10000);
    void Kill(int sig);
    void ExpectExit(int code) { expectedExit = code; }

  private:
    pid_t pid = -1;
    int handshakeFd = -1;
    int expectedExit = 0;
    int exitStatus = -1;
    bool reaped = false;
    std::string pending;
};

// For peer programs: writes `line` plus a newline to the handshake descriptor.
void SignalReady(const std::string& line);

}  // namespace sable_test

#endif
