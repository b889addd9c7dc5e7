// SPDX-License-Identifier: GPL-3.0-only
// Follows whether one bus name has an owner. The match rule is requested before the query, so that no change
// is missed between them. Keeps no state but the last report.
#include "platform/bus/namewatch.h"

#include "platform/bus/connection.h"
#include "platform/bus/daemon.h"
#include "util/log.h"

std::shared_ptr<NameWatch> NameWatch::start(QSHandle* handle, const std::string& name, Report report) {
    auto watch = std::make_shared<NameWatch>();
    watch->m_name = name;
    watch->m_report = std::move(report);
    const std::string rule =
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
        "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
        name + "'";
    if (sd_bus_add_match_async(handle->bus, Receive(watch->m_changes), rule.c_str(), onChanged, onInstalled,
                               watch.get()) < 0)
        return nullptr;
    if (sd_bus_call_method_async(handle->bus, Receive(watch->m_query), kBusDaemon, kBusDaemonPath, kBusDaemon,
                                 "NameHasOwner", onAsked, watch.get(), "s", name.c_str()) < 0)
        return nullptr;
    return watch;
}

void NameWatch::stop() {
    m_report = nullptr;
    m_changes.reset();
    m_query.reset();
}

void NameWatch::tell(bool there) {
    if (!m_report || (m_known && m_there == there))
        return;
    m_known = true;
    m_there = there;
    // A copy, because the report may stop the watch.
    const Report report = m_report;
    report(there);
}

int NameWatch::onChanged(sd_bus_message* signal, void* data, sd_bus_error*) {
    const std::shared_ptr<NameWatch> self = static_cast<NameWatch*>(data)->shared_from_this();
    OwnerChange change;
    if (!busReadOwnerChange(signal, change))
        return 0;
    if (*change.before)
        self->tell(false);
    if (*change.after)
        self->tell(true);
    return 0;
}

int NameWatch::onInstalled(sd_bus_message* reply, void* data, sd_bus_error*) {
    if (sd_bus_message_is_method_error(reply, nullptr))
        PrvPrintErr({}, "Watching the name %s failed: %s", static_cast<NameWatch*>(data)->m_name.c_str(),
                    sd_bus_message_get_error(reply)->message);
    return 0;
}

int NameWatch::onAsked(sd_bus_message* reply, void* data, sd_bus_error*) {
    const std::shared_ptr<NameWatch> self = static_cast<NameWatch*>(data)->shared_from_this();
    int there = 0;
    if (!sd_bus_message_is_method_error(reply, nullptr) && sd_bus_message_read(reply, "b", &there) > 0)
        self->tell(there != 0);
    return 0;
}
