// The environment and domain code built for an "elm" host.
#include <gtest/gtest.h>

#include "api/sable_comm_internal.h"
#include "env/EnvManager.h"

TEST(ElmHost, PipesWithoutADomainAreElmPipesAndDpPipesCrossDomain) {
    EXPECT_EQ(GetCurrDomain(), SABLO_DOMAIN_ELM);
    EXPECT_EQ(EnvManager::GetLocalDomainName(), "elm:");
    for (SabloDomain domain : {SABLO_DOMAIN_NONE, SABLO_DOMAIN_DP, SABLO_DOMAIN_ELM}) {
        EXPECT_EQ(IsElmDomainPipe(domain), domain != SABLO_DOMAIN_DP) << domain;
        EXPECT_EQ(IsCrossDomainPipe(domain), domain == SABLO_DOMAIN_DP) << domain;
    }
    EXPECT_EQ(EnvManager::ElmFifoDirPrefix() + EnvManager::FifoPrefix(),
              "/local/dev/shm/nux/sable_comm/");
}
