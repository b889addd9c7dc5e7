// SPDX-License-Identifier: GPL-3.0-only
// Names of endpoints and addresses.
#include "unifiedpush/registration.h"

#include <gmock/gmock.h>

namespace {

TEST(EndpointName, IsTheHashOfTheThreeTextsWithTheirLengths) {
    // printf '15:org.example.app2:t10:' | sha256sum
    EXPECT_EQ(endpointName("org.example.app", "t1", ""), "up-68c9c624fa1a1d269a9c767f9b963147");
    EXPECT_TRUE(isEndpointName(endpointName("org.example.app", "t1", "")));
}

TEST(EndpointName, DiffersWhereTheTextsAreParted) {
    EXPECT_NE(endpointName("org.example.app", "1t", ""), endpointName("org.example.app1", "t", ""));
    EXPECT_NE(endpointName("org.example.app", "t", "k"), endpointName("org.example.app", "tk", ""));
}

TEST(EndpointName, IsNoOtherText) {
    const std::string name = endpointName("org.example.app", "t1", "");
    for (const std::string& other : {std::string("inbox"), name + "0", name.substr(1), "up-" + std::string(32, 'G')})
        EXPECT_FALSE(isEndpointName(other)) << other;
}

TEST(Url, IsHttpOfAtMostAThousandBytes) {
    EXPECT_TRUE(isUrl("https://push.example.org/push/k"));
    EXPECT_TRUE(isUrl("http://127.0.0.1:5280/push/k"));
    const std::string start = "https://push.example.org/";
    EXPECT_TRUE(isUrl(start + std::string(1000 - start.size(), 'k')));
    EXPECT_FALSE(isUrl(start + std::string(1001 - start.size(), 'k')));
    for (const char* other : {"", "not_an_url", "ftp://push.example.org/", "https://push.example.org/a b"})
        EXPECT_FALSE(isUrl(other)) << other;
}

}  // namespace
