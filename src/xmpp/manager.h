// SPDX-License-Identifier: GPL-3.0-only
// Pub-sub operations on one client: XEP-0060 and the device extension urn:zelt:pubsub:device:0.
//
// Every operation returns a request id, unique over connections and restarts, with which its result handler
// is called exactly once, or an empty id when it cannot be sent: no client, no service, or a text that XML
// cannot carry. Until the stream is up operations are held, within a bound. Those that are still held when
// the client ends can move to the manager of the next client. Nothing else outlives the client.
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

#include "xmpp/pushprovider.h"
#include "xmpp/resulthandler.h"

namespace xmpp {

class Client;
class StanzaWriter;
using StringMap = std::map<std::string, std::string>;

// How the server sends an activated node's items.
struct ActivationLimit {
    bool oneItem = false;  // at a time
    std::string urgency;   // the least that is wanted; "": any
    void writeTo(StanzaWriter& element) const;
};

// What makes a key node one for web push.
struct WebPush {
    bool wanted = false;
    std::string vapid;  // the only sender's key; "": any sender
};

class Manager : public gloox::PubSub::Manager {
  public:
    explicit Manager(Client* client);
    ~Manager() override;
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    // The client is ending: every later operation returns an empty id, and requests already
    // sent are forgotten.
    void detach();
    // Tells whether a caller still waits for the answer to a request. Held requests without one are not sent.
    // By default every request has one.
    using Awaited = std::function<bool(const std::string& id)>;
    void setAwaited(Awaited awaited) { m_awaited = std::move(awaited); }
    // Takes the held operations of `former`, in their order and ahead of later ones, when both serve the same
    // account. Bulk operations are dropped: the service sends them again with each stream.
    void takeOver(Manager& former);

    std::string createNode(gloox::PubSub::NodeType type, const gloox::JID& service, const std::string& node,
                           ResultHandler* handler, const std::string& title, const std::string& parent,
                           gloox::PubSub::AccessModel access, const StringMap* config);
    std::string createKeyNode(gloox::PubSub::NodeType type, const gloox::JID& service,
                              const std::string& node, ResultHandler* handler, const std::string& title,
                              const std::string& parent, gloox::PubSub::AccessModel access,
                              const StringMap* config, const WebPush& webPush = {});
    std::string deleteNode(const gloox::JID& service, const std::string& node, ResultHandler* handler);
    // Takes ownership of `item`, which may be null.
    std::string publishItem(const gloox::JID& service, const std::string& node, gloox::Tag* item,
                            ResultHandler* handler);
    // Takes ownership of `form`. Null reads the configuration, a form stores it.
    std::string nodeConfig(const gloox::JID& service, const std::string& node, gloox::DataForm* form,
                           ResultHandler* handler);
    std::string subscribe(const gloox::JID& service, const std::string& node, ResultHandler* handler,
                          const gloox::JID& subscriber, gloox::PubSub::SubscriptionObject object, int depth);
    std::string unsubscribe(const gloox::JID& service, const std::string& node, ResultHandler* handler,
                            const std::string& subid, const gloox::JID& subscriber);
    std::string getKey(const gloox::JID& service, const std::string& node, ResultHandler* handler);
    // `limit`: the server sends one item of the node at a time, the next after its acknowledgement, and begins
    // with the oldest. `urgency`: the least that is wanted, "" for any.
    std::string activateNode(const gloox::JID& service, const std::string& node, const std::string& seqNo,
                             ResultHandler* handler, bool limit = false, const std::string& urgency = {});
    std::string deActivateNode(const gloox::JID& service, const std::string& node, ResultHandler* handler);
    // In these three, names that XML cannot carry are left out and logged.
    std::string bulkActivate(const gloox::JID& service, const gloox::StringList& nodes,
                             ResultHandler* handler, bool limit = false, const std::string& urgency = {});
    // How many items the server keeps of each node for this device.
    std::string waitingItems(const gloox::JID& service, const gloox::StringList& nodes,
                             ResultHandler* handler);
    std::string bulkDelete(const gloox::JID& service, const gloox::StringList& nodes, ResultHandler* handler);
    std::string getPendingRequest(const gloox::JID& service, ResultHandler* handler);
    // `session` is the session id from the answer to getPendingRequest.
    std::string getPendingNodeRequest(const gloox::JID& service, const std::string& node,
                                      const std::string& session, ResultHandler* handler);
    // Sends a message with the id of the approval request, and returns that id. There is no answer.
    std::string approvePending(const gloox::JID& service, const std::string& node, const std::string& id,
                               const std::string& subid, const std::string& approve,
                               const std::string& subscriber);
    // The stations that a marked item has passed at the server.
    std::string trace(const gloox::JID& service, const std::string& itemId, ResultHandler* handler);
    // Tells the server that the item was delivered. There is no answer. Without a number it is for the oldest
    // transmission under this id, with one for all transmissions of this item.
    std::string ackItem(const gloox::JID& service, const std::string& node, const std::string& item,
                        const std::string& seqNo = {});

