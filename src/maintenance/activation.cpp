// SPDX-License-Identifier: GPL-3.0-only
// Activation: the server's switch, for each device, that lets a node's items come here.
//
// Keeps PubSubSession::m_activateMap, true once the server has confirmed a node in this connection; a
// disconnect empties it. Requests that wait for a result stand in m_endpointMap. Nothing survives a restart.
#include <gloox/error.h>

#include "maintenance/methods.h"
#include "platform/bus/qsraii.h"
#include "request/names.h"
#include "request/requestframe.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonref.h"
#include "util/log.h"
#include "xmpp/manager.h"

namespace {

void addText(json_object* object, const char* key, const std::string& text) {
    json_object_object_add(object, key, json_object_new_string(text.c_str()));
}

// {"returnValue", "endpoint"} and, after an error, the words for it.
JsonRef resultReply(const std::string& endpoint, const gloox::Error* error) {
    JsonRef reply(json_object_new_object());
    json_object_object_add(reply.get(), "returnValue", json_object_new_boolean(!error));
    addText(reply.get(), "endpoint", endpoint);
    if (!error)
        return reply;
    std::string ignored;
    std::string text;
    getErrorCode(error, ignored, text);
    addText(reply.get(), "errorCode", "xmppErr");
    addText(reply.get(), "errorText", text);
    return reply;
}

bool readNode(QSMessage* message, std::string& node, std::string& errorCode, std::string& errorText) {
    const JsonRef payload = parseJson(QSMessageGetPayload(message));
    json_object* object = payload.get();
    return checkInit(object, gCurrentSession, errorCode, errorText, true) &&
           getJSONStringV2(object, "node", errorText, node);
}

}  // namespace

bool activateNode(QSHandle* handle, QSMessage* message, void*) {
    std::string errorCode = "parameterErr";
    std::string errorText = "\"Bad Argument\"";  // sic: the quotes are part of the text
    std::string node;
    bool ready = readNode(message, node, errorCode, errorText);
    std::string id;
    if (ready && gCurrentSession.activateNode(node, id) && id.empty()) {
        errorCode = "libErr";
        errorText =
            "pubsubservice library is not initialized";  // sic: said of a node that services take, too
        ready = false;
    }
    if (!ready) {
        PrvPrintErr({}, "Error %s, Incoming %s", errorText.c_str(), QSMessageGetPayload(message));
        json_object* context = json_object_new_object();
        addText(context, "endpoint", node);
        HandleError(handle, message, errorCode, errorText, context);
        return true;
    }
    // sic: a node that is active already has no id and gets no result; its request stays under the empty key
    // until a disconnect answers it or the next one replaces it.
    gCurrentSession.setEndpointMap(id, message, node, node, "");
    return true;
}

bool PubSubSession::activateNode(const std::string& node, std::string& requestId) {
    if (serviceNodeMap.contains(node))
        return true;
    const auto known = m_activateMap.find(node);
    if (known != m_activateMap.end() && known->second) {
        requestId.clear();
        return false;
    }
    std::string seqNo;
    getSeqNo(node, seqNo);
    requestId.clear();
    if (m_pubsub)
        requestId = m_pubsub->activateNode(gloox::JID(m_pubsubService), node, seqNo, this);
    return true;
}

void PubSubSession::activated(const std::string& node, bool value) {
    m_activateMap[node] = value;
}

void PubSubSession::removeActivateMap(const std::string& node) {
    m_activateMap.erase(node);
}

void PubSubSession::activateNodes() {
    if (!m_pubsub)
        return;
    // sic: a node in both maps is listed twice.
    gloox::StringList nodes;
    for (const auto& [node, subscriber] : subMap)
        nodes.push_back(node);
    for (const auto& [node, application] : m_offlineMap)
        nodes.push_back(node);
    m_pubsub->bulkActivate(gloox::JID(m_pubsubService), nodes, this);
}

void PubSubSession::handleActivateNode(const std::string& id, const gloox::JID& service,
                                       const std::string& node, const gloox::Error* error) {
    setPingTimer();
    const auto waiting = m_endpointMap.extract(id);
    if (waiting)
        firstAnswerGiven(waiting.mapped());
    if (error) {
        printerror(error);
        removeActivateMap(node);
        removeSubMap(node);
    } else {
        activated(node, true);
    }
    if (!waiting)
        return;
    const _endpointStruct& request = waiting.mapped();
    if (error)
        PrvPrintErr({}, "Endpoint %s Sub error:  from %s", request.endpoint.c_str(), service.full().c_str());
    const JsonRef reply = resultReply(request.endpoint, error);
    BusError busError;
    if (!QSMessageRespond(request.message.get(), json_object_to_json_string(reply.get()), busError))
        PrvPrintErr({}, "Sending response to handleActivateNode failed id %s Error %s ", id.c_str(),
                    busError.message());
}

void PubSubSession::handleDeActivateNode(const std::string& id, const gloox::JID& service,
                                         const std::string& node, const gloox::Error* error) {
    setPingTimer();
    const auto waiting = m_endpointMap.extract(id);
    if (error) {
        printerror(error);
    } else {
        removeActivateMap(node);
        removeSubMap(node);
    }
    if (!waiting)
        return;
    const _endpointStruct& request = waiting.mapped();
    if (error)
        PrvPrintErr({}, "Endpoint %s Unsub error:  from %s", request.endpoint.c_str(),
                    service.full().c_str());
    const JsonRef reply = resultReply(request.endpoint, error);
    BusError busError;
    if (!QSMessageRespond(request.message.get(), json_object_to_json_string(reply.get()), busError))
        PrvPrintErr({}, "Sending response to handleDeActivateNode failed id %s Error %s ", id.c_str(),
                    busError.message());
}

void PubSubSession::handleActivateSysNodes(const std::string&, const gloox::JID&, const gloox::Error* error) {
    printerror(error);
}

void PubSubSession::handleBulkActivate(const std::string&, const gloox::JID&, const gloox::Error* error) {
    printerror(error);
}
