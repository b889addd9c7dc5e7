// SPDX-License-Identifier: GPL-3.0-only
// listNodes: the nodes that this device knows, without asking the server: those that it has handlers for, and those
// whose items it has received, by the numbers in the preferences. Keeps no state.
#include <set>
#include <string>

#include "nodes/methods.h"
#include "request/requestframe.h"
#include "session/preferences.h"
#include "session/pubsubsession.h"
#include "util/jsonref.h"

namespace {

// Other records of the preferences have names of another form.
void addReceived(const Preferences& store, std::set<std::string>& nodes) {
    const JsonRef keys = store.keys();
    for (std::size_t i = 0; keys && i < json_object_array_length(keys.get()); ++i) {
        const char* key = json_object_get_string(json_object_array_get_idx(keys.get(), i));
        if (key && key[0] == '/')
            nodes.insert(key);
    }
}

}  // namespace

bool listNodes(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    std::set<std::string> nodes;
    for (const auto& [node, handlers] : session.serviceNodeMap)
        nodes.insert(node);
    Preferences store = session.preferences();
    if (store.open())
        addReceived(store, nodes);
    JsonArray names;
    for (const std::string& node : nodes)
        names.add(node);
    JsonObject answer;
    answer.set("returnValue", true).set("nodes", names.release());
    sendReply(handle, message, answer.text().c_str());
    return true;
}