    // pushprovider.cpp: what a server offers (XEP-0030), and the push protocol of its provider
    std::string askFeatures(const gloox::JID& entity, ResultHandler* handler);
    std::string askParts(const gloox::JID& entity, ResultHandler* handler);
    // `application` and `instance` are 32 bytes each, in base64.
    std::string registerPush(const gloox::JID& provider, const std::string& application,
                             const std::string& instance, ResultHandler* handler);
    // Answers a push: null is success. Held without a stream, like every message.
    void answerPush(const PushAnswer& answer);

    // --- for the client
    // The stream is up: operations are sent at once from now on, those of the connection listeners before
    // the held ones.
    void open() { m_streamUp = true; }
    // After the listeners were called: sends what was held, in order.
    void release();
    // The stream is down: hold operations from now on.
    void hold() { m_streamUp = false; }
    // Whether a manager of this process created the id.
    static bool isOurs(const std::string& id);
    // Calls the result handler of this answer, unless it was sent by anyone but the service.
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
        Waiting,
        Trace,
        PendingRequest,
        PendingNodeRequest,
        Features,
        Parts,
        RegisterPush
    };
    // A bulk operation, sent in several stanzas and answered once.
    struct Bulk {
        std::string id;
        std::size_t unanswered = 0;
        std::size_t failed = 0;
        std::unique_ptr<gloox::Tag> error;                          // the first one
        StringMap counts;                                           // of Waiting
        std::map<std::string, std::unique_ptr<gloox::Tag>> errors;  // of BulkActivate, by node
    };
    struct Request {
        Operation operation;
        ResultHandler* handler;  // borrowed
        gloox::JID service;
        std::string node;  // of Trace the item's id
        std::string subid;
        gloox::JID subscriber;
        std::shared_ptr<Bulk> bulk;
        gloox::StringList part;  // the nodes of this stanza of a BulkActivate
    };

    struct Held {
        std::string id;
        std::string stanza;
    };

    static std::string nextId();
    static StanzaWriter beginIq(const char* type, const gloox::JID& service, const std::string& id);
    std::string deviceRequest(Operation operation, const char* type, const char* element,
                              const gloox::JID& service, const std::string& node, const std::string& seqNo,
                              ResultHandler* handler, const ActivationLimit& limit = {});
    std::string bulk(Operation operation, const char* element, const gloox::JID& service,
                     const gloox::StringList& nodes, ResultHandler* handler,
                     const ActivationLimit& limit = {});
    std::string askDisco(Operation operation, const char* xmlns, const gloox::JID& entity,
                         ResultHandler* handler);
    bool isUsable(const Request& request) const;
    std::string sendRequest(Request request, const std::string& id, StanzaWriter& stanza);
    std::string sendMessage(const gloox::JID& service, const std::string& id, StanzaWriter& stanza);
    bool mayPass(const std::string& stanza, const char* what, const std::string& node);
    bool mayHold(std::size_t count);
    void sendOrHold(const std::string& id, std::string stanza);
    void dropUnawaited();

    // answers.cpp
    void handleBulkAnswer(const Request& request, const gloox::Tag& iq, const gloox::Tag* error);
    void handleWaitingAnswer(const Request& request, const gloox::Tag& iq, const gloox::Tag* error);
    // pushprovider.cpp
    static void deliverPush(const Request& request, const std::string& id, const gloox::Tag& iq,
                            const gloox::Error* error);
    // answers.cpp
    static void deliver(const Request& request, const std::string& id, const gloox::Tag& iq,
                        const gloox::Error* error);

    Client* m_client;                                     // borrowed; null once it has ended
    std::unordered_map<std::string, Request> m_requests;  // requests that wait for an answer, by stanza id
    std::deque<Held> m_held;                              // stanzas that wait for the stream, in order
    std::string m_account;                                // of the client, without its resource
    Awaited m_awaited;
    bool m_streamUp = false;
};

}  // namespace xmpp
