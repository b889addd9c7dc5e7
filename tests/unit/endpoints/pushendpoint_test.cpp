// SPDX-License-Identifier: GPL-3.0-only
// Addresses of a push provider: asked for, stored, renewed, told and forgotten.
#include "tests/unit/endpoints/pushtest.h"

#include "maintenance/methods.h"

namespace {

using PushEndpoint = PushTest;

const std::string kRenewedUrl = "https://push.example.org/push/2";
const std::string kTold =
    R"({ "returnValue": true, "endpoint": "inbox", "url": "https:\/\/push.example.org\/push\/2" })";
const std::string kPresence = "<presence to='push.example.org'";

std::string refused(const std::string& code, const std::string& text) {
    return R"({ "returnValue": false, "endpoint": "inbox", "errorCode": ")" + code + R"(", "errorText": ")" +
           text + "\" }";
}

JsonRef stored() {
    const auto& values = fakePrefs().stored(kPrefs);
    const auto found = values.find(kNodeKey);
    return found == values.end() ? nullptr : parseJson(found->second.c_str());
}

// Half of the registration's time is over.
void passHalf() {
    JsonObject record(stored());
    record.set("renew", int64_t{1});
    fakePrefs().store(kPrefs, kNodeKey, record.text());
}

TEST_F(PushEndpoint, IsOnDiskBeforeItsAddressIsAnswered) {
    const Answer created = askCreate();
    lackExtension();
    takeEvents();
    giveAddress();
    EXPECT_EQ(created.all(), Texts{kAddress});
    const Texts events = takeEvents();
    const auto at = [&](const std::string& start) {
        return std::find_if(events.begin(), events.end(),
                            [&](const std::string& each) { return each.starts_with(start); }) -
               events.begin();
    };
    EXPECT_LT(at("prefs.set " + kPrefs + ' ' + kNodeKey), at("prefs.commit " + kPrefs));
    EXPECT_LT(at("prefs.commit " + kPrefs), at("bus.respond createEndpoint"));
    EXPECT_EQ(textMember(stored().get(), "url"), kUrl);
    EXPECT_EQ(textMember(stored().get(), "jid"), kFullJid);
    EXPECT_EQ(count(lastStanza().textWithoutId()), 1);
    EXPECT_TRUE(lastStanza().xml().starts_with(kPresence)) << lastStanza().xml();
}

TEST_F(PushEndpoint, TellsTheProviderHashesOfASecretThatStaysInTheStore) {
    askCreate();
    lackExtension();
    const gloox::Tag* request = lastRegister().tag().findChild("register");
    gsize length = 0;
    for (const char* name : {"application", "instance"}) {
        g_free(g_base64_decode(request->findAttribute(name).c_str(), &length));
        EXPECT_EQ(length, 32u) << name;
    }
    const std::string ofApplication = request->findAttribute("application");
    const std::string ofEndpoint = request->findAttribute("instance");
    EXPECT_NE(ofApplication, ofEndpoint);
    giveAddress();
    askCreate(R"({"endpoint":"news","webPush":true})");
    EXPECT_EQ(lastRegister().tag().findChild("register")->findAttribute("application"), ofApplication);
    EXPECT_NE(lastRegister().tag().findChild("register")->findAttribute("instance"), ofEndpoint);
    giveAddress("https://push.example.org/push/news");
    ask(createEndpoint, "createEndpoint", kWebPush, "com.example.other 1");
    EXPECT_NE(lastRegister().tag().findChild("register")->findAttribute("application"), ofApplication);
    giveAddress("https://push.example.org/push/other");
    // Without the secret the names are others.
    ASSERT_TRUE(fakePrefs().stored(kPrefs).contains(kPushKey));
    fakePrefs().reset();
    restartService();
    connectSession();
    makeEndpoint();
    EXPECT_NE(instance, ofEndpoint);
}

TEST_F(PushEndpoint, ThatIsKnownKeepsItsAddressUntilHalfOfItsTimeIsOver) {
    makeEndpoint();
    EXPECT_EQ(askCreate(), kAddress);
    EXPECT_EQ(stanzaCount(), 0u);
    passHalf();
    restartService();
    connectSession();
    const Answer created = askCreate();
    lackExtension();
    giveAddress(kRenewedUrl);
    EXPECT_EQ(created, kTold);
    EXPECT_EQ(textMember(stored().get(), "url"), kRenewedUrl);
}

