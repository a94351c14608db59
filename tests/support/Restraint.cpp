#include "Restraint.h"

#include <pthread.h>
#include <time.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string_view>

#include "log/NuxRestrainedLog.h"
#include "log/NuxSyslog.h"

namespace sable_test {

void ForgetRestrainedSites(std::initializer_list<const char*> files, int maxLine) {
    auto restraint = NuxCore::NuxRestrainedLog::GetInstance(true);
    if (!restraint) return;
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    const auto now = static_cast<uint32_t>(ts.tv_sec);
    for (const char* file : files) {
        for (int line = 1; line <= maxLine; ++line) {
            // The key the logger makes for this site on this thread.
            char key[256] = {0};
            sable::AppendReversedDigits(key, static_cast<uint64_t>(pthread_self()));
            sable::AppendReversedDigits(key, static_cast<uint64_t>(static_cast<int64_t>(line)));
            strncat(key, file, sizeof(key) - strlen(key) - 1);
            const unsigned long site = std::hash<std::string_view>{}(std::string_view(key));
            // Times compare as signed 32-bit differences: half the range ahead is always "later",
            // so the second step can set a time 600 s before now whatever was stored.
            restraint->PrintTableInsert(site, static_cast<int32_t>(now + 0x7FFFFFF0u));
            restraint->PrintTableInsert(site, static_cast<int32_t>(now - 600u));
        }
    }
}

}  // namespace sable_test
