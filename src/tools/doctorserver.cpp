// SPDX-License-Identifier: GPL-3.0-only
// The server checks of `doctor`: resolves the name, connects and performs the TLS handshake as the service
// does, but does not authenticate. Waits at most the given time in each step.
#include <arpa/inet.h>
#include <gnutls/gnutls.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "tools/doctor.h"

namespace {

using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

Finding good(const std::string& check, const std::string& detail) {
    return {check, Finding::State::Good, detail, ""};
}

Finding bad(const std::string& check, const std::string& detail, const std::string& advice) {
    return {check, Finding::State::Bad, detail, advice};
}

Finding unknown(const std::string& check, const std::string& reason) {
    return {check, Finding::State::Unknown, reason, ""};
}

std::string textOf(const addrinfo& address) {
    char text[NI_MAXHOST] = "";
    getnameinfo(address.ai_addr, address.ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    return text;
}

Finding resolve(const ServerPlace& place, Addresses& addresses) {
    addrinfo wanted = {};
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int result = getaddrinfo(place.host.c_str(), place.port.c_str(), &wanted, &found);
    addresses.reset(found);
    if (result != 0)
        return bad("name resolution", place.host + ": " + gai_strerror(result),
                   "check the host name in the account and this machine's DNS servers");
    std::string list;
    for (const addrinfo* address = found; address; address = address->ai_next)
        list += (list.empty() ? "" : ", ") + textOf(*address);
    return good("name resolution", place.host + " resolves to " + list);
}

// A blocking socket whose calls time out after `seconds`.
int connectTo(const addrinfo& address, unsigned seconds) {
    const int descriptor = socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval limit = {static_cast<time_t>(seconds), 0};
    setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (connect(descriptor, address.ai_addr, address.ai_addrlen) == 0)
        return descriptor;
    const int reason = errno == EINPROGRESS ? ETIMEDOUT : errno;
    close(descriptor);
    errno = reason;
    return -1;
}

Finding reach(const ServerPlace& place, const addrinfo* addresses, unsigned seconds, int& descriptor) {
    for (const addrinfo* address = addresses; address && descriptor < 0; address = address->ai_next)
        descriptor = connectTo(*address, seconds);
    const std::string where = place.host + " port " + place.port;
    if (descriptor >= 0)
        return good("connection", where + " accepts connections");
    return bad("connection", where + ": " + strerror(errno),
               "check that the server is running and that no firewall blocks the port");
}

// Reads until `wanted` has come; false at the end of the stream, at the time limit and after 64 KiB.
bool readUntil(int descriptor, const char* wanted) {
    std::string seen;
    char block[2048];
    while (seen.size() < 65536 && seen.find(wanted) == std::string::npos) {
        const ssize_t count = recv(descriptor, block, sizeof block, 0);
        if (count <= 0)
            return false;
        seen.append(block, static_cast<size_t>(count));
    }
    return seen.find(wanted) != std::string::npos;
}

bool sendText(int descriptor, const std::string& text) {
    return send(descriptor, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

// RFC 6120, section 5: the stream is opened in the clear and switches to TLS immediately.
bool startTls(int descriptor, const ServerPlace& place) {
    return sendText(descriptor,
                    "<?xml version='1.0'?><stream:stream xmlns='jabber:client' version='1.0' "
                    "xmlns:stream='http://etherx.jabber.org/streams' to='" +
                        place.domain + "'>") &&
           readUntil(descriptor, "urn:ietf:params:xml:ns:xmpp-tls") &&
           sendText(descriptor, "<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>") &&
           readUntil(descriptor, "<proceed");
}

struct Tls {
    Tls() {
        gnutls_certificate_allocate_credentials(&credentials);
        gnutls_init(&session, GNUTLS_CLIENT);
        gnutls_set_default_priority(session);
        gnutls_credentials_set(session, GNUTLS_CRD_CERTIFICATE, credentials);
    }
    ~Tls() {
        gnutls_deinit(session);
        gnutls_certificate_free_credentials(credentials);
    }
    Tls(const Tls&) = delete;
    Tls& operator=(const Tls&) = delete;
    gnutls_certificate_credentials_t credentials = nullptr;
    gnutls_session_t session = nullptr;
};

std::string refusalReason(gnutls_session_t session, int result) {
    gnutls_datum_t printed = {};
    const unsigned status = gnutls_session_get_verify_cert_status(session);
    if (result != GNUTLS_E_CERTIFICATE_VERIFICATION_ERROR ||
        gnutls_certificate_verification_status_print(status, GNUTLS_CRT_X509, &printed, 0) < 0)
        return gnutls_strerror(result);
    std::string text(reinterpret_cast<char*>(printed.data), printed.size);
    gnutls_free(printed.data);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\0'))
        text.pop_back();
    return text;
}

Finding handshake(int descriptor, const ServerPlace& place, const std::string& caFile, unsigned seconds) {
    const Tls tls;
    const int trusted =
        gnutls_certificate_set_x509_trust_file(tls.credentials, caFile.c_str(), GNUTLS_X509_FMT_PEM);
    if (trusted <= 0)
        return bad("certificate", caFile + " contains no CA certificates",
                   "install the ca-certificates package");
    if (!startTls(descriptor, place))
        return bad("certificate", "the server does not offer TLS for " + place.domain,
                   "check that the port is the one for XMPP clients and that the server has a certificate");
    gnutls_server_name_set(tls.session, GNUTLS_NAME_DNS, place.domain.data(), place.domain.size());
    gnutls_session_set_verify_cert(tls.session, place.domain.c_str(), 0);
    gnutls_transport_set_int(tls.session, descriptor);
    gnutls_handshake_set_timeout(tls.session, seconds * 1000);
    int result = GNUTLS_E_AGAIN;
    while (result < 0 && !gnutls_error_is_fatal(result))
        result = gnutls_handshake(tls.session);
    if (result == 0)
        return good("certificate", "valid for " + place.domain + ", " +
                                       gnutls_protocol_get_name(gnutls_protocol_get_version(tls.session)));
    return bad("certificate", refusalReason(tls.session, result),
               "install a certificate for " + place.domain + " on the server that an authority in " + caFile +
                   " has signed");
}

}  // namespace

std::vector<Finding> checkServer(const ServerPlace& place, const std::string& caFile, unsigned seconds) {
    Addresses addresses(nullptr, freeaddrinfo);
    std::vector<Finding> findings = {resolve(place, addresses)};
    if (!addresses) {
        findings.push_back(unknown("connection", "requires the server's address"));
        findings.push_back(unknown("certificate", "requires a connection"));
        return findings;
    }
    int descriptor = -1;
    findings.push_back(reach(place, addresses.get(), seconds, descriptor));
    if (descriptor < 0) {
        findings.push_back(unknown("certificate", "requires a connection"));
        return findings;
    }
    findings.push_back(handshake(descriptor, place, caFile, seconds));
    close(descriptor);
    return findings;
}