TEST_F(PushEndpoint, OfAnotherProviderIsMadeAnew) {
    makeEndpoint();
    loseConnection();
    setenv("PUBSUB_PUSH_PROVIDER", "other.example.org", 1);
    reconnect();
    fakeServer().forgetStanzas();
    askCreate();
    lackExtension();
    EXPECT_EQ(lastRegister().tag().findAttribute("to"), "other.example.org");
    loseConnection();
}

TEST_F(PushEndpoint, IsRefusedWithTheProvidersReason) {
    const Answer created = askCreate();
    lackExtension();
    refuseFrom(kProvider, lastRegister().id(), "auth", "forbidden");
    EXPECT_EQ(created, refused("xmppErr", "forbidden"));
    const Answer empty = askCreate();
    answerFrom(kProvider, lastRegister().id(), "");
    EXPECT_EQ(empty, refused("xmppErr",
                             "undefined-condition: the push provider push.example.org answers without an "
                             "address"));
    EXPECT_FALSE(stored());
    EXPECT_EQ(session().ownedNodes("com.example.app", "/").size(), 0u);
}

TEST_F(PushEndpoint, ThatTheStoreDoesNotTakeIsRefused) {
    const Answer created = askCreate();
    lackExtension();
    fakePrefs().failNext("QPAppSetValue", QP_IO, 9);
    giveAddress();
    EXPECT_EQ(created, refused("libErr",
                               "The endpoint's address could not be stored. Free space on the disk of the "
                               "preferences"));
    EXPECT_FALSE(stored());
}

TEST_F(PushEndpoint, ThatHasNoSecretIsRefused) {
    const Answer created = askCreate();
    answerError(lastId(), "cancel", "service-unavailable");
    fakePrefs().failNext("QPAppSetValue", QP_IO);
    answerError(idOf(discoStanza("pubsub.example.org")), "cancel", "service-unavailable");
    EXPECT_EQ(created, refused("libErr",
                               "The endpoint's address could not be stored. Free space on the disk of the "
                               "preferences"));
    EXPECT_EQ(registers(), 0);
}

TEST_F(PushEndpoint, IsLookedForAgainInAStoreThatCouldNotBeRead) {
    makeEndpoint();
    restartService();
    setAccountDetails();
    fakePrefs().failNext("QPAppCopyKeysCJ", QP_IO);
    EXPECT_FALSE(session().isPushNode(kNode));
    EXPECT_TRUE(session().isPushNode(kNode));
}

TEST_F(PushEndpoint, WithAVapidKeyIsMadeLikeAnyOther) {
    const Answer created =
        askCreate(R"({"endpoint":"inbox","webPush":true,"vapid":"BA)" + std::string(85, 'A') + "\"}");
    lackExtension();
    giveAddress();
    EXPECT_EQ(created, kAddress);
}

TEST_F(PushEndpoint, CountsTowardsTheApplicationsLimit) {
    JsonArray nodes;
    for (int i = 0; i < 999; ++i)
        nodes.add(nodeOf("e" + std::to_string(i)));
    fakePrefs().store(kPrefs, "deletecom.example.app", JsonObject().set("nodes", nodes.release()).text());
    const Answer created = askCreate();
    lackExtension();
    EXPECT_EQ(askCreate(R"({"endpoint":"news","webPush":true})"),
              refusal("news", "appErr", "Too many endpoints, the limit is 1000. Call deleteEndpoint first"));
    giveAddress();
    EXPECT_EQ(created, kAddress);
}

TEST_F(PushEndpoint, BecomesOneOfTheServerWhenThatHasGotTheExtension) {
    makeEndpoint();
    receivePushes();
    loseConnection();
    reconnect();
    fakeServer().forgetStanzas();
    const Answer created = askCreate();
    answer(lastId(),
           "<key xmlns='urn:zelt:pubsub:device:0' node='" + kNode + "' url='" + kRenewedUrl + "'>KEY</key>");
    EXPECT_EQ(member(created, "url"), kRenewedUrl);
    EXPECT_FALSE(stored());
    expectStanza(limitedStanza());
}

TEST_F(PushEndpoint, IsForgottenWhenItIsDeletedWithoutARequestToTheServer) {
    makeEndpoint();
    receivePushes();
    EXPECT_EQ(ask(deleteEndpoint, "deleteEndpoint").all(), Texts{kSuccess});
    EXPECT_EQ(stanzaCount(), 0u);
    EXPECT_FALSE(stored());
    EXPECT_FALSE(session().keepsOpenItem(kNode));
    EXPECT_EQ(session().ownedNodes("com.example.app", "/").size(), 0u);
    push("p1", "aGVsbG8=");
    EXPECT_EQ(answered("p1"), "cancel item-not-found");
}

