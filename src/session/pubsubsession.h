// SPDX-License-Identifier: GPL-3.0-only
// PubSubSession: the one XMPP session and every registry that bus methods and result handlers share.
//
// This is the only declaration; the methods are grouped by the file that defines them. All members are used
// on the main loop's thread only. Only what the handler file and the preferences hold survives a restart.
#pragma once

#include <glib.h>
#include <gloox/connectionlistener.h>
#include <gloox/jid.h>
#include <gloox/loghandler.h>
#include <gloox/messagehandler.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/bus/qsraii.h"
#include "session/copiedempty.h"
#include "session/endpointrequest.h"
#include "session/openitems.h"
#include "session/push.h"
#include "session/traces.h"
#include "util/log.h"
#include "xmpp/pushprovider.h"
#include "xmpp/unaskedresults.h"

class Preferences;
class Request;
struct json_object;
struct QPHandle;

namespace xmpp {
class Client;
class Manager;
}  // namespace xmpp

class PubSubSession : public CopiedEmpty<PubSubSession>,
                      public gloox::MessageHandler,
                      public gloox::ConnectionListener,
                      public xmpp::UnaskedResults,
                      public gloox::LogHandler {
  public:
    // session/session.cpp: construction, details, state folder
    PubSubSession();
    ~PubSubSession() override;
    PubSubSession(const PubSubSession&) = default;  // ends the process unless the original owns nothing
    PubSubSession& operator=(const PubSubSession&) = default;  // likewise unless neither side owns anything
    bool ownsNothing() const;

    void setSessionDetails(const std::string& jid, const std::string& password, const std::string& resource,
                           const std::string& server, const std::string& service, int port);
    void getSessionDetails(std::string& jid, std::string& password, std::string& resource,
                           std::string& server, std::string& service, int& port);
    void setDomain(const std::string& domain);
    // The JID in m_pubsubService, prepared once for each text.
    const gloox::JID& pubsubService();
    void createCacheDir();
    void turnOffTls();

    // delivery/incoming.cpp
    void handleMessage(const gloox::Message& message, gloox::MessageSession* session = nullptr) override;

    // session/connection.cpp: connection listener
    void onConnect() override;
    void onDisconnect(gloox::ConnectionError error) override;
    bool onTLSConnect(const gloox::CertInfo& info) override;

    // session/xmpplog.cpp
    void handleLog(gloox::LogLevel level, gloox::LogArea area, const std::string& message) override;

    // nodes/pendingauth.cpp
    void handlePendingRequest(const std::string& id, const std::string& node, const gloox::StringList* nodes,
                              const gloox::Error* error) override;
    void handlePendingNodeRequest(const std::string& id, const gloox::JID& service, const std::string& node,
                                  const gloox::Error* error) override;
    // nodes/createnode.cpp
    void handleNodeCreation(const std::string& id, const gloox::JID& service, const std::string& node,
                            const gloox::Error* error) override;
    // nodes/publish.cpp
    void handleItemPublication(const std::string& id, const gloox::JID& service, const std::string& node,
                               const gloox::PubSub::ItemList& items, const gloox::Error* error) override;
    // delivery/subscribetonode.cpp
    void handleSubscriptionResult(const std::string& id, const gloox::JID& service, const std::string& node,
                                  const std::string& subid, const gloox::JID& subscriber,
                                  gloox::PubSub::SubscriptionType type, const gloox::Error* error) override;
    // delivery/unsubscribefromnode.cpp
    using xmpp::ResultHandler::handleUnsubscriptionResult;
    void handleUnsubscriptionResult(const std::string& id, const gloox::JID& service, const std::string& node,
                                    const std::string& subid, const gloox::JID& subscriber,
                                    const gloox::Error* error) override;
    // nodes/nodeconfig.cpp
    void handleNodeConfig(const std::string& id, const gloox::JID& service, const std::string& node,
                          const gloox::DataForm* config, const gloox::Error* error) override;
    void handleNodeConfigResult(const std::string& id, const gloox::JID& service, const std::string& node,
                                const gloox::Error* error) override;
    // nodes/deletenode.cpp
    void handleNodeDeletation(const std::string& id, const gloox::JID& service, const std::string& node,
                              const gloox::Error* error) override;
    void handleNodePurge(const std::string& id, const gloox::JID& service, const std::string& node,
                         const gloox::Error* error) override;
    // endpoints/publishkeys.cpp
    void handleCreateKey(const std::string& id, const gloox::JID& service, const std::string& key,
                         const std::string& url, const std::string& status,
                         const gloox::Error* error) override;
    void handleGetKey(const std::string& id, const gloox::JID& service, const std::string& key,
                      const std::string& url, const gloox::Error* error) override;
    // maintenance/activation.cpp
    void handleActivateNode(const std::string& id, const gloox::JID& service, const std::string& node,
                            const gloox::Error* error) override;
    void handleDeActivateNode(const std::string& id, const gloox::JID& service, const std::string& node,
                              const gloox::Error* error) override;
    // maintenance/deletestore.cpp
    void handleBulkDelete(const std::string& id, const gloox::JID& service,
                          const gloox::Error* error) override;
    // maintenance/activation.cpp
    void handleActivateSysNodes(const std::string& id, const gloox::JID& service,
                                const gloox::Error* error) override;
    void handleBulkActivate(const std::string& id, const gloox::JID& service, const xmpp::NodeErrors& failed,
                            const gloox::Error* error) override;
    // endpoints/listendpoints.cpp
    void handleWaiting(const std::string& id, const gloox::JID& service,
                       const std::map<std::string, std::string>& counts, const gloox::Error* error) override;

    // maintenance/trace.cpp
    void handleTrace(const std::string& id, const gloox::JID& service, const std::string& itemId,
                     const xmpp::ServerTrace& trace, const gloox::Error* error) override;
    // `trace` is null when the server has told nothing, `problem` why; its clock is `ahead` by so many
    // microseconds.
    void answerTrace(QSMessage* message, const std::string& itemId, const xmpp::ServerTrace* trace,
                     const std::string& problem, int64_t ahead);
    // endpoints/pushbackend.cpp
    void handleFeatures(const std::string& id, const gloox::JID& entity, const gloox::StringList& features,
                        const gloox::Error* error) override;
    void handleParts(const std::string& id, const gloox::JID& entity, const gloox::StringList& parts,
                     const gloox::Error* error) override;
    // endpoints/pushendpoint.cpp
    void handlePushRegistration(const std::string& id, const gloox::JID& provider, const std::string& url,
                                const std::string& expiration, const gloox::Error* error) override;

    // session/requests.cpp: requests that wait for the server's result, by request id
    void keepRequest(const std::string& id, QSMessage* message);
    QSMessage* keptRequest(const std::string& id) const;  // borrowed; null when there is none
    KeptMessage takeRequest(const std::string& id);       // empty when there is none
    void setEndpointMap(const std::string& id, QSMessage* message, const std::string& endpoint,
                        const std::string& node, const std::string& appId);
    void keepEndpointRequest(const std::string& id, _endpointStruct request);
    void removeFromEndointMap(const std::string& id);
    std::optional<_endpointStruct> takeEndpointRequest(const std::string& id);
    std::map<std::string, _endpointStruct> takeEndpointRequests();
    void dropEndpointRequests(QSMessage* message);  // those that this message waits for
    // Counts the request towards its application's limit until it is taken out.
    void countCreation(const std::string& id, const std::string& appId);
    // Whether a caller is still waiting for the result.
    bool isAwaited(const std::string& id) const;

    // session/connection.cpp
    bool createSession();
    bool connectToService();
    bool tryConnecting();
    bool connectToServer(std::string ip);
    void attachSocketToMainLoop();
    static gboolean xmppCallback(GIOChannel* channel, GIOCondition condition, gpointer session);
    int recv();
    void cleanUpOnDisconnect();
    void disconnect();
    void dropClient();
    void dropSocketWatch();

    // service/status.cpp
    void postConnected(CallSite site = {});
    void postDisconnected(CallSite site = {});

    // session/login.cpp
    bool getLoginDetails();
    static bool getLoginResponse(QSHandle* handle, QSMessage* reply, void* session);

    // session/alarms.cpp
    bool setReconnectTimer(const std::string& in);
    void setPingTimer();
    void removeReconnectTimer();
    void stopReconnecting();  // once there is a connection
    void removePingTimer();
    void setPowerOn();
    void getBootStatus();
    void scheduleReconnect();
    void reconnect();
    static bool reconnectResponse(QSHandle* handle, QSMessage* reply, void* session);
    static bool alarmResponse(QSHandle* handle, QSMessage* reply, void* context);
    static bool bootStatusResponse(QSHandle* handle, QSMessage* reply, void* session);
    static bool xmppPing(void* session);
    bool setRenewalTimer(int64_t seconds);

    // delivery/submap.cpp: public subscribers
    void setSubMap(const std::string& node, const std::string& appId, QSHandle* handle);
    void setSubMapHandle(const std::string& node, QSHandle* handle);
    bool checkSubMap(const std::string& node, bool& found, std::string& appId, QSHandle*& handle,
                     std::string& errorCode, std::string& errorText);
    bool removeSubMap(const std::string& node);

    // delivery/handlerfile.cpp: registered item handlers and their file
    bool addNodeToMap(std::string node, std::string endpoint, bool app, bool& alreadyPresent);
    bool removeNodeFromMap(std::string node, std::string endpoint, bool app);
    // Whether the service handler confirms; false when it was so already.
    bool setConfirming(const std::string& node, const std::string& endpoint, bool confirm);
    void ReadHandlerFile();
    bool UpdateHandlerFile(const char* line, bool append);

    // session/preferences.cpp: the service's own store
    Preferences preferences();

    // session/openitems.cpp: the open items of nodes that have a receiver or confirming handlers
    bool keepsOpenItem(const std::string& node) const;
    std::shared_ptr<_receiverStruct> receiverOf(const std::string& node) const;  // null when there is none
    void setReceiver(const std::vector<std::string>& nodes, const std::shared_ptr<_receiverStruct>& receiver);
    std::vector<std::string> nodesOf(const std::shared_ptr<_receiverStruct>& receiver) const;
    void dropReceiver(const std::vector<std::string>& nodes);
    // The confirming handlers of the node have changed.
    void handlersChanged(const std::string& node);
    void forgetOpenNode(const std::string& node);  // it was deleted
    void acceptItem(const std::string& node, _itemStruct item);
    // Hands the open item out, unless somebody has it already; false when its receiver could not be reached.
    bool handOut(const std::string& node);
    // Whether the receipt is that of the node's open item.
    bool holdsReceipt(const std::string& node, const std::string& receipt) const;
    // The open item is taken: it is acknowledged, and then the request is answered, once its number is on disk.
    void takeOpenItem(const std::string& node, const std::string& endpoint, QSMessage* message);
    // The open item is handed out again after this time.
    void putBack(const std::string& node, int64_t milliseconds);
    void handlerAnswered(const _confirmCallStruct& call, bool confirmed);
    // Asks the handlers again that wait for their next try and belong to this service.
    void retryHandlers(const std::string& service);
    void finishTaken();  // after the commit
    void finish(const _takenItemStruct& taken);
    bool isWanted(const std::string& node, const _openNodeStruct& entry) const;
    void forgetItems(const std::string& node, _openNodeStruct& entry);
    void advance(const std::string& node);  // after the open item was taken
    void handlersDone(const std::string& node, _openNodeStruct& entry);
    void setDue(const std::string& node, _openNodeStruct& entry, int64_t milliseconds);
    void clearDue(const std::string& node, _openNodeStruct& entry);
    void armDueTimer();
    void dropTimers();
    static gboolean settleTaken(gpointer session);
    static gboolean handleDueNodes(gpointer session);

    // session/pushitems.cpp: messages of push providers
    void handlePush(const xmpp::ReceivedPush& push);

    // session/pushregistrations.cpp: endpoints of the account whose addresses come from a push provider
    const std::map<std::string, _pushRegistrationStruct>& pushNodes();
    const _pushRegistrationStruct* pushRegistration(const std::string& node);  // null for any other
    bool isPushNode(const std::string& node) { return pushRegistration(node) != nullptr; }
    bool storePush(const std::string& node, const _pushRegistrationStruct& registration);
    void forgetPush(const std::string& node);
    // What a provider knows the endpoint by: neither it nor its application can be told from that.
    bool namesForProvider(const std::string& node, const std::string& appId,
                          _pushRegistrationStruct& registration);

    // session/openlinks.cpp: what the server is told of these nodes
    void openWantedNodes();  // at a connect, before the device announces itself
    void forgetOpenLinks();  // the server keeps none across a disconnect
    // Results of the node's activations and deactivations; false for one that others asked for.
    bool openNodeAnswered(const std::string& id, const std::string& node, const gloox::Error* error);
    void openNodesAnswered(const std::string& bulkId, const xmpp::NodeErrors& failed);
    // Others have had the node deactivated, which ended the activation for its receiver too.
    void reopenNode(const std::string& node);
    void openNode(const std::string& node, _openNodeStruct& entry);
    void openNodes(const std::vector<std::string>& nodes);
    void closeNode(const std::string& node, _openNodeStruct& entry);
    void releaseNode(const std::string& node);                   // unless it is still wanted
    static std::string urgencyOf(const _openNodeStruct& entry);  // the least that is wanted; "": any
    void activationAnswered(const std::string& node, _openNodeStruct& entry, const gloox::Error* error);

    // delivery/seqno.cpp
    bool getSeqNo(const std::string& node, std::string& seqNo);
    bool getSeqNo(const std::string& node, uint64_t& seqNo);
    // Without a commit: the number counts already.
    void writeSeqNo(const std::string& node, const std::string& seqNo, CallSite site = {});
    // The same for an item of a node with one open item. Not in order: lower ones may still come.
    void writeTakenSeqNo(const std::string& node, const std::string& seqNo, bool inOrder);
    void writeRecord(Preferences& store, const std::string& node, json_object* record, CallSite site = {});
    // Commits, unless a piece of the server's input is being handled: its numbers have one commit.
    void persistSeqNo(const std::string& node, const std::string& seqNo);
    void commitSeqNos();  // those that were written without
    static uint64_t numberOf(const std::string& seqNo);
    bool isStalePacket(const std::string& node, const std::string& seqNo);
    // Moves a number that an earlier release stored under `key`, a key of the deletion store, to the node's
    // own key. False when there is none; the caller commits.
    static bool moveNumberAside(Preferences& store, const std::string& key);

    // delivery/offlinemap.cpp
    QPHandle* getOfflinePrefHandle();
    void commitOfflinePrefHandle();
    void setOfflineMap(const std::string& node, const std::string& value);
    void checkOfflineMap(const std::string& node, bool& found, std::string& errorCode,
                         std::string& errorText);
    void removeOfflineMap(const std::string& node);
    void persistOfflineMap(const std::string& node, const std::string& value);
    void deleteOfflineMap(const std::string& node);
    void loadOfflineMapFromDisk();

    // delivery/cache.cpp: one file for each node, holding the newest item that no handler accepted
    // sic: the first segment of the name is dropped, so nodes that differ only in it share one file.
    static void getFilePathFromNodeId(const std::string& node, std::string& path);
    // Both replace the node's file as a unit; true once it is on disk.
    static bool saveItemInCache(const std::string& node, json_object* item);
    static bool updateFile(const std::string& node, const std::string& text);
    // The cached item, which the caller owns; null when there is none.
    static json_object* getItemFromCache(const std::string& node);
    static void deleteItemFromCache(const std::string& node);
    static bool isCached(const std::string& node);

    // delivery/incoming.cpp
    void handleIncomingItem(const gloox::Tag& items);
    // Acknowledges the item, with the others of its piece of input once that has been handled.
    void acknowledge(const std::string& node, const std::string& itemId, const std::string& seqNo = {});
    void acknowledgeWhenSettled(const std::string& node, const std::string& itemId, const std::string& seqNo);
    // Commits the numbers of the items that were delivered, and acknowledges the items, in their order.
    void settleItems();
    bool isHandlingInput() const;
    bool sendMessageToServices(json_object* serviceObject, const std::string& node);
    bool sendMessageToApp(json_object* serviceObject, json_object* appObject, const std::string& node);

    // delivery/confirm.cpp: handlers whose answer is the acknowledgement
    // Calls those that have not confirmed the open item; false when none could be called.
    bool askHandlers(const std::string& node, _openNodeStruct& entry);
    void cancelHandlerCalls(_openNodeStruct& entry);
    void watchHandlerService(const std::string& service);
    static std::string serviceOfHandler(const std::string& address);  // "" when there is none
    static bool confirmationArrived(QSHandle* handle, QSMessage* reply, void* call);
    static bool handlerServiceChanged(QSHandle* handle, QSMessage* report, void* service);

    // endpoints/publishkeys.cpp
    void handleKeyCb(const std::string& id, const gloox::JID& service, const std::string& key,
                     const std::string& url, const gloox::Error* error, const std::string& what);

    // endpoints/pushendpoint.cpp: addresses that come from a push provider
    void tellAddress(const std::string& node);  // to its receiver, if it has changed
    void beginPushes();                         // at a connect
    void endPushes();                           // at a disconnect

    // endpoints/publicsubscribe.cpp: subscribers that arrived while there was no connection
    void activateDeferredSubscribers();
    void settleDeferredSubscriber(const std::string& node);
    void dropDeferredSubscriber(const std::string& node);
    void firstAnswerGiven(const _endpointStruct& request);

    // endpoints/receive.cpp: receivers of several endpoints
    void addReceiver(const std::shared_ptr<_receiverStruct>& receiver);
    void endReceiver(QSMessage* message);  // the client has cancelled the request, or is gone
    // The application has created the node: whoever asked for it receives it from now on.
    void joinReceiver(const std::string& node, const std::string& appId);
    void rejoinReceivers();  // at a connect, which may be another account's
    bool giveToReceiver(const std::string& node, _openNodeStruct& entry);
    // Writes what could not be written before, until the client's queue is full again.
    void writeUnsent(_receiverStruct& receiver);

    // endpoints/listendpoints.cpp: `counts` is null when the server has not told how many items wait
    void answerEndpoints(const _endpointStruct& request, const std::map<std::string, std::string>* counts);

    // endpoints/onclose.cpp
    void setOnCloseRegistered(bool registered);

    // endpoints/writerate.cpp: `writes` says whether the request changes what is on disk. Later: the request
    // is kept, and `handler` is called with it again. Never: too many of its application's requests wait.
    WriteTurn takeWriteTurn(const Request& request, bool writes, QSFilter handler);
    static gboolean handleWaitingWrites(gpointer session);

    // maintenance/activation.cpp
    bool activateNode(const std::string& node, std::string& requestId);
    void activated(const std::string& node, bool value);
    void removeActivateMap(const std::string& node);
    bool mayBeActive(const std::string& node) const;  // at the server, in this connection
    // The node was deactivated for its receiver: activates it for those who want it without receiving.
    void activateForOthers(const std::string& node);
    void forgetActivations();  // the server keeps none across a disconnect
    void activateNodes();

    // maintenance/deletestore.cpp
    // Whether the application may own this endpoint; `known` receives whether it owns it already.
    bool mayOwnNode(const std::string& node, const std::string& appId, bool* known = nullptr);
    // The nodes that are stored beside the record `key`, each under a key of its own.
    std::set<std::string>& furtherNodes(const std::string& key);
    // The nodes of the application that belong to the account in use: those with this prefix.
    std::vector<std::string> ownedNodes(const std::string& appId, const std::string& prefix);
    bool addNodeToDeleteStore(const std::string& node, const std::string& appId);
    bool removeNodeFromDeleteStore(const std::string& node, const std::string& appId);
    bool cleanupNodes(const std::string& appId, const std::string& storeKey);
    void deleteBulkNodes();
    void forgetBulkDeletions();  // no result arrives after a disconnect

    std::map<std::string, KeptMessage> m_msgMap;  // requests waiting for a result, by request id
    std::list<std::string> m_pendingList;         // nodes whose pending subscribers are not requested yet
    std::size_t m_pendingCursor = kNoCursor;      // position in m_pendingList
    std::map<std::string, std::list<std::string>> appNodeMap;      // node -> application handlers
    std::map<std::string, std::list<std::string>> serviceNodeMap;  // node -> service handlers
    gloox::JID m_jid;                                              // the account
    xmpp::Client* m_client = nullptr;                              // owned; replaced by every new session
    xmpp::Manager* m_pubsub = nullptr;    // owned; outlives its client until the next session
    bool m_connected = false;             // the stream is up
    int m_socket = 0;                     // descriptor of the connection
    std::string m_pubsubService;          // JID of the pub-sub service
    QSHandle* m_privateHandle = nullptr;  // private bus: outgoing calls, private subscriptions
    GMainLoop* m_mainLoop = nullptr;
    std::string m_password;
    std::string m_server;    // host to connect to
    std::string m_username;  // local part of the account's JID
    std::string m_resource;  // empty: the server chooses one
    std::string m_domain;    // destination of the keep-alive ping
    int m_port = 0;
    bool m_networkAvailable = false;                       // as last reported by the connection manager
    bool m_connecting = false;                             // a connect attempt is in progress
    int m_lastError = 0;                                   // last gloox::ConnectionError
    int m_retryCount = -1;                                 // reconnect attempts since the last connect
    std::string m_ipAddress;                               // local address to connect from
    bool m_spare1 = false;                                 // never read
    bool m_reconnectPending = false;                       // the reconnect alarm is set
    QPHandle* m_prefsHandle = nullptr;                     // preferences of the service
    std::map<std::string, _endpointStruct> m_endpointMap;  // public requests waiting for a result
    QSHandle* m_publicHandle = nullptr;                    // public bus
    std::map<std::string, std::string> m_offlineMap;  // node -> application to be notified while it is closed
    bool m_onCloseRegistered = false;                 // a client listens for on-close notices
    std::map<std::string, _subMapStruct> subMap;      // node -> public subscriber
    QSZeltService* m_serviceHandle = nullptr;         // both connections
    std::map<std::string, std::string> m_deleteMap;   // pending bulk deletes: request id -> store key
    bool m_debugLog = false;                          // log gloox's own lines
    bool m_spare2 = false;                            // never read
    QPHandle* m_offlinePrefHandle = nullptr;          // the offline store
    std::map<std::string, bool> m_activateMap;        // node -> confirmed active in this connection
    bool m_bootFinished = false;                      // the system manager reported boot finished
    bool m_activationDone = false;  // sic: cleared on disconnect and never set, so activation always runs
    bool m_spare3 = false;          // would hold node activation back; never set
    bool m_onWan = false;           // the connection runs over the mobile link
    bool m_survivedOutage = false;  // it stayed up over the mobile link while there was no Internet
    bool m_endedByRequest = false;  // the method `disconnect` was called, and no attempt has followed
    int64_t m_connectedAt = 0;      // boot-time clock; while the stream is up
    // node -> subscribe request without a first answer
    std::map<std::string, _endpointStruct> m_deferredSubscribes;
    // key of the deletion store -> further nodes
    std::map<std::string, std::set<std::string>> m_furtherNodes;
    bool m_furtherNodesRead = false;                       // m_furtherNodes was read from the store
    std::map<std::string, _writeRateStruct> m_writeRates;  // application -> its recent writes
    guint m_writeTimer = 0;          // timer for the waiting requests; 0 while none waits
    QSMessage* m_writing = nullptr;  // the waiting request that is being handled
    std::map<std::string, std::weak_ptr<void>> m_creating;  // application -> shared by its pending creations
    std::string m_preparedText;                             // the text that m_preparedService was made of
    gloox::JID m_preparedService;
    std::vector<_handledItemStruct> m_handledItems;  // to be acknowledged in this order
    bool m_seqNosWritten = false;                    // numbers of these items wait for their commit
    std::map<std::string, std::set<std::string>> m_confirming;  // node -> its service handlers that confirm
    std::map<std::string, std::shared_ptr<std::string>> m_handlerWatches;  // services of such handlers
    std::list<std::shared_ptr<_receiverStruct>> m_receivers;
    std::map<std::string, _openNodeStruct> m_openNodes;    // nodes with a receiver or confirming handlers
    std::vector<_takenItemStruct> m_takenItems;            // whose numbers wait for their commit
    guint m_settleSource = 0;                              // commits them; 0 while there are none
    std::set<std::pair<int64_t, std::string>> m_dueNodes;  // when something happens with an open item
    guint m_dueTimer = 0;                                  // for the first of them; 0 while there are none
    Traces m_traces;                                       // of marked items
    _pushSearchStruct m_pushSearch;                        // who gives addresses of web push
    _pushRenewalStruct m_pushRenewal;                      // of such addresses
    std::string m_pushAccount;                             // bare JID that m_pushNodes is of
    std::map<std::string, _pushRegistrationStruct> m_pushNodes;  // node -> its address
    int64_t m_awakeSince = 0;  // monotonic microseconds: the last activity that a receiver caused

    // Watch on the XMPP socket, borrowed from the main context; null when there is none.
    static GSource* m_source;
    static constexpr std::size_t kNoCursor = static_cast<std::size_t>(-1);
};

// delivery/seqno.cpp: forgets the number of the node's last item; does nothing for a node without one.
void removeSeqNo(const std::string& node, PubSubSession& session);

// The factory with which other programs of the platform open a session of their own.
class PubSubService {
  public:
    bool createSession(const std::string& jid, const std::string& password, const std::string& resource,
                       const std::string& server, const std::string& service, int port);
};

// session/globals.cpp: constructed in this order, before main.
extern std::string gjid;
extern std::string gpasswd;
extern std::string gpNode;
extern std::string gserver;
extern std::string gresource;
extern PubSubSession gPubSub;          // stays as constructed; never used
extern PubSubSession gCurrentSession;  // the one session
extern int32_t gport;
extern GMainLoop* gpMainLoop;
