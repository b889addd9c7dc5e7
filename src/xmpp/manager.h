// SPDX-License-Identifier: GPL-3.0-only
// Pub-sub operations on one client: XEP-0060 and the device extension urn:zelt:pubsub:device:0.
//
// Every operation returns a request id, unique over connections and restarts, under which its result handler
// is called exactly once, or an empty text when it cannot be sent: no client, no service, or a text that XML
// cannot carry. Before the stream is up operations are held, within a bound, and sent when it is; what is
// still held when the client goes can pass to the manager of the next one. Nothing else outlives the client.
#pragma once

#include <gloox/dataform.h>
#include <gloox/jid.h>
#include <gloox/pubsubmanager.h>
#include <gloox/tag.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "xmpp/resulthandler.h"

namespace xmpp {

class Client;
class StanzaWriter;
using StringMap = std::map<std::string, std::string>;

class Manager : public gloox::PubSub::Manager {
  public:
    explicit Manager(Client* client);
    ~Manager() override;
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    // The client is going away: every later operation returns an empty id, what was sent is forgotten.
    void detach();
    // Says whether somebody still waits for the answer to a request. What nobody waits for is not sent once
    // it was held. Without this everybody does.
    using Awaited = std::function<bool(const std::string& id)>;
    void setAwaited(Awaited awaited) { m_awaited = std::move(awaited); }
    // Takes what `former` holds, in its order and ahead of what comes later, when both serve the same
    // account. Lists go: the service sends them anew with each stream.
    void takeOver(Manager& former);

    std::string createNode(gloox::PubSub::NodeType type, const gloox::JID& service, const std::string& node,
                           ResultHandler* handler, const std::string& title, const std::string& parent,
                           gloox::PubSub::AccessModel access, const StringMap* config);
    std::string createKeyNode(gloox::PubSub::NodeType type, const gloox::JID& service,
                              const std::string& node, ResultHandler* handler, const std::string& title,
                              const std::string& parent, gloox::PubSub::AccessModel access,
                              const StringMap* config);
    std::string deleteNode(const gloox::JID& service, const std::string& node, ResultHandler* handler);
    // Takes `item`, which may be null.
    std::string publishItem(const gloox::JID& service, const std::string& node, gloox::Tag* item,
                            ResultHandler* handler);
    // Takes `form`; null reads the configuration, a form stores it.
    std::string nodeConfig(const gloox::JID& service, const std::string& node, gloox::DataForm* form,
                           ResultHandler* handler);
    std::string subscribe(const gloox::JID& service, const std::string& node, ResultHandler* handler,
                          const gloox::JID& subscriber, gloox::PubSub::SubscriptionObject object, int depth);
    std::string unsubscribe(const gloox::JID& service, const std::string& node, ResultHandler* handler,
                            const std::string& subid, const gloox::JID& subscriber);
    std::string getKey(const gloox::JID& service, const std::string& node, ResultHandler* handler);
    std::string activateNode(const gloox::JID& service, const std::string& node, const std::string& seqNo,
                             ResultHandler* handler);
    std::string deActivateNode(const gloox::JID& service, const std::string& node, ResultHandler* handler);
    // Names that XML cannot carry are left out of the two lists, with a log line.
    std::string bulkActivate(const gloox::JID& service, const gloox::StringList& nodes,
                             ResultHandler* handler);
    std::string bulkDelete(const gloox::JID& service, const gloox::StringList& nodes, ResultHandler* handler);
    std::string getPendingRequest(const gloox::JID& service, ResultHandler* handler);
    // `session` is the session id that getPendingRequest's answer gave.
    std::string getPendingNodeRequest(const gloox::JID& service, const std::string& node,
                                      const std::string& session, ResultHandler* handler);
    // Unanswered, sent under the id of the message that asked; returns that id.
    std::string approvePending(const gloox::JID& service, const std::string& node, const std::string& id,
                               const std::string& subid, const std::string& approve,
                               const std::string& subscriber);
    // Unanswered: tells the server that the item was handed on.
    std::string ackItem(const gloox::JID& service, const std::string& node, const std::string& item);

    // --- for the client
    // The stream is up: from now on operations go out at once, those of its listeners first.
    void open() { m_streamUp = true; }
    // The listeners know: what was held goes out, in order.
    void release();
    // The stream is gone: hold from now on.
    void hold() { m_streamUp = false; }
    // Whether some manager of this process gave the id out.
    static bool isOurs(const std::string& id);
    // Calls the handler that waits for this answer, unless somebody else than the service sent it.
    void handleAnswer(const gloox::Tag& iq);

  private:
    enum class Operation {
        CreateNode,
        CreateKeyNode,
        DeleteNode,
        PublishItem,
        GetConfig,
        SetConfig,
        Subscribe,
        Unsubscribe,
        GetKey,
        ActivateNode,
        DeActivateNode,
        BulkActivate,
        BulkDelete,
        PendingRequest,
        PendingNodeRequest
    };
    // One list that went out in several stanzas and is answered once.
    struct Bulk {
        std::string id;
        std::size_t unanswered = 0;
        std::size_t failed = 0;
        std::unique_ptr<gloox::Tag> error;  // the first one
    };
    struct Request {
        Operation operation;
        ResultHandler* handler;  // borrowed
        gloox::JID service;
        std::string node;
        std::string subid;
        gloox::JID subscriber;
        std::shared_ptr<Bulk> bulk;
    };

    struct Held {
        std::string id;
        std::string stanza;
    };

    static std::string nextId();
    static StanzaWriter beginIq(const char* type, const gloox::JID& service, const std::string& id);
    std::string deviceRequest(Operation operation, const char* type, const char* element,
                              const gloox::JID& service, const std::string& node, const std::string& seqNo,
                              ResultHandler* handler);
    std::string bulk(Operation operation, const char* element, const gloox::JID& service,
                     const gloox::StringList& nodes, ResultHandler* handler);
    bool isUsable(const Request& request) const;
    std::string ask(Request request, const std::string& id, StanzaWriter& stanza);
    std::string tell(const gloox::JID& service, const std::string& id, StanzaWriter& stanza);
    bool mayPass(const std::string& stanza, const char* what, const std::string& node);
    bool mayHold(std::size_t count);
    void pass(const std::string& id, std::string stanza);
    void dropUnawaited();

    // answers.cpp
    void handleBulkAnswer(const Request& request, const gloox::Tag& iq, const gloox::Tag* error);
    static void deliver(const Request& request, const std::string& id, const gloox::Tag& iq,
                        const gloox::Error* error);

    Client* m_client;                                     // borrowed; null once it is gone
    std::unordered_map<std::string, Request> m_requests;  // what waits for an answer, by stanza id
    std::deque<Held> m_held;                              // what waits for the stream, in order
    std::string m_account;                                // of the client, without its resource
    Awaited m_awaited;
    bool m_streamUp = false;
};

}  // namespace xmpp
