// SPDX-License-Identifier: GPL-3.0-only
// The steps that the private node methods share. Keeps no state; kept requests live in the session's
// m_msgMap.
#include "request/roads.h"

#include "request/names.h"
#include "request/requestframe.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/log.h"

namespace {}  // namespace

bool checkRequest(CallSite site, const PubSubSession& session, json_object* payload, FailureWords& words) {
    if (!session.m_pubsub || session.m_pubsubService.empty()) {
        PrvPrintErr(site, "PubSub manager not intialized");  // sic: spelled so
        words = {"libErr", "Service not initialized"};
        return false;
    }
    if (!session.m_connected) {
        words = {"connectionErr", "Not connected to xmpp server"};
        return false;
    }
    if (!payload) {
        PrvPrintErr(site, "Malformed json packet? \n");
        words.text = "Malformed json";
        return false;
    }
    return true;
}

bool readNodes(CallSite site, json_object* payload, std::list<std::string>& nodes, FailureWords& words) {
    json_object* array = jsonMember(payload, "nodes");
    if (!json_object_is_type(array, json_type_array)) {
        PrvPrintErr(site, "Error: nodes takes an array of nodes \n");
        words.text = "Malformed json - nodes takes an array of nodes ";  // sic: ends in a blank
        return false;
    }
    for (std::size_t i = 0; i < json_object_array_length(array); ++i) {
        std::string node = json_object_to_json_string(json_object_array_get_idx(array, i));
        cleanSlashes(node);
        nodes.push_back(node);
    }
    if (!nodes.empty())
        return true;
    words.text = "No nodes provided";
    return false;
}

bool refuse(QSHandle* handle, QSMessage* message, const FailureWords& words) {
    HandleError(handle, message, words.code, words.text, nullptr);
    return true;
}

bool refuseNode(QSHandle* handle, QSMessage* message, const FailureWords& words, const std::string& node) {
    JsonRef context(json_object_new_object());
    addText(context, "node", node);
    HandleError(handle, message, words.code, words.text, context.release());
    return true;
}

bool checkRequestId(const std::string& id, FailureWords& words) {
    if (!id.empty())
        return true;
    words = {"libErr", "gloox library is not initialized"};
    return false;
}

bool keepRequest(PubSubSession& session, const std::string& id, QSMessage* message, FailureWords& words) {
    if (!checkRequestId(id, words))
        return false;
    session.m_msgMap[id] = KeptMessage(message);
    return true;
}

JsonRef newReply(bool success) {
    JsonRef reply(json_object_new_object());
    json_object_object_add(reply.get(), "returnValue", json_object_new_boolean(success));
    return reply;
}

void addText(const JsonRef& reply, const char* key, const std::string& text) {
    json_object_object_add(reply.get(), key,
                           json_object_new_string_len(text.data(), static_cast<int>(text.size())));
}

void addWords(const JsonRef& reply, const FailureWords& words) {
    addText(reply, "errorCode", words.code);
    addText(reply, "errorText", words.text);
}

FailureWords serverWords(CallSite site, const std::string& node, const gloox::JID& service,
                         const gloox::Error& error) {
    PrvPrintErr(site, "Node %s error:  from %s", node.c_str(), service.full().c_str());
    printerror(&error, site);
    FailureWords words{"", ""};
    getErrorCode(&error, words.code, words.text);
    return words;
}

JsonRef resultReply(CallSite site, const char* key, const std::string& name, const std::string& node,
                    const gloox::JID& service, const gloox::Error* error) {
    JsonRef reply = newReply(!error);
    addText(reply, key, name);
    if (error)
        addWords(reply, serverWords(site, node, service, *error));
    return reply;
}

void respond(CallSite site, QSMessage* message, const JsonRef& reply, const std::string& id,
             const char* failure) {
    BusError error;
    if (!QSMessageRespond(message, json_object_to_json_string(reply.get()), error))
        PrvPrintErr(site, failure, id.c_str(), error.message());
}
