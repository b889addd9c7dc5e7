// SPDX-License-Identifier: GPL-3.0-only
// gloox's client with this service's transport, TLS and parser, and a fast path for messages and answers
// that bypasses gloox.
//
// Owns the connection; borrows listeners, handlers and the manager. A client serves one connection; none of
// its state survives it.
#pragma once

#include <glib.h>
#include <gloox/client.h>
#include <gloox/connectionlistener.h>
#include <gloox/loghandler.h>
#include <gloox/message.h>

#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "xmpp/pushprovider.h"
#include "xmpp/streamparser.h"

namespace xmpp {

class Manager;

// A received message stanza: what the client passes to gloox::MessageHandler::handleMessage.
class ReceivedMessage : public gloox::Message {
  public:
    explicit ReceivedMessage(const gloox::Tag& tag) : Message(Headline, gloox::JID()), m_tag(tag) {}
    // The whole message element, borrowed for the duration of the call.
    const gloox::Tag& element() const { return m_tag; }

  private:
    const gloox::Tag& m_tag;
};

// TLS is required, compression and the roster are off, and no presence is broadcast. A device sends presence
// only to the pub-sub service; after a broadcast the server would resend the last item of every subscribed
// node and deliver the account's offline messages.
class Client : public gloox::Client, private gloox::ConnectionListener, private gloox::LogHandler {
  public:
    Client(const gloox::JID& jid, const std::string& password, int port);
    ~Client() override;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Events and forms from any other entity are dropped and logged.
    void setPubSubService(const gloox::JID& service);
    // PEM files of the certificate authorities to trust; read by connect().
    void setCACerts(const gloox::StringList& files) { m_caFiles = files; }
    // The time limit for connecting and logging in together.
    void setDeadline(guint milliseconds) { m_deadline = milliseconds; }

    // Starts the connection from `localAddress` ("" for any) and returns at once. True: socket() can be
    // watched for input and recv() does the rest; a later failure is reported by onDisconnect. False: no
    // connection, and onDisconnect has been called once.
    bool connect(const std::string& localAddress, GMainContext* context);
    // Ends the connection or the attempt; calls onDisconnect with ConnUserDisconnected before it returns.
    void disconnect();
    // The descriptor to watch, with the same number until the connection ends; -1 when there is none.
    int socket() const;

    // Disconnects and deletes a client: at once, or from an idle source when called inside one of the
    // client's own callbacks. Until then it drops what it parses and calls no handlers. Its manager is
    // detached. Accepts null.
    static void dispose(Client* client);

    // Creates the connection object; the unit tests set a scripted one. An empty factory selects
    // the real one.
    using ConnectionFactory =
        std::function<gloox::ConnectionBase*(Client& client, const std::string& host, int port,
                                             const std::string& localAddress, GMainContext* context)>;
    static void setConnectionFactory(ConnectionFactory factory);

    // These hide gloox's own, whose lists are private.
    void registerConnectionListener(gloox::ConnectionListener* listener);
    void removeConnectionListener(gloox::ConnectionListener* listener);
    void registerMessageHandler(gloox::MessageHandler* handler);
    void removeMessageHandler(gloox::MessageHandler* handler);
    // Called when the messages of a piece of input, which is what one read of the socket returned, have been
    // handled, and before any other stanza of it is. What it sends goes out with the rest of the piece.
    void setMessagesDone(std::function<void()> done) { m_messagesDone = std::move(done); }
    // Called with each message of a push provider, whoever sent it. Without it they are answered as unknown.
    using PushHandler = std::function<void(const ReceivedPush& push)>;
    void setPushHandler(PushHandler handler) { m_pushHandler = std::move(handler); }
    // Whether a piece of input is being handled.
    bool isHandlingInput() const { return m_handlingInput; }
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
    bool isService(const std::string& jid) const;
    bool isForeignEvent(const gloox::Tag& message);
    void passMessage(const gloox::Tag& message);
    bool passPush(const gloox::Tag& stanza);
    void logIncoming(const gloox::Tag& tag);
    void parse(const std::string& data);
    void reportMessagesDone();

    struct Sender {
        std::string text;  // as stanzas give it
        bool isService;
    };

    std::vector<gloox::ConnectionListener*> m_listeners;
    std::vector<gloox::MessageHandler*> m_messageHandlers;
    Manager* m_manager = nullptr;  // borrowed; resets this itself
    std::function<void()> m_messagesDone;
    PushHandler m_pushHandler;
    gloox::JID m_service;          // the one sender of events and forms
    std::deque<Sender> m_senders;  // the last ones: preparing a JID takes a tenth of an item's CPU time
    StreamParser m_streamParser{*this};
    gloox::StringList m_caFiles;
    gloox::LogSink m_log;               // for handlers from outside; the client relays gloox's log to it
    GMainContext* m_context = nullptr;  // one reference from connect() on
    guint m_deadline = 60'000;
    int m_depth = 0;  // calls of this client on the stack, which it must outlive
    bool m_handlingInput = false;
    bool m_relaysLog = false;
    bool m_streamUp = false;  // the session is established
    bool m_ended = true;      // onDisconnect has been reported for this connection, or there was none
    bool m_disposed = false;
};

}  // namespace xmpp
