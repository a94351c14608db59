// Per-call-site restraint of the restrained log types.
#ifndef SABLE_LOG_NUX_RESTRAINED_LOG_H
#define SABLE_LOG_NUX_RESTRAINED_LOG_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include "base/Mutex.h"

namespace NuxCore {

class NuxRestrainedLog {
  public:
    static constexpr int32_t RESTRAIN_PERIOD = 600;  // seconds

    NuxRestrainedLog() = default;
    ~NuxRestrainedLog();
    NuxRestrainedLog(const NuxRestrainedLog&) = delete;
    NuxRestrainedLog& operator=(const NuxRestrainedLog&) = delete;

    // alive == true: the singleton, or empty once it was marked dead or destroyed.
    // alive == false: marks it dead for the rest of the process and returns empty.
    static std::shared_ptr<NuxRestrainedLog> GetInstance(bool alive);

    // 0 when the site `key` may print now (the time is recorded), -1 when it must stay silent.
    int PrintTableInsert(unsigned long key);
    // Same decision at the realtime-clock second `now`.
    int PrintTableInsert(unsigned long key, int32_t now);

  private:
    std::atomic<bool> destroyed{false};
    sable::Mutex tableMutex;  // guards printTable; a leaf lock
    std::unordered_map<uint64_t, int32_t> printTable GUARDED_BY(tableMutex);
};

}  // namespace NuxCore

#endif