TEST_F(PushEndpoint, IsForgottenWithItsApplication) {
    makeEndpoint();
    session().cleanupNodes("com.example.app", "");
    EXPECT_FALSE(stored());
    push("p1", "aGVsbG8=");
    EXPECT_EQ(answered("p1"), "cancel item-not-found");
}

TEST_F(PushEndpoint, IsListedWithNothingThatWaits) {
    makeEndpoint();
    EXPECT_EQ(
        ask(listEndpoints, "listEndpoints", "{}"),
        R"({ "returnValue": true, "endpoints": [ { "endpoint": "inbox", "receiver": false, "subscriber": false, )"
        R"("waiting": 0, "cached": false } ] })");
    EXPECT_EQ(stanzaCount(), 0u);
}

TEST_F(PushEndpoint, OfAnotherAccountIsNeitherUsedNorLost) {
    makeEndpoint();
    restartService();
    setAccountDetails();
    session().setSessionDetails("u1234@example.net", "secret", kResource, kServer, "pubsub.example.net",
                                5222);
    EXPECT_FALSE(session().isPushNode(kNode));
    setAccountDetails();
    EXPECT_TRUE(session().isPushNode(kNode));
}

TEST_F(PushEndpoint, ThatIsDamagedInTheStoreIsMadeAnew) {
    makeEndpoint();
    restartService();
    fakePrefs().store(kPrefs, kNodeKey, "no json");
    connectSession();
    makeEndpoint();
    EXPECT_EQ(textMember(stored().get(), "url"), kUrl);
}

// --- renewals

class PushRenewal : public PushTest {
  protected:
    // Connects with a registration whose renewal is due.
    void connectLate() {
        makeEndpoint();
        loseConnection();
        passHalf();
        restartService();
        setAccountDetails();
        ASSERT_TRUE(session().connectToService());
        pump();
        takeEvents();
        log().clear();
    }
    static std::string alarmIn(const std::string& time) {
        return R"(bus.call zelt://com.zelt.power/timeout/set {"key":"pushRenewalTimer", )"
               R"("uri":"quor://com.zelt.pubsubservice/pushRenewalTimer", "in":")" +
               time + R"(", "wakeup":true, "params":"{}"})";
    }
    static bool has(const Texts& events, const std::string& event) {
        return std::find(events.begin(), events.end(), event) != events.end();
    }
};

TEST_F(PushRenewal, IsDueAtAnAlarmAfterHalfOfTheTime) {
    askCreate();
    lackExtension();
    takeEvents();
    giveAddress(kUrl, 7200);
    const Texts events = takeEvents();
    EXPECT_TRUE(has(events, alarmIn("01:00:00")) || has(events, alarmIn("00:59:59")));
}

TEST_F(PushRenewal, OfAShortOrUnreadableTimeDoesNotWakeTheDeviceAllTheTime) {
    askCreate();
    lackExtension();
    takeEvents();
    giveAddress(kUrl, 10);
    EXPECT_TRUE(has(takeEvents(), alarmIn("00:01:00")));
    askCreate(R"({"endpoint":"news","webPush":true})");
    session().m_pushRenewal.alarm = 0;
    session().forgetPush(kNode);
    answerFrom(
        kProvider, lastRegister().id(),
        "<registered xmlns='" + kPushXmlns + "' expiration='soon' endpoint='https://push.example.org/n'/>");
    const Texts events = takeEvents();
    EXPECT_TRUE(has(events, alarmIn("12:00:00")) || has(events, alarmIn("11:59:59")));
}

TEST_F(PushRenewal, ThatIsDueIsAskedForAtTheConnectAfterThePresence) {
    connectLate();
    const auto& stanzas = fakeServer().stanzas();
    const auto told = std::find_if(stanzas.begin(), stanzas.end(),
                                   [](const SentStanza& each) { return each.xml().starts_with(kPresence); });
    ASSERT_NE(told, stanzas.end());
    ASSERT_NE(told + 1, stanzas.end());
    EXPECT_NE((told + 1)->xml().find("<register "), std::string::npos);
    EXPECT_EQ(lastRegister().tag().findChild("register")->findAttribute("instance"), instance);
    EXPECT_EQ(registers(), 1);
}

TEST_F(PushRenewal, ThatIsNotDueIsLeftAlone) {
    makeEndpoint();
    loseConnection();
    reconnect();
    EXPECT_EQ(registers(), 0);
    callPrivate(pushRenewalTimer, "pushRenewalTimer", "{}");
    EXPECT_EQ(registers(), 0);
}

