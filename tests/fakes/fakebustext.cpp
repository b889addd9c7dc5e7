// SPDX-License-Identifier: GPL-3.0-only
// Addresses and payload texts, as the bus treats them.
#include <gio/gio.h>

#include "tests/fakes/fakebusstate.h"
#include "util/jsonref.h"

namespace {

bool isNonCharacter(gunichar c) {
    return (c >= 0xfdd0 && c <= 0xfdef) || (c & 0xfffe) == 0xfffe;
}

std::string escaped(gunichar c) {
    char text[13];
    if (c < 0x10000)
        g_snprintf(text, sizeof text, "\\u%04X", c);
    else
        g_snprintf(text, sizeof text, "\\u%04X\\u%04X", 0xd800 + ((c - 0x10000) >> 10), 0xdc00 + (c & 0x3ff));
    return text;
}

}  // namespace

bool parseBusAddress(const std::string& uri, BusAddress& address) {
    if (!uri.starts_with("quor://") && !uri.starts_with("zelt://"))
        return false;
    const std::string rest = uri.substr(7);
    const std::size_t first = rest.find('/');
    const std::size_t last = rest.rfind('/');
    if (first == std::string::npos)
        return false;
    address = {rest.substr(0, first), first == last ? "/" : rest.substr(first, last - first),
               rest.substr(last + 1)};
    return g_dbus_is_interface_name(address.service.c_str()) &&
           g_variant_is_object_path(address.path.c_str()) && g_dbus_is_member_name(address.method.c_str());
}

bool isServerStatus(const BusAddress& address) {
    return address.service == "com.zelt.bus" && address.method == "registerServerStatus";
}

std::string watchedService(const std::string& payload) {
    const JsonRef asked = parseJson(payload.c_str());
    json_object* name = jsonMember(asked.get(), "serviceName");
    return name && g_dbus_is_name(json_object_get_string(name)) ? json_object_get_string(name) : "";
}

std::string withoutNonCharacters(const std::string& text) {
    std::string clean;
    for (const char* at = text.c_str(); *at; at = g_utf8_next_char(at)) {
        const gunichar c = g_utf8_get_char(at);
        if (isNonCharacter(c))
            clean += escaped(c);
        else
            clean.append(at, static_cast<std::size_t>(g_utf8_next_char(at) - at));
    }
    return clean;
}
