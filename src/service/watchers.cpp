// SPDX-License-Identifier: GPL-3.0-only
// Watches the platform services and sends each one its request again whenever it comes up.
//
// The platform services can therefore start in any order. The watches live as long as the process; a service
// that goes down is only logged. Keeps no state.
#include "service/watchers.h"

#include <string>

#include "platform/bus/qsraii.h"
#include "service/network.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonref.h"
#include "util/log.h"

namespace {

bool watch(QSHandle* handle, const std::string& service, QSFilter callback, const char* failed,
           CallSite site = {}) {
    BusError error;
    const std::string payload = R"({"serviceName":")" + service + R"("})";
    if (QSCall(handle, "zelt://com.zelt.bus/signal/registerServerStatus", payload.c_str(), callback, nullptr,
               nullptr, error))
        return true;
    PrvPrintErr(site, failed, error.code(), error.message());
    return false;
}

// Whether the report says that the service is up. Any other report is logged.
bool isUp(QSMessage* message, const char* wentDown, const char* failed, CallSite site = {}) {
    const char* text = QSMessageGetPayload(message);
    const JsonRef payload = parseJson(text);
    json_object* connected = jsonMember(payload.get(), "connected");
    if (!connected) {
        PrvPrintErr(site, payload ? "Could not find connected?" : "Malformed json packet? \n");
        PrvPrintErr(site, failed, text);
        return false;
    }
    if (json_object_get_boolean(connected))
        return true;
    PrvPrintErr(site, "%s", wentDown);
    return false;
}

void subscribeTo(QSHandle* handle, const char* uri, const char* payload, QSFilter callback,
                 const char* failed, CallSite site = {}) {
    BusError error;
    if (!QSCall(handle, uri, payload, callback, nullptr, nullptr, error))
        PrvPrintErr(site, failed, error.code(), error.message());
}

bool logBadNotice(const std::string& reason, const char* text, CallSite site = {}) {
    PrvPrintErr(site, "Error? %s Incoming %s", reason.c_str(), text);
    return false;
}

}  // namespace

bool registerConnectionManagerStatus(QSHandle* handle) {
    return watch(handle, "com.zelt.connectionmanager", connectionManagerUp,
                 "QSRegisterServerStatus for connection manager failed %d: %s\n");
}

bool registerAppInstallerStatus(QSHandle* handle) {
    return watch(handle, "com.zelt.appinstaller", appInstallerUp,
                 "QSRegisterServerStatus for App Installer failed %d: %s\n");
}

bool registerAccountSrvcStatus(QSHandle* handle) {
    return watch(handle, "com.zelt.accountservices", accountServicesUp,
                 "QSRegisterServerStatus for Account Service failed %d: %s\n");
}

bool registerSystemMgrStatus(QSHandle* handle) {
    return watch(handle, "com.zelt.systemmanager", systemMgrUp,
                 "QSRegisterServerStatus for System manager failed %d: %s\n");
}

bool connectionManagerUp(QSHandle* handle, QSMessage* message, void*) {
    if (isUp(message, "Connection manager went down!!", "Error in getting connectionManagerUp %s"))
        subscribeTo(handle, "quor://com.zelt.connectionmanager/getstatus", R"({"subscribe":true})",
                    connectionStatusV2, "QSCall getstatus for connection manager failed %d: %s\n");
    return true;
}

bool appInstallerUp(QSHandle* handle, QSMessage* message, void*) {
    if (isUp(message, "AppInstaller went down!!", "Error in getting AppInstallerUp %s"))
        subscribeTo(handle, "quor://com.zelt.appinstaller/notifyOnChange",
                    R"({"appId": "*", "subscribe":true})", appInstallChange,
                    // sic: says getstatus, although the call is another one
                    "QSCall getstatus for appInstaller failed %d: %s\n");
    return true;
}

bool accountServicesUp(QSHandle*, QSMessage* message, void*) {
    if (!isUp(message, "Account services went down!!", "Error in getting Account services %s"))
        return true;
    const gloox::JID jid = gCurrentSession.m_jid;
    if (jid.full().empty() && gCurrentSession.m_networkAvailable && !gCurrentSession.m_connected &&
        !gCurrentSession.m_connecting) {
        PrintDbgRelease({}, "Trying to get login value now that AC is up");
        gCurrentSession.getLoginDetails();
    }
    return true;
}

bool systemMgrUp(QSHandle*, QSMessage* message, void*) {
    if (isUp(message, "SystemManager went down!!", "Error in getting SystemManagerUp %s"))
        gCurrentSession.getBootStatus();
    return true;
}

bool appInstallChange(QSHandle*, QSMessage* message, void*) {
    const char* text = QSMessageGetPayload(message);
    const JsonRef payload = parseJson(text);
    if (!payload) {
        PrvPrintErr({}, "Malformed json packet? \n");
        return logBadNotice("", text);
    }
    std::string reason, change, appId;
    if (!getJSONStringV2(payload.get(), "statusChange", reason, change))
        return logBadNotice(reason, text);
    if (change != "REMOVED")
        return true;
    if (!getJSONStringV2(payload.get(), "appId", reason, appId))
        return logBadNotice(reason, text);
    gCurrentSession.cleanupNodes(appId, "");
    return true;
}
