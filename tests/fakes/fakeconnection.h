// SPDX-License-Identifier: GPL-3.0-only
// The XMPP server of the unit tests: a connection object that acts as the server for opening a stream without
// TLS, records every later stanza of the client in the journal, and sends what the test specifies.
//
// One server for a test process, with at most one open connection, the last one created.
#pragma once

#include <gloox/connectiontcpclient.h>
#include <gloox/tag.h>
#include <gloox/taghandler.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace gloox {
class Parser;
}

class FakeServer;

// A stanza that the client wrote after its login.
class SentStanza {
  public:
    explicit SentStanza(const gloox::Tag& tag) : m_tag(tag.clone()), m_xml(tag.xml()) {}
    const std::string& xml() const { return m_xml; }
    const gloox::Tag& tag() const { return *m_tag; }
    const std::string& id() const { return m_tag->findAttribute("id"); }
    // The text with its id replaced by "ID", for comparison: ids never repeat.
    std::string textWithoutId() const;

  private:
    std::shared_ptr<gloox::Tag> m_tag;
    std::string m_xml;
};

// Replaces the id of the first element of an XML text by "ID".
std::string withoutId(const std::string& xml);

class FakeConnection : public gloox::ConnectionTCPClient {
  public:
    FakeConnection(FakeServer& server, gloox::ConnectionDataHandler* handler, const gloox::LogSink& log,
                   const std::string& host, int port);
    ~FakeConnection() override;

    gloox::ConnectionError connect() override;
    gloox::ConnectionError recv(int timeout) override;
    bool send(const std::string& data) override;
    gloox::ConnectionError receive() override;
    void disconnect() override;
    void cleanup() override;
    gloox::ConnectionBase* newInstance() const override { return nullptr; }

    // Input for the next recv().
    void queue(const std::string& data);
    // The connection is lost once everything queued has been read.
    void loseWith(gloox::ConnectionError error);

  private:
    void wake();

    FakeServer& m_fakeServer;
    std::deque<std::string> m_incoming;
    gloox::ConnectionError m_loss = gloox::ConnNoError;
};

class FakeServer : private gloox::TagHandler {
  public:
    FakeServer();
    ~FakeServer() override;

    // Every client created from now on connects to this server.
    void install();
    // Resets to a server that accepts every login; forgets an open connection.
    void reset();

    // --- how it behaves at the next connect
    void refuseConnections(gloox::ConnectionError error) { m_refusal = error; }     // connect() fails
    void failAfterConnect(gloox::ConnectionError error) { m_lateFailure = error; }  // the first recv() fails
    void offerMechanism(const std::string& mechanism) { m_mechanism = mechanism; }  // "PLAIN", "ANONYMOUS"
    void refuseLogin(const std::string& condition) { m_loginRefusal = condition; }  // "not-authorized"
    void answerNothing() { m_mute = true; }                                         // answers nothing
    void bindAs(const std::string& jid) { m_boundJid = jid; }  // "": user@host/resource as the client asked

    // --- what it does in an open stream; the client sees it when the main context turns
    void sends(const std::string& xml);
    void closesStream();                            // </stream:stream>
    void closesWith(gloox::ConnectionError error);  // the connection breaks

    // --- what it saw
    bool connected() const { return m_connection != nullptr; }
    bool loggedIn() const { return m_loggedIn; }
    bool streamClosedByClient() const { return m_streamClosed; }
    int connects() const { return m_connects; }
    const std::string& host() const { return m_host; }
    int port() const { return m_port; }
    const std::string& localAddress() const { return m_localAddress; }
    int receiveTimeout() const { return m_receiveTimeout; }  // of the last recv(), microseconds
    const std::vector<SentStanza>& stanzas() const { return m_stanzas; }
    void forgetStanzas() { m_stanzas.clear(); }

  private:
    friend class FakeConnection;

    void opened(FakeConnection* connection);
    void closed(FakeConnection* connection);
    void received(const std::string& data);
    void handleTag(gloox::Tag* tag) override;
    void openStream();
    void authenticate();
    bool answerLogin(const gloox::Tag& iq);

    std::unique_ptr<gloox::Parser> m_parser;
    FakeConnection* m_connection = nullptr;
    std::vector<SentStanza> m_stanzas;
    std::string m_host;
    int m_port = 0;
    std::string m_localAddress;
    int m_receiveTimeout = -1;
    std::string m_domain;
    std::string m_user;
    std::string m_mechanism;
    std::string m_loginRefusal;
    std::string m_boundJid;
    gloox::ConnectionError m_refusal = gloox::ConnNoError;
    gloox::ConnectionError m_lateFailure = gloox::ConnNoError;
    int m_connects = 0;
    bool m_mute = false;
    bool m_authenticated = false;
    bool m_loggedIn = false;
    bool m_streamClosed = false;
};

FakeServer& fakeServer();
