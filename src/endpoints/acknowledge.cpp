// SPDX-License-Identifier: GPL-3.0-only
// acknowledge: an application has an item that it received, or gives it back to be handed out again later.
//
// Keeps no state: the open item and its receipt are in PubSubSession::m_openNodes (session/openitems.cpp).
#include "endpoints/methods.h"
#include "request/request.h"
#include "session/pubsubsession.h"

namespace {

constexpr int64_t kLongestRetry = 86'400;  // seconds
constexpr int64_t kMilliseconds = 1000;    // of a second
constexpr char kUnknownReceipt[] =
    "Unknown receipt: its item was acknowledged or given back, or is handed out again with another one";

// -1 when the request gives nothing back.
bool readRetry(const Request& request, int64_t& seconds) {
    json_object* retry = jsonMember(request.json(), "retry");
    seconds = retry ? json_object_get_int64(retry) : -1;
    return !retry || (json_object_is_type(retry, json_type_int) && seconds >= 0 && seconds <= kLongestRetry);
}

}  // namespace

// Without a connection too: the server, which sends the item again, is then told that it is known.
bool acknowledge(QSHandle* handle, QSMessage* message, void*) {
    PubSubSession& session = gCurrentSession;
    Request request(handle, message, kEndpointRefusal);
    std::string receipt;
    int64_t retry = -1;
    if (!request.isReady(false) || !request.requireEndpoint() || !request.requireText("receipt", receipt) ||
        !request.formNode() || !readRetry(request, retry))
        return request.refuse();
    if (!session.holdsReceipt(request.node, receipt))
        return request.refuse("appErr", kUnknownReceipt);
    const auto receiver = session.receiverOf(request.node);
    if (retry < 0) {
        session.takeOpenItem(request.node, request.endpoint, message);
    } else {
        request.reply(endpointReply(true, request.endpoint));
        session.putBack(request.node, retry * kMilliseconds);
    }
    // A client that acknowledges has read.
    if (receiver)
        session.writeUnsent(*receiver);
    return true;
}
