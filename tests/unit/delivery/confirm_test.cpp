// SPDX-License-Identifier: GPL-3.0-only
// Handlers that confirm: their answer acknowledges the item, and until then the item stays.
#include "delivery/methods.h"
#include "tests/fakes/waitfor.h"
#include "tests/unit/delivery/incomingtest.h"

namespace {

const std::string kOne = "zelt://com.example.one/item";
const std::string kTwo = "zelt://com.example.two/item";

std::string limited(const std::string& seqNo) {
    return "<iq to='pubsub.example.org' id='ID' type='set'><activate xmlns='urn:zelt:pubsub:device:0' "
           "node='" +
           kNode + "' seqNo='" + seqNo + "' limit='1'/></iq>";
}

const std::string kDeactivate =
    "<iq to='pubsub.example.org' id='ID' type='set'><deactivate xmlns='urn:zelt:pubsub:device:0' node='" +
    kNode + "'/></iq>";

std::string ackOf(const std::string& id, const std::string& seqNo) {
    return "xmpp.send <message to='pubsub.example.org' id='ID'><ack xmlns='urn:zelt:pubsub:device:0' node='" +
           kNode + "' id='" + id + "' seqNo='" + seqNo + "'/></message>";
}

}  // namespace

class Confirm : public Incoming {
  protected:
    Answer registerHandler(const std::string& endpoint, const std::string& more = R"(,"confirm":true)") {
        return call(registerItemCallback,
                    R"({"node":")" + kNode + R"(","endpoint":")" + endpoint + '"' + more + '}');
    }
    Answer unregisterHandler(const std::string& endpoint) {
        return call(unRegisterItemCallback,
                    R"({"node":")" + kNode + R"(","endpoint":")" + endpoint + R"(","app":false})");
    }
    // A confirming handler whose node is active; the events until then are cleared.
    void confirmWith(const std::string& endpoint) {
        EXPECT_EQ(registerHandler(endpoint), R"({ "returnValue": true })");
        answer(expectStanza(limited("0")));
        takeEvents();
        fakeServer().forgetStanzas();
    }
    void confirmed(const std::string& endpoint, const std::string& answer = R"({"returnValue":true})") {
        EXPECT_TRUE(fakeBus().replyTo(endpoint, answer)) << endpoint << " has not been called";
        pump();
    }
    std::size_t callsOf(const std::string& endpoint) { return fakeBus().payloadsTo(endpoint).size(); }
    bool isStored() { return fakePrefs().stored(kPrefs).contains(kNode); }
    std::string handlerFileText() { return fileText(stateFolder() / "pubsubhandlers.conf"); }
};

TEST_F(Confirm, TheAnswerIsTheAcknowledgement) {
    confirmWith(kOne);
    pushItem(kNode, "7", "i1", "hello");
    const Texts before = takeEvents();
    EXPECT_EQ(before.back(), "bus.call " + kOne + ' ' + serviceObject("hello", "i1"));
    EXPECT_FALSE(isStored());
    confirmed(kOne);
    EXPECT_EQ(takeEvents(), join({persisted("7"), {ackOf("i1", "7")}}));
    EXPECT_EQ(session().m_dueTimer, 0u) << "nothing is left to wake the process";
    EXPECT_FALSE(isCached());
}

TEST_F(Confirm, ItemsOfANodeGoOneAfterTheOther) {
    confirmWith(kOne);
    pushItem(kNode, "7", "i1", "first");
    pushItem(kNode, "8", "i2", "second");
    EXPECT_EQ(callsOf(kOne), 1u);
    confirmed(kOne);
    ASSERT_EQ(callsOf(kOne), 2u);
    EXPECT_EQ(fakeBus().payloadsTo(kOne).back(), serviceObject("second", "i2"));
    confirmed(kOne);
    EXPECT_EQ(fakePrefs().stored(kPrefs).at(kNode), R"({ "seqNo": "8" })");
}

class NoConfirmation : public Confirm, public testing::WithParamInterface<const char*> {};

TEST_P(NoConfirmation, LeavesTheItemAndTheHandlerIsCalledAgain) {
    confirmWith(kOne);
    pushItem(kNode, "7", "i1", "hello");
    confirmed(kOne, GetParam());
    EXPECT_FALSE(isStored());
    EXPECT_EQ(callsOf(kOne), 1u) << "not at once";
    waitFor([&] { return callsOf(kOne) == 2; });
    confirmed(kOne);
    EXPECT_TRUE(isStored());
}

INSTANTIATE_TEST_SUITE_P(Answers, NoConfirmation,
                         testing::Values(R"({"returnValue":false})", "{}", "no json",
                                         R"({"returnValue":"true"})"));

