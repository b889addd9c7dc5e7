// SPDX-License-Identifier: GPL-3.0-only
// Results of the extended pub-sub manager: gloox's result handler plus the operations that gloox lacks.
#pragma once

#include <gloox/pubsubresulthandler.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace xmpp {

// What the server has recorded of a marked item. Times are those of the server, in microseconds since 1970.
struct ServerStation {
    std::string name;
    int64_t at;
    std::string resource;  // of the device; "": none
};
struct ServerTrace {
    int64_t now = 0;  // when it answered
    std::vector<ServerStation> stations;
};

using NodeErrors = std::map<std::string, const gloox::Error*>;

// Every handler gets the id that the operation returned. `error` is null on success; its tag() is the error
// element as the server sent it. Pointers are borrowed for the duration of the call.
class ResultHandler : public gloox::PubSub::ResultHandler {
  public:
    // `node` is the ad-hoc command's session id; `nodes` is null when the answer held no list.
    virtual void handlePendingRequest(const std::string& id, const std::string& node,
                                      const gloox::StringList* nodes, const gloox::Error* error) = 0;
    virtual void handlePendingNodeRequest(const std::string& id, const gloox::JID& service,
                                          const std::string& node, const gloox::Error* error) = 0;
    virtual void handleItemDeletation(const std::string& id, const gloox::JID& service,
                                      const std::string& node, const gloox::PubSub::ItemList& items,
                                      const gloox::Error* error) = 0;
    virtual void handleUnsubscriptionResult(const std::string& id, const gloox::JID& service,
                                            const std::string& node, const std::string& subid,
                                            const gloox::JID& subscriber, const gloox::Error* error) = 0;
    virtual void handleNodeDeletation(const std::string& id, const gloox::JID& service,
                                      const std::string& node, const gloox::Error* error) = 0;
    // `url` is the address at which senders publish, "" when the server has told none.
    virtual void handleCreateKey(const std::string& id, const gloox::JID& service, const std::string& key,
                                 const std::string& url, const std::string& status,
                                 const gloox::Error* error) = 0;
    virtual void handleGetKey(const std::string& id, const gloox::JID& service, const std::string& key,
                              const std::string& url, const gloox::Error* error) = 0;
    virtual void handleActivateNode(const std::string& id, const gloox::JID& service, const std::string& node,
                                    const gloox::Error* error) = 0;
    virtual void handleDeActivateNode(const std::string& id, const gloox::JID& service,
                                      const std::string& node, const gloox::Error* error) = 0;
    virtual void handleBulkDelete(const std::string& id, const gloox::JID& service,
                                  const gloox::Error* error) = 0;
    virtual void handleActivateSysNodes(const std::string& id, const gloox::JID& service,
                                        const gloox::Error* error) = 0;
    // `error` is the first failure, `failed` has all, by node.
    virtual void handleBulkActivate(const std::string& id, const gloox::JID& service,
                                    const NodeErrors& failed, const gloox::Error* error) = 0;
    // How many items the server keeps, in decimal, for each node that it told.
    virtual void handleWaiting(const std::string& id, const gloox::JID& service,
                               const std::map<std::string, std::string>& counts,
                               const gloox::Error* error) = 0;
    virtual void handleTrace(const std::string& id, const gloox::JID& service, const std::string& itemId,
                             const ServerTrace& trace, const gloox::Error* error) = 0;

    // The features (XEP-0030) of an entity; none after an error.
    virtual void handleFeatures(const std::string& id, const gloox::JID& entity,
                                const gloox::StringList& features, const gloox::Error* error) = 0;
    // The JIDs of an entity's items (XEP-0030); none after an error.
    virtual void handleParts(const std::string& id, const gloox::JID& entity, const gloox::StringList& parts,
                             const gloox::Error* error) = 0;
    // The address that a push provider has given, and until when, in the form of XEP-0082.
    virtual void handlePushRegistration(const std::string& id, const gloox::JID& provider,
                                        const std::string& url, const std::string& expiration,
                                        const gloox::Error* error) = 0;

    // gloox's own spellings of three handlers; final, and forwarded.
    void handleItemDeletion(const std::string& id, const gloox::JID& service, const std::string& node,
                            const gloox::PubSub::ItemList& items, const gloox::Error* error = nullptr) final {
        handleItemDeletation(id, service, node, items, error);
    }
    void handleNodeDeletion(const std::string& id, const gloox::JID& service, const std::string& node,
                            const gloox::Error* error = nullptr) final {
        handleNodeDeletation(id, service, node, error);
    }
    void handleUnsubscriptionResult(const std::string& id, const gloox::JID& service,
                                    const gloox::Error* error = nullptr) final {
        handleUnsubscriptionResult(id, service, gloox::EmptyString, gloox::EmptyString, gloox::JID(), error);
    }
};

}  // namespace xmpp
