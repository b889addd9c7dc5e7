// SPDX-License-Identifier: GPL-3.0-only
// The client: what it accepts, what it reports, and disposing of it inside callbacks.
#include <gloox/loghandler.h>

#include <memory>

#include "tests/unit/xmpp/dialogue.h"

namespace {

class Messages : public Dialogue {
  protected:
    Messages() {
        logIn();
        listener.events.clear();
    }
};

std::string eventFrom(const std::string& from) {
    return "<message from='" + from +
           "' to='device@example.org/tv'><event xmlns='http://jabber.org/protocol/pubsub#event'><items "
           "node='/a'>"
           "<item id='1' seqNo='2'><payload>x</payload></item></items></event></message>";
}

std::string formFrom(const std::string& from) {
    return "<message from='" + from + "'><x xmlns='jabber:x:data' type='form'/></message>";
}

TEST_F(Messages, ArriveAsTheyCame) {
    const std::string message = eventFrom("pubsub.example.org");
    say(message);
    EXPECT_EQ(listener.events, std::vector<std::string>{"message " + message});
}

TEST_F(Messages, WithEventsOrFormsPassFromTheServiceInAnySpelling) {
    say(eventFrom("PubSub.example.ORG") + formFrom("pubsub.EXAMPLE.org") + eventFrom("pubsub.example.org"));
    EXPECT_EQ(listener.count("message"), 3);
}

class Strangers : public Messages, public testing::WithParamInterface<std::string> {};

TEST_P(Strangers, DoNotGetEventsOrFormsThrough) {
    say(eventFrom(GetParam()) + formFrom(GetParam()));
    say("<message from='" + GetParam() +
        "'><body>hello</body><p:event xmlns:p='http://jabber.org/protocol/pubsub#event'/></message>");
    EXPECT_EQ(listener.count("message"), 0);
}

INSTANTIATE_TEST_SUITE_P(All, Strangers,
                         testing::Values("mallory@evil.example/x", "device@example.org",
                                         "device@example.org/tv", "example.org", "pubsub.example.org/x",
                                         "x@pubsub.example.org", "pubsub.example.org.evil.example", "", "@",
                                         "/x", "@pubsub.example.org"));

TEST_F(Messages, WithAnythingElsePassFromAnyone) {
    say("<message from='friend@example.org'><body>hello</body></message><message/>");
    EXPECT_EQ(listener.count("message"), 2);
}

TEST_F(Messages, WithoutASenderCarryNoEvents) {
    say("<message><event xmlns='http://jabber.org/protocol/pubsub#event'/></message>");
    EXPECT_EQ(listener.count("message"), 0);
}

TEST_F(Messages, OfNobodyPassWhileNoServiceIsKnown) {
    client->setPubSubService(gloox::JID());
    say(eventFrom("pubsub.example.org") + eventFrom(""));
    EXPECT_EQ(listener.count("message"), 0);
}

TEST_F(Messages, ReachNoHandlerThatWasRemoved) {
    client->removeMessageHandler(&listener);
    say(eventFrom("pubsub.example.org"));
    EXPECT_EQ(listener.count("message"), 0);
}

// --- the pieces in which they arrive

class Pieces : public Messages {
  protected:
    // What happened, "m" for each message, "d" when those so far are done.
    std::string events;
    const std::string kMessage = eventFrom("pubsub.example.org");

