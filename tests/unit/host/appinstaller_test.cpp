// SPDX-License-Identifier: GPL-3.0-only
// Removed applications: what counts as one, and that each removal is reported once.
#include "platform/host/appinstaller.h"

#include <gmock/gmock.h>

#include "tests/unit/host/caller.h"
#include "tests/unit/host/privatebus.h"

namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

constexpr char kNotify[] = "quor://com.zelt.appinstaller/notifyOnChange";
constexpr char kAll[] = R"({"appId": "*", "subscribe":true})";
constexpr char kFirst[] = R"({"returnValue":true,"statusChange":"NONE"})";

std::string removed(const std::string& application) {
    return R"({"returnValue":true,"statusChange":"REMOVED","appId":")" + application + "\"}";
}

TEST(ApplicationEntries, AreDesktopFilesAndFolders) {
    EXPECT_EQ(applicationOf("org.example.Mail.desktop", false), "org.example.Mail");
    EXPECT_EQ(applicationOf("org.example.Mail", true), "org.example.Mail");
    for (const char* other : {"mimeinfo.cache", ".hidden.desktop", "", ".desktop", "a.desktop.dpkg-new"})
        EXPECT_EQ(applicationOf(other, false), "") << other;
    EXPECT_EQ(applicationOf("..", true), "");
}

TEST(ApplicationFolder, IsListedAndItsAbsenceIsNoEmptyOne) {
    TestFolder folder;
    std::ofstream(folder / "a.desktop");
    std::ofstream(folder / "notes.txt");
    std::filesystem::create_directory(folder / "b");
    std::filesystem::create_directory_symlink(folder / "b", folder / "c");
    std::set<std::string> applications;
    EXPECT_TRUE(listApplications(folder.path(), applications));
    EXPECT_THAT(applications, ElementsAre("a", "b", "c"));
    EXPECT_FALSE(listApplications(folder / "none", applications));
}

class Installer : public testing::Test {
  protected:
    Installer() {
        std::filesystem::create_directory(folder / "apps");
        config.stateDir = folder.path();
        config.applicationsFolder = folder / "apps";
        config.settleMs = 50;
        install("a");
        install("b");
        start();
    }
    ~Installer() override {
        service.reset();
        g_main_loop_unref(loop);
    }
    void start() {
        service = std::make_unique<AppInstaller>(config);
        ASSERT_EQ(service->start(loop), StartResult::Started);
    }
    std::string entry(const std::string& name) { return folder / ("apps/" + name + ".desktop"); }
    void install(const std::string& name) { std::ofstream{entry(name)}; }
    void remove(const std::string& name) { std::filesystem::remove(entry(name)); }

    PrivateBus bus;
    TestFolder folder;
    HostConfig config;
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    std::unique_ptr<AppInstaller> service;
    Caller caller;
};

TEST_F(Installer, TellsOfEachRemovalOnce) {
    auto& answers = caller.follow(kNotify, kAll);
    EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 1; }));
    remove("a");
    EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 2; }));
    install("c");
    remove("b");
    EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 3; }));
    EXPECT_THAT(answers, ElementsAre(kFirst, removed("a"), removed("b")));
}

TEST_F(Installer, DoesNotTakeAnUpgradeForARemoval) {
    auto& answers = caller.follow(kNotify, kAll);
    EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 1; }));
    remove("a");
    install("a");
    std::filesystem::rename(entry("b"), entry("b2"));
    EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 2; }));
    EXPECT_FALSE(caller.waitFor([&] { return answers.size() > 2; }, 150));
    EXPECT_THAT(answers, ElementsAre(kFirst, removed("b")));
}

TEST_F(Installer, TellsASubscriberOfOneApplicationOfThatOneAlone) {
    auto& one = caller.follow(kNotify, R"({"appId":"b","subscribe":true})");
    auto& all = caller.follow(kNotify, R"({"subscribe":true})");
    EXPECT_TRUE(caller.waitFor([&] { return one.size() == 1 && all.size() == 1; }));
    remove("a");
    remove("b");
    EXPECT_TRUE(caller.waitFor([&] { return one.size() == 2 && all.size() == 3; }));
    EXPECT_THAT(one, ElementsAre(kFirst, removed("b")));
    EXPECT_THAT(all, ElementsAre(kFirst, removed("a"), removed("b")));
}

TEST_F(Installer, KeepsARemovalThatNobodyHeardForTheNextSubscriber) {
    EXPECT_EQ(caller.call(kNotify, "{}"), kFirst);
    service.reset();
    remove("a");
    start();
    service.reset();
    start();
    auto& answers = caller.follow(kNotify, kAll);
    EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 2; }));
    EXPECT_THAT(answers, ElementsAre(kFirst, removed("a")));
    auto& later = caller.follow(kNotify, kAll);
    EXPECT_FALSE(caller.waitFor([&] { return later.size() > 1; }, 150));
    EXPECT_THAT(later, ElementsAre(kFirst));
}

TEST_F(Installer, ForgetsARemovalWhenTheApplicationIsBackBeforeAnybodyHeard) {
    service.reset();
    remove("a");
    start();
    service.reset();
    install("a");
    start();
    auto& answers = caller.follow(kNotify, kAll);
    EXPECT_FALSE(caller.waitFor([&] { return answers.size() > 1; }, 150));
    EXPECT_THAT(answers, ElementsAre(kFirst));
}

TEST_F(Installer, DoesNotTakeAMissingFolderForARemovalOfAll) {
    auto& answers = caller.follow(kNotify, kAll);
    EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 1; }));
    std::filesystem::rename(folder / "apps", folder / "elsewhere");
    EXPECT_FALSE(caller.waitFor([&] { return answers.size() > 1; }, 150));
    std::filesystem::rename(folder / "elsewhere", folder / "apps");
    // The next subscriber makes it look again.
    EXPECT_EQ(caller.call(kNotify, "{}"), kFirst);
    remove("b");
    EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 2; }));
    EXPECT_THAT(answers, ElementsAre(kFirst, removed("b")));
}

TEST_F(Installer, StartsAnewFromADamagedList) {
    service.reset();
    std::ofstream(folder / "applications.json") << "{";
    remove("a");
    start();
    auto& answers = caller.follow(kNotify, kAll);
    EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 1; }));
    remove("b");
    EXPECT_TRUE(caller.waitFor([&] { return answers.size() == 2; }));
    EXPECT_THAT(answers, ElementsAre(kFirst, removed("b")));
}

}  // namespace
