// Timing of slow steps: monotonic time points along one operation, a budget check, and one
// notice line that lists the intervals between the points.
#ifndef SABLE_LOG_RUN_TIME_RECORD_H
#define SABLE_LOG_RUN_TIME_RECORD_H

#include <time.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace SableComm {

// A clock reading (not negative) in microseconds.
inline uint64_t Microseconds(const timespec& t) {
    return static_cast<uint64_t>(t.tv_sec) * 1000000u + static_cast<uint64_t>(t.tv_nsec / 1000);
}

// Monotonic clock in microseconds. Inline: every frame sent reads it.
inline uint64_t GetCurrentTime() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return Microseconds(now);
}

// Belongs to one thread (it lives on the caller's stack); nothing is locked. The first points
// are kept inline so that timing a write allocates nothing.
class RunTimeRecord {
  public:
    // `totalTimeMs`: the budget of the whole operation in milliseconds.
    explicit RunTimeRecord(uint64_t totalTimeMs) : totalTime(totalTimeMs) {}

    // Microseconds from `earlier` to `later`; 0 when `later` lies before `earlier`.
    int64_t CalculationInterval(const timespec& later, const timespec& earlier) const;
    // Appends the monotonic clock's current value as the next point.
    void RecordCurrentTime();
    // Appends `point` (a monotonic clock value) as the next point.
    void RecordTime(const timespec& point);
    // Records a closing point and tells whether the first point to it took the whole budget
    // or more. With no point recorded it logs a notice and returns false.
    bool WhetherTotalTimeHasTimeout();
    // true when `elapsedUs` microseconds use up the budget (reaching it counts).
    bool ExceedsBudget(int64_t elapsedUs) const;
    // Logs, at notice level, `tag` followed by the intervals newest first and the total.
    void RunTimePrint(const std::string& tag);

  private:
    static constexpr size_t kInlinePoints = 4;

    const timespec& Point(uint64_t i) const {
        return i < kInlinePoints ? inlinePoints[i] : morePoints[i - kInlinePoints];
    }

    uint64_t totalTime;  // budget in milliseconds
    uint64_t pointNum = 0;
    timespec inlinePoints[kInlinePoints] = {};
    std::vector<timespec> morePoints;  // points beyond the inline ones, in order
};

// What the receive loop hands down the receive path for each event. -1 means not set.
struct EpollTimeRecord {
    int64_t loopStartTime = -1;  // GetCurrentTime() when the receive loop started
    int64_t spareTime = -1;      // not used by this library
    int32_t eventCount = -1;     // result of the last epoll wait
    int32_t eventNum = -1;       // 1-based index of the event being handled
};

}  // namespace SableComm

#endif
