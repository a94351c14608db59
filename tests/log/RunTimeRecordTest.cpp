#include <gtest/gtest.h>
#include <syslog.h>
#include <time.h>

#include <string>

#include "LogCapture.h"
#include "log/run_time_record.h"

using SableComm::RunTimeRecord;
using sable_test::LogCapture;

namespace {

timespec At(time_t sec, long nsec) {
    timespec t {};
    t.tv_sec = sec;
    t.tv_nsec = nsec;
    return t;
}

// The message part of the only captured line (behind the prefix's "] ").
std::string OnlyMessage(const LogCapture& cap) {
    auto lines = cap.Lines();
    EXPECT_EQ(lines.size(), 1u);
    if (lines.empty()) return "";
    EXPECT_EQ(lines[0].level, LOG_NOTICE);
    size_t start = lines[0].text.find("] ");
    return start == std::string::npos ? lines[0].text : lines[0].text.substr(start + 2);
}

}  // namespace

TEST(RunTimeRecordInterval, CountsMicrosecondsAcrossSecondBoundaries) {
    RunTimeRecord record(50);
    EXPECT_EQ(record.CalculationInterval(At(1, 500000000), At(0, 0)), 1500000);
    EXPECT_EQ(record.CalculationInterval(At(2, 100000), At(1, 999000000)), 1100);
    EXPECT_EQ(record.CalculationInterval(At(7, 1999), At(7, 1000)), 0);  // under 1 us
    EXPECT_EQ(record.CalculationInterval(At(7, 1000), At(7, 1000)), 0);
}

TEST(RunTimeRecordInterval, ClockSteppingBackwardsGivesZero) {
    RunTimeRecord record(50);
    EXPECT_EQ(record.CalculationInterval(At(4, 0), At(5, 0)), 0);
    EXPECT_EQ(record.CalculationInterval(At(5, 100), At(5, 200)), 0);
    EXPECT_EQ(record.CalculationInterval(At(4, 999999999), At(5, 0)), 0);
}

TEST(RunTimeRecordBudget, ReachingTheBudgetExactlyCountsAsTimedOut) {
    RunTimeRecord record(50);
    EXPECT_TRUE(record.ExceedsBudget(record.CalculationInterval(At(3, 50000000), At(3, 0))));
    EXPECT_FALSE(record.ExceedsBudget(record.CalculationInterval(At(3, 49999999), At(3, 0))));
    EXPECT_TRUE(record.ExceedsBudget(record.CalculationInterval(At(4, 0), At(3, 950000000))));
}

TEST(RunTimeRecordBudget, TimeoutCheckMeasuresFromTheFirstPointToNow) {
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);

    RunTimeRecord late(50);
    late.RecordTime(At(now.tv_sec - 1, now.tv_nsec));  // started a second ago
    EXPECT_TRUE(late.WhetherTotalTimeHasTimeout());
    EXPECT_EQ(late.PointCount(), 2u);  // the check adds its own closing point

    RunTimeRecord early(50);
    early.RecordTime(At(now.tv_sec + 3600, 0));  // a first point later than the check
    early.RecordTime(At(now.tv_sec - 3600, 0));
    EXPECT_FALSE(early.WhetherTotalTimeHasTimeout());

    RunTimeRecord noBudget(0);
    noBudget.RecordCurrentTime();
    EXPECT_TRUE(noBudget.WhetherTotalTimeHasTimeout());
}

TEST(RunTimeRecordBudget, EmptyRecordIsNeverTimedOutAndSaysSo) {
    LogCapture cap;
    RunTimeRecord record(0);
    EXPECT_FALSE(record.WhetherTotalTimeHasTimeout());
    EXPECT_EQ(record.PointCount(), 0u);
    EXPECT_EQ(OnlyMessage(cap), "print point time log failed, point num is = 0");
}

TEST(RunTimeRecordPrint, IntervalsRunNewestFirstThenTheTotal) {
    RunTimeRecord record(50);
    record.RecordTime(At(10, 0));
    record.RecordTime(At(10, 51012000));
    record.RecordTime(At(10, 51052000));
    LogCapture cap;
    record.RunTimePrint("T");
    EXPECT_EQ(OnlyMessage(cap), "T t21 = 40us, t10 = 51012us,totalTime=51052us");
}

TEST(RunTimeRecordPrint, OnePointPrintsOnlyTheTotal) {
    RunTimeRecord record(50);
    record.RecordCurrentTime();
    LogCapture cap;
    record.RunTimePrint("write to peer ");
    EXPECT_EQ(OnlyMessage(cap), "write to peer totalTime=0us");
}

TEST(RunTimeRecordPrint, BackwardStepShowsAsZeroInItsInterval) {
    RunTimeRecord record(50);
    record.RecordTime(At(20, 0));
    record.RecordTime(At(19, 0));
    record.RecordTime(At(20, 5000));
    LogCapture cap;
    record.RunTimePrint("B");
    EXPECT_EQ(OnlyMessage(cap), "B t21 = 1000005us, t10 = 0us,totalTime=5us");
}

TEST(RunTimeRecordPrint, ManyPointsKeepTheirOrder) {
    RunTimeRecord record(50);
    for (int i = 0; i < 7; ++i) record.RecordTime(At(1, i * 1000 * (i + 1)));
    LogCapture cap;
    record.RunTimePrint("M");
    EXPECT_EQ(OnlyMessage(cap),
              "M t65 = 12us, t54 = 10us, t43 = 8us, t32 = 6us, t21 = 4us, t10 = 2us,"
              "totalTime=42us");
}

TEST(RunTimeRecordPrint, EmptyRecordPrintsOnlyTheNotice) {
    RunTimeRecord record(50);
    LogCapture cap;
    record.RunTimePrint("E");
    EXPECT_EQ(OnlyMessage(cap), "print point time log failed, point num is = 0");
}

TEST(GetCurrentTime, ReadsTheMonotonicClockInMicroseconds) {
    auto micros = [] {
        timespec t {};
        clock_gettime(CLOCK_MONOTONIC, &t);
        return static_cast<uint64_t>(t.tv_sec) * 1000000u + static_cast<uint64_t>(t.tv_nsec) / 1000u;
    };
    uint64_t before = micros();
    uint64_t now = SableComm::GetCurrentTime();
    uint64_t after = micros();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

TEST(EpollTimeRecord, StartsWithEveryFieldUnset) {
    SableComm::EpollTimeRecord record;
    EXPECT_EQ(record.loopStartTime, -1);
    EXPECT_EQ(record.spareTime, -1);
    EXPECT_EQ(record.eventCount, -1);
    EXPECT_EQ(record.eventNum, -1);
}
