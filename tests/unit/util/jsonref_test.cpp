// SPDX-License-Identifier: GPL-3.0-only
// Complete JSON texts, members by type, and what the builders write.
#include "util/jsonref.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

namespace {

struct WholeCase {
    const char* text;
    bool isJson;
};

class WholeJson : public testing::TestWithParam<WholeCase> {};

TEST_P(WholeJson, IsOneValueAndBlanks) {
    EXPECT_EQ(isJson(GetParam().text), GetParam().isJson);
}

INSTANTIATE_TEST_SUITE_P(AllTexts, WholeJson,
                         testing::Values(WholeCase{R"({"a":1})", true}, WholeCase{"[]", true},
                                         WholeCase{"5", true}, WholeCase{"null", true},
                                         WholeCase{" {} \t\r\n", true}, WholeCase{"", false},
                                         WholeCase{"{} x", false}, WholeCase{"{}{}", false},
                                         WholeCase{R"({"a":)", false}, WholeCase{"hello", false}));

TEST(WholeJson, IsNullWhereTheFirstValueAloneWouldDo) {
    EXPECT_EQ(jsonLine(parseJson("{} x").get()), "{}");
    EXPECT_EQ(parseWholeJson("{} x"), nullptr);
    EXPECT_EQ(jsonLine(parseWholeJson("{} ").get()), "{}");
}

TEST(Members, AreReadByTheirType) {
    const JsonRef object = parseJson(R"({"text":"a\u0000b","yes":true,"count":5,"nothing":null})");
    EXPECT_EQ(textMember(object.get(), "text"), "a\0b"s);
    EXPECT_EQ(textMember(object.get(), "count"), "5");
    EXPECT_EQ(textMember(object.get(), "nothing"), "");
    EXPECT_EQ(textMember(object.get(), "missing"), "");
    EXPECT_TRUE(boolMember(object.get(), "yes"));
    EXPECT_FALSE(boolMember(object.get(), "count"));
    EXPECT_TRUE(boolMember(object.get(), "missing", true));
    EXPECT_EQ(textMember(nullptr, "text"), "");
}

TEST(BuiltObject, HoldsItsMembersInTheOrderInWhichTheyWereSet) {
    JsonObject object;
    object.set("text", "a/b").set("yes", true).set("count", -5).set("big", int64_t{1} << 40);
    EXPECT_EQ(object.line(), R"({"text":"a/b","yes":true,"count":-5,"big":1099511627776})");
    EXPECT_EQ(object.text(), R"({ "text": "a\/b", "yes": true, "count": -5, "big": 1099511627776 })");
}

TEST(BuiltObject, TakesATextByItsLength) {
    const std::string text = "a\0b"s;
    EXPECT_EQ(JsonObject().set("whole", text).set("cut", text.c_str()).line(),
              R"({"whole":"a\u0000b","cut":"a"})");
}

TEST(BuiltObject, KeepsThePlaceOfAMemberThatIsSetAgain) {
    EXPECT_EQ(JsonObject().set("a", 1).set("b", 2).set("a", "x").line(), R"({"a":"x","b":2})");
}

TEST(BuiltObject, GoesOnWithAParsedOne) {
    EXPECT_EQ(JsonObject(parseJson(R"({"a":1})")).set("b", true).line(), R"({"a":1,"b":true})");
    EXPECT_EQ(JsonObject(parseJson("[1]")).set("b", true).line(), "[1]");
}

TEST(BuiltObject, OwnsWhatIsPutIn) {
    JsonRef inner = JsonObject().set("a", 1).release();
    json_object* const borrowed = inner.get();
    JsonObject object;
    object.set("inner", std::move(inner)).set("none", JsonRef());
    EXPECT_EQ(jsonMember(object.get(), "inner"), borrowed);
    EXPECT_EQ(object.line(), R"({"inner":{"a":1},"none":null})");
    const JsonRef released = object.release();
    EXPECT_EQ(object.get(), nullptr);
    EXPECT_EQ(jsonLine(released.get()), R"({"inner":{"a":1},"none":null})");
}

TEST(AppendedString, ReadsAsInTheTextOfAnObject) {
    std::string everyByte;
    for (int byte = 0; byte < 256; ++byte)
        everyByte += static_cast<char>(byte);
    for (const std::string& value : {everyByte, std::string(), std::string("zelt://com.example/\xc3\xa4")}) {
        std::string text = "before";
        appendJsonString(text, value);
        EXPECT_EQ(R"({ "key": )" + text.substr(6) + " }", JsonObject().set("key", value).text());
        EXPECT_TRUE(text.starts_with("before"));
    }
}

TEST(BuiltArray, HoldsItsEntriesInOrder) {
    JsonArray array;
    array.add("a\0b"s).add(JsonObject().set("n", 1).release());
    EXPECT_EQ(jsonLine(array.get()), R"(["a\u0000b",{"n":1}])");
    EXPECT_EQ(JsonObject().set("list", array.release()).line(), R"({"list":["a\u0000b",{"n":1}]})");
}

}  // namespace
