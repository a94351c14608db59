#include "api/sable_comm_internal.h"

#include "env/EnvManager.h"
#include "log/NuxSyslog.h"

SabloDomain GetCurrDomain() {
    int host = EnvManager::HostName();
    if (host == SABLO_DOMAIN_DP || host == SABLO_DOMAIN_ELM) {
        return static_cast<SabloDomain>(host);
    }
    LOGE("Failed to get current domain, default domain is set.\n");
    return SABLO_DOMAIN_NONE;
}

bool IsElmDomainPipe(const SabloDomain& domain) {
    if (GetCurrDomain() != SABLO_DOMAIN_ELM) {
        return false;
    }
    return domain == SABLO_DOMAIN_NONE || domain == SABLO_DOMAIN_ELM;
}

bool IsCrossDomainPipe(const SabloDomain& domain) {
    return domain != SABLO_DOMAIN_NONE && domain != GetCurrDomain();
}
