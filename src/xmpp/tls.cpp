// SPDX-License-Identifier: GPL-3.0-only
// The TLS session: handshake, records, and filling CertInfo.
#include "xmpp/tls.h"

#include <arpa/inet.h>
#include <gloox/tlshandler.h>
#include <gnutls/x509.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "util/log.h"

namespace xmpp {
namespace {

constexpr char kPriorities[] = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";
constexpr std::size_t kRecordSize = 16'384;

std::string textOf(const char* text) {
    return text ? text : "";
}

bool isNumeric(const std::string& host) {
    in6_addr address;
    return inet_pton(AF_INET, host.c_str(), &address) == 1 ||
           inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

// The server's certificate, loaded for one check.
class PeerCertificate {
  public:
    explicit PeerCertificate(gnutls_session_t session) {
        unsigned count = 0;
        const gnutls_datum_t* chain = gnutls_certificate_get_peers(session, &count);
        if (!chain || count == 0 || gnutls_x509_crt_init(&m_certificate) != GNUTLS_E_SUCCESS)
            return;
        m_good = gnutls_x509_crt_import(m_certificate, &chain[0], GNUTLS_X509_FMT_DER) == GNUTLS_E_SUCCESS;
    }
    ~PeerCertificate() {
        if (m_certificate)
            gnutls_x509_crt_deinit(m_certificate);
    }
    PeerCertificate(const PeerCertificate&) = delete;
    PeerCertificate& operator=(const PeerCertificate&) = delete;

    explicit operator bool() const { return m_good; }
    gnutls_x509_crt_t get() const { return m_certificate; }
    bool names(const std::string& host) const {
        return m_good && !host.empty() && gnutls_x509_crt_check_hostname(m_certificate, host.c_str());
    }
    using NameOf = int (*)(gnutls_x509_crt_t, gnutls_datum_t*);
    std::string name(NameOf nameOf) const {
        gnutls_datum_t datum{nullptr, 0};
        if (!m_good || nameOf(m_certificate, &datum) != GNUTLS_E_SUCCESS)
            return {};
        std::string text(reinterpret_cast<char*>(datum.data), datum.size);
        gnutls_free(datum.data);
        return text;
    }

  private:
    gnutls_x509_crt_t m_certificate = nullptr;
    bool m_good = false;
};

int subjectOf(gnutls_x509_crt_t certificate, gnutls_datum_t* name) {
    return gnutls_x509_crt_get_dn2(certificate, name);
}
int issuerOf(gnutls_x509_crt_t certificate, gnutls_datum_t* name) {
    return gnutls_x509_crt_get_issuer_dn2(certificate, name);
}

}  // namespace

Tls::Tls(gloox::TLSHandler* handler, const std::string& domain, const std::string& host, Fail fail)
    : TLSBase(handler, domain), m_host(host), m_fail(std::move(fail)) {}

Tls::~Tls() {
    if (m_session)
        gnutls_deinit(m_session);
    if (m_credentials)
        gnutls_certificate_free_credentials(m_credentials);
}

bool Tls::init(const std::string&, const std::string&, const gloox::StringList& caFiles) {
    m_cacerts = caFiles;
    if (gnutls_certificate_allocate_credentials(&m_credentials) != GNUTLS_E_SUCCESS)
        return false;
    for (const std::string& file : m_cacerts) {
        const int count =
            gnutls_certificate_set_x509_trust_file(m_credentials, file.c_str(), GNUTLS_X509_FMT_PEM);
        if (count <= 0)
            PrvPrintErr({}, "No certificate authorities in %s, so no server can be trusted: %s", file.c_str(),
                        count < 0 ? gnutls_strerror(count) : "it is empty");
    }
    if (gnutls_init(&m_session, GNUTLS_CLIENT | GNUTLS_NONBLOCK) != GNUTLS_E_SUCCESS ||
        gnutls_priority_set_direct(m_session, kPriorities, nullptr) != GNUTLS_E_SUCCESS ||
        gnutls_credentials_set(m_session, GNUTLS_CRD_CERTIFICATE, m_credentials) != GNUTLS_E_SUCCESS)
        return false;
    if (!m_server.empty() && !isNumeric(m_server))
        gnutls_server_name_set(m_session, GNUTLS_NAME_DNS, m_server.data(), m_server.size());
    gnutls_handshake_set_timeout(m_session, GNUTLS_INDEFINITE_TIMEOUT);
    gnutls_transport_set_ptr(m_session, this);
    gnutls_transport_set_push_function(m_session, &Tls::push);
    gnutls_transport_set_pull_function(m_session, &Tls::pull);
    m_valid = true;
    return true;
}

bool Tls::handshake() {
    if (m_secure || m_over || !m_session)
        return false;
    int result = GNUTLS_E_SUCCESS;
    do {
        result = gnutls_handshake(m_session);
        // A warning alert does not end the session; calling again reads on.
    } while (result < 0 && result != GNUTLS_E_AGAIN && !gnutls_error_is_fatal(result) && !m_over);
    if (m_over)
        return false;
    if (result == GNUTLS_E_AGAIN)
        return true;
    if (result < 0) {
        PrvPrintErr({}, "TLS handshake with %s failed: %s", m_server.c_str(), gnutls_strerror(result));
        m_over = true;
        m_valid = false;
        m_handler->handleHandshakeResult(this, false, m_certInfo);
        return false;
    }
    m_secure = true;
    fillCertInfo();
    m_handler->handleHandshakeResult(this, true, m_certInfo);
    return true;
}

bool Tls::encrypt(const std::string& data) {
    if (!m_secure || m_over)
        return false;
    for (std::size_t sent = 0; sent < data.size();) {
        const ssize_t length = gnutls_record_send(m_session, data.data() + sent, data.size() - sent);
        if (length >= 0) {
            sent += static_cast<std::size_t>(length);
        } else if (gnutls_error_is_fatal(static_cast<int>(length))) {
            giveUp(gloox::ConnIoError);
            return false;
        }
    }
    return true;
}

int Tls::decrypt(const std::string& data) {
    if (m_over)
        return 0;
    m_in.erase(0, std::exchange(m_taken, 0));
    m_in += data;
    if (!m_secure)
        handshake();
    if (m_secure && !m_over)
        readRecords();
    return static_cast<int>(data.size());
}

void Tls::readRecords() {
    std::string plain(kRecordSize, '\0');
    while (m_secure && !m_over) {
        const std::size_t before = m_taken;
        const ssize_t length = gnutls_record_recv(m_session, plain.data(), plain.size());
        if (length > 0) {
            m_handler->handleDecryptedData(this, plain.substr(0, static_cast<std::size_t>(length)));
        } else if (length == GNUTLS_E_AGAIN) {
            // TLS 1.3 tickets cause it with complete records left in the buffer.
            if (m_taken == before || m_taken == m_in.size())
                return;
        } else if (length == 0) {
            giveUp(gloox::ConnStreamClosed);
        } else if (gnutls_error_is_fatal(static_cast<int>(length))) {
            PrvPrintErr({}, "TLS with %s broke: %s", m_server.c_str(),
                        gnutls_strerror(static_cast<int>(length)));
            giveUp(gloox::ConnIoError);
        }
    }
}

void Tls::cleanup() {
    m_secure = false;
    m_valid = false;
    m_over = true;
    m_in.clear();
    m_taken = 0;
}

void Tls::giveUp(gloox::ConnectionError error) {
    if (!std::exchange(m_over, true))
        m_fail(error);
}

void Tls::fillCertInfo() {
    m_certInfo = gloox::CertInfo();
    m_certInfo.status = judgeCertificate();
    m_certInfo.chain = !(m_certInfo.status & (gloox::CertSignerUnknown | gloox::CertSignerNotCa));
    const PeerCertificate certificate(m_session);
    m_certInfo.issuer = certificate.name(&issuerOf);
    m_certInfo.server = certificate.name(&subjectOf);
    if (certificate) {
        m_certInfo.date_from = static_cast<int>(gnutls_x509_crt_get_activation_time(certificate.get()));
        m_certInfo.date_to = static_cast<int>(gnutls_x509_crt_get_expiration_time(certificate.get()));
    }
    m_certInfo.protocol = textOf(gnutls_protocol_get_name(gnutls_protocol_get_version(m_session)));
    m_certInfo.cipher = textOf(gnutls_cipher_get_name(gnutls_cipher_get(m_session)));
    m_certInfo.mac = textOf(gnutls_mac_get_name(gnutls_mac_get(m_session)));
    m_certInfo.compression = "NULL";
}

int Tls::judgeCertificate() const {
    // Every certificate of the chain that names purposes has to allow servers. The name is checked below,
    // because CertInfo reports it separately.
    gnutls_typed_vdata_st purpose{
        GNUTLS_DT_KEY_PURPOSE_OID,
        reinterpret_cast<unsigned char*>(const_cast<char*>(GNUTLS_KP_TLS_WWW_SERVER)), 0};
    unsigned faults = 0;
    if (gnutls_certificate_verify_peers(m_session, &purpose, 1, &faults) < 0)
        return gloox::CertInvalid;
    static constexpr std::pair<unsigned, int> kFaults[] = {
        {GNUTLS_CERT_INVALID, gloox::CertInvalid},
        {GNUTLS_CERT_SIGNER_NOT_FOUND, gloox::CertSignerUnknown},
        {GNUTLS_CERT_REVOKED, gloox::CertRevoked},
        {GNUTLS_CERT_EXPIRED, gloox::CertExpired},
        {GNUTLS_CERT_NOT_ACTIVATED, gloox::CertNotActive},
        {GNUTLS_CERT_SIGNER_NOT_CA, gloox::CertSignerNotCa},
    };
    int status = faults ? gloox::CertInvalid : gloox::CertOk;
    for (const auto& [fault, meaning] : kFaults)
        if (faults & fault)
            status |= meaning;
    return isNamedInCertificate() ? status : status | gloox::CertWrongPeer;
}

bool Tls::isNamedInCertificate() const {
    const PeerCertificate certificate(m_session);
    return certificate.names(m_server) || certificate.names(m_host);
}

ssize_t Tls::push(gnutls_transport_ptr_t data, const void* bytes, std::size_t length) {
    auto* self = static_cast<Tls*>(data);
    self->m_handler->handleEncryptedData(self, std::string(static_cast<const char*>(bytes), length));
    return static_cast<ssize_t>(length);
}

ssize_t Tls::pull(gnutls_transport_ptr_t data, void* bytes, std::size_t length) {
    auto* self = static_cast<Tls*>(data);
    const std::size_t taken = std::min(length, self->m_in.size() - self->m_taken);
    if (taken == 0) {
        gnutls_transport_set_errno(self->m_session, EAGAIN);
        return -1;
    }
    memcpy(bytes, self->m_in.data() + self->m_taken, taken);
    self->m_taken += taken;
    return static_cast<ssize_t>(taken);
}

}  // namespace xmpp
