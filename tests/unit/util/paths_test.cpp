// SPDX-License-Identifier: GPL-3.0-only
// The places of the service's files, in a relocatable build and in a fixed one.
#include "util/paths.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

#ifdef PUBSUB_RELOCATABLE
constexpr bool kRelocatable = true;
#else
constexpr bool kRelocatable = false;
#endif

class Paths : public testing::Test {
  protected:
    Paths() { forget(); }
    ~Paths() override { forget(); }

    static void forget() {
        unsetenv("PUBSUB_STATE_DIR");
        unsetenv("PUBSUB_CA_FILE");
    }
};

TEST_F(Paths, AreTheProductsOwnWithoutAWordInTheEnvironment) {
    EXPECT_EQ(stateDir(), "/var/pubsub");
    EXPECT_EQ(credentialsFile(), "/var/pubsub/pubsub.conf");
    EXPECT_EQ(handlerFile(), "/var/pubsub/pubsubhandlers.conf");
    EXPECT_EQ(cacheDir(), "/var/pubsub/cache/");
    EXPECT_EQ(caFile(), "/etc/ssl/certs/ca-certificates.crt");
}

TEST_F(Paths, FollowTheEnvironmentInARelocatableBuildAlone) {
    for (const std::string place : {"/one", "/two"}) {
        setenv("PUBSUB_STATE_DIR", place.c_str(), 1);
        setenv("PUBSUB_CA_FILE", (place + ".pem").c_str(), 1);
        const std::string root = kRelocatable ? place : "/var/pubsub";
        EXPECT_EQ(stateDir(), root);
        EXPECT_EQ(credentialsFile(), root + "/pubsub.conf");
        EXPECT_EQ(handlerFile(), root + "/pubsubhandlers.conf");
        EXPECT_EQ(cacheDir(), root + "/cache/");
        EXPECT_EQ(caFile(), kRelocatable ? place + ".pem" : "/etc/ssl/certs/ca-certificates.crt");
    }
}

TEST_F(Paths, TakeAnEmptyWordInTheEnvironmentForNone) {
    setenv("PUBSUB_STATE_DIR", "", 1);
    setenv("PUBSUB_CA_FILE", "", 1);
    EXPECT_EQ(stateDir(), "/var/pubsub");
    EXPECT_EQ(caFile(), "/etc/ssl/certs/ca-certificates.crt");
}

}  // namespace
