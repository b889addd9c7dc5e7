// SPDX-License-Identifier: GPL-3.0-only
// Certificates generated for a test: an authority with a file of its own, and servers certified by it.
#pragma once

#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

// A folder that is removed with the object.
class TemporaryFolder {
  public:
    TemporaryFolder();
    ~TemporaryFolder() { std::filesystem::remove_all(m_path); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    std::string file(const std::string& name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
};

// Certificate and key in PEM.
struct Identity {
    std::string certificate;
    std::string key;
};

class Authority {
  public:
    enum class Kind { Ca, NoCa };  // NoCa: signs although its certificate does not allow it
    explicit Authority(const std::string& name, Kind kind = Kind::Ca);
    // An authority certified by `issuer` for these purposes; its certificate is sent along with those
    // that it signs.
    Authority(const std::string& name, const Authority& issuer, const std::vector<std::string>& purposes);
    ~Authority();
    Authority(const Authority&) = delete;
    Authority& operator=(const Authority&) = delete;

    // Names of only digits and dots are IP addresses.
    Identity issue(const std::vector<std::string>& names, std::time_t from, std::time_t until) const;
    Identity issue(const std::vector<std::string>& names) const;
    // With an extended key usage of these object identifiers.
    Identity issue(const std::vector<std::string>& names, const std::vector<std::string>& purposes) const;
    // The authority's certificate, for a client to trust.
    const std::string& file() const { return m_file; }

  private:
    TemporaryFolder m_folder;
    std::string m_file;
    gnutls_x509_privkey_t m_key = nullptr;
    gnutls_x509_crt_t m_certificate = nullptr;
    std::string m_chain;  // certificates sent along with those that this one signs

    Identity sign(const std::vector<std::string>& names, std::time_t from, std::time_t until,
                  const std::vector<std::string>& purposes) const;
};
