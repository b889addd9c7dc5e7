// SPDX-License-Identifier: GPL-3.0-only
// The command line: what is accepted, what is refused and with which message.
#include "tools/arguments.h"

#include <gmock/gmock.h>

#include "tools/suggestion.h"
#include "tools/verbs.h"

namespace {

struct Parsed {
    bool ok;
    Invocation invocation;
    std::string problem;
};

Parsed parse(std::vector<std::string> words) {
    Parsed parsed;
    parsed.ok = parseArguments(words, allVerbs(), parsed.invocation, parsed.problem);
    return parsed;
}

std::string verbOf(const Parsed& parsed) {
    std::string name;
    for (const char* word : parsed.invocation.verb->words)
        name += (name.empty() ? "" : " ") + std::string(word);
    return name;
}

using Options = std::map<std::string, std::string>;

TEST(Arguments, ReadAVerbOfTwoWordsWithItsArgument) {
    Parsed parsed = parse({"node", "create", "/a/b"});
    ASSERT_TRUE(parsed.ok) << parsed.problem;
    EXPECT_EQ(verbOf(parsed), "node create");
    EXPECT_THAT(parsed.invocation.arguments, testing::ElementsAre("/a/b"));
    EXPECT_EQ(parsed.invocation.timeoutSeconds, 30u);
    EXPECT_FALSE(parsed.invocation.json);
}

TEST(Arguments, TakeOptionsOnEitherSideOfTheArgumentAndWithAnEqualsSign) {
    Parsed parsed = parse({"node", "create", "--collection", "/n", "--title=A title", "--parent", "/p"});
    ASSERT_TRUE(parsed.ok) << parsed.problem;
    EXPECT_EQ(parsed.invocation.options,
              (Options{{"collection", ""}, {"title", "A title"}, {"parent", "/p"}}));
}

TEST(Arguments, TakeGlobalOptionsBeforeAndAfterTheVerb) {
    Parsed parsed = parse({"--json", "node", "delete", "/n", "--timeout", "5"});
    ASSERT_TRUE(parsed.ok) << parsed.problem;
    EXPECT_TRUE(parsed.invocation.json);
    EXPECT_EQ(parsed.invocation.timeoutSeconds, 5u);
    EXPECT_TRUE(parsed.invocation.options.empty());
}

TEST(Arguments, ReadJsonAfterPublishAsTheItemAndBeforeItAsTheOutputForm) {
    Parsed item = parse({"node", "publish", "/n", "--json", "{}"});
    ASSERT_TRUE(item.ok) << item.problem;
    EXPECT_FALSE(item.invocation.json);
    EXPECT_EQ(item.invocation.options, (Options{{"json", "{}"}}));

    Parsed output = parse({"--json", "node", "publish", "/n", "text"});
    ASSERT_TRUE(output.ok) << output.problem;
    EXPECT_TRUE(output.invocation.json);
    EXPECT_TRUE(output.invocation.options.empty());
}

TEST(Arguments, TakeShortOptionsWithTheValueApartOrAttached) {
    Parsed parsed = parse({"handler", "/n", "-C3", "-W", "20"});
    ASSERT_TRUE(parsed.ok) << parsed.problem;
    EXPECT_EQ(parsed.invocation.options, (Options{{"count", "3"}, {"wait", "20"}}));
}

TEST(Arguments, TakeADashAsAnArgumentAndAnythingAfterTwoDashes) {
    Parsed parsed = parse({"node", "publish", "/n", "-"});
    ASSERT_TRUE(parsed.ok) << parsed.problem;
    EXPECT_THAT(parsed.invocation.arguments, testing::ElementsAre("/n", "-"));

    parsed = parse({"node", "publish", "/n", "--", "--text"});
    ASSERT_TRUE(parsed.ok) << parsed.problem;
    EXPECT_THAT(parsed.invocation.arguments, testing::ElementsAre("/n", "--text"));
}

TEST(Arguments, TakeAnEmptyTextAsAnArgument) {
    Parsed parsed = parse({"node", "publish", "/n", ""});
    ASSERT_TRUE(parsed.ok) << parsed.problem;
    EXPECT_THAT(parsed.invocation.arguments, testing::ElementsAre("/n", ""));
}

TEST(Arguments, TakeTheCommandAfterTwoDashesWhereAVerbRunsOne) {
    Parsed parsed = parse({"subscribe", "box", "-C", "1", "--", "sh", "-c", "--"});
    ASSERT_TRUE(parsed.ok) << parsed.problem;
    EXPECT_THAT(parsed.invocation.arguments, testing::ElementsAre("box"));
    EXPECT_THAT(parsed.invocation.command, testing::ElementsAre("sh", "-c", "--"));
    EXPECT_EQ(parsed.invocation.options, (Options{{"count", "1"}}));
}

TEST(Arguments, KeepEveryValueOfARepeatedOption) {
    Parsed parsed = parse({"node", "config", "/n", "--set", "b=1", "--set=a=2"});
    ASSERT_TRUE(parsed.ok) << parsed.problem;
    EXPECT_THAT(parsed.invocation.values("set"), testing::ElementsAre("b=1", "a=2"));
    EXPECT_THAT(parsed.invocation.values("other"), testing::IsEmpty());
}

TEST(Arguments, NameTheApplicationToPassFor) {
    Parsed parsed = parse({"--app", "com.example.mail", "endpoint", "key", "box"});
    ASSERT_TRUE(parsed.ok) << parsed.problem;
    EXPECT_EQ(parsed.invocation.app, "com.example.mail");
    EXPECT_FALSE(parse({"--app", ".a", "endpoint", "key", "box"}).ok);
}

TEST(Arguments, AskForHelpWithoutTheArgumentsOfTheVerb) {
    Parsed parsed = parse({"node", "create", "--help"});
    ASSERT_TRUE(parsed.ok) << parsed.problem;
    EXPECT_TRUE(parsed.invocation.help);
    EXPECT_EQ(verbOf(parsed), "node create");
    EXPECT_TRUE(parse({"--help"}).ok);
    EXPECT_TRUE(parse({"-h"}).invocation.help);
    EXPECT_TRUE(parse({"--version"}).invocation.version);
}

struct Refusal {
    std::vector<std::string> words;
    const char* problem;
};

class RefusedArguments : public testing::TestWithParam<Refusal> {};

TEST_P(RefusedArguments, SayWhatIsWrongAndWhatToDo) {
    Parsed parsed = parse(GetParam().words);
    EXPECT_FALSE(parsed.ok);
    EXPECT_EQ(parsed.problem, GetParam().problem);
}

INSTANTIATE_TEST_SUITE_P(
    Table, RefusedArguments,
    testing::Values(Refusal{{}, "no verb given; `pubsubctl --help` lists them"},
                    Refusal{{"frobnicate"}, "unknown verb \"frobnicate\"; `pubsubctl --help` lists them"},
                    Refusal{{"stauts"}, "unknown verb \"stauts\"; did you mean \"status\"?"},
                    Refusal{{"nod", "create"}, "unknown verb \"nod\"; did you mean \"node\"?"},
                    Refusal{{"node", "crate"}, "unknown verb \"crate\"; did you mean \"node create\"?"},
                    Refusal{{"create"},
                            "unknown verb \"create\"; did you mean \"node create\" or \"endpoint create\"?"},
                    Refusal{{"onclose"},
                            "\"onclose\" needs a second word:\n"
                            "  onclose listen [-C COUNT] [-W SECONDS]\n"
                            "      print notices of items for closed applications; one listener at a time\n"
                            "  onclose add ENDPOINT\n"
                            "      announce the endpoint's items while this application is closed\n"
                            "  onclose remove ENDPOINT\n"
                            "      end those announcements\n"},
                    Refusal{{"node", "paint"}, "unknown verb \"paint\"; `pubsubctl --help` lists them"},
                    Refusal{{"node", "delete"}, "an argument is missing; usage: pubsubctl node delete NODE"},
                    Refusal{{"node", "delete", "/a", "/b"},
                            "one argument too many: \"/b\"; usage: pubsubctl node delete NODE"},
                    Refusal{{"--nonsense"},
                            "unknown option --nonsense; see `pubsubctl --help` (write -- before text that "
                            "begins with a dash)"},
                    Refusal{{"status", "-x"},
                            "unknown option -x; see `pubsubctl status --help` (write -- before text that "
                            "begins with a dash)"},
                    Refusal{{"status", "--follow=yes"}, "--follow takes no value"},
                    Refusal{{"node", "create", "/n", "--title"}, "--title needs a value: TEXT"},
                    Refusal{{"--timeout", "0", "status"},
                            "--timeout takes a whole number of seconds from 1 to 1000000, not \"0\""},
                    Refusal{{"--timeout", "1s", "status"},
                            "--timeout takes a whole number of seconds from 1 to 1000000, not \"1s\""},
                    Refusal{{"subscribe", "box", "--"}, "a COMMAND is missing after --"},
                    Refusal{{"subscribe", "box", "cat"},
                            "one argument too many: \"cat\"; usage: pubsubctl subscribe ENDPOINT [-C COUNT] "
                            "[-W SECONDS] [--newest] [[--retries N] -- COMMAND...]"},
                    Refusal{
                        {"--app", "no id", "status"},
                        "--app takes an application id of letters, digits, '.', '_' and '-', not \"no id\""},
                    Refusal{{"node", "publish", "/n", "--json"}, "--json needs a value: OBJECT"}));

TEST(Arguments, NameEveryVerbInTheOverviewAndEveryOptionInTheHelp) {
    std::string text = overview(allVerbs());
    for (const Verb& verb : allVerbs()) {
        EXPECT_THAT(text, testing::HasSubstr(verb.help));
        for (const OptionSpec& option : verb.options)
            EXPECT_THAT(helpText(verb), testing::HasSubstr(std::string("--") + option.name));
    }
    EXPECT_THAT(text, testing::HasSubstr("3 refused by the service"));
}

TEST(Arguments, ListTheVerbsOfAGroupAlone) {
    Parsed parsed = parse({"push", "--help"});
    ASSERT_TRUE(parsed.ok) << parsed.problem;
    EXPECT_EQ(parsed.invocation.verb, nullptr);
    EXPECT_EQ(parsed.invocation.group, "push");
    const std::string text = groupText(allVerbs(), "push");
    EXPECT_THAT(text, testing::HasSubstr("\n  push remove ENDPOINT\n"));
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("onclose")));
}

