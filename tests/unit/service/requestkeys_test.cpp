// SPDX-License-Identifier: GPL-3.0-only
// How members of a request are read: a text without its double quotes and backslashes, in every method and
// key; a boolean by json-c's conversion, wherever one is read.
#include <functional>

#include "delivery/methods.h"
#include "endpoints/methods.h"
#include "maintenance/methods.h"
#include "nodes/methods.h"
#include "service/cancel.h"
#include "service/methods.h"
#include "service/network.h"
#include "service/watchers.h"
#include "tests/fakes/servicefixture.h"

namespace {

const std::string kInbox = "/u1234/dev42/com.example.app/inbox";

// --- texts

struct TextKey {
    const char* name;
    QSFilter handler;
    bool isPublic;
    const char* payload;  // '$' stands for the value
    const char* value;
};

std::string replaced(const std::string& text, const std::string& value) {
    const std::size_t at = text.find('$');
    return text.substr(0, at) + value + text.substr(at + 1);
}

std::string inQuotes(const std::string& text) {
    return '"' + text + '"';
}

// The text with a quote and a backslash at every position.
std::string withQuotesAndBackslashes(const std::string& text) {
    std::string dirty = R"("\")";
    for (const char character : text)
        dirty += std::string(1, character) + R"(\"\\)";
    return dirty + '"';
}

class TextKeys : public ServiceTest, public testing::WithParamInterface<TextKey> {
  protected:
    // All effects of a request with this JSON text as the value: what was sent, and what is kept.
    Texts outcomeOf(const std::string& value) {
        restartService();
        fakePrefs().reset();
        fakePrefs().store("com.zelt.pubsubservice", "deletecom.example.app", R"({"nodes":["/n"]})");
        std::filesystem::create_directory(stateFolder() / "cache");
        connectSession();
        session().setSubMap(kInbox, "com.example.app", nullptr);
        session().setOfflineMap(kInbox, "com.example.app");
        for (const bool app : {false, true})
            session().addNodeToMap("node", "zelt://com.example.one/item", app, m_ignored);
        session().m_onCloseRegistered = true;
        takeEvents();
        const std::string payload = replaced(GetParam().payload, value);
        const Answer answer = GetParam().isPublic ? callPublic(GetParam().handler, "method", payload)
                                                  : callPrivate(GetParam().handler, "method", payload);
        Texts outcome = answer.all();
        for (const std::string& event : takeEvents())
            outcome.push_back(event);
        for (const auto& [node, endpoints] : session().serviceNodeMap)
            for (const std::string& endpoint : endpoints)
                outcome.push_back("service handler " + node + ' ' + endpoint);
        for (const auto& [node, endpoints] : session().appNodeMap)
            for (const std::string& endpoint : endpoints)
                outcome.push_back("application handler " + node + ' ' + endpoint);
        for (const auto& [node, subscriber] : session().subMap)
            outcome.push_back("subscriber " + node + ' ' + subscriber.appId);
        for (const auto& [node, appId] : session().m_offlineMap)
            outcome.push_back("offline " + node + ' ' + appId);
        for (const auto& [id, message] : session().m_msgMap)
            if (id.starts_with("handleAuth:"))
                outcome.push_back("listener " + id);
        for (const auto& [key, stored] : fakePrefs().stored("com.zelt.pubsubservice"))
            outcome.push_back("stored " + key + ' ' + stored);
        for (const SentStanza& stanza : fakeServer().stanzas())
            if (stanza.xml().starts_with("<message"))
                outcome.push_back("message " + stanza.id());
        outcome.push_back(session().m_jid.full() + ' ' + session().m_password + ' ' + session().m_server +
                          ' ' + session().m_pubsubService);
        return outcome;
    }

