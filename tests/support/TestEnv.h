// Shared test fixtures: the FIFO directory, names that cannot collide with a parallel test,
// descriptor and FIFO leak checks, bounded waits.
#ifndef SABLE_TESTS_TEST_ENV_H
#define SABLE_TESTS_TEST_ENV_H

#include <functional>
#include <set>
#include <string>

#include "sable_comm.h"

namespace sable_test {

// Creates /dev/shm/nux/sable_comm/ when missing; returns its path.
std::string EnsureFifoDir();
// A process name unique to this process and call: prefix, pid and a counter (<= 40 chars).
std::string UniqueName(const std::string& prefix);
// Descriptors open in this process now (from /proc/self/fd).
std::set<int> OpenFds();
// Entries of the FIFO directory whose name contains `needle`.
std::set<std::string> FifoFilesWith(const std::string& needle);
// Polls `pred` every millisecond until it holds or `timeoutMs` passes.
bool WaitUntil(const std::function<bool()>& pred, int timeoutMs);
// Directory of the test binaries (peer programs live there).
std::string TestBinDir();
// Runs SabloCfgFinishServer on another thread; true when it returned within `ms`. A thread that
// hangs is left to itself (the fresh process it runs in ends with _exit).
bool FinishServerWithin(int ms);
// SabloOpen of the pipe between `self` and `target` with the other attributes given; the
// pipe number or the negative error.
int OpenPipe(const std::string& self, const std::string& target, SabloMode mode, int timeoutMs,
             SabloCallback callback = {}, SabloPriority priority = SABLO_PRIORITY_DEFAULT);

}  // namespace sable_test

#endif
