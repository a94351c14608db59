#include <gtest/gtest.h>
#include <syslog.h>
#include <time.h>

#include <string>

#include "LogCapture.h"
#include "log/run_time_record.h"

using SableComm::RunTimeRecord;
using sable_test::LogCapture;

namespace {

const char kNoPoint[] = "] print point time log failed, point num is = 0";

timespec At(time_t sec, long nsec) {
    timespec t {};
    t.tv_sec = sec;
    t.tv_nsec = nsec;
    return t;
}

}  // namespace

TEST(RunTimeRecord, IntervalsInMicrosecondsAndZeroWhenTheClockStepsBack) {
    RunTimeRecord record(50);
    EXPECT_EQ(record.CalculationInterval(At(1, 500000000), At(0, 0)), 1500000);
    EXPECT_EQ(record.CalculationInterval(At(2, 100000), At(1, 999000000)), 1100);
    EXPECT_EQ(record.CalculationInterval(At(7, 1999), At(7, 1000)), 0);  // under 1 us
    EXPECT_EQ(record.CalculationInterval(At(4, 999999999), At(5, 0)), 0);
    EXPECT_EQ(record.CalculationInterval(At(5, 100), At(5, 200)), 0);
}

TEST(RunTimeRecord, BudgetIsReachedAtExactlyItsLengthFromTheFirstPointToNow) {
    RunTimeRecord record(50);
    EXPECT_TRUE(record.ExceedsBudget(record.CalculationInterval(At(3, 50000000), At(3, 0))));
    EXPECT_FALSE(record.ExceedsBudget(record.CalculationInterval(At(3, 49999999), At(3, 0))));

    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    RunTimeRecord late(50);
    late.RecordTime(At(now.tv_sec - 1, now.tv_nsec));
    EXPECT_TRUE(late.WhetherTotalTimeHasTimeout());
    RunTimeRecord early(50);
    early.RecordTime(At(now.tv_sec + 3600, 0));  // the first point counts, not the last
    early.RecordTime(At(now.tv_sec - 3600, 0));
    EXPECT_FALSE(early.WhetherTotalTimeHasTimeout());

    LogCapture cap;
    EXPECT_FALSE(RunTimeRecord(0).WhetherTotalTimeHasTimeout());
    ASSERT_EQ(cap.Lines().size(), 1u);
    EXPECT_EQ(cap.Lines()[0].level, LOG_NOTICE);
    EXPECT_EQ(cap.Count(kNoPoint), 1u);
}

TEST(RunTimeRecord, PrintListsIntervalsNewestFirstThenTheTotal) {
    RunTimeRecord many(50);
    for (timespec t : {At(1, 0), At(1, 2000), At(1, 6000), At(0, 0) /* stepped back */,
                       At(1, 20000), At(1, 30000), At(1, 42000)}) {
        many.RecordTime(t);
    }
    RunTimeRecord one(50);
    one.RecordCurrentTime();
    LogCapture cap;
    many.RunTimePrint("M");
    one.RunTimePrint("write to peer ");
    RunTimeRecord(50).RunTimePrint("E");
    auto lines = cap.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].level, LOG_NOTICE);
    auto message = [](const std::string& line) { return line.substr(line.rfind("] ") + 2); };
    EXPECT_EQ(message(lines[0].text),
              "M t65 = 12us, t54 = 10us, t43 = 1000020us, t32 = 0us, t21 = 4us, t10 = 2us,"
              "totalTime=42us");
    EXPECT_EQ(message(lines[1].text), "write to peer totalTime=0us");
    EXPECT_NE(lines[2].text.find(kNoPoint), std::string::npos);
}

TEST(GetCurrentTime, ReadsTheMonotonicClockInMicroseconds) {
    auto micros = [] {
        timespec t {};
        clock_gettime(CLOCK_MONOTONIC, &t);
        return static_cast<uint64_t>(t.tv_sec) * 1000000u + static_cast<uint64_t>(t.tv_nsec) / 1000u;
    };
    uint64_t before = micros();
    uint64_t now = SableComm::GetCurrentTime();
    EXPECT_LE(before, now);
    EXPECT_LE(now, micros());
}