  private:
    bool m_ignored = false;
};

TEST_P(TextKeys, LoseTheirQuotesAndBackslashes) {
    const std::string value = GetParam().value;
    const Texts clean = outcomeOf(inQuotes(value));
    EXPECT_EQ(outcomeOf(withQuotesAndBackslashes(value)), clean);
    EXPECT_NE(outcomeOf(inQuotes(value + "x")), clean)
        << "the value does not show in what the request leaves";
}

constexpr char kEndpointAlone[] = R"({"endpoint":$})";

INSTANTIATE_TEST_SUITE_P(
    OfEveryMethod, TextKeys,
    testing::Values(
        TextKey{"CreateNodeNode", createNode, false, R"({"node":$})", "/n"},
        TextKey{"CreateNodeParent", createNode, false, R"({"node":"/n","parent":$})", "/p"},
        TextKey{"CreateNodeTitle", createNode, false, R"({"node":"/n","title":$})", "title"},
        TextKey{"DeleteNodeNode", deleteNode, false, R"({"node":$})", "/n"},
        TextKey{"PublishItemNode", publishItemToNode, false, R"({"node":$,"item":"i"})", "/n"},
        TextKey{"SetNodeConfigNode", setNodeConfig, false, R"({"node":$,"options":{"a":"b"}})", "/n"},
        TextKey{"GetNodeConfigNodes", getNodeConfig, false, R"({"nodes":["/a",$]})", "/n"},
        TextKey{"SubscribeNodeAuthNodes", subscribeNodeAuth, false, R"({"subscribe":true,"nodes":["/a",$]})",
                "/n"},
        TextKey{"ApprovePendingNode", approvePending, false,
                R"({"node":$,"id":"i","subid":"s","approve":"true","subscriber_jid":"a@example.net"})", "/n"},
        TextKey{"ApprovePendingId", approvePending, false,
                R"({"node":"/n","id":$,"subid":"s","approve":"true","subscriber_jid":"a@example.net"})", "i"},
        TextKey{"ApprovePendingSubid", approvePending, false,
                R"({"node":"/n","id":"i","subid":$,"approve":"true","subscriber_jid":"a@example.net"})", "s"},
        TextKey{"ApprovePendingApprove", approvePending, false,
                R"({"node":"/n","id":"i","subid":"s","approve":$,"subscriber_jid":"a@example.net"})", "true"},
        TextKey{"ApprovePendingSubscriber", approvePending, false,
                R"({"node":"/n","id":"i","subid":"s","approve":"true","subscriber_jid":$})", "a@example.net"},
        TextKey{"SubscribeToNodeNode", subscribeToNode, false, R"({"node":$})", "/n"},
        TextKey{"SubscribeToNodeJid", subscribeToNode, false, R"({"node":"/n","jid":$})", "a@example.net"},
        TextKey{"UnsubscribeFromNodeNode", unsubscribeFromNode, false,
                R"({"node":$,"jid":"a@example.net","subid":"s"})", "/n"},
        TextKey{"UnsubscribeFromNodeJid", unsubscribeFromNode, false, R"({"node":"/n","jid":$,"subid":"s"})",
                "a@example.net"},
        TextKey{"UnsubscribeFromNodeSubid", unsubscribeFromNode, false,
                R"({"node":"/n","jid":"a@example.net","subid":$})", "s"},
        TextKey{"RegisterItemCallbackNode", registerItemCallback, false,
                R"({"node":$,"endpoint":"zelt://com.example.two/item"})", "/n"},
        TextKey{"RegisterItemCallbackEndpoint", registerItemCallback, false, R"({"node":"/n","endpoint":$})",
                "zelt://com.example.two/item"},
        TextKey{"RegisterItemCallbackV2Node", registerItemCallbackV2, false,
                R"({"node":$,"endpoint":"zelt://com.example.two/item"})", "n"},
        TextKey{"RegisterItemCallbackV2Endpoint", registerItemCallbackV2, false,
                R"({"node":"n","endpoint":$})", "zelt://com.example.two/item"},
        TextKey{"UnRegisterItemCallbackNode", unRegisterItemCallback, false,
                R"({"node":$,"endpoint":"zelt://com.example.one/item","app":false})", "node"},
        TextKey{"UnRegisterItemCallbackEndpoint", unRegisterItemCallback, false,
                R"({"node":"node","endpoint":$,"app":false})", "zelt://com.example.one/item"},
        TextKey{"ActivateNodeNode", activateNode, false, R"({"node":$})", "/n"},
        TextKey{"CreateSessionJid", createSession, false,
                R"({"jid":$,"password":"p","server":"s","service":"ps","port":1})", "a@example.net"},
        TextKey{"CreateSessionPassword", createSession, false,
                R"({"jid":"a@example.net","password":$,"server":"s","service":"ps","port":1})", "p"},
        TextKey{"CreateSessionServer", createSession, false,
                R"({"jid":"a@example.net","password":"p","server":$,"service":"ps","port":1})", "s"},
        TextKey{"CreateSessionService", createSession, false,
                R"({"jid":"a@example.net","password":"p","server":"s","service":$,"port":1})", "ps"},
        TextKey{"AppInstallChangeStatus", appInstallChange, false,
                R"({"statusChange":$,"appId":"com.example.app"})", "REMOVED"},
        TextKey{"AppInstallChangeAppId", appInstallChange, false, R"({"statusChange":"REMOVED","appId":$})",
                "com.example.app"}),
    [](const auto& key) { return key.param.name; });

INSTANTIATE_TEST_SUITE_P(
    OfEveryPublicMethod, TextKeys,
    testing::Values(TextKey{"CreateEndpointEndpoint", createEndpoint, true, kEndpointAlone, "inbox"},
                    TextKey{"CreateEndpointDescription", createEndpoint, true,
                            R"({"endpoint":"inbox","description":$})", "words"},
                    TextKey{"DeleteEndpointEndpoint", deleteEndpoint, true, kEndpointAlone, "inbox"},
                    TextKey{"GetPublishKeyEndpoint", getPublishKey, true, kEndpointAlone, "inbox"},
                    TextKey{"SubscribeEndpoint", subscribe, true, kEndpointAlone, "other"},
                    TextKey{"UnsubscribeEndpoint", unsubscribe, true, kEndpointAlone, "inbox"},
                    TextKey{"SubscribeOnCloseEndpoint", subscribeOnClose, true, kEndpointAlone, "other"},
                    TextKey{"UnsubscribeOnCloseEndpoint", unsubscribeOnClose, true, kEndpointAlone, "inbox"},
                    TextKey{"CancelledEndpoint", publicCancelFunc, true, kEndpointAlone, "inbox"}),
    [](const auto& key) { return key.param.name; });

// --- booleans

class Booleans;
struct BooleanKey {
    const char* name;
    std::function<bool(Booleans&, const std::string& value)> taken;  // what the JSON text counted as
};

class Booleans : public ServiceTest, public testing::WithParamInterface<BooleanKey> {
  public:
    // The callback of a reply or a notice with this payload.
    void notify(QSFilter callback, const std::string& payload) {
        FakeMessage* message = fakeBus().request(privateHandle(), "", payload);
        callback(privateHandle(), message, &session());
        QSMessageUnref(message);
    }
    std::size_t callsPlaced() const { return fakeBus().calls().size(); }
    bool readsHandlerAsApplications(const std::string& value) {
        session().appNodeMap.clear();
        session().serviceNodeMap.clear();
        writeFile(stateFolder() / "pubsubhandlers.conf",
                  R"({"node":"n","endpoint":"zelt://com.example.one/item","app":)" + value + "}\n");
        session().ReadHandlerFile();
        return !session().appNodeMap.empty();
    }
    using ServiceTest::call;
    using ServiceTest::callPublic;
    using ServiceTest::lastStanza;
    using ServiceTest::session;
    using ServiceTest::takeLogLines;
};

TEST_P(Booleans, AreTakenByJsonCsConversion) {
    connectSession();
    const std::pair<const char*, bool> values[] = {
        {"true", true}, {"false", false},     {"1", true},           {"0", false},     {"-1", true},
        {"0.5", true},  {"0.0", false},       {R"("x")", true},      {R"("")", false}, {"{}", false},
        {"[]", false},  {R"("false")", true}, {R"({"a":1})", false}, {"[1]", false}};
    for (const auto& [value, expected] : values)
        EXPECT_EQ(GetParam().taken(*this, value), expected) << value;
}

INSTANTIATE_TEST_SUITE_P(
    WhereverTheyAreRead, Booleans,
    testing::Values(
        BooleanKey{"InternetConnection",
                   [](Booleans& test, const std::string& value) {
                       test.notify(connectionStatusV2, R"({"isInternetConnectionAvailable":)" + value + "}");
                       return test.session().m_networkAvailable;
                   }},
        BooleanKey{"ServiceConnected",
                   [](Booleans& test, const std::string& value) {
                       const std::size_t before = test.callsPlaced();
                       test.notify(connectionManagerUp, R"({"connected":)" + value + "}");
                       return test.callsPlaced() > before;
                   }},
        BooleanKey{"ReconnectAlarmSet",
                   [](Booleans& test, const std::string& value) {
                       test.session().m_connected = false;
                       test.notify(PubSubSession::reconnectResponse, R"({"returnValue":)" + value + "}");
                       test.session().m_connected = true;
                       return test.session().m_reconnectPending;
                   }},
        BooleanKey{"KeepAliveAlarmSet",
                   [](Booleans& test, const std::string& value) {
                       test.takeLogLines();
                       test.notify(PubSubSession::alarmResponse, R"({"returnValue":)" + value + "}");
                       return test.takeLogLines().empty();
                   }},
        BooleanKey{"BootFinished",
                   [](Booleans& test, const std::string& value) {
                       test.notify(PubSubSession::bootStatusResponse, R"({"finished":)" + value + "}");
                       return test.session().m_bootFinished;
                   }},
        BooleanKey{"RegisterOnCloseSubscribe",
                   [](Booleans& test, const std::string& value) {
                       test.session().m_onCloseRegistered = false;
                       test.call(registerOnClose, R"({"subscribe":)" + value + "}");
                       return test.session().m_onCloseRegistered;
                   }},
        BooleanKey{"SubscribeNodeAuthSubscribe",
                   [](Booleans& test, const std::string& value) {
                       test.session().m_msgMap.clear();
                       test.call(subscribeNodeAuth, R"({"nodes":["a"],"subscribe":)" + value + "}");
                       return test.session().m_msgMap.contains("handleAuth:a");
                   }},
        BooleanKey{"UnsubscribeOnClose",
                   [](Booleans& test, const std::string& value) {
                       test.session().setOfflineMap(kInbox, "com.example.app");
                       test.callPublic(unsubscribe, "unsubscribe",
                                       R"({"endpoint":"inbox","onclose":)" + value + "}");
                       return !test.session().m_offlineMap.contains(kInbox);
                   }},
        BooleanKey{"UnRegisterItemCallbackApp",
                   [](Booleans& test, const std::string& value) {
                       bool ignored = false;
                       for (const bool app : {false, true})
                           test.session().addNodeToMap("n", "zelt://com.example.one/item", app, ignored);
                       test.call(
                           unRegisterItemCallback,
                           R"({"node":"n","endpoint":"zelt://com.example.one/item","app":)" + value + "}");
                       EXPECT_NE(test.session().appNodeMap.empty(), test.session().serviceNodeMap.empty());
                       return test.session().appNodeMap.empty();
                   }},
        BooleanKey{
            "HandlerFileApp",
            [](Booleans& test, const std::string& value) { return test.readsHandlerAsApplications(value); }},
        BooleanKey{"PublishItemXml",
                   [](Booleans& test, const std::string& value) {
                       test.session().m_msgMap.clear();
                       test.call(publishItemToNode, R"({"node":"n","item":{"a":"b"},"xml":)" + value + "}");
                       return test.lastStanza().xml().find("<a>") != std::string::npos;
                   }}),
    [](const auto& key) { return key.param.name; });

}  // namespace
