// Worker threads that idle out give their memory back: a pool that has had all its 1044
// workers running maps, once they have idled out, about what it mapped before.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "PoolTestUtil.h"
#include "pool/WorkerPool.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// VmSize of this process in KiB, or -1.
long VmSizeKb() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmSize:", 0) == 0) return std::stol(line.substr(7));
    }
    return -1;
}

constexpr uint32_t ORDINARY = 1024;
constexpr uint32_t URGENT = 20;

// Starts every worker of a pool of the library's size and waits until all have idled out;
// returns VmSize in KiB at its peak (all started).
long RunAndIdleOut() {
    WorkerPool pool(ORDINARY, URGENT, std::chrono::milliseconds(1000));
    pool.FillWorkersTo(ORDINARY + URGENT);
    long peak = VmSizeKb();
    EXPECT_TRUE(sable_test::WaitUntil([] { return pool_test::CountWorkerThreads() == 0; }, 60000))
        << pool_test::CountWorkerThreads() << " worker threads left";
    EXPECT_EQ(pool.NumWorkers(), ORDINARY + URGENT);
    return peak;
}

}  // namespace

TEST(IdleWorkers, ThousandAndFortyFourIdledOutWorkersLeaveAlmostNothingMapped) {
    // The first run also sets up what stays for good (the C library's per-thread malloc
    // arenas, up to eight per CPU): the second starts from there.
    const long before = VmSizeKb();
    RunAndIdleOut();
    const long start = VmSizeKb();
    const long peak = RunAndIdleOut();
    const long end = VmSizeKb();
    RecordProperty("VmSizeStartKb", std::to_string(start));
    RecordProperty("VmSizePeakKb", std::to_string(peak));
    RecordProperty("VmSizeEndKb", std::to_string(end));
    std::printf("VmSize: before the first run %ld KiB; second run: start %ld KiB, all workers "
                "running %ld KiB, idled out %ld KiB\n",
                before, start, peak, end);
    if (kSanitized) return;  // the sanitizers' own per-thread mappings come and go on their own
    // Under user-mode emulation VmSize is the emulator's: it keeps guest memory it once mapped.
    if (getenv("SABLE_TEST_EMULATOR") != nullptr) return;
    EXPECT_LE(end - start, 8L * 1024) << "stacks of idled-out workers stay mapped";
}
