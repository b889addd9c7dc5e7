// SPDX-License-Identifier: GPL-3.0-only
// gloox's client with our transport, TLS and parser, and a short way for messages and answers straight from
// the parser.
//
// Owns the connection; borrows listeners, handlers and the manager. One client is good for one connection and
// for none of its state to survive it.
#pragma once

#include <glib.h>
#include <gloox/client.h>
#include <gloox/connectionlistener.h>
#include <gloox/loghandler.h>
#include <gloox/message.h>

#include <functional>
#include <string>
#include <vector>

#include "xmpp/streamparser.h"

namespace xmpp {

class Manager;

// A message stanza as it came: what the client hands to gloox::MessageHandler::handleMessage.
class ReceivedMessage : public gloox::Message {
  public:
    explicit ReceivedMessage(const gloox::Tag& tag) : Message(Headline, gloox::JID()), m_tag(tag) {}
    // The whole message element, borrowed for the time of the call.
    const gloox::Tag& element() const { return m_tag; }

  private:
    const gloox::Tag& m_tag;
};

// TLS is required, compression and the roster are off, and no presence is broadcast: a device announces
// itself to the pub-sub service alone, and a broadcast would bring it the last item of every subscribed node
// once more, and everything that strangers left for the account.
class Client : public gloox::Client, private gloox::ConnectionListener, private gloox::LogHandler {
  public:
    Client(const gloox::JID& jid, const std::string& password, int port);
    ~Client() override;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Events and forms from anyone but this entity are dropped and logged.
    void setPubSubService(const gloox::JID& service);
    // PEM files of the authorities that the server's certificate may come from; taken over by connect().
    void setCACerts(const gloox::StringList& files) { m_caFiles = files; }
    // How long connecting and logging in may take together.
    void setDeadline(guint milliseconds) { m_deadline = milliseconds; }

    // Starts the connection from `localAddress` ("" for any) and returns at once. True: socket() can be
    // watched for input from now on and recv() drives everything; a failure that comes later is reported by
    // onDisconnect. False: no connection, and onDisconnect has been called, once.
    bool connect(const std::string& localAddress, GMainContext* context);
    // Ends a connection or the attempt at one: onDisconnect with ConnUserDisconnected before it returns.
    void disconnect();
    // The descriptor to watch, the same number until the connection ends; -1 when there is none.
    int socket() const;

    // Ends and deletes a client, at once or, when it is called from inside one of the client's own callbacks,
    // from an idle; whatever the client still parses until then is dropped, nobody is called any more, and
    // its manager is detached. Null is fine.
    static void dispose(Client* client);

    // Builds the connection object; the unit tests put a scripted one here. An empty factory: the real one.
    using ConnectionFactory =
        std::function<gloox::ConnectionBase*(Client& client, const std::string& host, int port,
                                             const std::string& localAddress, GMainContext* context)>;
    static void setConnectionFactory(ConnectionFactory factory);

    // These stand before gloox's own, which keeps its lists to itself.
    void registerConnectionListener(gloox::ConnectionListener* listener);
    void removeConnectionListener(gloox::ConnectionListener* listener);
    void registerMessageHandler(gloox::MessageHandler* handler);
    void removeMessageHandler(gloox::MessageHandler* handler);
    gloox::LogSink& logInstance();

    gloox::ConnectionError recv(int timeout = -1) override;
    void handleTag(gloox::Tag* tag) override;
    void handleConnect(const gloox::ConnectionBase* connection) override;
    void handleReceivedData(const gloox::ConnectionBase* connection, const std::string& data) override;
    void handleDecryptedData(const gloox::TLSBase* tls, const std::string& data) override;
    void handleHandshakeResult(const gloox::TLSBase* tls, bool success, gloox::CertInfo& info) override;
    void handleDisconnect(const gloox::ConnectionBase* connection, gloox::ConnectionError reason) override;

  private:
    friend class Manager;
    class Busy;

    void onConnect() override;
    void onDisconnect(gloox::ConnectionError error) override;
    void onResourceBind(const std::string& resource) override;
    void onResourceBindError(const gloox::Error* error) override;
    void onSessionCreateError(const gloox::Error* error) override;
    bool onTLSConnect(const gloox::CertInfo& info) override;
    void onStreamEvent(gloox::StreamEvent event) override;
    void handleLog(gloox::LogLevel level, gloox::LogArea area, const std::string& message) override;
    void rosterFilled() override;

    bool installConnection(const std::string& localAddress);
    bool installTls();
    void failConnection(gloox::ConnectionError error);
    using gloox::ClientBase::disconnect;  // the one with a reason, which the one above would hide
    void sendStanza(const std::string& stanza) { send(stanza); }
    bool isOutOfPlace(const gloox::Tag& tag) const;
    bool isFromService(const std::string& from);
    bool isForeignEvent(const gloox::Tag& message);
    void passMessage(const gloox::Tag& message);
    void logIncoming(const gloox::Tag& tag);
    void parse(const std::string& data);

    std::vector<gloox::ConnectionListener*> m_listeners;
    std::vector<gloox::MessageHandler*> m_messageHandlers;
    Manager* m_manager = nullptr;   // borrowed; it takes itself out
    gloox::JID m_service;           // the one sender of events and forms
    std::string m_serviceSpelling;  // how that sender last wrote itself: spares preparing it for each stanza
    StreamParser m_streamParser{*this};
    gloox::StringList m_caFiles;
    gloox::LogSink m_log;               // what the outside registers on; this client relays gloox's own to it
    GMainContext* m_context = nullptr;  // one reference from connect() on
    guint m_deadline = 60'000;
    int m_depth = 0;  // calls of this client on the stack: it must outlive them
    bool m_relaysLog = false;
    bool m_streamUp = false;  // the session is established
    bool m_ended = true;      // onDisconnect has been passed on for this connection, or there was none
    bool m_disposed = false;
};

}  // namespace xmpp
