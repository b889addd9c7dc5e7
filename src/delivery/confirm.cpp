// SPDX-License-Identifier: GPL-3.0-only
// Handlers that confirm: a service handler whose answer {"returnValue":true} is the item's acknowledgement.
//
// Keeps PubSubSession::m_handlerWatches, the services whose arrival has waiting items handed to them at once.
// The item and the calls under way are in m_openNodes (session/openitems.cpp), which asks the handlers again
// after any other answer. Which handlers confirm is in m_confirming (delivery/handlerfile.cpp).
#include <utility>

#include "platform/bus/qsraii.h"
#include "request/itemmembers.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonref.h"
#include "util/log.h"

namespace {

constexpr char kWatch[] = "zelt://com.zelt.bus/signal/registerServerStatus";

// What the handlers of the node have in common, and what the server says of the item beyond that.
std::string confirmPayload(const std::string& node, const _itemStruct& item) {
    JsonObject payload{JsonRef(getResponseJsonObject(node, item.id, item.text))};
    addItemMembers(payload, item);
    return payload.text();
}

}  // namespace

std::string PubSubSession::serviceOfHandler(const std::string& address) {
    const std::size_t scheme = address.find("://");
    if (scheme == std::string::npos)
        return {};
    const std::size_t start = scheme + 3;
    return address.substr(start, address.find('/', start) - start);
}

bool PubSubSession::askHandlers(const std::string& node, _openNodeStruct& entry) {
    const auto confirming = m_confirming.find(node);
    if (confirming == m_confirming.end())
        return false;  // uncovered: a node without receiver and handlers that confirm holds no item
    const auto handlers = serviceNodeMap.find(node);
    if (!std::exchange(entry.told, true) && handlers != serviceNodeMap.end()) {
        const JsonRef object(getResponseJsonObject(node, entry.open->id, entry.open->text));
        for (const std::string& handler : handlers->second) {
            BusError error;
            if (!confirming->second.contains(handler) &&
                !QSCall(m_privateHandle, handler.c_str(), json_object_to_json_string(object.get()), nullptr,
                        nullptr, nullptr, error))
                PrvPrintErr({}, "Calling the handler %s failed: %s", handler.c_str(), error.message());
        }
    }
    const std::string payload = confirmPayload(node, *entry.open);
    for (const std::string& handler : confirming->second) {
        if (entry.confirmed.contains(handler))
            continue;
        watchHandlerService(serviceOfHandler(handler));
        const auto call = std::make_shared<_confirmCallStruct>();
        call->session = this;
        call->node = node;
        call->endpoint = handler;
        BusError error;
        if (QSCall(m_privateHandle, handler.c_str(), payload.c_str(), confirmationArrived, call.get(),
                   &call->token, error))
            entry.calls[handler] = call;
        else if (entry.failures == 0)
            PrvPrintErr({}, "Calling the handler %s failed, it is tried again: %s", handler.c_str(),
                        error.message());
    }
    return !entry.calls.empty();
}

bool PubSubSession::confirmationArrived(QSHandle*, QSMessage* reply, void* context) {
    const auto* call = static_cast<_confirmCallStruct*>(context);
    const JsonRef answer = parseJson(QSMessageGetPayload(reply));
    call->session->handlerAnswered(*call, boolMember(answer.get(), "returnValue"));
    return true;
}

void PubSubSession::cancelHandlerCalls(_openNodeStruct& entry) {
    for (const auto& [handler, call] : std::exchange(entry.calls, {})) {
        BusError error;
        if (!QSCallCancel(m_privateHandle, call->token, error))
            PrvPrintErr({}, "Cancelling the call of %s failed: %s", handler.c_str(), error.message());
    }
}

// Watched from the first call on, so that the first report, for a service that is running, finds nothing that
// waits.
void PubSubSession::watchHandlerService(const std::string& service) {
    if (service.empty() || m_handlerWatches.contains(service))
        return;
    const auto name = std::make_shared<std::string>(service);
    const std::string payload = R"({"serviceName":")" + service + R"("})";
    BusError error;
    if (QSCall(m_privateHandle, kWatch, payload.c_str(), handlerServiceChanged, name.get(), nullptr, error))
        m_handlerWatches[service] = name;
    else
        PrvPrintErr({}, "Watching the service %s failed: %s", service.c_str(), error.message());
}

bool PubSubSession::handlerServiceChanged(QSHandle*, QSMessage* report, void* context) {
    const JsonRef status = parseJson(QSMessageGetPayload(report));
    if (boolMember(status.get(), "connected"))
        gCurrentSession.retryHandlers(*static_cast<const std::string*>(context));
    return true;
}
