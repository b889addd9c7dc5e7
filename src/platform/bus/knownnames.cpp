// SPDX-License-Identifier: GPL-3.0-only
// What is known about the other services of the platform, so that a call to one that cannot answer fails
// immediately and the caller's error handling runs. Names outside the platform's namespace are known only
// while a server-status watch follows them. In memory, with the connection.
#include "platform/bus/knownnames.h"

#include "platform/bus/connection.h"
#include "platform/bus/daemon.h"
#include "util/log.h"

namespace {

constexpr char kPlatformPrefix[] = "com.zelt.";
constexpr char kPlatformRule[] =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/"
    "DBus',interface='org.freedesktop.DBus',"
    "member='NameOwnerChanged',arg0namespace='com.zelt'";

int askDaemon(sd_bus* bus, Slot& slot, const char* method, sd_bus_message_handler_t callback, void* data) {
    return sd_bus_call_method_async(bus, Receive(slot), kBusDaemon, kBusDaemonPath, kBusDaemon, method,
                                    callback, data, "");
}

template <typename Each>
bool readNames(sd_bus_message* reply, Each each) {
    if (sd_bus_message_is_method_error(reply, nullptr) ||
        sd_bus_message_enter_container(reply, 'a', "s") <= 0)
        return false;
    const char* name = nullptr;
    while (sd_bus_message_read(reply, "s", &name) > 0)
        each(name);
    return true;
}

}  // namespace

void KnownNames::start(QSHandle* handle) {
    m_handle = handle;
    sd_bus* bus = handle->bus;
    // The match rule first, so that changes are not missed while the list is queried.
    if (sd_bus_add_match_async(bus, Receive(m_changes), kPlatformRule, onChanged, onInstalled, this) < 0 ||
        askDaemon(bus, m_ownedQuery, "ListNames", onOwned, this) < 0 ||
        askDaemon(bus, m_startableQuery, "ListActivatableNames", onStartable, this) < 0)
        PrvPrintErr({}, "Asking the %s bus for its names failed; calls to absent services go out",
                    busSideName(handle));
}

void KnownNames::stop() {
    m_changes.reset();
    m_ownedQuery.reset();
    m_startableQuery.reset();
    m_handle = nullptr;
    m_followed = false;
}

void KnownNames::note(const std::string& name, bool there) {
    m_there[name] = there;
}

bool KnownNames::isDown(const std::string& name) const {
    if (!m_startableKnown || m_startable.contains(name))
        return false;
    auto found = m_there.find(name);
    if (found != m_there.end())
        return !found->second;
    return m_followed && m_ownedKnown && name.starts_with(kPlatformPrefix);
}

void KnownNames::refreshStartable() {
    if (m_handle && !m_startableQuery)
        askDaemon(m_handle->bus, m_startableQuery, "ListActivatableNames", onStartable, this);
}

int KnownNames::onInstalled(sd_bus_message* reply, void* data, sd_bus_error*) {
    static_cast<KnownNames*>(data)->m_followed = !sd_bus_message_is_method_error(reply, nullptr);
    return 0;
}

int KnownNames::onOwned(sd_bus_message* reply, void* data, sd_bus_error*) {
    auto* self = static_cast<KnownNames*>(data);
    self->m_ownedKnown = readNames(reply, [self](const char* name) {
        if (std::string_view(name).starts_with(kPlatformPrefix))
            self->m_there[name] = true;
    });
    return 0;
}

int KnownNames::onStartable(sd_bus_message* reply, void* data, sd_bus_error*) {
    auto* self = static_cast<KnownNames*>(data);
    std::set<std::string> startable;
    if (readNames(reply, [&](const char* name) { startable.insert(name); })) {
        self->m_startable = std::move(startable);
        self->m_startableKnown = true;
    }
    self->m_startableQuery.reset();
    return 0;
}

int KnownNames::onChanged(sd_bus_message* signal, void* data, sd_bus_error*) {
    auto* self = static_cast<KnownNames*>(data);
    OwnerChange change;
    if (busReadOwnerChange(signal, change))
        self->m_there[change.name] = *change.after != '\0';
    return 0;
}
