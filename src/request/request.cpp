// SPDX-License-Identifier: GPL-3.0-only
// The checks and replies that the bus handlers share. Keeps no state; the session holds the
// requests that wait.
#include "request/request.h"

#include "platform/bus/qsraii.h"
#include "request/names.h"
#include "request/requestframe.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/logsubject.h"

namespace {

constexpr char kLibraryError[] = "libErr";
constexpr std::size_t kLongestEcho = 4 * 1024;

// Bytes that a character takes in a JSON string.
std::size_t lengthInJson(char character) {
    if (static_cast<unsigned char>(character) < 0x20)
        return 6;
    return character == '/' || character == '\\' || character == '"' ? 2 : 1;
}

bool continuesACharacter(char character) {
    return (static_cast<unsigned char>(character) & 0xc0) == 0x80;
}

// The endpoint as a refusal repeats it, cut at a bound. Escaping can make an endpoint six times as long in
// JSON; no valid endpoint reaches the bound.
std::string echoOf(const std::string& endpoint) {
    std::size_t length = 0;
    for (std::size_t i = 0; i < endpoint.size(); ++i) {
        length += lengthInJson(endpoint[i]);
        if (length <= kLongestEcho)
            continue;
        while (i > 0 && continuesACharacter(endpoint[i]))
            --i;
        return endpoint.substr(0, i);
    }
    return endpoint;
}

}  // namespace

Request::Request(QSHandle* busHandle, QSMessage* request, const RefusalForm& form, CallSite site)
    : handle(busHandle),
      message(request),
      m_form(form),
      m_site(site),
      m_json(parseJson(QSMessageGetPayload(request))),
      m_error{form.code, form.text} {}

bool Request::hasManager() {
    if (gCurrentSession.m_pubsub)
        return true;
    PrvPrintErr(m_site, "PubSub manager not intialized");  // sic: spelled so
    return fail(kLibraryError, "Service not initialized");
}

bool Request::hasService() {
    if (gCurrentSession.m_pubsub && !gCurrentSession.m_pubsubService.empty())
        return true;
    PrvPrintErr(m_site, "PubSub manager not intialized");  // sic: spelled so, and used for the service too
    return fail(kLibraryError, "Service not initialized");
}

bool Request::isConnected() {
    return gCurrentSession.m_connected || fail("connectionErr", "Not connected to xmpp server");
}

bool Request::hasJson() {
    if (m_json)
        return true;
    PrvPrintErr(m_site, "Malformed json packet? \n");
    return fail("Malformed json");
}

bool Request::isReady(bool needConnected) {
    json_object* payload = json();
    return checkInit(payload, gCurrentSession, m_error.code, m_error.text, needConnected);
}

bool Request::readNode() {
    m_subject = node = text("node");
    return !node.empty();
}

bool Request::readEndpoint() {
    m_subject = endpoint = text("endpoint");
    return !endpoint.empty();
}

bool Request::readNodes(std::list<std::string>& nodes) {
    json_object* array = jsonMember(json(), "nodes");
    if (!json_object_is_type(array, json_type_array)) {
        PrvPrintErr(m_site, "Error: nodes takes an array of nodes \n");
        return fail("Malformed json - nodes takes an array of nodes ");  // sic: ends with a space
    }
    for (std::size_t i = 0; i < json_object_array_length(array); ++i) {
        std::string element = json_object_to_json_string(json_object_array_get_idx(array, i));
        cleanSlashes(element);
        nodes.push_back(element);
    }
    return !nodes.empty() || fail("No nodes provided");
}

std::string Request::text(const char* key) const {
    return getJSONString(json(), key, {});
}

bool Request::requireNode() {
    const bool found = requireText("node", node);
    m_subject = node;
    return found;
}

bool Request::requireEndpoint() {
    const bool found = requireText("endpoint", endpoint);
    m_subject = echoOf(endpoint);
    return found;
}

bool Request::requireText(const char* key, std::string& value) {
    return getJSONStringV2(json(), key, m_error.text, value);
}

bool Request::requireBoolean(const char* key, bool& value) {
    return getJSONboolean(json(), key, m_error.text, value);
}

bool Request::requireSubscribe() {
    bool wanted = false;
    return requireBoolean("subscribe", wanted) && (wanted || fail("Subscribe should be true"));
}

bool Request::formNode() {
    const char* caller = QSMessageGetApplicationID(message);
    appId = caller ? caller : "";
    if (getNodeName(endpoint, node, gCurrentSession, appId, m_error.text))
        return true;
    m_error.code = kLibraryError;
    return false;
}

bool Request::processSubscription() {
    BusError error;
    bool subscribed = false;
    if (QSSubscriptionProcess(handle, message, &subscribed, error))
        return true;
    PrvPrintErr(m_site, "Processing subscription failed %d %s", error.code(), error.message());
    return false;
}

bool Request::wasSent(const std::string& id, const char* reason) {
    return !id.empty() || fail(kLibraryError, reason);
}

bool Request::fail(const std::string& text) {
    m_error.text = text;
    return false;
}

bool Request::fail(const std::string& code, const std::string& text) {
    m_error = {code, text};
    return false;
}

bool Request::refuse() {
    const LogSubject subject(node);
    if (m_form.logged)
        PrvPrintErr(m_site, "Error %s, Incoming %s", m_error.text.c_str(), QSMessageGetPayload(message));
    JsonObject context;
    if (m_form.subject)
        context.set(m_form.subject, m_subject);
    HandleError(handle, message, m_error.code, m_error.text, context.release().release());
    return true;
}

bool Request::refuse(const std::string& text) {
    fail(text);
    return refuse();
}

bool Request::refuse(const std::string& code, const std::string& text) {
    fail(code, text);
    return refuse();
}

bool Request::reply(const JsonObject& answer) {
    sendReply(handle, message, answer.text().c_str(), m_site);
    return true;
}

bool Request::waitFor(const std::string& id) {
    if (!wasSent(id))
        return refuse();
    gCurrentSession.keepRequest(id, message);
    return true;
}

bool Request::waitForEndpoint(const std::string& id) {
    gCurrentSession.setEndpointMap(id, message, endpoint, node, appId);
    return true;
}
