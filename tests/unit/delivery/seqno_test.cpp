// SPDX-License-Identifier: GPL-3.0-only
// The number of the last item of each node: what is stored, what counts as stale, and a store that fails.
#include "tests/fakes/servicefixture.h"

namespace {

constexpr const char* kApp = "com.zelt.pubsubservice";
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
    fakePrefs().failNext("QPAppGetHandle", QP_IO, 2);
    session().persistSeqNo("/a", "42");
    session().persistSeqNo("", "42");
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
