// SPDX-License-Identifier: GPL-3.0-only
// Reading the address of a bus method. Both schemes mean the same. No state.
#include "platform/bus/uri.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <string_view>

#include "platform/bus/error.h"

namespace {

bool refuse(const char* uri, const std::string& why, QSError* error) {
    return busFail(error, -EINVAL,
                   "The address \"" + std::string(uri ? uri : "") + "\" " + why +
                       "; write zelt://SERVICE/CATEGORY/METHOD");
}

bool takeScheme(std::string_view& rest) {
    for (const std::string_view scheme : {"zelt://", "quor://"}) {
        if (rest.starts_with(scheme)) {
            rest.remove_prefix(scheme.size());
            return true;
        }
    }
    return false;
}

// sic: sd-bus lets a member begin with a digit; a bus daemon would close the connection that sends one.
bool isMember(const std::string& name) {
    return sd_bus_member_name_is_valid(name.c_str()) > 0 && !(name.front() >= '0' && name.front() <= '9');
}

// D-Bus keeps these for the library's own use; a bus daemon closes the connection that sends one.
bool isReserved(const BusAddress& address) {
    return address.service == "org.freedesktop.DBus.Local" || address.path == "/org/freedesktop/DBus/Local";
}

}  // namespace

bool busParseUri(const char* uri, BusAddress& address, QSError* error) {
    std::string_view rest = uri ? uri : "";
    if (!takeScheme(rest))
        return refuse(uri, "begins with neither zelt:// nor quor://", error);
    const size_t first = rest.find('/');
    if (first == std::string_view::npos)
        return refuse(uri, "names no method", error);
    const size_t last = rest.rfind('/');
    address.service = rest.substr(0, first);
    address.path = first == last ? "/" : rest.substr(first, last - first);
    address.method = rest.substr(last + 1);
    // The service is used as destination and as interface, so it must be valid as both.
    if (sd_bus_service_name_is_valid(address.service.c_str()) <= 0 ||
        sd_bus_interface_name_is_valid(address.service.c_str()) <= 0)
        return refuse(uri, "names no valid service", error);
    // A double slash before the method leaves "/", which is a valid path but not a category of the address.
    if (sd_bus_object_path_is_valid(address.path.c_str()) <= 0 || first + 1 == last)
        return refuse(uri, "has a category that is not valid on D-Bus (letters, digits and _ only)", error);
    if (!isMember(address.method))
        return refuse(uri, "has a method name that is not valid on D-Bus (letters, digits and _ only)",
                      error);
    if (isReserved(address))
        return refuse(uri, "is one that D-Bus reserves", error);
    return true;
}
