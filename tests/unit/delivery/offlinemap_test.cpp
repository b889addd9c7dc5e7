// SPDX-License-Identifier: GPL-3.0-only
// The offline map and its store.
#include "tests/fakes/servicefixture.h"

namespace {

using Map = std::map<std::string, std::string>;

const std::string kApp = "pubsubservice.offlineMap";
const std::string kCommit = "prefs.commit " + kApp;

}  // namespace

class OfflineMap : public ServiceTest {
  protected:
    const FakePrefs::Values& stored() { return fakePrefs().stored(kApp); }
    Map& map() { return session().m_offlineMap; }

    struct Check {
        bool found = true;
        std::string code = "code";
        std::string text = "text";
    };
    Check check(const std::string& node) {
        Check c;
        session().checkOfflineMap(node, c.found, c.code, c.text);
        return c;
    }
};

TEST_F(OfflineMap, WritesANewEntryToTheStoreAtOnce) {
    session().setOfflineMap("/a", "com.example.app");
    EXPECT_EQ(map(), (Map{{"/a", "com.example.app"}}));
    EXPECT_EQ(takeEvents(), (Texts{"prefs.set " + kApp + " /a com.example.app", kCommit}));
    EXPECT_EQ(stored(), (FakePrefs::Values{{"/a", "com.example.app"}}));
    EXPECT_EQ(fakePrefs().openHandles(), 1u);
}

