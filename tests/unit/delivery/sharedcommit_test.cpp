// SPDX-License-Identifier: GPL-3.0-only
// Items that arrive in one piece of input: one commit of their numbers, each item's own order kept.
#include "nodes/methods.h"
#include "tests/unit/delivery/incomingtest.h"

class SharedCommit : public Incoming {
  protected:
    const std::string kOther = "/u1234/dev42/com.example.app/other";
    const std::string kEndpoint = "zelt://com.example.one/item";

    void SetUp() override {
        Incoming::SetUp();
        bool present = false;
        for (const std::string& node : {kNode, kOther})
            session().addNodeToMap(node, kEndpoint, false, present);
    }

    static std::string item(const std::string& seqNo, const std::string& node = kNode) {
        return "<message from='pubsub.example.org' to='u1234@example.org/dev42'><event "
               "xmlns='http://jabber.org/protocol/pubsub#event'><items node='" +
               node + "'><item id='i" + seqNo + "' seqNo='" + seqNo + "'><payload>text</payload></item>" +
               "</items></event></message>";
    }
    // The call that delivers the item, and its number, which is not committed yet.
    Texts delivered(const std::string& seqNo) {
        return {kPing, "bus.call " + kEndpoint + ' ' + serviceObject("text", "i" + seqNo), written(seqNo)};
    }
    static std::string written(const std::string& seqNo) { return persisted(seqNo)[0]; }
    static std::string committed() { return persisted("")[1]; }
};

