#include "log/NuxRestrainedLog.h"

#include <time.h>

#include "base/SingletonProtector.h"
#include "sable_comm.h"

namespace NuxCore {

NuxRestrainedLog::~NuxRestrainedLog() {
    destroyed.store(true);
    sable::MutexLock lock(tableMutex);
    printTable.clear();
}

std::shared_ptr<NuxRestrainedLog> NuxRestrainedLog::GetInstance(bool alive) {
    // Built on first use and destroyed at exit in reverse order: the protector dies first, so
    // a restrained line logged from a later static destructor finds "dead" rather than freed
    // memory.
    static std::shared_ptr<NuxRestrainedLog> instance = std::make_shared<NuxRestrainedLog>();
    static sable::SingletonProtector<NuxRestrainedLog> protector(instance);
    if (!alive) {
        protector.MarkDead();
        return {};
    }
    return protector.Get();
}

int NuxRestrainedLog::PrintTableInsert(unsigned long key) {
    if (destroyed.load(std::memory_order_relaxed)) {
        return -1;
    }
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    return PrintTableInsert(key, static_cast<int32_t>(ts.tv_sec));
}

int NuxRestrainedLog::PrintTableInsert(unsigned long key, int32_t now) {
    if (destroyed.load(std::memory_order_relaxed)) {
        return -1;
    }
    sable::MutexLock lock(tableMutex);
    auto it = printTable.find(key);
    if (it != printTable.end() && it->second >= 0) {
        int32_t elapsed =
            static_cast<int32_t>(static_cast<uint32_t>(now) - static_cast<uint32_t>(it->second));
        if (elapsed <= RESTRAIN_PERIOD - 1) {
            return -1;
        }
    }
    printTable[key] = now;
    return 0;
}

}  // namespace NuxCore

extern "C" void NuxLogGetInstance(bool alive) {
    (void)NuxCore::NuxRestrainedLog::GetInstance(alive);
}
