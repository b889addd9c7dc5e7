// SPDX-License-Identifier: GPL-3.0-only
// The JSON-XML convention: texts in quotes, attributes, children, and what is not carried.
#include "util/jsonxml.h"

#include <gloox/tag.h>
#include <gtest/gtest.h>

#include <memory>

#include "tests/fakes/logcapture.h"
#include "util/jsonref.h"

namespace {

std::string xmlOf(const char* json) {
    const JsonRef object = parseJson(json);
    const std::unique_ptr<gloox::Tag> item(GetXmlFromJSON(object.get()));
    return item ? item->xml() : "(none)";
}

std::string textOf(const JsonRef& object) {
    return json_object_to_json_string(object.get());
}

// The members of an object in json-c's plain form.
std::string plain(const JsonRef& object) {
    return json_object_to_json_string_ext(object.get(), JSON_C_TO_STRING_PLAIN);
}

struct Conversion {
    const char* name;
    const char* json;
    const char* xml;
};

void PrintTo(const Conversion& conversion, std::ostream* out) {
    *out << conversion.name;
}

class JsonToXml : public testing::TestWithParam<Conversion> {};

}  // namespace

TEST_P(JsonToXml, GivesTheElement) {
    EXPECT_EQ(xmlOf(GetParam().json), GetParam().xml);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, JsonToXml,
    testing::Values(
        Conversion{"EmptyObject", "{}", "<item/>"},
        Conversion{"ChildWithTextAndAttribute", R"({"title":{"#":"hi","@":{"lang":"en"}}})",
                   "<item><title lang='&quot;en&quot;'>&quot;hi&quot;</title></item>"},
        Conversion{"NumberAsChild", R"({"count":5})", "<item><count>null</count></item>"},
        Conversion{"StringAsChild", R"({"count":"x"})", "<item><count>null</count></item>"},
        Conversion{"BooleanAsChild", R"({"count":true})", "<item><count>null</count></item>"},
        Conversion{"ArrayAsChild", R"({"count":[{"#":1}]})", "<item><count>null</count></item>"},
        Conversion{"NullAsChild", R"({"count":null})", "<item><count>null</count></item>"},
        Conversion{"AttributeOfTheItem", R"({"@":{"v":2}})", "<item v='2'/>"},
        Conversion{"NumberAsText", R"({"#":7.5})", "<item>7.5</item>"},
        Conversion{"BooleanAsText", R"({"#":false})", "<item>false</item>"},
        Conversion{"NullAsText", R"({"#":null})", "<item>null</item>"},
        Conversion{"StringKeepsItsEscapes", R"({"#":"a\"b\\c/d\n"})",
                   R"(<item>&quot;a\&quot;b\\c\/d\n&quot;</item>)"},
        Conversion{"ObjectAsText", R"({"#":{"a":[1,2]}})", "<item>{ &quot;a&quot;: [ 1, 2 ] }</item>"},
        Conversion{"SeveralTextsFollowEachOther", R"({"#1":"a","b":{},"#2":"c"})",
                   "<item>&quot;a&quot;<b/>&quot;c&quot;</item>"},
        Conversion{"SeveralAttributeMembersAddUp", R"({"@1":{"a":1},"@2":{"b":null}})",
                   "<item a='1' b='null'/>"},
        Conversion{"AttributesThatAreNoObject", R"({"@":5,"@2":["a"],"@3":null,"@4":"x"})", "<item/>"},
        Conversion{"AttributeNamesThatXmlCannotCarry", R"({"@":{"a\u0001":1,"b":2},"x":{"@":{"":3}}})",
                   "<item  ='1' b='2'><x  ='3'/></item>"},
        Conversion{"ChildrenInTheirOrder", R"({"b":{},"a":{"c":{"#":1}}})",
                   "<item><b/><a><c>1</c></a></item>"},
        Conversion{"ArrayInPlaceOfTheItem", "[1,2]", "<item/>"},
        Conversion{"StringInPlaceOfTheItem", R"("text")", "<item/>"}),
    [](const auto& test) { return test.param.name; });

TEST(GetXmlFromJson, RefusesANullObjectAndLogsIt) {
    LogCapture log;
    EXPECT_EQ(GetXmlFromJSON(nullptr), nullptr);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"GetXmlFromJSON: Invalid JSON object"});
}

TEST(GetXmlFromJson, MakesElementsWithoutANamespace) {
    const JsonRef object = parseJson(R"({"a":{}})");
    const std::unique_ptr<gloox::Tag> item(GetXmlFromJSON(object.get()));
    EXPECT_EQ(item->xmlns(), "");
    EXPECT_EQ(item->findChild("a")->xmlns(), "");
}

TEST(RecurseJsonTag, AddsToAnElementThatHoldsSomethingAlready) {
    gloox::Tag tag("entry", "old");
    const JsonRef object = parseJson(R"({"#":1,"x":{}})");
    RecurseJsonTag(&tag, object.get());
    EXPECT_EQ(tag.xml(), "<entry>old1<x/></entry>");
}

TEST(RecurseJsonTag, LeavesTheElementAloneForANullObject) {
    gloox::Tag tag("entry");
    RecurseJsonTag(&tag, nullptr);
    EXPECT_EQ(tag.xml(), "<entry/>");
}

TEST(GetItemTag, CarriesMarkupAsEscapedText) {
    const std::unique_ptr<gloox::Tag> item(getItemTag("<b a='1'>&</b>"));
    EXPECT_EQ(item->xml(), "<item><payload>&lt;b a=&apos;1&apos;&gt;&amp;&lt;/b&gt;</payload></item>");
    EXPECT_EQ(item->findChild("payload")->cdata(), "<b a='1'>&</b>");
}

TEST(GetItemTag, NeverFails) {
    const std::unique_ptr<gloox::Tag> empty(getItemTag(""));
    EXPECT_EQ(empty->xml(), "<item><payload/></item>");
    const std::unique_ptr<gloox::Tag> uncarriable(getItemTag("a\x01"));
    EXPECT_EQ(uncarriable->xml(), "<item><payload/></item>");
}

TEST(GetJsonFromXml, RefusesANullElementAndLogsIt) {
    LogCapture log;
    EXPECT_EQ(GetJSONFromXml(nullptr), nullptr);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"GetJSONFromXml: Invalid Xml object"});
}

TEST(GetJsonFromXml, GivesTextAsAMemberAndAnEmptyChildAsNull) {
    gloox::Tag item("item");
    new gloox::Tag(&item, "a", "x");
    new gloox::Tag(&item, "b");
    EXPECT_EQ(plain(JsonRef(GetJSONFromXml(&item))), R"({"a":{"#":"x"},"b":null})");
}

TEST(GetJsonFromXml, GivesTheAttributesOfTheRootLast) {
    gloox::Tag item("item", "left out");
    item.addAttribute("id", "7");
    item.addAttribute("seqNo", "\"8\"");
    auto* child = new gloox::Tag(&item, "a", "x");
    child->addAttribute("lang", "en");
    EXPECT_EQ(plain(JsonRef(GetJSONFromXml(&item))),
              R"({"a":{"@":{"lang":"en"},"#":"x"},"@":{"id":"7","seqNo":"\"8\""}})");
}

TEST(GetJsonFromXml, ReachesOneLevelBelowTheRoot) {
    gloox::Tag item("item");
    auto* child = new gloox::Tag(&item, "a");
    new gloox::Tag(child, "deeper", "x");
    EXPECT_EQ(plain(JsonRef(GetJSONFromXml(&item))), R"({"a":null})");
}

TEST(GetJsonFromXml, KeepsTheLastOfSiblingsWithOneName) {
    gloox::Tag item("item");
    new gloox::Tag(&item, "a", "first");
    new gloox::Tag(&item, "b", "x");
    new gloox::Tag(&item, "a", "last");
    EXPECT_EQ(plain(JsonRef(GetJSONFromXml(&item))), R"({"a":{"#":"last"},"b":{"#":"x"}})");
}

TEST(GetJsonFromXml, GivesAnEmptyObjectForABareElement) {
    const gloox::Tag item("item");
    EXPECT_EQ(plain(JsonRef(GetJSONFromXml(&item))), "{}");
}

TEST(GetJsonFromXmlTag, GivesAttributesWithoutATextMemberForAnElementWithoutText) {
    gloox::Tag tag("a");
    tag.addAttribute("v", "1");
    const JsonRef parent(json_object_new_object());
    GetJSONFromXmlTag(&tag, parent.get());
    EXPECT_EQ(plain(parent), R"({"a":{"@":{"v":"1"}}})");
}

TEST(GetAppResponseJsonObj, NamesTheLastSegmentOfTheNode) {
    EXPECT_EQ(textOf(JsonRef(getAppResponseJsonObj("/u1/r1/com.example.app/inbox", "hi"))),
              R"({ "item": "hi", "endpoint": "inbox", "returnValue": true })");
}

TEST(GetAppResponseJsonObj, NamesTheWholeNodeWithoutASlash) {
    EXPECT_EQ(textOf(JsonRef(getAppResponseJsonObj("inbox", ""))),
              R"({ "item": "", "endpoint": "inbox", "returnValue": true })");
}

TEST(GetAppResponseJsonObj, NamesNothingWhenTheNodeEndsInASlash) {
    EXPECT_EQ(textOf(JsonRef(getAppResponseJsonObj("/u1/inbox/", "a\"b"))),
              R"({ "item": "a\"b", "endpoint": "", "returnValue": true })");
}