    Pieces() {
        client->setMessagesDone([this] { events += client && client->isHandlingInput() ? "d" : "D"; });
        listener.atMessage = [this] { events += client->isHandlingInput() ? "m" : "M"; };
        handler.then = [this] { events += 'a'; };
    }
};

TEST_F(Pieces, AreDoneAfterTheirLastMessage) {
    say(kMessage + kMessage);
    EXPECT_EQ(events, "mmD");
    say(kMessage.substr(0, 30));
    say(kMessage.substr(30));
    EXPECT_EQ(events, "mmDDmD");
}

TEST_F(Pieces, HaveTheirMessagesDoneBeforeAnyOtherStanza) {
    const std::string id = manager->getKey(service, "/a", &handler);
    say(kMessage + "<iq type='result' id='" + id + "' from='pubsub.example.org'/>" + kMessage);
    EXPECT_EQ(events, "mdamD");
}

TEST_F(Pieces, HaveTheirMessagesDoneBeforeTheStreamEnds) {
    listener.atDisconnect = [this] { events += 'x'; };
    say(kMessage + "</stream:stream>");
    EXPECT_EQ(events, "mdxD");
}

TEST_F(Pieces, HaveTheirMessagesDoneBeforeMalformedInputEndsTheStream) {
    listener.atDisconnect = [this] { events += 'x'; };
    say(kMessage + "<a></b>");
    EXPECT_EQ(events, "mdxD");
}

TEST_F(Pieces, OfAClientThatIsDisposedOfAreNotReported) {
    listener.atMessage = [this] {
        events += 'm';
        disposeClient();
    };
    say(kMessage + kMessage + "<iq/>");
    settle();
    EXPECT_EQ(events, "m");
}

struct LogLines : gloox::LogHandler {
    std::vector<std::string> incoming;
    int lines = 0;
    void handleLog(gloox::LogLevel, gloox::LogArea area, const std::string& message) override {
        ++lines;
        if (area == gloox::LogAreaXmlIncoming)
            incoming.push_back(message);
    }
};

TEST_F(Messages, AndAnswersAppearInTheDebugLog) {
    LogLines log;
    client->logInstance().registerLogHandler(gloox::LogLevelDebug, 0xffffff, &log);
    const std::string id = manager->getKey(service, "/a", &handler);
    const std::string message = eventFrom("pubsub.example.org");
    const std::string result = "<iq type='result' id='" + id + "' from='pubsub.example.org'/>";
    const std::string ping = "<iq type='get' id='p' from='example.org'><ping xmlns='urn:xmpp:ping'/></iq>";
    say(message + result + ping);
    EXPECT_EQ(log.incoming, (std::vector<std::string>{message, result, ping}));
    client->logInstance().removeLogHandler(&log);
}

TEST_F(Messages, AreLoggedNoMoreOnceTheClientIsDisposedOf) {
    LogLines log;
    client->logInstance().registerLogHandler(gloox::LogLevelDebug, 0xffffff, &log);
    int lines = 0;
    listener.atMessage = [&] {
        disposeClient();
        lines = log.lines;
    };
    say(eventFrom("pubsub.example.org") + "<not-well-formed</a>");
    settle();
    EXPECT_EQ(log.lines, lines);
}

// --- the stream

class Stream : public Dialogue {};

TEST_F(Stream, IsMadeForTlsAndWithoutCompression) {
    const xmpp::Client fresh(gloox::JID("device@example.org/tv"), "secret", 5222);
    EXPECT_EQ(fresh.tls(), gloox::TLSRequired);
    EXPECT_FALSE(fresh.compression());
}

TEST_F(Stream, AnnouncesNothingToTheWorld) {
    logIn();
    EXPECT_TRUE(connection->sent.empty());
}

TEST_F(Stream, SendsPresenceToTheServiceAlone) {
    logIn();
    client->setPresence(service, gloox::Presence::Available, 0, "online");
    EXPECT_EQ(connection->sent,
              std::vector<std::string>{
                  "<presence to='pubsub.example.org' from='device@example.org/tv' xmlns='jabber:client'>"
                  "<priority>0</priority><status>online</status></presence>"});
}

TEST_F(Stream, AnswersPings) {
    logIn();
    say("<iq type='get' id='p1' from='example.org'><ping xmlns='urn:xmpp:ping'/></iq>");
    EXPECT_NE(last().find("type='result'"), std::string::npos);
}

TEST_F(Stream, ReportsTheUsersDisconnectOnce) {
    logIn();
    client->disconnect();
    client->disconnect();
    EXPECT_EQ(listener.events, (std::vector<std::string>{"connect", "disconnect 17"}));
}

TEST_F(Stream, ReportsALossOnce) {
    logIn();
    connection->loses(gloox::ConnIoError);
    connection->loses(gloox::ConnIoError);
    client->disconnect();
    EXPECT_EQ(listener.events, (std::vector<std::string>{"connect", "disconnect 7"}));
}

TEST_F(Stream, ReportsTheServersCloseOnceAndDropsWhatFollows) {
    logIn();
    say("</stream:");
    EXPECT_EQ(listener.count("disconnect"), 0);
    say("stream>\n");
    say(eventFrom("pubsub.example.org"));
    EXPECT_EQ(listener.events, (std::vector<std::string>{"connect", "disconnect 3"}));
}

TEST_F(Stream, ReportsAStreamErrorOnce) {
    logIn();
    say("<stream:error><conflict "
        "xmlns='urn:ietf:params:xml:ns:xmpp-streams'/></stream:error></stream:stream>");
    EXPECT_EQ(listener.events, (std::vector<std::string>{"connect", "disconnect 1"}));
}

TEST_F(Stream, ReportsGarbageOnce) {
    logIn();
    say("<a></b><message/>");
    EXPECT_EQ(listener.events, (std::vector<std::string>{"connect", "disconnect 8"}));
}

TEST_F(Stream, ReportsAFailedConnectOnceWithinConnect) {
    xmpp::Client::setConnectionFactory([](xmpp::Client& owner, const std::string&, int, const std::string&,
                                          GMainContext*) -> gloox::ConnectionBase* {
        auto* refusing = new DialogueConnection(&owner);
        refusing->refusal = gloox::ConnConnectionRefused;
        return refusing;
    });
    EXPECT_FALSE(client->connect("", nullptr));
    EXPECT_EQ(listener.events, std::vector<std::string>{"disconnect 9"});
}

TEST_F(Stream, EndsWhenTheResourceIsRefused) {
    logInUpToBind();
    const std::string bindRequest = connection->sent.back();
    const std::size_t begin = bindRequest.find("id='") + 4;
    say("<iq type='error' id='" + bindRequest.substr(begin, bindRequest.find('\'', begin) - begin) +
        "'><error type='cancel'><conflict xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error></iq>");
    EXPECT_EQ(listener.events, std::vector<std::string>{"disconnect 1"});
}

TEST_F(Stream, EndsWhenTheSessionIsRefused) {
    ASSERT_TRUE(client->connect("", nullptr));
    client->handleConnect(connection);
    const std::string head =
        "<?xml version='1.0'?><stream:stream xmlns='jabber:client' "
        "xmlns:stream='http://etherx.jabber.org/streams' id='s' version='1.0'>";
    say(head +
        "<stream:features><mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'>"
        "<mechanism>PLAIN</mechanism></mechanisms></stream:features>");
    say("<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>");
    say(head +
        "<stream:features><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/>"
        "<session xmlns='urn:ietf:params:xml:ns:xmpp-session'/></stream:features>");
    bind();
    ASSERT_EQ(connection->sent.size(), 1u) << "the session is asked for";
    const std::string request = connection->sent.back();
    const std::size_t begin = request.find("id='") + 4;
    say("<iq type='error' id='" + request.substr(begin, request.find('\'', begin) - begin) +
        "'><error type='wait'><internal-server-error "
        "xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error></iq>");
    EXPECT_EQ(listener.events, std::vector<std::string>{"disconnect 1"});
}

TEST_F(Stream, TakesNoStreamManagementForTheEndOfTheLogin) {
    logInUpToBind();
    say("<enabled xmlns='urn:xmpp:sm:3'/>");
    EXPECT_TRUE(listener.events.empty());
    bind();
    EXPECT_EQ(listener.events, std::vector<std::string>{"connect"});
}

TEST_F(Stream, TakesNoMessagesBeforeTheResourceIsBound) {
    logInUpToBind();
    say(eventFrom("pubsub.example.org"));
    EXPECT_EQ(listener.count("message"), 0);
}

class WithTlsRequired : public Dialogue, public testing::WithParamInterface<std::string> {};

TEST_P(WithTlsRequired, EndsTheStreamWhenTheServerSkipsIt) {
    client->setTls(gloox::TLSRequired);
    ASSERT_TRUE(client->connect("", nullptr));
    client->handleConnect(connection);
    say("<?xml version='1.0'?><stream:stream xmlns='jabber:client' "
        "xmlns:stream='http://etherx.jabber.org/streams' "
        "id='s' version='1.0'>");
    say(GetParam());
    ASSERT_EQ(listener.events.size(), 1u);
    EXPECT_TRUE(listener.events[0] == "disconnect 13" || listener.events[0] == "disconnect 14")
        << listener.events[0];
    for (const std::string& sent : connection->sent)
        EXPECT_EQ(sent.find("<auth"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    All, WithTlsRequired,
    testing::Values(
        "<stream:features><mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'>"
        "<mechanism>PLAIN</mechanism></mechanisms></stream:features>",
        "<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>",
        "<challenge xmlns='urn:ietf:params:xml:ns:xmpp-sasl'>eA==</challenge>",
        "<enabled xmlns='urn:xmpp:sm:3'/>", "<message from='pubsub.example.org'/>",
        "<iq type='result' id='x'/>",
        "<stream:features><starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/></stream:features>"
        "<proceed xmlns='urn:ietf:params:xml:ns:xmpp-tls'/><message from='pubsub.example.org'/>"));

// --- disposing of a client

TEST_F(Stream, NullMayBeDisposedOf) {
    xmpp::Client::dispose(nullptr);
}

TEST_F(Stream, AnIdleClientIsDeletedAtOnceAndSilently) {
    logIn();
    listener.events.clear();
    disposeClient();
    EXPECT_TRUE(clientDeleted);
    EXPECT_TRUE(listener.events.empty());
}

TEST_F(Stream, AClientInTheMiddleOfItsLoginIsDeletedSilently) {
    logInUpToBind();
    disposeClient();
    EXPECT_TRUE(clientDeleted);
    EXPECT_TRUE(listener.events.empty());
}

TEST_F(Stream, AClientThatNeverConnectedIsDeletedAtOnce) {
    disposeClient();
    EXPECT_TRUE(listener.events.empty());
    EXPECT_EQ(manager->getKey(service, "/a", &handler), "");
}

struct Callback {
    const char* name;
    std::function<void()> RecordingListener::*hook;
    const char* stanzas;  // the stanza that causes the call, and more after it
    bool afterLogin;
};

class DisposalInside : public Dialogue, public testing::WithParamInterface<Callback> {
  protected:
    void play() {
        if (GetParam().afterLogin) {
            logIn();
            say(GetParam().stanzas);
        } else {
            logInUpToBind();
            bind();
        }
    }
};

TEST_P(DisposalInside, ACallbackIsPutOffAndEndsEverything) {
    int callsAtDisposal = 0;
    listener.*GetParam().hook = [&] {
        disposeClient();
        callsAtDisposal = static_cast<int>(listener.events.size());
        EXPECT_FALSE(clientDeleted);
    };
    play();
    EXPECT_EQ(static_cast<int>(listener.events.size()), callsAtDisposal);
    EXPECT_GT(callsAtDisposal, 0);
    settle();
    EXPECT_TRUE(clientDeleted);
    EXPECT_EQ(static_cast<int>(listener.events.size()), callsAtDisposal);
}

TEST_P(DisposalInside, ACallbackMayFollowADisconnect) {
    listener.*GetParam().hook = [&] {
        if (!client)
            return;
        client->disconnect();
        disposeClient();
    };
    play();
    settle();
    EXPECT_TRUE(clientDeleted);
    EXPECT_EQ(listener.count("disconnect"), 1);
}

TEST_P(DisposalInside, ACallbackMayBuildTheNextClient) {
    std::unique_ptr<xmpp::Manager> nextManager;
    xmpp::Client* next = nullptr;
    listener.*GetParam().hook = [&] {
        listener.*GetParam().hook = nullptr;
        disposeClient();
        next = new xmpp::Client(gloox::JID("device@example.org/tv"), "secret", 5222);
        nextManager = std::make_unique<xmpp::Manager>(next);
    };
    play();
    EXPECT_NE(nextManager->getKey(service, "/a", &handler), "");
    EXPECT_EQ(manager->getKey(service, "/a", &handler), "");
    settle();
    xmpp::Client::dispose(next);
}

INSTANTIATE_TEST_SUITE_P(
    All, DisposalInside,
    testing::Values(
        Callback{"onConnect", &RecordingListener::atConnect, "", false},
        Callback{"handleMessage", &RecordingListener::atMessage, "<message/><message/></stream:stream>",
                 true},
        Callback{"onDisconnectByServer", &RecordingListener::atDisconnect, "<presence/></stream:stream>",
                 true},
        Callback{"onDisconnectByGarbage", &RecordingListener::atDisconnect, "<a></b>", true},
        Callback{
            "onDisconnectByError", &RecordingListener::atDisconnect,
            "<stream:error><conflict xmlns='urn:ietf:params:xml:ns:xmpp-streams'/></stream:error><message/>",
            true}),
    [](const auto& each) { return each.param.name; });

TEST_F(Stream, TheUsersDisconnectMayDisposeOfTheClientInItsReport) {
    logIn();
    listener.atDisconnect = [this] { disposeClient(); };
    client->disconnect();
    EXPECT_FALSE(clientDeleted);
    settle();
    EXPECT_TRUE(clientDeleted);
}

TEST_F(Stream, TheManagerMayGoBeforeTheClient) {
    logIn();
    delete std::exchange(manager, nullptr);
    say("<iq type='result' id='x' from='pubsub.example.org'/>");
    EXPECT_EQ(listener.count("disconnect"), 0);
}

}  // namespace
