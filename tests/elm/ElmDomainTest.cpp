// The environment and domain code built for an "elm" host.
#include <gtest/gtest.h>

#include "api/sable_comm_internal.h"
#include "env/EnvManager.h"

TEST(ElmHost, HostIsTheElmDomain) {
    EXPECT_EQ(EnvManager::HostName(), 2);
    EXPECT_TRUE(EnvManager::IsElmDomain());
    EXPECT_EQ(GetCurrDomain(), SABLO_DOMAIN_ELM);
    EXPECT_EQ(EnvManager::GetLocalDomainName(), "elm:");
}

TEST(ElmHost, PipesWithoutADomainOrInElmAreElmPipes) {
    EXPECT_TRUE(IsElmDomainPipe(SABLO_DOMAIN_NONE));
    EXPECT_TRUE(IsElmDomainPipe(SABLO_DOMAIN_ELM));
    EXPECT_FALSE(IsElmDomainPipe(SABLO_DOMAIN_DP));
}

TEST(ElmHost, DpPipesAreCrossDomain) {
    EXPECT_FALSE(IsCrossDomainPipe(SABLO_DOMAIN_NONE));
    EXPECT_FALSE(IsCrossDomainPipe(SABLO_DOMAIN_ELM));
    EXPECT_TRUE(IsCrossDomainPipe(SABLO_DOMAIN_DP));
}

TEST(ElmHost, FifoPlacesDoNotDependOnTheHost) {
    EXPECT_EQ(EnvManager::FifoPrefix(), "/dev/shm/nux/sable_comm/");
    EXPECT_EQ(EnvManager::ElmFifoDirPrefix(), "/local");
}
