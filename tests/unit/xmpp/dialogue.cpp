// SPDX-License-Identifier: GPL-3.0-only
// The server driven by the test, and the recorders.
#include "tests/unit/xmpp/dialogue.h"

#include <gloox/dataform.h>
#include <gloox/error.h>

#include <memory>
#include <regex>
#include <utility>

namespace {

const std::string kStreamHead =
    "<?xml version='1.0'?><stream:stream xmlns='jabber:client' "
    "xmlns:stream='http://etherx.jabber.org/streams' "
    "id='s1' from='example.org' version='1.0'>";

std::string features(const std::string& content) {
    return "<stream:features>" + content + "</stream:features>";
}

}  // namespace

DialogueConnection::~DialogueConnection() {
    if (whenDeleted)
        whenDeleted();
}

gloox::ConnectionError DialogueConnection::connect() {
    if (refusal != gloox::ConnNoError)
        return refusal;
    m_state = gloox::StateConnected;
    return gloox::ConnNoError;
}

bool DialogueConnection::send(const std::string& data) {
    sent.push_back(data);
    return true;
}

std::string withId(std::string xml, const std::string& id) {
    return std::regex_replace(xml, std::regex("id='ID'"), "id='" + id + "'");
}

void settle() {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

// --- what was called

void RecordingHandler::record(const std::string& call, const gloox::Error* error) {
    std::string line = call;
    if (error) {
        const std::unique_ptr<gloox::Tag> element(error->tag());
        line += " error " + (element ? element->xml() : std::string("(none)"));
    }
    calls.push_back(line);
    if (const auto hook = then)
        hook();
}

void RecordingHandler::handlePendingRequest(const std::string& id, const std::string& node,
                                            const gloox::StringList* nodes, const gloox::Error* error) {
    std::string list = nodes ? "" : " no list";
    if (nodes)
        for (const std::string& name : *nodes)
            list += " " + name;
    record("pending " + id + " session " + node + ":" + list, error);
}
void RecordingHandler::handlePendingNodeRequest(const std::string& id, const gloox::JID& service,
                                                const std::string& node, const gloox::Error* error) {
    record("pendingNode " + id + " " + service.full() + " " + node, error);
}
void RecordingHandler::handleItemDeletation(const std::string& id, const gloox::JID& service,
                                            const std::string& node, const gloox::PubSub::ItemList&,
                                            const gloox::Error* error) {
    record("itemDeletation " + id + " " + service.full() + " " + node, error);
}
void RecordingHandler::handleUnsubscriptionResult(const std::string& id, const gloox::JID& service,
                                                  const std::string& node, const std::string& subid,
                                                  const gloox::JID& subscriber, const gloox::Error* error) {
    record("unsubscription " + id + " " + service.full() + " " + node + " subid " + subid + " " +
               subscriber.full(),
           error);
}
void RecordingHandler::handleNodeDeletation(const std::string& id, const gloox::JID& service,
                                            const std::string& node, const gloox::Error* error) {
    record("nodeDeletation " + id + " " + service.full() + " " + node, error);
}
void RecordingHandler::handleCreateKey(const std::string& id, const gloox::JID& service,
                                       const std::string& key, const std::string& url,
                                       const std::string& status, const gloox::Error* error) {
    record("createKey " + id + " " + service.full() + " key " + key + " status " + status +
               (url.empty() ? "" : " url " + url),
           error);
}
void RecordingHandler::handleGetKey(const std::string& id, const gloox::JID& service, const std::string& key,
                                    const std::string& url, const gloox::Error* error) {
    record("getKey " + id + " " + service.full() + " key " + key + (url.empty() ? "" : " url " + url), error);
}
void RecordingHandler::handleActivateNode(const std::string& id, const gloox::JID& service,
                                          const std::string& node, const gloox::Error* error) {
    record("activate " + id + " " + service.full() + " " + node, error);
}
void RecordingHandler::handleDeActivateNode(const std::string& id, const gloox::JID& service,
                                            const std::string& node, const gloox::Error* error) {
    record("deActivate " + id + " " + service.full() + " " + node, error);
}
void RecordingHandler::handleBulkDelete(const std::string& id, const gloox::JID& service,
                                        const gloox::Error* error) {
    record("bulkDelete " + id + " " + service.full(), error);
}
void RecordingHandler::handleActivateSysNodes(const std::string& id, const gloox::JID& service,
                                              const gloox::Error* error) {
    record("activateSysNodes " + id + " " + service.full(), error);
}
void RecordingHandler::handleBulkActivate(const std::string& id, const gloox::JID& service,
                                          const xmpp::NodeErrors& failed, const gloox::Error* error) {
    for (const auto& [node, reason] : failed)
        failures.push_back(node +
                           (reason->type() == gloox::StanzaErrorTypeWait ? " for now: " : " for good: ") +
                           std::unique_ptr<gloox::Tag>(reason->tag())->xml());
    record("bulkActivate " + id + " " + service.full(), error);
}
void RecordingHandler::handleWaiting(const std::string& id, const gloox::JID& service,
                                     const std::map<std::string, std::string>& counts,
                                     const gloox::Error* error) {
    std::string told;
    for (const auto& [node, count] : counts)
        told += " " + node + "=" + count;
    record("waiting " + id + " " + service.full() + told, error);
}
void RecordingHandler::handleTrace(const std::string& id, const gloox::JID& service,
                                   const std::string& itemId, const xmpp::ServerTrace& trace,
                                   const gloox::Error* error) {
    std::string told = " now=" + std::to_string(trace.now);
    for (const xmpp::ServerStation& each : trace.stations)
        told += " " + each.name + "@" + std::to_string(each.at) + "/" + each.resource;
    record("trace " + id + " " + service.full() + " " + itemId + told, error);
}
void RecordingHandler::handleNodeCreation(const std::string& id, const gloox::JID& service,
                                          const std::string& node, const gloox::Error* error) {
    record("creation " + id + " " + service.full() + " " + node, error);
}
void RecordingHandler::handleItemPublication(const std::string& id, const gloox::JID& service,
                                             const std::string& node, const gloox::PubSub::ItemList&,
                                             const gloox::Error* error) {
    record("publication " + id + " " + service.full() + " " + node, error);
}
void RecordingHandler::handleSubscriptionResult(const std::string& id, const gloox::JID& service,
                                                const std::string& node, const std::string& subid,
                                                const gloox::JID& subscriber,
                                                gloox::PubSub::SubscriptionType type,
                                                const gloox::Error* error) {
    record("subscription " + id + " " + service.full() + " " + node + " subid " + subid + " " +
               subscriber.full() + " type " + std::to_string(type),
           error);
}
void RecordingHandler::handleNodeConfig(const std::string& id, const gloox::JID& service,
                                        const std::string& node, const gloox::DataForm* config,
                                        const gloox::Error* error) {
    std::string form = "none";
    if (config && config->field("pubsub#access_model"))
        form = config->field("pubsub#access_model")->value();
    record("config " + id + " " + service.full() + " " + node + " form " + form, error);
}
void RecordingHandler::handleNodeConfigResult(const std::string& id, const gloox::JID& service,
                                              const std::string& node, const gloox::Error* error) {
    record("configResult " + id + " " + service.full() + " " + node, error);
}

void RecordingListener::onConnect() {
    events.push_back("connect");
    if (const auto hook = atConnect)
        hook();
}

void RecordingListener::onDisconnect(gloox::ConnectionError error) {
    events.push_back("disconnect " + std::to_string(error));
    if (const auto hook = atDisconnect)
        hook();
}

bool RecordingListener::onTLSConnect(const gloox::CertInfo& info) {
    certificate = info;
    events.push_back("tls " + std::to_string(info.status));
    if (const auto hook = atTls)
        hook();
    return accepts && info.status == gloox::CertOk;
}

void RecordingListener::handleMessage(const gloox::Message& message, gloox::MessageSession*) {
    events.push_back("message " + dynamic_cast<const xmpp::ReceivedMessage&>(message).element().xml());
    if (const auto hook = atMessage)
        hook();
}

int RecordingListener::count(const std::string& beginning) const {
    int found = 0;
    for (const std::string& event : events)
        found += event.starts_with(beginning);
    return found;
}

// --- the session

Dialogue::Dialogue() {
    xmpp::Client::setConnectionFactory([this](xmpp::Client& owner, const std::string&, int,
                                              const std::string&, GMainContext*) -> gloox::ConnectionBase* {
        connection = new DialogueConnection(&owner);
        connection->whenDeleted = [this] {
            clientDeleted = true;
            connection = nullptr;
        };
        return connection;
    });
    client = new xmpp::Client(gloox::JID("device@example.org/tv"), "secret", 5222);
    client->setTls(gloox::TLSDisabled);
    client->setPubSubService(service);
    client->registerConnectionListener(&listener);
    client->registerMessageHandler(&listener);
    manager = new xmpp::Manager(client);
}

Dialogue::~Dialogue() {
    disposeClient();
    delete manager;
    settle();
    xmpp::Client::setConnectionFactory({});
}

void Dialogue::logInUpToBind() {
    ASSERT_TRUE(client->connect("", nullptr));
    client->handleConnect(connection);
    say(kStreamHead + features("<mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'>"
                               "<mechanism>PLAIN</mechanism></mechanisms>"));
    say("<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>");
    say(kStreamHead + features("<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/>"));
}

void Dialogue::bind() {
    std::smatch match;
    ASSERT_TRUE(std::regex_search(connection->sent.back(), match, std::regex("id='([^']*)'")));
    const std::string id = match[1];
    connection->sent.clear();
    say("<iq type='result' id='" + id +
        "'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'><jid>device@example.org/tv</jid></bind></iq>");
}

void Dialogue::logIn() {
    logInUpToBind();
    bind();
    ASSERT_EQ(listener.count("connect"), 1);
}

void Dialogue::answer(const std::string& id, const std::string& type, const std::string& content) {
    say("<iq type='" + type + "' id='" + id + "' from='pubsub.example.org'>" + content + "</iq>");
}

void Dialogue::disposeClient() {
    xmpp::Client::dispose(std::exchange(client, nullptr));
}

std::string Dialogue::last() {
    if (connection->sent.empty())
        return {};
    std::string stanza = connection->sent.back();
    connection->sent.clear();
    return stanza;
}
