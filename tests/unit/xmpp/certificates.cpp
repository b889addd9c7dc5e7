// SPDX-License-Identifier: GPL-3.0-only
// Elliptic-curve keys, which are fast to generate, so that every test has its own.
#include "tests/unit/xmpp/certificates.h"

#include <arpa/inet.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace {

void check(int result, const char* what) {
    if (result < 0)
        throw std::runtime_error(std::string(what) + ": " + gnutls_strerror(result));
}

gnutls_x509_privkey_t newKey() {
    gnutls_x509_privkey_t key = nullptr;
    check(gnutls_x509_privkey_init(&key), "key");
    check(gnutls_x509_privkey_generate(key, GNUTLS_PK_ECDSA, GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1),
                                       0),
          "key");
    return key;
}

gnutls_x509_crt_t newCertificate(gnutls_x509_privkey_t key, const std::string& name, std::time_t from,
                                 std::time_t until) {
    static std::atomic<unsigned> serial = 1;
    const unsigned number = serial++;
    const unsigned char bytes[] = {1, static_cast<unsigned char>(number >> 8),
                                   static_cast<unsigned char>(number)};
    gnutls_x509_crt_t certificate = nullptr;
    check(gnutls_x509_crt_init(&certificate), "certificate");
    check(gnutls_x509_crt_set_version(certificate, 3), "version");
    check(gnutls_x509_crt_set_key(certificate, key), "public key");
    check(gnutls_x509_crt_set_serial(certificate, bytes, sizeof bytes), "serial");
    check(gnutls_x509_crt_set_activation_time(certificate, from), "activation");
    check(gnutls_x509_crt_set_expiration_time(certificate, until), "expiration");
    check(gnutls_x509_crt_set_dn_by_oid(certificate, GNUTLS_OID_X520_COMMON_NAME, 0, name.data(),
                                        static_cast<unsigned>(name.size())),
          "name");
    return certificate;
}

void addName(gnutls_x509_crt_t certificate, const std::string& name) {
    in_addr address;
    if (inet_pton(AF_INET, name.c_str(), &address) == 1)
        check(gnutls_x509_crt_set_subject_alt_name(certificate, GNUTLS_SAN_IPADDRESS, &address,
                                                   sizeof address, GNUTLS_FSAN_APPEND),
              "address");
    else
        check(gnutls_x509_crt_set_subject_alt_name(certificate, GNUTLS_SAN_DNSNAME, name.data(),
                                                   static_cast<unsigned>(name.size()), GNUTLS_FSAN_APPEND),
              "name");
}

std::string pemOf(gnutls_x509_crt_t certificate) {
    gnutls_datum_t pem{nullptr, 0};
    check(gnutls_x509_crt_export2(certificate, GNUTLS_X509_FMT_PEM, &pem), "export");
    std::string text(reinterpret_cast<char*>(pem.data), pem.size);
    gnutls_free(pem.data);
    return text;
}

std::string pemOf(gnutls_x509_privkey_t key) {
    gnutls_datum_t pem{nullptr, 0};
    check(gnutls_x509_privkey_export2(key, GNUTLS_X509_FMT_PEM, &pem), "export");
    std::string text(reinterpret_cast<char*>(pem.data), pem.size);
    gnutls_free(pem.data);
    return text;
}

void addPurposes(gnutls_x509_crt_t certificate, const std::vector<std::string>& purposes) {
    for (const std::string& purpose : purposes)
        check(gnutls_x509_crt_set_key_purpose_oid(certificate, purpose.c_str(), 0), "purpose");
}

constexpr std::time_t kDay = 86'400;

}  // namespace

TemporaryFolder::TemporaryFolder() {
    std::string path = std::filesystem::temp_directory_path() / "xmpp-test-XXXXXX";
    if (!mkdtemp(path.data()))
        throw std::runtime_error("no temporary folder");
    m_path = path;
}

Authority::Authority(const std::string& name, Kind kind) : m_file(m_folder.file("ca.pem")), m_key(newKey()) {
    m_certificate = newCertificate(m_key, name, std::time(nullptr) - kDay, std::time(nullptr) + kDay);
    check(gnutls_x509_crt_set_basic_constraints(m_certificate, kind == Kind::Ca, -1), "constraints");
    check(gnutls_x509_crt_set_key_usage(
              m_certificate, kind == Kind::Ca ? GNUTLS_KEY_KEY_CERT_SIGN : GNUTLS_KEY_DIGITAL_SIGNATURE),
          "usage");
    check(gnutls_x509_crt_sign2(m_certificate, m_certificate, m_key, GNUTLS_DIG_SHA256, 0), "signature");
    std::ofstream(m_file) << pemOf(m_certificate);
}

Authority::Authority(const std::string& name, const Authority& issuer,
                     const std::vector<std::string>& purposes)
    : m_key(newKey()) {
    m_certificate = newCertificate(m_key, name, std::time(nullptr) - kDay, std::time(nullptr) + kDay);
    check(gnutls_x509_crt_set_basic_constraints(m_certificate, 1, -1), "constraints");
    check(gnutls_x509_crt_set_key_usage(m_certificate, GNUTLS_KEY_KEY_CERT_SIGN), "usage");
    addPurposes(m_certificate, purposes);
    check(gnutls_x509_crt_sign2(m_certificate, issuer.m_certificate, issuer.m_key, GNUTLS_DIG_SHA256, 0),
          "signature");
    m_chain = pemOf(m_certificate);
}

Authority::~Authority() {
    gnutls_x509_crt_deinit(m_certificate);
    gnutls_x509_privkey_deinit(m_key);
}

Identity Authority::issue(const std::vector<std::string>& names, std::time_t from, std::time_t until) const {
    return sign(names, from, until, {});
}

Identity Authority::issue(const std::vector<std::string>& names,
                          const std::vector<std::string>& purposes) const {
    return sign(names, std::time(nullptr) - kDay, std::time(nullptr) + kDay, purposes);
}

Identity Authority::sign(const std::vector<std::string>& names, std::time_t from, std::time_t until,
                         const std::vector<std::string>& purposes) const {
    gnutls_x509_privkey_t key = newKey();
    gnutls_x509_crt_t certificate = newCertificate(key, names.front(), from, until);
    for (const std::string& name : names)
        addName(certificate, name);
    check(gnutls_x509_crt_set_key_usage(certificate, GNUTLS_KEY_DIGITAL_SIGNATURE), "usage");
    addPurposes(certificate, purposes);
    check(gnutls_x509_crt_sign2(certificate, m_certificate, m_key, GNUTLS_DIG_SHA256, 0), "signature");
    Identity identity{pemOf(certificate) + m_chain, pemOf(key)};
    gnutls_x509_crt_deinit(certificate);
    gnutls_x509_privkey_deinit(key);
    return identity;
}

Identity Authority::issue(const std::vector<std::string>& names) const {
    return issue(names, std::time(nullptr) - kDay, std::time(nullptr) + kDay);
}
