#include <gtest/gtest.h>

#include <string>

#include "api/sable_comm_internal.h"
#include "env/EnvManager.h"

// The library under test is built for the host domain in SABLE_TEST_HOST_DOMAIN; the "elm"
// host build has its own test executable.
TEST(DpHost, OnlyAnotherNamedDomainIsCrossDomainAndNoPipeIsAnElmPipe) {
    if (std::string(SABLE_TEST_HOST_DOMAIN) != "dp") {
        GTEST_SKIP() << "library built for host domain " << SABLE_TEST_HOST_DOMAIN;
    }
    EXPECT_EQ(EnvManager::HostName(), 1);
    EXPECT_FALSE(EnvManager::IsElmDomain());
    EXPECT_EQ(GetCurrDomain(), SABLO_DOMAIN_DP);
    EXPECT_EQ(EnvManager::GetLocalDomainName(), "dp:");
    for (SabloDomain domain : {SABLO_DOMAIN_NONE, SABLO_DOMAIN_DP, SABLO_DOMAIN_ELM}) {
        EXPECT_FALSE(IsElmDomainPipe(domain)) << domain;
        EXPECT_EQ(IsCrossDomainPipe(domain), domain == SABLO_DOMAIN_ELM) << domain;
    }
    EXPECT_TRUE(IsCrossDomainPipe(static_cast<SabloDomain>(7)));
}
