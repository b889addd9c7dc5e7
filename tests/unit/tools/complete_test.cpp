// SPDX-License-Identifier: GPL-3.0-only
// What a shell is told that may follow: words of the table, and names of the service that runs.
#include "tools/complete.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "tests/unit/host/privatebus.h"
#include "tests/unit/tools/commandline.h"
#include "tests/unit/tools/fakeservice.h"
#include "tools/manual.h"
#include "tools/verbs.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using Texts = std::vector<std::string>;

Texts complete(const Texts& words) {
    const NameSources sources = {.nodes = [] { return Texts{"/a/b", "/c"}; },
                                 .endpoints = [] { return Texts{"inbox", "outbox"}; },
                                 .registrations = [] { return Texts{"up-1"}; }};
    Texts texts;
    for (const Candidate& each : candidates(words, allVerbs(), sources))
        texts.push_back(each.text);
    return texts;
}

struct Case {
    Texts words;
    Texts candidates;
};

class Completion : public testing::TestWithParam<Case> {};

TEST_P(Completion, IsWhatMayFollow) {
    EXPECT_EQ(complete(GetParam().words), GetParam().candidates);
}

INSTANTIATE_TEST_SUITE_P(
    Of, Completion,
    testing::Values(
        Case{{"n"}, {"node"}}, Case{{"node", "c"}, {"create", "config"}}, Case{{"node", "x", ""}, {}},
        Case{{"endpoint", ""}, {"create", "delete", "key", "list"}}, Case{{"status", ""}, {}},
        Case{{"node", "delete", ""}, {"/a/b", "/c"}}, Case{{"node", "delete", "/a"}, {"/a/b"}},
        Case{{"node", "delete", "/a/b", ""}, {}}, Case{{"pending", "list", "/c", ""}, {"/a/b", "/c"}},
        Case{{"node", "create", "/x", "--parent", ""}, {"/a/b", "/c"}},
        Case{{"node", "create", "/x", "--access", "a"}, {"authorize"}},
        Case{{"node", "create", "/x", "--title", ""}, {}}, Case{{"node", "publish", "/x", "--file", "/e"}, {":file"}},
        Case{{"endpoint", "create", ""}, {}}, Case{{"endpoint", "key", "i"}, {"inbox"}},
        Case{{"subscribe", ""}, {"inbox", "outbox"}}, Case{{"subscribe", "inbox", "--", "l"}, {":command"}},
        Case{{"push", "remove", ""}, {"up-1"}}, Case{{"status", "--fo"}, {"--follow"}},
        Case{{"--t"}, {"--timeout"}}, Case{{"--timeout", "5", "--app", "a", "stat"}, {"status"}},
        Case{{"subscribe", "-C", "3", "out"}, {"outbox"}}, Case{{"--unknown", "stat"}, {"status"}},
        Case{{"node", "delete", "--", "/c"}, {"/c"}}));

TEST(Completion, OfNothingIsEveryVerbOnce) {
    const Texts all = complete({""});
    EXPECT_THAT(all, IsSupersetOf({"status", "doctor", "node", "call"}));
    EXPECT_EQ(std::count(all.begin(), all.end(), "node"), 1);
    EXPECT_EQ(complete({}), all);
}

TEST(Completion, FindsTheApplication) {
    EXPECT_EQ(applicationIn({"--app", "com.example.mail", "subscribe", ""}), "com.example.mail");
    EXPECT_EQ(applicationIn({"subscribe", "--app"}), "");
    EXPECT_EQ(applicationIn({"status"}), "");
}

class Completing : public testing::Test, public CommandLine {};

TEST_F(Completing, AsksTheService) {
    PrivateBus bus;
    FakeService service;
    service.script["listNodes"] = R"({"returnValue":true,"nodes":["/a/b","/c"]})";
    EXPECT_EQ(run({"--complete", "node", "delete", "/"}), Exit::Ok);
    EXPECT_EQ(out.str(), "/a/b\n/c\n");
    EXPECT_THAT(service.calls, ElementsAre("listNodes {}"));
}

TEST_F(Completing, AsksThePublicBusForEndpoints) {
    PrivateBus bus("ZELT_PUBLIC_BUS");
    FakeService service(QSBus::Public);
    service.script["listEndpoints"] = R"({"returnValue":true,"endpoints":[{"endpoint":"inbox"}]})";
    EXPECT_EQ(run({"--complete", "endpoint", "key", ""}), Exit::Ok);
    EXPECT_EQ(out.str(), "inbox\n");
}

TEST_F(Completing, PrintsTheHelpBesidesAndAsksNobodyForWords) {
    EXPECT_EQ(run({"--complete", "doct"}), Exit::Ok);
    EXPECT_EQ(out.str(), "doctor\tcheck everything between here and the server\n");
}

TEST_F(Completing, SaysNothingWithoutAService) {
    for (const char* variable : {"ZELT_PRIVATE_BUS", "ZELT_PUBLIC_BUS", "DBUS_SESSION_BUS_ADDRESS"})
        setenv(variable, "unix:path=/nowhere/bus", 1);
    for (const Texts& words : {Texts{"--complete", "node", "delete", ""}, Texts{"--complete", "endpoint", "key", ""},
                               Texts{"--complete", "push", "remove", ""}})
        EXPECT_EQ(run(words), Exit::Ok);
    for (const char* variable : {"ZELT_PRIVATE_BUS", "ZELT_PUBLIC_BUS", "DBUS_SESSION_BUS_ADDRESS"})
        unsetenv(variable);
    EXPECT_EQ(out.str() + err.str(), "");
}

TEST(Manual, HasEveryVerbWithItsOptions) {
    const std::string text = manualText(allVerbs());
    EXPECT_THAT(text, HasSubstr("*onclose listen* \\[\\-C COUNT\\] \\[\\-W SECONDS\\]\n"
                                "\tPrint notices of items for closed applications; one listener at a time.\n\n"
                                "\t*\\-C*, *\\-\\-count* COUNT\n\t\tExit after so many.\n"));
    EXPECT_THAT(text, HasSubstr("\n*\\-\\-timeout* SECONDS\n\tHow long"));
}

}  // namespace
