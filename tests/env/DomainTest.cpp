#include <gtest/gtest.h>

#include <string>

#include "api/sable_comm_internal.h"
#include "env/EnvManager.h"

// The library under test is built for the host domain in SABLE_TEST_HOST_DOMAIN; the "elm"
// host build has its own test executable.
class DpHostTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::string(SABLE_TEST_HOST_DOMAIN) != "dp") {
            GTEST_SKIP() << "library built for host domain " << SABLE_TEST_HOST_DOMAIN;
        }
    }
};

TEST_F(DpHostTest, HostIsTheOrdinaryDomain) {
    EXPECT_EQ(EnvManager::HostName(), 1);
    EXPECT_FALSE(EnvManager::IsElmDomain());
    EXPECT_EQ(GetCurrDomain(), SABLO_DOMAIN_DP);
    EXPECT_EQ(EnvManager::GetLocalDomainName(), "dp:");
}

TEST_F(DpHostTest, NoPipeIsAnElmPipeOnADpHost) {
    EXPECT_FALSE(IsElmDomainPipe(SABLO_DOMAIN_NONE));
    EXPECT_FALSE(IsElmDomainPipe(SABLO_DOMAIN_DP));
    EXPECT_FALSE(IsElmDomainPipe(SABLO_DOMAIN_ELM));
}

TEST_F(DpHostTest, OnlyAnotherNamedDomainIsCrossDomain) {
    EXPECT_FALSE(IsCrossDomainPipe(SABLO_DOMAIN_NONE));
    EXPECT_FALSE(IsCrossDomainPipe(SABLO_DOMAIN_DP));
    EXPECT_TRUE(IsCrossDomainPipe(SABLO_DOMAIN_ELM));
    EXPECT_TRUE(IsCrossDomainPipe(static_cast<SabloDomain>(7)));
}
