#include "api/sable_comm_check.h"

#include <errno.h>

#include <cstdint>
#include <cstring>
#include <string_view>

#include "api/nux_check.h"
#include "env/EnvManager.h"
#include "log/NuxSyslog.h"

namespace {

constexpr size_t kNameMax = 100;
constexpr size_t kNameProbe = kNameMax + 1;  // measures one past the limit to report excess

// The two-character entries add nothing over their one-character prefixes; the list is kept
// whole so that it reads as the set of refused sequences. "/" comes last: a name is one entry of
// the FIFO directory, and a slash would let a name (or a peer's connect packet) reach through a
// directory or link planted there to files outside it.
constexpr std::string_view kBlackList[] = {"|", ";", ">", "<", ">>", "`", "||",
                                           "&&", "&", "(", ")", "$", "..", "/"};

}  // namespace

bool BlackListCheck(const char* name) {
    std::string_view text(name);
    for (std::string_view entry : kBlackList) {
        if (text.find(entry) != std::string_view::npos) {
            return true;
        }
    }
    return false;
}

int CheckInputSelfNameAndPriority(const char* selfName, SabloPriority priority) {
    const char* name = selfName != nullptr ? selfName : EnvManager::ProcName();
    if (CheckInputName(name, strnlen(name, kNameProbe), kNameMax) != 0) {
        LOGE("Intput selfName is not valid.\n");
        return -EINVAL;
    }
    if (BlackListCheck(name)) {
        // The caller's own argument is reported; the formatter refuses a null string, so a
        // process name that failed is shown as "(null)".
        LOGE("Intput selfName=%s is not valid.\n", selfName != nullptr ? selfName : "(null)");
        return -EINVAL;
    }
    if (static_cast<uint32_t>(priority) > SABLO_PRIORITY_REALTIME) {
        LOGE("Intput attr priority is not valid, prio=%d.\n", static_cast<int>(priority));
        return -EINVAL;
    }
    return 0;
}

int CheckInputPipeAttr(const SabloAttr& attr) {
    if (attr.targetName == nullptr ||
        CheckInputName(attr.targetName, strnlen(attr.targetName, kNameProbe), kNameMax) != 0) {
        LOGE("Intput targetName is not valid.\n");
        return -EINVAL;
    }
    if (BlackListCheck(attr.targetName)) {
        LOGE("Intput targetName=%s is not valid.\n", attr.targetName);
        return -EINVAL;
    }
    if (static_cast<uint32_t>(attr.mode) >= 2) {
        LOGE("Intput mode=%d is not valid.\n", static_cast<int>(attr.mode));
        return -EINVAL;
    }
    return CheckInputSelfNameAndPriority(attr.selfName, attr.priority);
}

int CheckInputServerAttr(const SabloServerAttr& attr) {
    return CheckInputSelfNameAndPriority(attr.selfName, attr.priority);
}
