// SPDX-License-Identifier: GPL-3.0-only
#include "platform/bus/applicationid.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

struct UnitCase {
    const char* unit;
    const char* id;
};

class UnitName : public testing::TestWithParam<UnitCase> {};

TEST_P(UnitName, GivesTheIdOfTheDesktopFormAlone) {
    EXPECT_EQ(applicationIdOfUnit(GetParam().unit), GetParam().id) << GetParam().unit;
}

INSTANTIATE_TEST_SUITE_P(
    , UnitName,
    testing::Values(
        // app[-launcher]-ID-RANDOM.scope
        UnitCase{"app-com.example.app-1234.scope", "com.example.app"},
        UnitCase{"app-gnome-com.example.app-1234.scope", "com.example.app"},
        UnitCase{"app-gnome-org.example.my\\x2dapp-99.scope", "org.example.my-app"},
        UnitCase{"app-my\\x2dlauncher-com.example.app-1.scope", "com.example.app"},
        UnitCase{"app-com.example.a\\x5fb-1.scope", "com.example.a_b"}, UnitCase{"app-a-b.scope", "a"},
        // app[-launcher]-ID@RANDOM.service
        UnitCase{"app-com.example.app@1234.service", "com.example.app"},
        UnitCase{"app-kde-com.example.app@4ac2.service", "com.example.app"},
        UnitCase{"app-com.example.app@autostart.service", "com.example.app"},
        UnitCase{"app-com.example.app@a-b-c.service", "com.example.app"},
        // A missing random part, a missing id, too many parts
        UnitCase{"app-com.example.app.scope", ""}, UnitCase{"app-com.example.app-.scope", ""},
        UnitCase{"app--1.scope", ""}, UnitCase{"app-a-b-c-d.scope", ""},
        UnitCase{"app--com.example.app-1.scope", ""}, UnitCase{"app-com.example.app.service", ""},
        UnitCase{"app-com.example.app@.service", ""}, UnitCase{"app-@1.service", ""},
        UnitCase{"app-a-b-c@1.service", ""}, UnitCase{"app@1.service", ""},
        // Other units
        UnitCase{"session-2.scope", ""}, UnitCase{"ssh.service", ""}, UnitCase{"user@1000.service", ""},
        UnitCase{"application-com.example.app-1.scope", ""}, UnitCase{"dbus-com.example.app@1.service", ""},
        UnitCase{"app-com.example.app-1.slice", ""}, UnitCase{"app-com.example.app-1", ""}, UnitCase{"", ""},
        UnitCase{".scope", ""}, UnitCase{".service", ""}, UnitCase{"@.service", ""},
        // Broken escapes, and characters that an id must not have
        UnitCase{"app-com.example\\x2-1.scope", ""}, UnitCase{"app-com.example\\xZZ-1.scope", ""},
        UnitCase{"app-com.example\\-1.scope", ""}, UnitCase{"app-com.example\\x2D-1.scope", ""},
        UnitCase{"app-com.example\\y2d-1.scope", ""}, UnitCase{"app-a\\x2fb-1.scope", ""},
        UnitCase{"app-a\\x20b-1.scope", ""}, UnitCase{"app-a\\x00b-1.scope", ""},
        UnitCase{"app-a\\x0ab-1.scope", ""}, UnitCase{"app-.hidden-1.scope", ""},
        UnitCase{"app-..-1.scope", ""}, UnitCase{"app-gr\xc3\xbcn-1.scope", ""}));

struct CgroupCase {
    const char* text;
    const char* id;
    const char* cgroup;
    bool ofLogin;
};

class Cgroup : public testing::TestWithParam<CgroupCase> {};

TEST_P(Cgroup, NamesTheOutermostUnit) {
    AppUnit unit = appUnitOfCgroup(GetParam().text);
    EXPECT_EQ(unit.applicationId, GetParam().id) << GetParam().text;
    EXPECT_EQ(unit.cgroup, GetParam().cgroup);
    EXPECT_EQ(unit.ofLogin, GetParam().ofLogin);
}

