#include "log/run_time_record.h"

#include "base/safe_c.h"
#include "log/NuxSyslog.h"

namespace SableComm {

namespace {

constexpr int64_t kUsPerSecond = 1000000;
constexpr int64_t kNsPerUs = 1000;

void LogNoPoint() {
    LOGN("print point time log failed, point num is = %lu", 0UL);
}

}  // namespace

int64_t RunTimeRecord::CalculationInterval(const timespec& later, const timespec& earlier) const {
    // A clock that stepped back reads as no time at all rather than a negative span.
    if (later.tv_sec < earlier.tv_sec ||
        (later.tv_sec == earlier.tv_sec && later.tv_nsec < earlier.tv_nsec)) {
        return 0;
    }
    return static_cast<int64_t>(later.tv_nsec - earlier.tv_nsec) / kNsPerUs +
           static_cast<int64_t>(later.tv_sec - earlier.tv_sec) * kUsPerSecond;
}

void RunTimeRecord::RecordCurrentTime() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    RecordTime(now);
}

void RunTimeRecord::RecordTime(const timespec& point) {
    if (pointNum < kInlinePoints) {
        inlinePoints[pointNum] = point;
    } else {
        morePoints.push_back(point);
    }
    ++pointNum;
}

bool RunTimeRecord::ExceedsBudget(int64_t elapsedUs) const {
    return elapsedUs >= 0 &&
           static_cast<uint64_t>(elapsedUs) >= totalTime * static_cast<uint64_t>(1000);
}

bool RunTimeRecord::WhetherTotalTimeHasTimeout() {
    if (pointNum == 0) {
        LogNoPoint();
        return false;
    }
    RecordCurrentTime();
    return ExceedsBudget(CalculationInterval(Point(pointNum - 1), Point(0)));
}

void RunTimeRecord::RunTimePrint(const std::string& tag) {
    if (pointNum == 0) {
        LogNoPoint();
        return;
    }
    std::string text = tag;
    char piece[96];
    for (uint64_t i = pointNum - 1; i >= 1; --i) {
        snprintf_s(piece, sizeof(piece), " t%lu%lu = %ldus,", static_cast<unsigned long>(i),
                   static_cast<unsigned long>(i - 1),
                   static_cast<long>(CalculationInterval(Point(i), Point(i - 1))));
        text += piece;
    }
    snprintf_s(piece, sizeof(piece), "totalTime=%ldus",
               static_cast<long>(CalculationInterval(Point(pointNum - 1), Point(0))));
    text += piece;
    LOGN("%s", text.c_str());
}

}  // namespace SableComm