TEST_F(Confirm, AnErrorOfTheBusLeavesTheItem) {
    confirmWith(kOne);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_TRUE(fakeBus().replyErrorTo(kOne, "org.freedesktop.DBus.Error.ServiceUnknown", "nobody"));
    pump();
    EXPECT_FALSE(isStored());
    EXPECT_NE(session().m_dueTimer, 0u);
}

TEST_F(Confirm, AServiceThatAppearsIsCalledAtOnce) {
    fakeBus().knowServices();
    confirmWith(kOne);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(callsOf(kOne), 0u);
    EXPECT_TRUE(fakeBus().serverStatus("com.example.one", true));
    EXPECT_EQ(callsOf(kOne), 1u);
    confirmed(kOne);
    EXPECT_TRUE(isStored());
}

TEST_F(Confirm, EveryConfirmingHandlerHasToConfirmAndTheOthersAreCalledOnce) {
    registerHandler("zelt://com.example.plain/item", "");
    confirmWith(kOne);
    registerHandler(kTwo);
    pushItem(kNode, "7", "i1", "hello");
    confirmed(kOne);
    EXPECT_FALSE(isStored());
    confirmed(kTwo, R"({"returnValue":false})");
    waitFor([&] { return callsOf(kTwo) == 2; });
    EXPECT_EQ(callsOf(kOne), 1u) << "it has confirmed";
    EXPECT_EQ(callsOf("zelt://com.example.plain/item"), 1u);
    confirmed(kTwo);
    EXPECT_TRUE(isStored());
}

TEST_F(Confirm, NodesAreActivatedBeforeThePresence) {
    confirmWith(kOne);
    fakeServer().closesWith(gloox::ConnStreamError);
    pump();
    fakeServer().forgetStanzas();
    ASSERT_TRUE(session().connectToService());
    pump();
    ASSERT_GE(stanzaCount(), 2u);
    EXPECT_EQ(fakeServer().stanzas()[0].textWithoutId(), limited("0"));
    EXPECT_EQ(fakeServer().stanzas()[1].tag().name(), "presence");
}

TEST_F(Confirm, AHandlerThatIsWithdrawnIsCalledNoMoreAndTheItemGivenBack) {
    confirmWith(kOne);
    pushItem(kNode, "7", "i1", "hello");
    unregisterHandler(kOne);
    answer(expectStanza(kDeactivate));
    EXPECT_FALSE(session().keepsOpenItem(kNode));
    EXPECT_FALSE(isStored());
    EXPECT_EQ(session().m_dueTimer, 0u);
    EXPECT_FALSE(fakeBus().replyTo(kOne, R"({"returnValue":true})")) << "the call was cancelled";
}

TEST_F(Confirm, AHandlerThatIsLeftGetsItemsAsEver) {
    registerHandler("zelt://com.example.plain/item", "");
    confirmWith(kOne);
    unregisterHandler(kOne);
    answer(expectStanza(kDeactivate));
    answer(lastId());
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(callsOf("zelt://com.example.plain/item"), 1u);
    EXPECT_TRUE(isStored());
}

TEST_F(Confirm, AnItemForAnUnansweredActivationIsAskedForAgain) {
    registerHandler(kOne);
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(callsOf(kOne), 0u);
    answer(lastId());
    answer(expectStanza(kDeactivate));
    expectStanza(limited("0"));
}

TEST_F(Confirm, AnActivationThatFailedIsTriedAgainWithTheNextItem) {
    registerHandler(kOne);
    answerError(lastId(), "cancel", "item-not-found");
    fakeServer().forgetStanzas();
    pushItem(kNode, "7", "i1", "hello");
    answer(expectStanza(limited("0")));
    EXPECT_EQ(callsOf(kOne), 0u);
}

TEST_F(Confirm, AnActivationThatWasRefusedWhileAnItemWaitedForItsHandlerIsAskedForAgainAfterTheItem) {
    confirmWith(kOne);
    pushItem(kNode, "7", "i1", "hello");
    fakeServer().closesWith(gloox::ConnStreamError);
    pump();
    fakeServer().forgetStanzas();
    ASSERT_TRUE(session().connectToService());
    pump();
    answerError(fakeServer().stanzas()[0].id(), "wait", "resource-constraint");
    fakeServer().forgetStanzas();
    confirmed(kOne);
    EXPECT_TRUE(isStored());
    waitFor([&] { return stanzaCount() == 2; });
    answer(expectStanza(limited("7")));
    pushItem(kNode, "8", "i2", "second");
    EXPECT_EQ(callsOf(kOne), 2u);
}

// --- the registration

