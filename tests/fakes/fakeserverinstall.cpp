// SPDX-License-Identifier: GPL-3.0-only
// Puts the server of the unit tests under the service's client. On its own, so that other clients can use
// that server without linking this one.
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