TEST_F(SharedCommit, ItemsOfOnePieceOfInputAreAcknowledgedInTheirOrderAfterTheOneCommitOfTheirNumbers) {
    serverSends(item("7") + item("8") + item("9"));
    EXPECT_EQ(takeEvents(), join({delivered("7"),
                                  delivered("8"),
                                  delivered("9"),
                                  {committed(), ack("i7"), ack("i8"), ack("i9")}}));
    EXPECT_EQ(fakePrefs().stored(kPrefs), (FakePrefs::Values{{kNode, R"({ "seqNo": "9" })"}}));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(SharedCommit, PiecesOfInputHaveACommitEach) {
    serverSends(item("7"));
    EXPECT_EQ(takeEvents(), join({delivered("7"), {committed(), ack("i7")}}));
    serverSends(item("8"));
    EXPECT_EQ(takeEvents(), join({delivered("8"), {committed(), ack("i8")}}));
}

TEST_F(SharedCommit, ItemBelongsToThePieceThatCompletesIt) {
    const std::string second = item("8");
    serverSends(item("7") + second.substr(0, 40));
    EXPECT_EQ(takeEvents(), join({delivered("7"), {committed(), ack("i7")}}));
    serverSends(second.substr(40));
    EXPECT_EQ(takeEvents(), join({delivered("8"), {committed(), ack("i8")}}));
}

TEST_F(SharedCommit, NumbersOfSeveralNodesShareItToo) {
    serverSends(item("7") + item("3", kOther));
    Texts events = takeEvents();
    ASSERT_EQ(events.size(), 9u);
    EXPECT_EQ(Texts(events.begin() + 6, events.end()), (Texts{committed(), ack("i7"), ack("i3", kOther)}));
    EXPECT_EQ(fakePrefs().stored(kPrefs),
              (FakePrefs::Values{{kNode, R"({ "seqNo": "7" })"}, {kOther, R"({ "seqNo": "3" })"}}));
}

TEST_F(SharedCommit, RepeatedItemIsStaleByANumberThatIsNotCommittedYetAndWaitsForTheCommit) {
    serverSends(item("7") + item("7") + item("6"));
    EXPECT_EQ(takeEvents(),
              join({delivered("7"), {kPing, kPing, committed(), ack("i7"), ack("i7"), ack("i6")}}));
}

TEST_F(SharedCommit, StaleItemsAloneCommitNothing) {
    storeSeqNo("7");
    serverSends(item("7") + item("6"));
    EXPECT_EQ(takeEvents(), (Texts{kPing, kPing, ack("i7"), ack("i6")}));
}

TEST_F(SharedCommit, ItemThatCannotBeCachedIsLeftOutOfIt) {
    session().serviceNodeMap.erase(kOther);
    std::filesystem::remove_all(stateFolder() / "cache");
    serverSends(item("7") + item("3", kOther) + item("8"));
    EXPECT_EQ(takeEvents(),
              join({delivered("7"), {kPing}, delivered("8"), {committed(), ack("i7"), ack("i8")}}));
    EXPECT_FALSE(fakePrefs().stored(kPrefs).contains(kOther));
    EXPECT_EQ(takeLog().size(), 1u);
}

TEST_F(SharedCommit, ItemsAreAcknowledgedAlsoWhenItFailsAndAreTakenAgain) {
    serverSends(item("6"));
    takeEvents();
    fakePrefs().failNext("QPAppFreeHandle", QP_IO);
    serverSends(item("7") + item("8"));
    const Texts events = takeEvents();
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(Texts(events.end() - 2, events.end()), (Texts{ack("i7"), ack("i8")}));
    EXPECT_EQ(fakePrefs().stored(kPrefs), (FakePrefs::Values{{kNode, R"({ "seqNo": "6" })"}}));
    serverSends(item("7"));
    EXPECT_EQ(takeEvents(), join({delivered("7"), {committed(), ack("i7")}}));
}

TEST_F(SharedCommit, FailureToOpenTheStoreAgainIsLoggedAsThatOfANumber) {
    serverSends(item("6"));
    fakePrefs().failNext("QPAppGetHandle", QP_IO);
    serverSends(item("7") + item("8"));
    EXPECT_EQ(takeLogLines(), Texts{"persistSeqNo: Getting app handle failed!"});
    EXPECT_EQ(fakePrefs().stored(kPrefs), (FakePrefs::Values{{kNode, R"({ "seqNo": "8" })"}}));
}

// --- what does not wait for the end of the piece

TEST_F(SharedCommit, NumberIsCommittedBeforeTheServerIsToldItByAnActivation) {
    session().serviceNodeMap.clear();
    session().setSubMap(kNode, "com.example.app", nullptr);  // its client cancelled: items are cached
    serverSends(item("7") + item("7"));
    EXPECT_EQ(takeEvents(), (Texts{kPing, written("7"), kPing, committed(), ack("i7"), ack("i7"),
                                   "xmpp.send <iq to='pubsub.example.org' id='ID' type='set'><activate "
                                   "xmlns='urn:zelt:pubsub:device:0' node='" +
                                       kNode + "' seqNo='7'/></iq>"}));
}

TEST_F(SharedCommit, ItemsAreSettledBeforeAnyOtherStanzaOfTheirPiece) {
    const Answer request = call(createNode, R"({"node":"/u1234/dev42/new"})");
    const std::string id = lastId();
    takeEvents();
    serverSends(item("7") + "<iq type='result' from='pubsub.example.org' id='" + id + "'/>" + item("8"));
    const Texts events = takeEvents();
    EXPECT_EQ(Texts(events.begin(), events.begin() + 5), join({delivered("7"), {committed(), ack("i7")}}));
    EXPECT_NE(request.text(), "");
    EXPECT_EQ(Texts(events.end() - 5, events.end()), join({delivered("8"), {committed(), ack("i8")}}));
}

TEST_F(SharedCommit, ItemsBeforeTheEndOfTheStreamAreAcknowledged) {
    serverSends(item("7") + item("8") + "</stream:stream>");
    const Texts events = takeEvents();
    const Texts settled = join({delivered("7"), delivered("8"), {committed(), ack("i7"), ack("i8")}});
    ASSERT_GE(events.size(), settled.size());
    EXPECT_EQ(Texts(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(settled.size())), settled);
    EXPECT_FALSE(session().m_connected);
}

TEST_F(SharedCommit, ItemsBeforeMalformedInputAreAcknowledged) {
    serverSends(item("7") + item("8") + "<a></b>");
    const Texts events = takeEvents();
    const Texts settled = join({delivered("7"), delivered("8"), {committed(), ack("i7"), ack("i8")}});
    ASSERT_GE(events.size(), settled.size());
    EXPECT_EQ(Texts(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(settled.size())), settled);
    EXPECT_FALSE(session().m_connected);
}
