// SPDX-License-Identifier: GPL-3.0-only
// Pub-sub operations on one client: XEP-0060 and the device extension urn:zelt:pubsub:device:0.
//
// Every operation returns a request id, unique over connections and restarts, under which its result handler is
// called exactly once, or an empty text when it cannot be sent: no client, no service, or a text that XML cannot
// carry. Before the stream is up operations are held, within a bound, and sent when it is.
#pragma once

#include <gloox/dataform.h>
#include <gloox/jid.h>
#include <gloox/pubsubmanager.h>
#include <gloox/tag.h>

#include <map>
#include <string>

#include "xmpp/resulthandler.h"

namespace xmpp {

class Client;
using StringMap = std::map<std::string, std::string>;

class Manager : public gloox::PubSub::Manager {
  public:
    explicit Manager(Client* client);
    ~Manager() override;
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    // The client is going away: every later operation returns an empty id, what was held or sent is forgotten.
    void detach();

    std::string createNode(gloox::PubSub::NodeType type, const gloox::JID& service, const std::string& node,
                           ResultHandler* handler, const std::string& title, const std::string& parent,
                           gloox::PubSub::AccessModel access, const StringMap* config);
    std::string createKeyNode(gloox::PubSub::NodeType type, const gloox::JID& service, const std::string& node,
                              ResultHandler* handler, const std::string& title, const std::string& parent,
                              gloox::PubSub::AccessModel access, const StringMap* config);
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
    std::string bulkActivate(const gloox::JID& service, const gloox::StringList& nodes, ResultHandler* handler);
    std::string bulkDelete(const gloox::JID& service, const gloox::StringList& nodes, ResultHandler* handler);
    std::string getPendingRequest(const gloox::JID& service, ResultHandler* handler);
    // `session` is the session id that getPendingRequest's answer gave.
    std::string getPendingNodeRequest(const gloox::JID& service, const std::string& node,
                                      const std::string& session, ResultHandler* handler);
    std::string approvePending(const gloox::JID& service, const std::string& node, const std::string& id,
                               const std::string& subid, const std::string& approve,
                               const std::string& subscriber);
    // Unanswered: tells the server that the item was handed on.
    std::string ackItem(const gloox::JID& service, const std::string& node, const std::string& item);
};

}  // namespace xmpp
