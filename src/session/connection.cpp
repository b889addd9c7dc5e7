// SPDX-License-Identifier: GPL-3.0-only
// The XMPP connection: creates the client, watches its socket on the main loop, handles
// connect and disconnect.
//
// States: idle, connecting (m_connecting), connected (m_connected). The main context owns the watch, which
// never outlives its client. Nothing here survives a restart; requests in m_msgMap survive a disconnect.
#include <gloox/connectionbase.h>
#include <gloox/disco.h>
#include <gloox/logsink.h>
#include <gloox/presence.h>
#include <json-c/json.h>

#include <cstdlib>
#include <utility>

#include "session/pubsubsession.h"
#include "util/clock.h"
#include "util/jsonref.h"
#include "util/log.h"
#include "util/logsubject.h"
#include "util/paths.h"
#include "xmpp/client.h"
#include "xmpp/manager.h"

GSource* PubSubSession::m_source = nullptr;

namespace {

constexpr int kAllLogAreas = 0xffffff;
constexpr int kReceiveTimeout = 10;  // microseconds; short, because the watch reports when there is input
constexpr auto kWatched = static_cast<GIOCondition>(G_IO_IN | G_IO_ERR | G_IO_HUP | G_IO_NVAL);

bool ended(GSource* watch) {
    return watch && g_source_is_destroyed(watch);
}

void logCondition(GIOCondition condition, CallSite site = {}) {
    if (condition & G_IO_HUP)
        PrvPrintErr(site, "xmpp server socket disconnected");
    if (condition & G_IO_ERR)
        PrvPrintErr(site, "xmpp server socket io error");
    if (condition & G_IO_NVAL)
        PrvPrintErr(site, "xmpp server socket closed");
}

void answerDisconnected(const _endpointStruct& request, CallSite site = {}) {
    JsonObject answer;
    answer.set("returnValue", false).set("endpoint", request.endpoint);
    answer.set("errorCode", "connectionErr").set("errorText", "pubsubservice disconnected");
    BusError error;
    if (!QSMessageRespond(request.message.get(), answer.text().c_str(), error))
        PrvPrintErr(site, "Sending response to message failed Error %s ", error.message());
}

}  // namespace

bool PubSubSession::createSession() {
    if (m_password.empty() || m_server.empty() || m_jid.full().empty()) {
        PrvPrintErr({}, "Password *, Server %s and %s not initialized", m_server.c_str(),
                    m_jid.username().c_str());
        return false;
    }
    if (m_client) {
        PrvPrintErr({}, "Overriding session with new session.");
        dropSocketWatch();
        m_client->disconnect();
        dropClient();
    }
    m_client = new xmpp::Client(m_jid, m_password, m_port);
    m_client->setServer(m_server);
    if (!m_resource.empty())
        m_client->setResource(m_resource);
    m_client->setCACerts({caFile()});
    m_client->setTls(gloox::TLSRequired);
    m_client->setCompression(false);
    m_client->setPubSubService(pubsubService());
    auto* manager = new xmpp::Manager(m_client);
    manager->setAwaited([this](const std::string& id) { return isAwaited(id); });
    if (m_pubsub)
        manager->takeOver(*m_pubsub);
    delete std::exchange(m_pubsub, manager);
    m_connected = false;
    return true;
}

bool PubSubSession::connectToService() {
    m_lastError = 0;
    if (!m_networkAvailable) {
        PrvPrintErr({}, "There is no network available, cannot connect to service");
        return false;
    }
    if (m_connected || m_connecting)
        return true;
    if (!createSession()) {
        PrvPrintErr({}, "Create session failed");
        m_connecting = false;
        return false;
    }
    setLogState("connecting");
    m_connecting = true;
    m_endedByRequest = false;
    if (getenv("xmpp_config"))
        turnOffTls();
    if (m_ipAddress.empty())
        PrvPrintErr({}, "IP Address empty even though we have network available!");
    PrvPrintErr({}, "We are connecting to the vbx server.");
    if (connectToServer(m_ipAddress)) {
        attachSocketToMainLoop();
        return true;
    }
    PrvPrintErr({}, "There is no server or network, connection to server fails");
    PrvPrintErr({}, "Warning: We are not connected to the vbx server");
    m_connecting = false;
    return true;  // the caller sees the failure in the flags alone
}

bool PubSubSession::tryConnecting() {
    return connectToService();
}

bool PubSubSession::connectToServer(std::string ip) {
    if (m_debugLog)
        m_client->logInstance().registerLogHandler(gloox::LogLevelDebug, kAllLogAreas, this);
    m_client->registerMessageHandler(this);
    m_client->setMessagesDone([this] { settleItems(); });
    m_client->setPushHandler([this](const xmpp::ReceivedPush& push) { handlePush(push); });
    m_client->registerConnectionListener(this);
    m_client->disco()->registerDiscoHandler(this);
    if (!m_client->connect(ip, m_mainLoop ? g_main_loop_get_context(m_mainLoop) : nullptr))
        return false;
    const int descriptor = m_client->socket();
    if (descriptor < 0)
        return false;
    m_socket = descriptor;
    return true;
}

