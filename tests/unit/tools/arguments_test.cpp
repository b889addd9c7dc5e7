// SPDX-License-Identifier: GPL-3.0-only
// The command line: what is accepted, what is refused and with which message.
#include "tools/arguments.h"

#include <gmock/gmock.h>

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
                    Refusal{{"node"}, "\"node\" needs a second word; `pubsubctl --help`"},
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

TEST(Counts, AreWholeNumbersOfAtLeastOne) {
    unsigned value = 7;
    EXPECT_TRUE(parseCount("1", value));
    EXPECT_EQ(value, 1u);
    for (const char* wrong : {"", "0", "-1", "1.5", " 1", "1 ", "1000001", "99999999999"})
        EXPECT_FALSE(parseCount(wrong, value)) << wrong;
    EXPECT_EQ(value, 1u);
}

}  // namespace
