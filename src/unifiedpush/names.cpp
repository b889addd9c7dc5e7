// SPDX-License-Identifier: GPL-3.0-only
// The daemon is asked after the match rule for the changes was sent, so that none falls in between.
#include "unifiedpush/names.h"

#include <utility>
#include <vector>

#include "platform/bus/daemon.h"
#include "util/log.h"

namespace {

std::string ruleFor(const char* member, const std::string& name) {
    return std::string(
               "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
               "interface='org.freedesktop.DBus',member='") +
           member + "'" + (name.empty() ? "" : ",arg0='" + name + "'");
}

// Only what is said matters: without a rule nothing is reported, and the calls themselves show what is there.
int onRuleAnswered(sd_bus_message* answer, void*, sd_bus_error*) {
    if (sd_bus_message_is_method_error(answer, nullptr) > 0)
        // uncovered: the daemon refuses rules beyond its limits alone
        PrvPrintErr({}, "The session bus refused a match rule: %s",
                    sd_bus_message_get_error(answer)->message);
    return 1;
}

}  // namespace

void Names::start() {
    sd_bus_add_match_async(m_bus.get(), Receive(m_startableChanges),
                           ruleFor("ActivatableServicesChanged", "").c_str(), onStartableChanged,
                           onRuleAnswered, this);
    refresh();
}

void Names::refresh() {
    m_bus.askDaemon("ListActivatableNames", nullptr, m_startableQuery,
                    [this](sd_bus_message* answer) { takeStartable(answer); });
}

void Names::takeStartable(sd_bus_message* answer) {
    m_startableQuery.reset();
    std::set<std::string> startable;
    if (sd_bus_message_enter_container(answer, 'a', "s") > 0) {
        const char* name = nullptr;
        while (sd_bus_message_read(answer, "s", &name) > 0)
            startable.insert(name);
    }
    const std::set<std::string> before = std::exchange(m_startable, std::move(startable));
    const bool wasKnown = std::exchange(m_startableKnown, true);
    std::vector<std::string> changed;
    for (const auto& [name, entry] : m_names)
        if (entry.known && (!wasKnown || before.contains(name) != m_startable.contains(name)))
            changed.push_back(name);  // uncovered: the buses of the unit tests start nothing
    for (const std::string& name : changed)
        onChange(name);  // uncovered: as above
}

void Names::follow(const std::string& name) {
    const auto [entry, isNew] = m_names.try_emplace(name);
    if (!isNew)
        return;
    Name& followed = entry->second;
    followed.names = this;
    followed.name = name;
    sd_bus_add_match_async(m_bus.get(), Receive(followed.changes), ruleFor("NameOwnerChanged", name).c_str(),
                           onOwnerChanged, onRuleAnswered, &followed);
    m_bus.askDaemon("NameHasOwner", name.c_str(), followed.query, [this, &followed](sd_bus_message* answer) {
        int running = 0;
        followed.query.reset();
        // An error is no answer: the next call to the application shows what is there.
        if (sd_bus_message_read(answer, "b", &running) <= 0)
            running = 1;  // uncovered: the daemon answers this question
        if (!followed.known || followed.running != (running != 0))
            note(followed, running != 0);
    });
}

Names::State Names::stateOf(const std::string& name) const {
    const auto found = m_names.find(name);
    if (found == m_names.end() || !found->second.known || (!found->second.running && !m_startableKnown))
        return State::Unknown;
    if (found->second.running)
        return State::Running;
    return m_startable.contains(name) ? State::Startable : State::Absent;
}

int Names::onOwnerChanged(sd_bus_message* signal, void* data, sd_bus_error*) {
    auto* name = static_cast<Name*>(data);
    OwnerChange change;
    if (busReadOwnerChange(signal, change) && name->name == change.name)
        name->names->note(*name, change.after[0] != '\0');
    return 0;
}

int Names::onStartableChanged(sd_bus_message* signal, void* data, sd_bus_error*) {  // uncovered: see below
    // uncovered: the buses of the unit tests start nothing
    if (busIsFromDaemon(signal))
        static_cast<Names*>(data)->refresh();
    return 0;
}

// A name that goes from one owner to the next is reported too: what the first was told has to be told again.
void Names::note(Name& name, bool running) {
    name.known = true;
    name.running = running;
    const std::string changed = name.name;
    onChange(changed);
}
