// SPDX-License-Identifier: GPL-3.0-only
// Names and limits of registrations. Keeps no state.
#include "unifiedpush/registration.h"

#include <glib.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <memory>
#include <string_view>

namespace {

constexpr std::size_t kLongestText = 100;
constexpr std::size_t kVapidLength = 87;
constexpr std::size_t kLongestUrl = 1000;
constexpr std::string_view kPrefix = "up-";
constexpr std::size_t kDigits = 32;

std::string lengthAnd(const std::string& text) {
    return std::to_string(text.size()) + ":" + text;
}

bool isHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

bool isBase64Url(char c) {
    return g_ascii_isalnum(c) || c == '-' || c == '_';
}

}  // namespace

std::string Registration::endpoint() const {
    return endpointName(service, token, vapid);
}

std::string endpointName(const std::string& service, const std::string& token, const std::string& vapid) {
    const std::string whole = lengthAnd(service) + lengthAnd(token) + lengthAnd(vapid);
    const std::unique_ptr<gchar, decltype(&g_free)> digits(
        g_compute_checksum_for_data(G_CHECKSUM_SHA256, reinterpret_cast<const guchar*>(whole.data()),
                                    whole.size()),
        g_free);
    return std::string(kPrefix) + std::string(digits.get(), kDigits);
}

bool isEndpointName(const std::string& text) {
    return text.size() == kPrefix.size() + kDigits && text.starts_with(kPrefix) &&
           std::all_of(text.begin() + kPrefix.size(), text.end(), isHex);
}

bool isServiceName(const std::string& text) {
    return !text.empty() && text[0] != ':' && sd_bus_service_name_is_valid(text.c_str()) > 0;
}

bool isToken(const std::string& text) {
    return !text.empty() && text.size() <= kLongestText;
}

bool isDescription(const std::string& text) {
    return text.size() <= kLongestText;
}

bool isVapidKey(const std::string& text) {
    // The first byte of the uncompressed form is 4: the first character is B, the second one of A to P.
    return text.size() == kVapidLength && text[0] == 'B' && text[1] >= 'A' && text[1] <= 'P' &&
           std::all_of(text.begin(), text.end(), isBase64Url);
}

bool isUrl(const std::string& text) {
    return text.size() <= kLongestUrl && (text.starts_with("https://") || text.starts_with("http://")) &&
           std::all_of(text.begin(), text.end(), [](char c) { return g_ascii_isgraph(c); });
}