TEST_F(PushRenewal, WithoutAChangeTellsNobody) {
    connectLate();
    const Answer receiver = askReceive();
    giveAddress();
    EXPECT_EQ(receiver.all().size(), 1u);
    EXPECT_GT(json_object_get_int64(jsonMember(stored().get(), "renew")), 1);
}

TEST_F(PushRenewal, WithAnotherAddressIsToldToTheReceiverOnceItIsOnDisk) {
    connectLate();
    const Answer receiver = askReceive();
    takeEvents();
    giveAddress(kRenewedUrl);
    ASSERT_EQ(receiver.all().size(), 2u);
    EXPECT_EQ(receiver.all().back(), kTold);
    const Texts events = takeEvents();
    const auto commit = std::find(events.begin(), events.end(), "prefs.commit " + kPrefs);
    EXPECT_LT(commit, std::find(events.begin(), events.end(), "bus.respond receive " + kTold));
    EXPECT_EQ(jsonMember(stored().get(), "untold"), nullptr);
}

TEST_F(PushRenewal, WithAnotherAddressIsToldToTheNextReceiverAlsoAfterARestart) {
    connectLate();
    giveAddress(kRenewedUrl);
    EXPECT_TRUE(boolMember(stored().get(), "untold"));
    restartService();
    connectSession();
    const Answer receiver = askReceive();
    ASSERT_EQ(receiver.all().size(), 2u);
    EXPECT_EQ(receiver.all().back(), kTold);
    fakeBus().clientDies(receiver.message());
    EXPECT_EQ(askReceive().all().size(), 1u) << "it was told";
}

TEST_F(PushRenewal, WithAnotherAddressThatCannotBeWrittenIsToldToTheNextReceiver) {
    connectLate();
    const Answer receiver = askReceive();
    takeLog();
    fakeBus().failNext("QSMessageRespond", -1, "full");
    giveAddress(kRenewedUrl);
    EXPECT_EQ(receiver.all().size(), 1u);
    EXPECT_EQ(takeLog(), Texts{"Sending an address to the receiver " + receiver.message()->client +
                               " failed. Bus error full "});
    fakeBus().clientDies(receiver.message());
    EXPECT_EQ(askReceive().all().back(), kTold);
}

TEST_F(PushRenewal, WhoseAlarmCannotBeSetIsDueAtTheNextConnect) {
    askCreate();
    lackExtension();
    takeLog();
    fakeBus().failNext("QSCall", -1, "gone", 2);  // the keep-alive's is the first
    giveAddress();
    EXPECT_EQ(takeLog().back(), "Setting the alarm for push addresses failed. Error gone ");
    EXPECT_EQ(session().m_pushRenewal.alarm, 0);
}

TEST_F(PushRenewal, ThatIsRefusedOrNotAnsweredIsTriedAgainLater) {
    connectLate();
    refuseFrom(kProvider, lastRegister().id(), "wait", "internal-server-error");
    EXPECT_EQ(textMember(stored().get(), "url"), kUrl);
    callPrivate(pushRenewalTimer, "pushRenewalTimer", "{}");
    EXPECT_EQ(registers(), 1) << "before its time";
    const Texts events = takeEvents();
    EXPECT_TRUE(has(events, alarmIn("00:15:00")) || has(events, alarmIn("00:14:59")));
    session().m_pushRenewal.tries[kNode].next = 1;
    const std::string lost = lastRegister().id();
    callPrivate(pushRenewalTimer, "pushRenewalTimer", "{}");
    EXPECT_EQ(registers(), 2);
    answerFrom(kProvider, lost, "");  // comes late, and counts for nothing
    loseConnection();
    callPrivate(pushRenewalTimer, "pushRenewalTimer", "{}");
    reconnect();
    EXPECT_EQ(registers(), 1);
    giveAddress(kRenewedUrl);
    EXPECT_EQ(textMember(stored().get(), "url"), kRenewedUrl);
}

TEST_F(PushRenewal, OfAnEndpointThatWasDeletedMeanwhileMakesNone) {
    connectLate();
    ask(deleteEndpoint, "deleteEndpoint");
    giveAddress(kRenewedUrl);
    EXPECT_FALSE(stored());
}

TEST_F(PushRenewal, ThatTheStoreDoesNotTakeKeepsTheAddress) {
    connectLate();
    const Answer receiver = askReceive();
    fakePrefs().failNext("QPAppSetValue", QP_IO, 9);
    giveAddress(kRenewedUrl);
    EXPECT_EQ(receiver.all().size(), 1u);
    EXPECT_EQ(textMember(stored().get(), "url"), kUrl);
}

}  // namespace
