// SPDX-License-Identifier: GPL-3.0-only
// The getters of request members, the cleaners, and the item reply.
#include "util/jsonargs.h"

#include <gtest/gtest.h>

#include <climits>

#include "util/jsonref.h"

namespace {

struct StrictCase {
    const char* payload;
    bool found;
    const char* value;  // "unchanged" where the getter must not write
    const char* errorText;
};

class StrictString : public testing::TestWithParam<StrictCase> {};

TEST_P(StrictString, ReadsAndCleansOrSaysWhy) {
    JsonRef object = parseJson(GetParam().payload);
    std::string errorText = "preset", value = "unchanged";
    EXPECT_EQ(getJSONStringV2(object.get(), "node", errorText, value), GetParam().found);
    EXPECT_EQ(value, GetParam().value);
    EXPECT_EQ(errorText, GetParam().errorText);
}

INSTANTIATE_TEST_SUITE_P(
    AllCases, StrictString,
    testing::Values(StrictCase{R"({"node":"/a/b"})", true, "/a/b", "preset"},
                    StrictCase{R"({"node":"a\\b\"c\\\\\""})", true, "abc", "preset"},
                    // The check for emptiness comes before the cleaning.
                    StrictCase{R"({"node":"\"\\\""})", true, "", "preset"},
                    // json-c returns a C string.
                    StrictCase{R"({"node":"a\u0000b"})", true, "a", "preset"},
                    StrictCase{R"({"node":"\u0000b"})", false, "unchanged", "Empty node provided"},
                    StrictCase{R"({"node":""})", false, "unchanged", "Empty node provided"},
                    StrictCase{R"({"other":"x"})", false, "unchanged", "No node provided"},
                    StrictCase{R"({"node":null})", false, "unchanged", "No node provided"},
                    StrictCase{R"({"Node":"x"})", false, "unchanged", "No node provided"},
                    StrictCase{R"([])", false, "unchanged", "No node provided"},
                    StrictCase{R"(5)", false, "unchanged", "No node provided"},
                    StrictCase{R"("node")", false, "unchanged", "No node provided"},
                    StrictCase{R"({"node":5})", true, "5", "preset"},
                    StrictCase{R"({"node":true})", true, "true", "preset"},
                    StrictCase{R"({"node":{"a":"b"}})", true, "{ a: b }", "preset"},
                    StrictCase{R"({"node":["x","y"]})", true, "[ x, y ]", "preset"}));

TEST(StrictString, TakesNoObjectForAMissingMember) {
    std::string errorText, value;
    EXPECT_FALSE(getJSONStringV2(nullptr, "node", errorText, value));
    EXPECT_EQ(errorText, "No node provided");
}

TEST(String, ReturnsTheCleanedValue) {
    JsonRef object = parseJson(R"({"node":"a\\b\"c"})");
    EXPECT_EQ(getJSONString(object.get(), "node", ""), "abc");
}

TEST(String, IsEmptyAndKeepsTheCallersTextWhenTheMemberIsMissingOrEmpty) {
    JsonRef object = parseJson(R"({"empty":"","null":null})");
    std::string errorText = "preset", spare = "spare";
    for (const char* key : {"missing", "empty", "null"})
        EXPECT_EQ(getJSONString(object.get(), key, errorText, spare), "") << key;
    EXPECT_EQ(errorText, "preset");
    EXPECT_EQ(spare, "spare");
}

TEST(Boolean, TakesJsonCsOwnConversion) {
    JsonRef object = parseJson(R"({"t":true,"f":false,"one":1,"zero":0,"text":"x","none":"","o":{}})");
    const std::pair<const char*, bool> cases[] = {{"t", true},     {"f", false},   {"one", true},
                                                  {"zero", false}, {"text", true}, {"none", false},
                                                  {"o", false}};
    for (const auto& [key, expected] : cases) {
        std::string errorText = "preset";
        bool value = !expected;
        EXPECT_TRUE(getJSONboolean(object.get(), key, errorText, value)) << key;
        EXPECT_EQ(value, expected) << key;
        EXPECT_EQ(errorText, "preset");
    }
}

TEST(Boolean, SaysWhatIsMissing) {
    JsonRef object = parseJson(R"({"subscribe":null})");
    std::string errorText;
    bool value = true;
    EXPECT_FALSE(getJSONboolean(object.get(), "subscribe", errorText, value));
    EXPECT_TRUE(value);
    EXPECT_EQ(errorText, "No subscribe provided");
}

TEST(Int, TakesJsonCsOwnConversion) {
    JsonRef object = parseJson(
        R"({"five":5,"minus":-1,"text":"12","word":"x","real":2.9,"huge":99999999999,"small":-99999999999,"t":true})");
    const std::pair<const char*, int32_t> cases[] = {{"five", 5},        {"minus", -1}, {"text", 12},
                                                     {"word", 0},        {"real", 2},   {"huge", INT_MAX},
                                                     {"small", INT_MIN}, {"t", 1}};
    for (const auto& [key, expected] : cases) {
        std::string errorText = "preset";
        int32_t value = 77;
        EXPECT_TRUE(getJSONInt(object.get(), key, errorText, value)) << key;
        EXPECT_EQ(value, expected) << key;
        EXPECT_EQ(errorText, "preset");
    }
}

TEST(Int, SaysWhatIsMissing) {
    JsonRef object = parseJson("{}");
    std::string errorText;
    int32_t value = 77;
    EXPECT_FALSE(getJSONInt(object.get(), "port", errorText, value));
    EXPECT_EQ(value, 77);
    EXPECT_EQ(errorText, "No port provided");
}

TEST(Cleaners, RemoveQuotesTakesEveryDoubleQuoteAndNoBackslash) {
    std::string text = R"("a\"b"c""")";
    removeQuotes(text);
    EXPECT_EQ(text, R"(a\bc)");
}

TEST(Cleaners, CleanSlashesTakesBackslashesAndDoubleQuotes) {
    std::string text = R"(\"a\\b"c\)";
    cleanSlashes(text);
    EXPECT_EQ(text, "abc");
}

TEST(Cleaners, LeaveAnEmptyTextEmpty) {
    std::string text;
    removeQuotes(text);
    cleanSlashes(text);
    EXPECT_EQ(text, "");
}

TEST(Cleaners, CleanEachEntryOfAnArrayAndFindNoneInAnythingElse) {
    const JsonRef array = parseJson(R"(["/a/b", "a\"b", 5, null, ["c"]])");
    EXPECT_EQ(cleanedEntries(array.get()), (std::list<std::string>{"/a/b", "ab", "5", "null", "[ c ]"}));
    EXPECT_TRUE(cleanedEntries(parseJson(R"({"0":"a"})").get()).empty());
    EXPECT_TRUE(cleanedEntries(nullptr).empty());
}

TEST(ObjectText, LosesItsBackslashesAndKeepsItsQuotes) {
    JsonRef object = parseJson(R"({"node":"/a/b","text":"say \"x\""})");
    std::string text = "old";
    getStringFromJSONObject(object.get(), text);
    EXPECT_EQ(text, R"({ "node": "/a/b", "text": "say "x"" })");
}

TEST(ItemReply, HoldsItemItemIdNodeAndReturnValueInThisOrder) {
    JsonRef reply(getResponseJsonObject("/u/r/a/n", "id7", "the item"));
    EXPECT_STREQ(json_object_to_json_string(reply.get()),
                 R"({ "item": "the item", "itemid": "id7", "node": "\/u\/r\/a\/n", "returnValue": true })");
}

}  // namespace