TEST(Suggestions, CountWhatWasMistyped) {
    EXPECT_EQ(editDistance("status", "status"), 0U);
    EXPECT_EQ(editDistance("stats", "status"), 1U);
    EXPECT_EQ(editDistance("stauts", "status"), 1U);
    EXPECT_EQ(editDistance("", "abc"), 3U);
    EXPECT_EQ(editDistance("abc", ""), 3U);
    EXPECT_EQ(editDistance("abcd", "axcy"), 2U);
}

TEST(Suggestions, AreFewOrNone) {
    EXPECT_EQ(suggestion({"x"}, allVerbs()), "");
    EXPECT_EQ(suggestion({"remove"}, allVerbs()), "did you mean \"push remove\" or \"onclose remove\"?");
    EXPECT_EQ(suggestion({"list"}, allVerbs()),
              "did you mean \"node list\", \"endpoint list\", \"push list\" or \"pending list\"?");
    EXPECT_EQ(suggestion({"session", "logout"}, allVerbs()), "did you mean \"session login\"?");
}

TEST(Counts, AreWholeNumbersOfAtLeastOne) {
    unsigned value = 7;
    EXPECT_TRUE(parseCount("1", value));
    EXPECT_EQ(value, 1u);
    for (const char* wrong : {"", "0", "-1", "1.5", " 1", "1 ", "1000001", "99999999999"})
        EXPECT_FALSE(parseCount(wrong, value)) << wrong;
    EXPECT_EQ(value, 1u);
}

}  // namespace
