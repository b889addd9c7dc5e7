// SPDX-License-Identifier: GPL-3.0-only
// The rule for application ids.
#include "util/applicationid.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(ApplicationIdText, HasLettersDigitsDotsUnderscoresAndDashes) {
    EXPECT_TRUE(isApplicationId("com.example.App_1-x"));
    EXPECT_TRUE(isApplicationId("a.b."));
    for (const char* bad : {"", ".", "..", ".a", "a b", "a/b", "a\nb", "a\\b", "a\"b", "\xc3\xbc"})
        EXPECT_FALSE(isApplicationId(bad)) << bad;
    EXPECT_FALSE(isApplicationId(std::string_view("a\0b", 3)));
}

TEST(ApplicationIdText, Has255BytesOrFewerWhereAStoreAsksForThem) {
    EXPECT_TRUE(isApplicationId(std::string(255, 'a')));
    EXPECT_FALSE(isApplicationId(std::string(256, 'a')));
    EXPECT_TRUE(isApplicationId(std::string(200, 'a'), 200));
    EXPECT_FALSE(isApplicationId(std::string(201, 'a'), 200));
}

}  // namespace
