// SPDX-License-Identifier: GPL-3.0-only
// A client, its manager and a server that the test drives: the client's stanzas are recorded as text, and the
// test provides the input. No socket, no TLS; the loop only runs deferred work.
#pragma once

#include <gloox/connectionbase.h>
#include <gloox/connectionlistener.h>
#include <gloox/messagehandler.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "xmpp/client.h"
#include "xmpp/manager.h"
#include "xmpp/unaskedresults.h"

// Acts as the server for the login; afterwards every write of the client is one stanza of `sent`.
class DialogueConnection : public gloox::ConnectionBase {
  public:
    explicit DialogueConnection(gloox::ConnectionDataHandler* handler) : ConnectionBase(handler) {}
    ~DialogueConnection() override;

    gloox::ConnectionError connect() override;
    gloox::ConnectionError recv(int) override { return gloox::ConnNoError; }
    bool send(const std::string& data) override;
    gloox::ConnectionError receive() override { return gloox::ConnNotConnected; }
    void disconnect() override {}
    void cleanup() override { m_state = gloox::StateDisconnected; }
    void getStatistics(long int&, long int&) override {}
    gloox::ConnectionBase* newInstance() const override { return nullptr; }

    void receives(const std::string& xml) { m_handler->handleReceivedData(this, xml); }
    void loses(gloox::ConnectionError error) { m_handler->handleDisconnect(this, error); }

    gloox::ConnectionError refusal = gloox::ConnNoError;
    std::vector<std::string> sent;
    std::function<void()> whenDeleted;
};

// Stands for the manager's id in an expected stanza.
inline constexpr char kId[] = "ID";
std::string withId(std::string xml, const std::string& id);

// Runs the default context until nothing is ready.
void settle();

// Records one line for each call of a result handler, with the error element.
class RecordingHandler : public xmpp::UnaskedResults {
  public:
    std::vector<std::string> calls;
    std::vector<std::string> failures;  // of the nodes of bulk activations
    std::function<void()> then;         // runs inside every call

    void handlePendingRequest(const std::string& id, const std::string& node, const gloox::StringList* nodes,
                              const gloox::Error* error) override;
    void handlePendingNodeRequest(const std::string& id, const gloox::JID& service, const std::string& node,
                                  const gloox::Error* error) override;
    void handleItemDeletation(const std::string& id, const gloox::JID& service, const std::string& node,
                              const gloox::PubSub::ItemList& items, const gloox::Error* error) override;
    using xmpp::ResultHandler::handleUnsubscriptionResult;
    void handleUnsubscriptionResult(const std::string& id, const gloox::JID& service, const std::string& node,
                                    const std::string& subid, const gloox::JID& subscriber,
                                    const gloox::Error* error) override;
    void handleNodeDeletation(const std::string& id, const gloox::JID& service, const std::string& node,
                              const gloox::Error* error) override;
    void handleCreateKey(const std::string& id, const gloox::JID& service, const std::string& key,
                         const std::string& url, const std::string& status,
                         const gloox::Error* error) override;
    void handleGetKey(const std::string& id, const gloox::JID& service, const std::string& key,
                      const std::string& url, const gloox::Error* error) override;
    void handleActivateNode(const std::string& id, const gloox::JID& service, const std::string& node,
                            const gloox::Error* error) override;
    void handleDeActivateNode(const std::string& id, const gloox::JID& service, const std::string& node,
                              const gloox::Error* error) override;
    void handleBulkDelete(const std::string& id, const gloox::JID& service,
                          const gloox::Error* error) override;
    void handleActivateSysNodes(const std::string& id, const gloox::JID& service,
                                const gloox::Error* error) override;
    void handleBulkActivate(const std::string& id, const gloox::JID& service, const xmpp::NodeErrors& failed,
                            const gloox::Error* error) override;
    void handleWaiting(const std::string& id, const gloox::JID& service,
                       const std::map<std::string, std::string>& counts, const gloox::Error* error) override;
    void handleTrace(const std::string& id, const gloox::JID& service, const std::string& itemId,
                     const xmpp::ServerTrace& trace, const gloox::Error* error) override;
    void handleNodeCreation(const std::string& id, const gloox::JID& service, const std::string& node,
                            const gloox::Error* error) override;
    void handleItemPublication(const std::string& id, const gloox::JID& service, const std::string& node,
                               const gloox::PubSub::ItemList& items, const gloox::Error* error) override;
    void handleSubscriptionResult(const std::string& id, const gloox::JID& service, const std::string& node,
                                  const std::string& subid, const gloox::JID& subscriber,
                                  gloox::PubSub::SubscriptionType type, const gloox::Error* error) override;
    void handleNodeConfig(const std::string& id, const gloox::JID& service, const std::string& node,
                          const gloox::DataForm* config, const gloox::Error* error) override;
    void handleNodeConfigResult(const std::string& id, const gloox::JID& service, const std::string& node,
                                const gloox::Error* error) override;

    // Never called by the manager.
    void handleNodePurge(const std::string&, const gloox::JID&, const std::string&,
                         const gloox::Error*) override {}

  private:
    void record(const std::string& call, const gloox::Error* error);
};

// Records what the client reports, in order: "connect", "disconnect 17", "tls 0", "message <xml>".
class RecordingListener : public gloox::ConnectionListener, public gloox::MessageHandler {
  public:
    std::vector<std::string> events;
    std::function<void()> atConnect, atDisconnect, atMessage, atTls;
    bool accepts = true;

    void onConnect() override;
    void onDisconnect(gloox::ConnectionError error) override;
    bool onTLSConnect(const gloox::CertInfo& info) override;
    void handleMessage(const gloox::Message& message, gloox::MessageSession* session) override;
    int count(const std::string& beginning) const;

    gloox::CertInfo certificate;
};

// A session of device@example.org/tv with the service pubsub.example.org.
class Dialogue : public testing::Test {
  protected:
    Dialogue();
    ~Dialogue() override;

    // Logs in, including onConnect.
    void logIn();
    // Logs in up to the server's answer that the resource is bound.
    void logInUpToBind();
    void bind();
    void say(const std::string& xml) { connection->receives(xml); }
    // An answer of the service.
    void answer(const std::string& id, const std::string& type, const std::string& content = {});
    void disposeClient();
    // The last stanza sent; "" when none was sent since the last call.
    std::string last();

    const gloox::JID service{"pubsub.example.org"};
    DialogueConnection* connection = nullptr;
    bool clientDeleted = false;
    RecordingListener listener;
    RecordingHandler handler;
    xmpp::Client* client;
    xmpp::Manager* manager;
};