TEST_F(Confirm, IsKeptInTheRecordOverEveryRewriteAndRestart) {
    registerHandler(kOne);
    registerHandler(kTwo, "");
    registerHandler("zelt://com.example.three/item", "");
    unregisterHandler("zelt://com.example.three/item");
    EXPECT_EQ(handlerFileText(),
              R"({ "node": ")" + kShown +
                  R"(", "app": false, "endpoint": "zelt:\/\/com.example.one\/item", "confirm": true })" +
                  std::string("\0\n", 2) + R"({ "node": ")" + kShown +
                  R"(", "app": false, "endpoint": "zelt:\/\/com.example.two\/item" })" +
                  std::string("\0\n", 2));
    restartService();
    session().ReadHandlerFile();
    EXPECT_EQ(session().m_confirming.at(kNode), std::set<std::string>{kOne});
}

TEST_F(Confirm, ARepeatedRegistrationDecidesAnew) {
    registerHandler(kOne, "");
    registerHandler(kOne);
    EXPECT_TRUE(session().m_confirming.contains(kNode));
    EXPECT_NE(handlerFileText().find(R"("confirm": true)"), std::string::npos);
    registerHandler(kOne, "");
    EXPECT_FALSE(session().m_confirming.contains(kNode));
    EXPECT_EQ(handlerFileText().find("confirm"), std::string::npos);
}

TEST_F(Confirm, OnlyTrueConfirms) {
    registerHandler(kOne, R"(,"confirm":"yes")");
    registerHandler(kTwo, R"(,"confirm":false)");
    EXPECT_TRUE(session().m_confirming.empty());
    EXPECT_EQ(stanzaCount(), 0u);
}

TEST_F(Confirm, AReceiverComesBeforeTheHandlers) {
    confirmWith(kOne);
    pushItem(kNode, "7", "i1", "hello");
    ASSERT_EQ(callsOf(kOne), 1u);
    session().setReceiver({kNode}, std::make_shared<_receiverStruct>());
    answer(expectStanza(kDeactivate));
    EXPECT_FALSE(fakeBus().replyTo(kOne, R"({"returnValue":true})")) << "the call was cancelled";
    session().dropReceiver({kNode});
    answer(expectStanza(kDeactivate));
    answer(expectStanza(limited("0")));
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(callsOf(kOne), 2u);
    confirmed(kOne);
    EXPECT_TRUE(isStored());
}

TEST_F(Confirm, AHandlerThatDoesNotAnswerInTimeIsCalledAgain) {
    confirmWith(kOne);
    pushItem(kNode, "7", "i1", "hello");
    // As if the 60 s were over.
    _openNodeStruct& entry = session().m_openNodes[kNode];
    session().clearDue(kNode, entry);
    session().setDue(kNode, entry, 0);
    takeLogLines();
    waitFor([&] { return callsOf(kOne) == 2; });
    EXPECT_EQ(takeLogLines().size(), 1u);
    EXPECT_FALSE(isStored());
    confirmed(kOne);
    EXPECT_TRUE(isStored());
}

TEST_F(Confirm, AHandlerWithoutAServiceInItsAddressIsTriedAgain) {
    confirmWith("nowhere");
    takeLogLines();
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeLogLines(),
              Texts{"askHandlers: Calling the handler nowhere failed, it is tried again: not a bus address: "
                    "nowhere"});
    EXPECT_NE(session().m_dueTimer, 0u);
    EXPECT_FALSE(isStored());
}

TEST_F(Confirm, AHandlerThatDoesNotConfirmAndCannotBeCalledHoldsNothingUp) {
    registerHandler("nowhere", "");
    confirmWith(kOne);
    takeLogLines();
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeLogLines(),
              Texts{"askHandlers: Calling the handler nowhere failed: not a bus address: nowhere"});
    confirmed(kOne);
    EXPECT_TRUE(isStored());
}

TEST_F(Confirm, AServiceThatCannotBeWatchedIsCalledAllTheSame) {
    confirmWith(kOne);
    takeLogLines();
    fakeBus().failNext("QSCall", -ENOBUFS, "no room", 1, 1);  // after the alarm
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(takeLogLines(),
              Texts{"watchHandlerService: Watching the service com.example.one failed: no room"});
    confirmed(kOne);
    EXPECT_TRUE(isStored());
}

TEST_F(Confirm, ACallThatCannotBeCancelledIsLogged) {
    confirmWith(kOne);
    pushItem(kNode, "7", "i1", "hello");
    takeLogLines();
    fakeBus().failNext("QSCallCancel", -EINVAL, "no call");
    unregisterHandler(kOne);
    EXPECT_EQ(takeLogLines().size(), 1u);
}
