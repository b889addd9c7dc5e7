// SPDX-License-Identifier: GPL-3.0-only
// A session of an account on the XMPP server, for the load generators.
#pragma once

#include "bench/link.h"

namespace bench {

constexpr char kPubSub[] = "http://jabber.org/protocol/pubsub";

inline std::string base64(const std::string& text) {
    gnutls_datum_t in{reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())),
                      static_cast<unsigned>(text.size())};
    gnutls_datum_t out{};
    gnutls_base64_encode2(&in, &out);
    std::string encoded(reinterpret_cast<char*>(out.data), out.size);
    gnutls_free(out.data);
    return encoded;
}

struct Account {
    std::string host;
    int port = 0;
    std::string domain;
    std::string user;
    std::string password;
};

// A session of an account, logged in.
class Session {
  public:
    Session(const Account& account, const std::string& resource)
        : m_domain(account.domain), m_link(account.host, account.port) {
        open();
        ask("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>", "<proceed");
        m_in.clear();
        m_link.startTls();
        open();
        ask("<auth xmlns='urn:ietf:params:xml:ns:xmpp-sasl' mechanism='PLAIN'>" +
                base64(std::string("\0", 1) + account.user + std::string("\0", 1) + account.password) +
                "</auth>",
            "<success");
        open();
        ask("<iq type='set' id='bind'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'><resource>" + resource +
                "</resource></bind></iq>",
            "</iq>");
        m_in.clear();
    }

    // Sends and waits until the mark is there; what stands before it is dropped.
    void ask(const std::string& text, const char* mark) {
        m_link.send(text);
        m_link.flush();
        std::size_t found = 0;
        while ((found = m_in.find(mark)) == std::string::npos)
            m_link.read(m_in);
        if (m_in.find("type='error'") != std::string::npos || m_in.find("<failure") != std::string::npos)
            throw std::runtime_error("refused: " + m_in);
        m_in.erase(0, found + strlen(mark));
    }
    Link& link() { return m_link; }
    std::string& input() { return m_in; }
    std::string service() const { return "pubsub." + m_domain; }

  private:
    void open() {
        m_in.clear();
        ask("<stream:stream to='" + m_domain +
                "' xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams' version='1.0'>",
            "</stream:features>");
    }

    std::string m_domain;
    Link m_link;
    std::string m_in;
};

}  // namespace bench
