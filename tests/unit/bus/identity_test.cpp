// SPDX-License-Identifier: GPL-3.0-only
// The way from a connection's credentials to an application id, on the processes of this machine: the test's
// own, and children that it starts.
#include "platform/bus/identity.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "tests/faults/failingreads.h"

namespace {

BusCredentials ownCredentials() {
    BusCredentials who;
    who.pid = static_cast<unsigned>(getpid());
    who.user = geteuid();
    return who;
}

class Identity : public testing::Test {
  protected:
    void TearDown() override {
        for (const char* variable : {"ZELT_APP_ID_FROM_ENVIRONMENT", "ZELT_APP_ID_USERS",
                                     "ZELT_APP_ID_TRUST_USER_UNITS", "ZELT_APP_ID_LABEL_PREFIX"})
            unsetenv(variable);
    }
};

TEST_F(Identity, IsNoneWhenTheProcessIsReapedBetweenOpenAndRead) {
    setenv("ZELT_APP_ID_FROM_ENVIRONMENT", "1", 1);
    setenv("ZELT_APP_ID_TRUST_USER_UNITS", "1", 1);
    for (size_t bytes : {0, 1, 10}) {
        FailingReads reads("/proc/", ESRCH, bytes);
        EXPECT_EQ(busApplicationId(ownCredentials()), "") << bytes;
        EXPECT_GT(reads.failures(), 0u) << bytes;
    }
}

TEST_F(Identity, IsNoneWhenTheTableOfUsersCannotBeRead) {
    std::string folder = "/tmp";
    setenv("ZELT_APP_ID_USERS", folder.c_str(), 1);  // opens, but is no file
    EXPECT_EQ(busApplicationId(ownCredentials()), "");
}

}  // namespace
