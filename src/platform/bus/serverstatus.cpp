// SPDX-License-Identifier: GPL-3.0-only
// Reports whether a service is running, at an address that the layer serves itself. A service that is running
// at registration is reported immediately; one that is not is first reported when it starts. Kept as a call
// in the handle's table until it is cancelled.
#include <cerrno>

#include "platform/bus/calls.h"
#include "platform/bus/error.h"
#include "util/jsonref.h"

namespace {

constexpr char kBusService[] = "com.zelt.bus";
constexpr char kUp[] = "{\"connected\":true}";
constexpr char kDown[] = "{\"connected\":false}";

std::string watchedName(const char* payload) {
    const JsonRef object = parseJson(payload);
    json_object* name = jsonMember(object.get(), "serviceName");
    return json_object_is_type(name, json_type_string) ? json_object_get_string(name) : "";
}

NameWatch::Report reporter(Call* call, const std::string& name) {
    // The call owns the watch and stops it when it is destroyed, so the call exists whenever this runs.
    return [call, name, seen = std::make_shared<bool>(false)](bool there) {
        call->handle->names.note(name, there);
        if (!there && !*seen)
            return;
        *seen = true;
        busTell(*call, nullptr, there ? kUp : kDown, "");
    };
}

}  // namespace

bool busIsServerStatus(const BusAddress& address) {
    return address.service == kBusService && address.path == "/signal" &&
           address.method == "registerServerStatus";
}

bool busWatchServer(QSHandle* handle, const BusAddress& address, const char* payload, QSFilter callback,
                    void* context, QSToken* token, QSError* error) {
    const std::string name = watchedName(payload);
    if (sd_bus_service_name_is_valid(name.c_str()) <= 0)
        return busFail(
            error, -EINVAL,
            "registerServerStatus needs {\"serviceName\":NAME} with a valid name, not \"" + name + "\"");
    if (!callback)
        return busFail(error, -EINVAL, "registerServerStatus needs a callback for its reports");
    Call* call = busNewCall(handle, callback, context, address);
    call->watch = NameWatch::start(handle, name, reporter(call, name));
    if (!call->watch) {
        busEndCall(handle, call->token);
        return busFail(error, -EIO, "Watching " + name + " failed: the bus connection is broken");
    }
    if (token)
        *token = call->token;
    return true;
}