INSTANTIATE_TEST_SUITE_P(
    , Cgroup,
    testing::Values(
        CgroupCase{"0::/system.slice/app-com.example.app-1.scope\n", "com.example.app",
                   "/system.slice/app-com.example.app-1.scope", false},
        CgroupCase{"0::/apps.slice/apps-a.slice/app-kde-com.example.app@2.service/sub/group\n",
                   "com.example.app", "/apps.slice/apps-a.slice/app-kde-com.example.app@2.service", false},
        // What a process creates below its unit does not count, whatever its name.
        CgroupCase{"0::/system.slice/evil.service/app-com.example.bank-1.scope\n", "",
                   "/system.slice/evil.service", false},
        CgroupCase{"0::/system.slice/app-com.example.a-1.scope/app-com.example.b-1.scope\n", "com.example.a",
                   "/system.slice/app-com.example.a-1.scope", false},
        CgroupCase{
            "0::/user.slice/user-1000.slice/user@1000.service/app.slice/app-gnome-com.example.app-7.scope\n",
            "com.example.app",
            "/user.slice/user-1000.slice/user@1000.service/app.slice/app-gnome-com.example.app-7.scope",
            true},
        CgroupCase{"0::/user.slice/user-1000.slice/user@1000.service/user@1.service/app-a-1.scope\n", "",
                   "/user.slice/user-1000.slice/user@1000.service/user@1.service", true},
        CgroupCase{"0::/user.slice/user-1000.slice/user@1000.service/init.scope\n", "",
                   "/user.slice/user-1000.slice/user@1000.service/init.scope", true},
        CgroupCase{"0::/user.slice/user-1000.slice/session-2.scope\n", "",
                   "/user.slice/user-1000.slice/session-2.scope", false},
        // The unified path counts before the named one; an empty unified path does not.
        CgroupCase{"1:name=systemd:/system.slice/app-b-1.scope\n0::/system.slice/app-a-1.scope\n", "a",
                   "/system.slice/app-a-1.scope", false},
        CgroupCase{"4:memory:/x\n1:name=systemd:/system.slice/app-b-1.scope\n0::/\n", "b",
                   "/system.slice/app-b-1.scope", false},
        CgroupCase{"1:name=systemd:/system.slice/app-b-1.scope", "b", "/system.slice/app-b-1.scope", false},
        CgroupCase{"4:memory:/system.slice/app-b-1.scope\n", "", "", false},
        CgroupCase{"0::/\n", "", "", false}, CgroupCase{"", "", "", false},
        CgroupCase{"nonsense", "", "", false}, CgroupCase{"\n\n::\n0:\n", "", "", false},
        CgroupCase{"0::no-slash", "", "/no-slash", false}));

TEST(Environment, GivesTheValueOfTheWholeKey) {
    std::string text = "A=1\0ZELT_APP_IDX=no\0XZELT_APP_ID=no\0ZELT_APP_ID=com.example=app\0B=2\0"s;
    EXPECT_EQ(environmentValue(text, "ZELT_APP_ID"), "com.example=app");
    EXPECT_EQ(environmentValue(text, "A"), "1");
    EXPECT_EQ(environmentValue(text, "C"), "");
    EXPECT_EQ(environmentValue("", "A"), "");
    EXPECT_EQ(environmentValue("A=", "A"), "");
    EXPECT_EQ(environmentValue("A", "A"), "");
}

TEST(Label, GivesWhatFollowsThePrefix) {
    EXPECT_EQ(applicationIdOfLabel("zelt.app.com.example.app", "zelt.app."), "com.example.app");
    EXPECT_EQ(applicationIdOfLabel("zelt.app.com.example.app\0"s, "zelt.app."), "com.example.app");
    EXPECT_EQ(applicationIdOfLabel("zelt.app.com.example.app (enforce)\n", "zelt.app."), "com.example.app");
    EXPECT_EQ(applicationIdOfLabel("unconfined", "zelt.app."), "");
    EXPECT_EQ(applicationIdOfLabel("zelt.app.", "zelt.app."), "");
    EXPECT_EQ(applicationIdOfLabel("zelt.app.a/b", "zelt.app."), "");
    EXPECT_EQ(applicationIdOfLabel("com.example.app", ""), "");
    EXPECT_EQ(applicationIdOfLabel("", "zelt.app."), "");
}

TEST(UserTable, GivesTheIdOfTheUsersLine) {
    const char* table =
        "# users of applications\n"
        "10001 com.example.one\n"
        "10002\tcom.example.two  # the second\r\n"
        "10003\n"
        "10004   \n"
        "10005 not an id\n"
        "1000 com.example.thousand";
    EXPECT_EQ(applicationIdOfUser(table, 10001), "com.example.one");
    EXPECT_EQ(applicationIdOfUser(table, 10002), "com.example.two");
    EXPECT_EQ(applicationIdOfUser(table, 1000), "com.example.thousand");
    for (unsigned user : {0u, 1u, 10003u, 10004u, 10005u, 4294967295u})
        EXPECT_EQ(applicationIdOfUser(table, user), "") << user;
    EXPECT_EQ(applicationIdOfUser("", 0), "");
}
