// SPDX-License-Identifier: GPL-3.0-only
// Connects the service's client to the server of the unit tests. In its own file, so that other clients can
// use that server without linking the service's.
#include "tests/fakes/fakeconnection.h"
#include "xmpp/client.h"

void FakeServer::install() {
    xmpp::Client::setConnectionFactory([this](xmpp::Client& client, const std::string& host, int port,
                                              const std::string& localAddress, GMainContext*) {
        m_host = host;
        m_port = port;
        m_localAddress = localAddress;
        return new FakeConnection(*this, &client, client.logInstance(), host, port);
    });
}