TEST_F(OfflineMap, KeepsTheFirstOfTwoValues) {
    session().setOfflineMap("/a", "com.example.first");
    takeEvents();
    session().setOfflineMap("/a", "com.example.second");
    EXPECT_EQ(map(), (Map{{"/a", "com.example.first"}}));
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(OfflineMap, LeavesTheErrorTextsForAnAbsentNode) {
    const Check c = check("/a");
    EXPECT_FALSE(c.found);
    EXPECT_EQ(c.code, "code");
    EXPECT_EQ(c.text, "text");
}

TEST_F(OfflineMap, GivesTheErrorTextsForAPresentNode) {
    session().setOfflineMap("/a", "com.example.app");
    const Check c = check("/a");
    EXPECT_TRUE(c.found);
    EXPECT_EQ(c.code, "appErr");
    EXPECT_EQ(c.text, "Already subscribed for Offline notification");
}

TEST_F(OfflineMap, RemovesAnEntryFromMapAndStore) {
    session().setOfflineMap("/a", "com.example.app");
    session().setOfflineMap("/b", "com.example.app");
    takeEvents();
    session().removeOfflineMap("/a");
    EXPECT_EQ(map(), (Map{{"/b", "com.example.app"}}));
    EXPECT_EQ(takeEvents(), (Texts{"prefs.remove " + kApp + " /a", kCommit}));
    EXPECT_EQ(stored(), (FakePrefs::Values{{"/b", "com.example.app"}}));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(OfflineMap, RemovesFromTheStoreAlsoWhatTheMapLacks) {
    fakePrefs().store(kApp, "/a", "com.example.app");
    session().removeOfflineMap("/a");
    EXPECT_EQ(stored(), FakePrefs::Values{});
}

TEST_F(OfflineMap, LogsAnEntryThatTheStoreCannotRemove) {
    session().removeOfflineMap("/a");
    EXPECT_EQ(takeLogLines(), Texts{"deleteOfflineMap: Error removing value from prefs /a "});
    EXPECT_EQ(takeEvents(), Texts{kCommit});
}

TEST_F(OfflineMap, LogsBadParametersWithoutWriting) {
    session().persistOfflineMap("", "value");
    session().persistOfflineMap("/a", "");
    session().deleteOfflineMap("");
    EXPECT_EQ(takeLogLines(),
              (Texts{"persistOfflineMap: Bad parameters  value", "persistOfflineMap: Bad parameters /a ",
                     "deleteOfflineMap: Bad parameters "}));
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(OfflineMap, KeepsItsChangeWhenTheStoreCannotBeOpened) {
    fakePrefs().failNext("QPAppGetHandle", QP_IO, 2);
    session().setOfflineMap("/a", "com.example.app");
    EXPECT_EQ(map(), (Map{{"/a", "com.example.app"}}));
    session().removeOfflineMap("/a");
    EXPECT_TRUE(map().empty());
    EXPECT_EQ(takeLogLines(), (Texts{"persistOfflineMap: Bad parameters /a com.example.app",
                                     "deleteOfflineMap: Bad parameters /a"}));
    EXPECT_EQ(session().m_offlinePrefHandle, nullptr);
}

TEST_F(OfflineMap, LogsAValueThatCannotBeSet) {
    fakePrefs().failNext("QPAppSetValueString", QP_BUSY);
    session().setOfflineMap("/a", "com.example.app");
    EXPECT_EQ(takeLogLines(),
              Texts{"persistOfflineMap: Error: QPAppSetValue returned 4, Failed to persist offlineMap /a"});
    EXPECT_EQ(map(), (Map{{"/a", "com.example.app"}}));
    EXPECT_EQ(stored(), FakePrefs::Values{});
    EXPECT_EQ(takeEvents(), Texts{kCommit});
}

TEST_F(OfflineMap, LogsACommitThatFailsAndGoesOnWithANewHandle) {
    fakePrefs().failNext("QPAppFreeHandle", QP_IO);
    session().setOfflineMap("/a", "com.example.app");
    EXPECT_EQ(takeLogLines(), Texts{"commitOfflinePrefHandle: Error: QPFreeHandle failed returned 3,"});
    session().setOfflineMap("/b", "com.example.app");
    EXPECT_EQ(stored(), (FakePrefs::Values{{"/b", "com.example.app"}}));
    EXPECT_EQ(fakePrefs().openHandles(), 1u);
}

TEST_F(OfflineMap, CommitsWithoutAHandleByOpeningOne) {
    session().commitOfflinePrefHandle();
    EXPECT_NE(session().m_offlinePrefHandle, nullptr);
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(OfflineMap, BearsAReopeningThatFails) {
    session().setOfflineMap("/a", "com.example.app");
    fakePrefs().failNext("QPAppGetHandle", QP_IO);
    session().setOfflineMap("/b", "com.example.app");
    EXPECT_EQ(session().m_offlinePrefHandle, nullptr);
    session().setOfflineMap("/c", "com.example.app");
    EXPECT_EQ(stored().size(), 3u);
}

TEST_F(OfflineMap, LoadsEveryEntryAndWritesItBack) {
    fakePrefs().store(kApp, "/com/b", "com.example.b");
    fakePrefs().store(kApp, "/com/a", "com.example.a");
    session().loadOfflineMapFromDisk();
    EXPECT_EQ(map(), (Map{{"/com/a", "com.example.a"}, {"/com/b", "com.example.b"}}));
    EXPECT_EQ(takeEvents(), (Texts{"prefs.set " + kApp + " /com/a com.example.a", kCommit,
                                   "prefs.set " + kApp + " /com/b com.example.b", kCommit}));
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(fakePrefs().openHandles(), 1u);
}

TEST_F(OfflineMap, KeepsWhatItHasWhenTheStoreIsLoaded) {
    session().m_offlineMap["/com/a"] = "com.example.first";
    fakePrefs().store(kApp, "/com/a", "com.example.a");
    fakePrefs().store(kApp, "/com/b", "com.example.b");
    session().loadOfflineMapFromDisk();
    EXPECT_EQ(map(), (Map{{"/com/a", "com.example.first"}, {"/com/b", "com.example.b"}}));
    EXPECT_EQ(takeEvents(), (Texts{"prefs.set " + kApp + " /com/b com.example.b", kCommit}));
}

TEST_F(OfflineMap, GoesOnAfterAKeyThatCannotBeRead) {
    fakePrefs().store(kApp, "/a", "com.example.a");
    fakePrefs().store(kApp, "/b", "com.example.b");
    fakePrefs().failNext("QPAppCopyValueString", QP_IO);
    session().loadOfflineMapFromDisk();
    EXPECT_EQ(map(), (Map{{"/b", "com.example.b"}}));
    EXPECT_EQ(takeLogLines(),
              Texts{"loadOfflineMapFromDisk: Could not read value for node in offline store /a"});
}

TEST_F(OfflineMap, FindsNoValueUnderAKeyThatCleaningChanges) {
    fakePrefs().store(kApp, "/a\"b", "com.example.a");
    session().loadOfflineMapFromDisk();
    EXPECT_TRUE(map().empty());
    EXPECT_EQ(takeLogLines(),
              Texts{"loadOfflineMapFromDisk: Could not read value for node in offline store /ab"});
}

TEST_F(OfflineMap, LoadsNothingFromAStoreThatFails) {
    fakePrefs().store(kApp, "/a", "com.example.a");
    fakePrefs().failNext("QPAppGetHandle", QP_IO);
    session().loadOfflineMapFromDisk();
    EXPECT_TRUE(map().empty());
    fakePrefs().failNext("QPAppCopyKeysCJ", QP_IO);
    session().loadOfflineMapFromDisk();
    EXPECT_TRUE(map().empty());
}

TEST_F(OfflineMap, SurvivesARestart) {
    session().setOfflineMap("/u1/r1/com.example.app/inbox", "com.example.app");
    restartService();
    EXPECT_TRUE(map().empty());
    session().loadOfflineMapFromDisk();
    EXPECT_EQ(map(), (Map{{"/u1/r1/com.example.app/inbox", "com.example.app"}}));
}
