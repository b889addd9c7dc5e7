// SPDX-License-Identifier: GPL-3.0-only
#include "platform/bus/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/bus/qsraii.h"

namespace {

// The wire text, or "refused CODE".
std::string wire(const std::string& text) {
    std::string storage;
    BusError error;
    const char* result = busWireText(text.c_str(), storage, error);
    return result ? result : "refused " + std::to_string(error.code());
}

std::string utf8(gunichar point) {
    char bytes[7] = {};
    g_unichar_to_utf8(point, bytes);
    return bytes;
}

std::string escaped(gunichar point) {
    char text[16];
    if (point < 0x10000)
        std::snprintf(text, sizeof text, "\\u%04X", point);
    else
        std::snprintf(text, sizeof text, "\\u%04X\\u%04X", 0xD800 + ((point - 0x10000) >> 10),
                      0xDC00 + ((point - 0x10000) & 0x3FF));
    return text;
}

}  // namespace

TEST(WireText, IsTheTextItselfWhenTheBusBearsIt) {
    for (const char* text : {"", "{}", "plain", "{\"a\":\"gr\xc3\xbcn \xe2\x82\xac \xf0\x9f\x98\x80\"}",
                             "\x01\x7f", "a text of more than eight bytes \xc3\xa9"}) {
        std::string storage;
        BusError error;
        EXPECT_EQ(busWireText(text, storage, error), text);
    }
}

TEST(WireText, EscapesExactlyTheNonCharacters) {
    for (gunichar point = 1; point <= 0x10FFFF; point++) {
        if (point >= 0xD800 && point <= 0xDFFF)
            continue;
        bool nonCharacter = (point >= 0xFDD0 && point <= 0xFDEF) || (point & 0xFFFF) >= 0xFFFE;
        std::string text = "a" + utf8(point) + "b";
        ASSERT_EQ(wire(text), nonCharacter ? "a" + escaped(point) + "b" : text) << std::hex << point;
    }
}

TEST(WireText, EscapesEveryOneOfSeveral) {
    EXPECT_EQ(wire("\xEF\xBF\xBE\xEF\xBF\xBF\xC3\xBC\xEF\xB7\x90"), "\\uFFFE\\uFFFF\xC3\xBC\\uFDD0");
}

TEST(WireText, RefusesWhatIsNotUtf8) {
    for (const char* text : {"\xff", "\xc0\x80", "\xed\xa0\x80", "\xe2\x82", "\xf4\x90\x80\x80", "\x80",
                             "eight bytes and then\xc3", "\xf8\x88\x80\x80\x80"})
        EXPECT_EQ(wire(text), "refused " + std::to_string(-EILSEQ)) << text;
}

TEST(WireText, RefusesANullTextAndOneThatIsTooLong) {
    std::string storage;
    BusError error;
    EXPECT_EQ(busWireText(nullptr, storage, error), nullptr);
    EXPECT_EQ(error.code(), -EINVAL);
    EXPECT_NE(wire(std::string(kLongestPayload, 'x')).front(), 'r');
    EXPECT_EQ(wire(std::string(kLongestPayload + 1, 'x')), "refused " + std::to_string(-EMSGSIZE));
}

TEST(Subscribing, NeedsAnObjectWhoseMemberIsTrue) {
    EXPECT_TRUE(busAsksToSubscribe(R"({"subscribe":true})"));
    EXPECT_TRUE(busAsksToSubscribe(R"({"appId": "*", "subscribe":true})"));
    EXPECT_TRUE(busAsksToSubscribe(R"({"\u0073ubscribe":true})"));
    EXPECT_TRUE(busAsksToSubscribe(R"({"subscribe":1})"));
    for (const char* payload :
         {"", "{}", "subscribe", R"("subscribe")", R"(["subscribe"])", R"({"subscribe":false})",
          R"({"subscribe":null})", R"({"subscribe":0})", R"({"a":{"subscribe":true}})",
          R"({"subscribe":true)", R"({"a":"\n"})", "null", "5"})
        EXPECT_FALSE(busAsksToSubscribe(payload)) << payload;
    EXPECT_FALSE(busAsksToSubscribe(nullptr));
}
