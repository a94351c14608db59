// Runs a check in a fresh process, for state that is set once per process (the process name,
// the run-mode cache, the log restraint switched off).
#ifndef SABLE_TESTS_FRESH_PROCESS_H
#define SABLE_TESTS_FRESH_PROCESS_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

namespace sable_test {

// Collects failed expectations inside a fresh process, where gtest assertions do not reach the
// parent; Text() is what the body returns.
class Problems {
  public:
    template <class A, class B>
    void Eq(const A& actual, const B& expected, const std::string& what) {
        if (!(actual == expected)) {
            std::ostringstream out;
            out << what << ": got [" << actual << "], want [" << expected << "]\n";
            text += out.str();
        }
    }
    void True(bool condition, const std::string& what) {
        if (!condition) text += what + "\n";
    }
    const std::string& Text() const { return text; }

  private:
    std::string text;
};

}  // namespace sable_test

// `body` is a callable returning "" on success or a description of what went wrong. It runs in
// the test binary re-executed for the current test only (gtest's "threadsafe" death-test
// style), so once-per-process state starts unset even when the binary runs every case in one
// process. The code of the test before this macro runs again in that process: keep it free of
// such state. The description is shown in the failure message. Under user-mode emulation
// (SABLE_TEST_EMULATOR set) the binary cannot re-execute itself; there the check runs in a fork
// ("fast" style), which is as fresh because CTest runs every case in a process of its own.
#define SABLE_EXPECT_IN_FRESH_PROCESS(body)                                                      \
    do {                                                                                         \
        GTEST_FLAG_SET(death_test_style, getenv("SABLE_TEST_EMULATOR") ? "fast" : "threadsafe"); \
        EXPECT_EXIT(                                                                             \
            {                                                                                    \
                std::string sableFreshError = (body)();                                          \
                std::fprintf(stderr, "%s", sableFreshError.c_str());                             \
                std::fflush(stderr);                                                             \
                _exit(sableFreshError.empty() ? 0 : 1);                                          \
            },                                                                                   \
            ::testing::ExitedWithCode(0), "");                                                   \
    } while (0)

#endif
