// SPDX-License-Identifier: GPL-3.0-only
// Account login: asks the account service for a token and sets the session details from its answer.
//
// Each answer overwrites the details, member by member as the fields are checked, so an answer with a missing
// field leaves the members before it new and those after it old. The token is never logged and never stored
// outside the session.
#include <json-c/json.h>

#include <algorithm>
#include <cstdlib>

#include "platform/prefs/qp.h"
#include "session/credentials.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonref.h"
#include "util/log.h"

namespace {

// Accounts created before the server moved still name its old host.
std::string currentHost(const std::string& host) {
    return host == PUBSUB_RETIRED_SERVER_HOST ? PUBSUB_DEFAULT_SERVER_HOST : host;
}

JsonRef parseLogged(const std::string& text, CallSite site) {
    JsonRef object = parseJson(text.c_str());
    if (!object)
        PrvPrintErr(site, "Malformed json packet? \n");
    return object;
}

// The JSON object that "jabberId" holds as a text. Read unfiltered, because getJSONString would
// remove its quotes.
JsonRef readAccount(json_object* reply, CallSite site) {
    json_object* jabberId = jsonMember(reply, "jabberId");
    if (!jabberId) {
        PrvPrintErr(site, "obj null, First is not run yet / Acct services went down?");
        return nullptr;
    }
    std::string text = json_object_get_string(jabberId);
    if (text.empty()) {
        PrvPrintErr(site, "jabberId empty?");
        return nullptr;
    }
    std::erase(text, '\\');
    return parseLogged(text, site);
}

bool readField(json_object* account, const char* key, std::string& value, CallSite site) {
    value = getJSONString(account, key, {});
    if (value.empty())
        PrvPrintErr(site, "%s empty?", key);
    return !value.empty();
}

// The device id is the resource; without one the server chooses it.
std::string deviceId(CallSite site) {
    char* id = nullptr;
    const int result = QPSystemCopyStringValue("com.zelt.properties.kduid", &id);
    if (result != QP_OK || !id) {
        PrvPrintErr(site, "Error getting device kduid. We will drop device specific packets %d", result);
        return {};
    }
    std::string text = id;
    free(id);
    return text;
}

bool takeAccount(PubSubSession& session, json_object* account, CallSite site) {
    std::string user, service, url, port;
    if (!readField(account, "user", user, site))
        return false;
    session.m_username = user;
    if (!readField(account, "service", service, site))
        return false;
    session.m_domain = currentHost(service);
    session.m_pubsubService = "pubsub." + session.m_domain;
    session.m_jid = gloox::JID(user + "@" + session.m_domain);
    if (!readField(account, "url", url, site))
        return false;
    session.m_server = currentHost(url);
    if (!readField(account, "port", port, site))
        return false;
    session.m_port = parsePort(port);
    return true;
}

bool takeLogin(PubSubSession& session, const char* text, CallSite site = {}) {
    const JsonRef reply = parseLogged(text ? text : "", site);
    if (!reply)
        return false;
    const JsonRef account = readAccount(reply.get(), site);
    if (!account || !takeAccount(session, account.get(), site))
        return false;
    session.m_resource = deviceId(site);
    const std::string token = getJSONString(reply.get(), "uniqueId", {});
    if (token.empty())
        return false;
    session.m_password = token;
    return true;
}

}  // namespace

bool PubSubSession::getLoginDetails() {
    BusError error;
    if (QSCall(m_privateHandle, "quor://com.zelt.accountservices/getAccountToken", "", getLoginResponse, this,
               nullptr, error))
        return true;
    PrvPrintErr({}, "Getting login details FAILED. Error %s ", error.message());
    return false;
}

bool PubSubSession::getLoginResponse(QSHandle*, QSMessage* reply, void* context) {
    auto* session = static_cast<PubSubSession*>(context);
    if (!session)
        PrvPrintErr({}, "Getting login details FAILED. Context was NULL");
    if (!session || !takeLogin(*session, QSMessageGetPayload(reply))) {
        PrvPrintErr({}, "getLoginResponse failed. Getting login details from accounts failed ");
        return true;
    }
    if (!session->connectToService() && session->m_networkAvailable)
        session->scheduleReconnect();
    return true;
}