void PubSubSession::attachSocketToMainLoop() {
    GIOChannel* channel = g_io_channel_unix_new(m_socket);
    GSource* watch = g_io_create_watch(channel, kWatched);
    g_source_set_callback(watch, G_SOURCE_FUNC(xmppCallback), this, nullptr);
    g_source_attach(watch, m_mainLoop ? g_main_loop_get_context(m_mainLoop) : nullptr);
    g_io_channel_unref(channel);
    g_source_unref(watch);  // the context owns it from here on
    m_source = watch;
    PrvPrintErr({}, "Attached socket %d to mainloop", m_socket);
}

// A bus request or a parsed stanza may disconnect the session and connect it again while this runs, so only
// this watch's own state says whether it is still in use.
gboolean PubSubSession::xmppCallback(GIOChannel*, GIOCondition condition, gpointer context) {
    auto* session = static_cast<PubSubSession*>(context);
    GSource* watch = g_main_current_source();
    logCondition(condition);
    // Learn of clients that have left the bus before an item is delivered to them.
    if (session->m_serviceHandle)
        QSZeltServiceReadReceived(session->m_serviceHandle);
    if (ended(watch))
        return G_SOURCE_REMOVE;
    const int result = session->recv();
    if (result == gloox::ConnNoError)
        return ended(watch) ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
    PrvPrintErr({}, "We had some type of connection error %d", result);
    session->m_lastError = result;
    if (m_source == watch)
        m_source = nullptr;
    return G_SOURCE_REMOVE;
}

int PubSubSession::recv() {
    return m_client ? m_client->recv(kReceiveTimeout) : gloox::ConnNotConnected;
}

bool PubSubSession::onTLSConnect(const gloox::CertInfo& info) {
    if (info.status == gloox::CertOk)
        return true;
    PrvPrintErr({}, "Certificate validation failed");
    PrvPrintErr(
        {},
        "Cert Info status: %d\nissuer: %s\npeer: %s\nprotocol: %s\nmac: %s\ncipher: %s\ncompression: %s\n",
        info.status, info.issuer.c_str(), info.server.c_str(), info.protocol.c_str(), info.mac.c_str(),
        info.cipher.c_str(), info.compression.c_str());
    return false;
}

void PubSubSession::onConnect() {
    setLogState("connected");
    m_connected = true;
    m_connectedAt = bootTime();
    m_connecting = false;
    m_survivedOutage = false;
    m_lastError = 0;
    PrvPrintErr({}, "We formed a connection with the xmpp server");
    stopReconnecting();
    setPingTimer();
    m_spare3 = false;
    // Before the device announces itself: the server would send all that it keeps of these nodes.
    openWantedNodes();
    if (m_client)
        m_client->setPresence(pubsubService(), gloox::Presence::Available, 0, "online");
    beginPushes();
    activateDeferredSubscribers();
    if (m_bootFinished && !m_activationDone)
        activateNodes();
    deleteBulkNodes();
    postConnected();
}

void PubSubSession::onDisconnect(gloox::ConnectionError error) {
    setLogState("disconnected");
    m_connected = false;
    m_connecting = false;
    m_activationDone = false;
    m_spare3 = false;
    m_survivedOutage = false;
    PrvPrintErr({}, "Disconnected from xmpp server %d", error);
    removePingTimer();
    if (error != gloox::ConnNoError && error != gloox::ConnUserDisconnected) {
        m_lastError = error;
        scheduleReconnect();
    }
    postDisconnected();
    cleanUpOnDisconnect();
    dropSocketWatch();
}

void PubSubSession::cleanUpOnDisconnect() {
    for (const auto& [id, request] : takeEndpointRequests()) {
        const char* method = QSMessageGetMethod(request.message.get());
        if (method && std::string(method) == "listEndpoints") {
            answerEndpoints(request, nullptr);
            continue;
        }
        if (method && std::string(method) == "subscribe")
            removeSubMap(request.node);
        answerDisconnected(request);
    }
    forgetBulkDeletions();
    forgetActivations();
    forgetOpenLinks();
    endPushes();
}

void PubSubSession::disconnect() {
    if (!m_client)
        return;
    m_client->disconnect();  // calls onDisconnect before it returns
    dropClient();
}

// The manager stays until the next session replaces it, but sends nothing.
void PubSubSession::dropClient() {
    dropSocketWatch();
    if (m_pubsub)
        m_pubsub->detach();
    xmpp::Client::dispose(std::exchange(m_client, nullptr));
}

void PubSubSession::dropSocketWatch() {
    if (GSource* watch = std::exchange(m_source, nullptr))
        g_source_destroy(watch);
}
