// SPDX-License-Identifier: GPL-3.0-only
// TLS of the stream with GnuTLS: versions 1.2 and 1.3, server name indication, the given authorities,
// a complete CertInfo.
//
// Checks the certificate and leaves the decision to the connection listener. Never ends the session
// inside a callback: a damaged record or an alert after the handshake is passed to `fail`, and the next
// recv() reports it.
#pragma once

#include <gloox/tlsbase.h>
#include <gnutls/gnutls.h>

#include <functional>
#include <string>

namespace xmpp {

class Tls : public gloox::TLSBase {
  public:
    using Fail = std::function<void(gloox::ConnectionError)>;

    // The certificate has to name `domain` or `host`; `domain` is sent as the server name.
    Tls(gloox::TLSHandler* handler, const std::string& domain, const std::string& host, Fail fail);
    ~Tls() override;
    Tls(const Tls&) = delete;
    Tls& operator=(const Tls&) = delete;

    bool init(const std::string& clientKey, const std::string& clientCerts,
              const gloox::StringList& caFiles) override;
    bool handshake() override;
    bool encrypt(const std::string& data) override;
    int decrypt(const std::string& data) override;
    // Nothing is received or sent from here on. The TLS session is freed with the object, because this
    // runs inside callbacks.
    void cleanup() override;
    void setCACerts(const gloox::StringList& files) override { m_cacerts = files; }
    void setClientCert(const std::string&, const std::string&) override {}

  private:
    void readRecords();
    void giveUp(gloox::ConnectionError error);
    void fillCertInfo();
    int judgeCertificate() const;
    bool isNamedInCertificate() const;
    static ssize_t push(gnutls_transport_ptr_t self, const void* data, std::size_t length);
    static ssize_t pull(gnutls_transport_ptr_t self, void* data, std::size_t length);

    std::string m_host;
    Fail m_fail;
    gnutls_session_t m_session = nullptr;
    gnutls_certificate_credentials_t m_credentials = nullptr;
    std::string m_in;  // received; not decrypted from m_taken on
    std::size_t m_taken = 0;
    bool m_over = false;  // cleaned up or failed
};

}  // namespace xmpp
