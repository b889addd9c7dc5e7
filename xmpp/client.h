// SPDX-License-Identifier: GPL-3.0-only
// gloox's client with our transport and TLS, and a short way for messages and answers straight from the parser.
#pragma once

#include <gloox/client.h>
#include <gloox/message.h>
#include <glib.h>

#include <functional>
#include <string>

namespace xmpp {

class Manager;

// A message stanza as it came: what the client hands to gloox::MessageHandler::handleMessage.
class ReceivedMessage : public gloox::Message {
  public:
    explicit ReceivedMessage(const gloox::Tag& tag)
        : Message(Headline, gloox::JID()), m_tag(tag) {}
    // The whole message element, borrowed for the time of the call.
    const gloox::Tag& element() const { return m_tag; }

  private:
    const gloox::Tag& m_tag;
};

class Client : public gloox::Client {
  public:
    Client(const gloox::JID& jid, const std::string& password, int port);
    ~Client() override;

    // Events and forms from anyone but this entity are dropped and logged.
    void setPubSubService(const gloox::JID& service);
    // Starts the connection from `localAddress` ("" for any) and returns at once. True: socket() can be watched
    // for input from now on and recv() drives everything; a failure that comes later is reported by onDisconnect.
    // False: no connection, onDisconnect was or will not be called as gloox's connect() has it.
    bool connect(const std::string& localAddress, GMainContext* context);
    // The descriptor to watch, the same number until the connection ends; -1 when there is none.
    int socket() const;

    // Ends and deletes a client, at once or, when it is called from inside one of the client's own callbacks,
    // from an idle; whatever the client still parses until then is dropped. Null is fine.
    static void dispose(Client* client);

    // Builds the connection object; the unit tests put a scripted one here.
    using ConnectionFactory = std::function<gloox::ConnectionBase*(
        Client& client, const std::string& host, int port, const std::string& localAddress, GMainContext* context)>;
    static void setConnectionFactory(ConnectionFactory factory);

    void handleTag(gloox::Tag* tag) override;
};

}  // namespace xmpp
