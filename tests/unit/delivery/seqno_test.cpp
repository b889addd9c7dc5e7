// SPDX-License-Identifier: GPL-3.0-only
// The number of the last item of each node: what is stored, what counts as stale, and a store that fails.
#include "tests/fakes/servicefixture.h"

namespace {

constexpr char kApp[] = "com.zelt.pubsubservice";
const std::string kAppName = kApp;

}  // namespace

class SeqNo : public ServiceTest {
  protected:
    void store(const std::string& value, const std::string& node = "/a") {
        fakePrefs().store(kApp, node, value);
    }
    bool stale(const std::string& seqNo, const std::string& node = "/a") {
        return session().isStalePacket(node, seqNo);
    }
    // The text as read, and whether reading succeeded.
    std::pair<bool, std::string> read(const std::string& node = "/a") {
        std::string text = "before";
        const bool found = session().getSeqNo(node, text);
        return {found, text};
    }
};

TEST_F(SeqNo, IsZeroAndNotFoundForAnUnknownNode) {
    EXPECT_EQ(read(), std::pair(false, std::string("0")));
    uint64_t number = 7;
    EXPECT_FALSE(session().getSeqNo("/a", number));
    EXPECT_EQ(number, 0u);
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(SeqNo, ReadsTheStoredText) {
    store(R"({"seqNo": "42"})");
    EXPECT_EQ(read(), std::pair(true, std::string("42")));
    uint64_t number = 0;
    EXPECT_TRUE(session().getSeqNo("/a", number));
    EXPECT_EQ(number, 42u);
}

TEST_F(SeqNo, ReadsUpToTheLargestNumber) {
    store(R"({"seqNo": "18446744073709551615"})");
    uint64_t number = 0;
    EXPECT_TRUE(session().getSeqNo("/a", number));
    EXPECT_EQ(number, UINT64_MAX);
}

TEST_F(SeqNo, StaysZeroWhenTheMemberIsMissingEmptyOrNull) {
    for (const char* value : {"{}", R"({"seqNo": ""})", R"({"seqNo": null})", "[]", "5"}) {
        store(value);
        EXPECT_EQ(read(), std::pair(true, std::string("0"))) << value;
    }
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(SeqNo, FailsOnAStoredValueThatIsNoJson) {
    store("fourty-two");
    EXPECT_EQ(read(), std::pair(false, std::string("0")));
    EXPECT_FALSE(stale("0"));
    EXPECT_EQ(takeLogLines(), (Texts{"getSeqNo: Parsing value failed", "getSeqNo: Parsing value failed"}));
}

TEST_F(SeqNo, LogsAStoreThatCannotBeOpened) {
    store(R"({"seqNo": "42"})");
    fakePrefs().failNext("QPAppGetHandle", QP_IO);
    EXPECT_EQ(read(), std::pair(false, std::string("0")));
    EXPECT_EQ(takeLogLines(), Texts{"getSeqNo: Getting app handle failed. 3"});
    EXPECT_EQ(session().m_prefsHandle, nullptr);
    EXPECT_EQ(read(), std::pair(true, std::string("42")));
}

TEST_F(SeqNo, CannotBeReadFromAStoreThatFails) {
    store(R"({"seqNo": "42"})");
    fakePrefs().failNext("QPAppCopyValue", QP_IO);
    EXPECT_EQ(read(), std::pair(false, std::string("0")));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(SeqNo, OpensTheStoreOnceForManyReadings) {
    read();
    QPHandle* handle = session().m_prefsHandle;
    EXPECT_NE(handle, nullptr);
    read("/b");
    EXPECT_EQ(session().m_prefsHandle, handle);
    EXPECT_EQ(fakePrefs().openHandles(), 1u);
}

TEST_F(SeqNo, IsStaleUpToTheStoredNumber) {
    store(R"({"seqNo": "10"})");
    EXPECT_TRUE(stale("9"));
    EXPECT_TRUE(stale("10"));
    EXPECT_FALSE(stale("11"));
    EXPECT_FALSE(stale("100"));
}

TEST_F(SeqNo, CountsTextThatIsNoNumberAsZero) {
    store(R"({"seqNo": "10"})");
    EXPECT_TRUE(stale("abc"));
    EXPECT_TRUE(stale(""));
    store(R"({"seqNo": "abc"})");
    EXPECT_TRUE(stale("0"));
    EXPECT_FALSE(stale("1"));
}

TEST_F(SeqNo, IsDecimalWhateverItLooksLike) {
    store(R"({"seqNo": "010"})");
    EXPECT_TRUE(stale("10"));
    EXPECT_TRUE(stale("0x20"));
    EXPECT_FALSE(stale("011"));
    EXPECT_TRUE(stale("9 and more"));
}

TEST_F(SeqNo, IsReadFromAnyMemberThatHasAText) {
    store(R"({"seqNo": 42})");
    EXPECT_EQ(read(), std::pair(true, std::string("42")));
    store(R"({"seqNo": "\"4\\2\""})");
    EXPECT_EQ(read(), std::pair(true, std::string("42")));
}

TEST_F(SeqNo, IsNeverStaleWithoutAStoredNumber) {
    EXPECT_FALSE(stale("0"));
    EXPECT_FALSE(stale("abc"));
    EXPECT_FALSE(stale("1"));
}

TEST_F(SeqNo, ComparesNodesApart) {
    store(R"({"seqNo": "10"})", "/a");
    EXPECT_FALSE(stale("1", "/b"));
    EXPECT_TRUE(stale("1", "/a"));
}

TEST_F(SeqNo, IsCommittedAtOnceAndTheStoreReopened) {
    session().persistSeqNo("/u/a", "42");
    EXPECT_EQ(takeEvents(),
              (Texts{"prefs.set " + kAppName + R"( /u/a { "seqNo": "42" })", "prefs.commit " + kAppName}));
    EXPECT_EQ(fakePrefs().stored(kApp), (FakePrefs::Values{{"/u/a", R"({ "seqNo": "42" })"}}));
    EXPECT_NE(session().m_prefsHandle, nullptr);
    EXPECT_EQ(fakePrefs().openHandles(), 1u);
    EXPECT_EQ(read("/u/a"), std::pair(true, std::string("42")));
}

TEST_F(SeqNo, SurvivesARestart) {
    session().persistSeqNo("/a", "42");
    restartService();
    EXPECT_TRUE(stale("42"));
    EXPECT_FALSE(stale("43"));
}

TEST_F(SeqNo, ReplacesTheNumberBefore) {
    session().persistSeqNo("/a", "42");
    session().persistSeqNo("/a", "43");
    EXPECT_EQ(fakePrefs().stored(kApp), (FakePrefs::Values{{"/a", R"({ "seqNo": "43" })"}}));
}

TEST_F(SeqNo, NamesTheNumberInPlaceOfAnEmptyNode) {
    session().persistSeqNo("", "42");
    EXPECT_EQ(takeLogLines(), Texts{"persistSeqNo: Item id not saved Node 42 , SeqNo:"});
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(SeqNo, IsDroppedSilentlyWhenTheStoreCannotBeOpened) {
    fakePrefs().failNext("QPAppGetHandle", QP_IO, 3);
    session().persistSeqNo("/a", "42");
    session().persistSeqNo("", "42");
    session().writeTakenSeqNo("/a", "42", true);
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(SeqNo, LogsAValueThatCannotBeSet) {
    fakePrefs().failNext("QPAppSetValue", QP_BUSY);
    session().persistSeqNo("/a", "42");
    EXPECT_EQ(takeLogLines(), Texts{"persistSeqNo: Error: QPAppSetValue returned 4, On failed"});
    EXPECT_EQ(takeEvents(), Texts{"prefs.commit " + kAppName});
    EXPECT_EQ(fakePrefs().stored(kApp), FakePrefs::Values{});
    session().persistSeqNo("/a", "43");
    EXPECT_EQ(fakePrefs().stored(kApp), (FakePrefs::Values{{"/a", R"({ "seqNo": "43" })"}}));
}

TEST_F(SeqNo, OpensTheStoreAgainAfterAReopeningThatFailed) {
    session().persistSeqNo("/a", "41");
    fakePrefs().failNext("QPAppGetHandle", QP_IO);
    session().persistSeqNo("/a", "42");
    EXPECT_EQ(takeLogLines(), Texts{"persistSeqNo: Getting app handle failed!"});
    EXPECT_EQ(session().m_prefsHandle, nullptr);
    EXPECT_TRUE(stale("42"));
}

TEST_F(SeqNo, BearsACommitThatFails) {
    session().persistSeqNo("/a", "41");
    fakePrefs().failNext("QPAppFreeHandle", QP_IO);
    session().persistSeqNo("/a", "42");
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_FALSE(stale("42"));
    EXPECT_EQ(fakePrefs().openHandles(), 1u);
}

// --- nodes with the name of a record of the deletion store

class SeqNoOfADelete : public SeqNo, public testing::WithParamInterface<const char*> {};

TEST_P(SeqNoOfADelete, IsStoredWhereNoRecordOfTheDeletionStoreCanBe) {
    const std::string node = GetParam();
    const std::string record = R"({ "nodes": [ "\/u\/a" ] })";
    store(record, node);
    EXPECT_FALSE(stale("1", node));
    session().persistSeqNo(node, "42");
    EXPECT_EQ(fakePrefs().stored(kApp).at(node), record);
    for (const auto& [key, value] : fakePrefs().stored(kApp))
        EXPECT_TRUE(key == node || !key.starts_with("delete")) << key;
    EXPECT_TRUE(stale("42", node));
    EXPECT_FALSE(stale("43", node));
    removeSeqNo(node, session());
    EXPECT_FALSE(stale("1", node));
    EXPECT_EQ(fakePrefs().stored(kApp), (FakePrefs::Values{{node, record}}));
}

TEST_P(SeqNoOfADelete, OfAnEarlierReleaseStillCounts) {
    const std::string node = GetParam();
    store(R"({ "seqNo": "42" })", node);
    EXPECT_TRUE(stale("42", node));
    session().persistSeqNo(node, "43");
    EXPECT_FALSE(fakePrefs().stored(kApp).contains(node));
    EXPECT_TRUE(stale("43", node));
    store(R"({ "seqNo": "42" })", node);
    removeSeqNo(node, session());
    EXPECT_EQ(fakePrefs().stored(kApp), FakePrefs::Values{});
}

TEST_P(SeqNoOfADelete, OfAnEarlierReleaseMakesRoomForARecord) {
    const std::string node = GetParam();
    const std::string appId = node.substr(6);
    store(R"({ "seqNo": "42" })", node);
    EXPECT_FALSE(session().removeNodeFromDeleteStore("/u/a", appId));
    store(R"({ "seqNo": "42" })", node);
    EXPECT_TRUE(session().cleanupNodes(appId, ""));
    store(R"({ "seqNo": "42" })", node);
    EXPECT_TRUE(session().addNodeToDeleteStore("/u/a", appId));
    EXPECT_EQ(fakePrefs().stored(kApp).at(node), R"({ "nodes": [ "\/u\/a" ] })");
    EXPECT_TRUE(stale("42", node));
    EXPECT_EQ(takeLog(), Texts{"Node /u/a not present in appid " + appId});
}

INSTANTIATE_TEST_SUITE_P(Names, SeqNoOfADelete,
                         testing::Values("delete", "deletecom.example.mail", "deleted news"));

TEST_F(SeqNo, OfANodeCalledLikeAnAddressOfAProviderIsStoredBesideThat) {
    const std::string address = R"({ "url": "https:\/\/push.example.org\/1" })";
    store(address, "push:u1234@example.org /n");
    session().persistSeqNo("push:u1234@example.org /n", "42");
    EXPECT_EQ(fakePrefs().stored(kApp).at("push:u1234@example.org /n"), address);
    EXPECT_TRUE(stale("42", "push:u1234@example.org /n"));
}

TEST_F(SeqNo, NodesCalledLikeTheKeysOfOthersHaveTheirOwn) {
    session().persistSeqNo("deletex", "1");
    session().persistSeqNo("seqNo:deletex", "2");
    session().persistSeqNo("seqNo:seqNo:deletex", "3");
    EXPECT_EQ(read("deletex").second, "1");
    EXPECT_EQ(read("seqNo:deletex").second, "2");
    EXPECT_EQ(read("seqNo:seqNo:deletex").second, "3");
}

TEST_F(SeqNo, ListingOfDeletionsOutlivesItemsOfANodeCalledDelete) {
    session().addNodeToDeleteStore("/u/a", "com.example.mail");
    session().persistSeqNo("delete", "42");
    EXPECT_TRUE(session().cleanupNodes("com.example.mail", ""));
    session().persistSeqNo("delete", "43");
    EXPECT_EQ(fakePrefs().stored(kApp).at("delete"), R"({ "appid": [ "deletecom.example.mail" ] })");
    EXPECT_TRUE(stale("43", "delete"));
}
