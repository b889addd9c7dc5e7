// SPDX-License-Identifier: GPL-3.0-only
// Network tracking: opens, closes or moves the XMPP connection when the connection manager reports a change.
//
// Each report is handled on its own; the state between reports is in the session (m_networkAvailable,
// m_onWan, m_survivedOutage, m_ipAddress). After a connection error the reconnect alarm connects again,
// not this file.
#include "service/network.h"

#include "session/pubsubsession.h"
#include "util/jsonref.h"
#include "util/log.h"

namespace {

constexpr char kWifi[] = "wifi";
constexpr char kWan[] = "wan";

// Without Internet a connection attempt is given up, and so is a connection unless it runs over a mobile link
// that is still connected.
bool mustDisconnect(json_object* status) {
    if (!gCurrentSession.m_connected)
        return gCurrentSession.m_connecting;
    bool wanConnected = false;
    if (!gCurrentSession.m_onWan || !checkConnection(kWan, status, wanConnected) || !wanConnected)
        return true;
    gCurrentSession.m_survivedOutage = true;
    return gCurrentSession.m_connecting;
}

void networkLost(json_object* status) {
    if (!mustDisconnect(status))
        return;
    gCurrentSession.m_survivedOutage = false;
    gCurrentSession.m_ipAddress.clear();
    gCurrentSession.disconnect();
}

void connectFrom(const std::string& address, bool onWan, CallSite site) {
    gCurrentSession.m_onWan = onWan;
    gCurrentSession.m_ipAddress = address;
    if (gCurrentSession.m_lastError != 0 && gCurrentSession.m_lastError != gloox::ConnUserDisconnected) {
        PrintDbgRelease(site, "We had some connection err in the past. So nop.");
        return;
    }
    if (gCurrentSession.m_reconnectPending)
        return;
    if (!gCurrentSession.connectToService() && !gCurrentSession.getLoginDetails())
        gCurrentSession.scheduleReconnect();
}

void switchToWifi(json_object* status) {
    gCurrentSession.disconnect();
    gCurrentSession.m_ipAddress = getIPAddress(kWifi, status);
    gCurrentSession.m_onWan = false;
    gCurrentSession.m_survivedOutage = false;
    gCurrentSession.connectToService();
}

void wifiAvailable(json_object* status, bool inSession, CallSite site = {}) {
    if (!inSession)
        connectFrom(getIPAddress(kWifi, status), false, site);
    else if (gCurrentSession.m_onWan)
        switchToWifi(status);
}

// The state of the mobile link is not checked: with Internet and without Wi-Fi it is assumed to be the
// link in use.
void wifiUnavailable(json_object* status, bool inSession, CallSite site = {}) {
    if (inSession && gCurrentSession.m_onWan) {
        // The server may have dropped the activations while there was no Internet.
        if (gCurrentSession.m_survivedOutage) {
            gCurrentSession.m_survivedOutage = false;
            gCurrentSession.activateNodes();
        }
        return;
    }
    if (inSession)
        gCurrentSession.disconnect();
    connectFrom(getIPAddress(kWan, status), true, site);
}

}  // namespace

bool connectionStatusV2(QSHandle*, QSMessage* message, void*) {
    const char* text = QSMessageGetPayload(message);
    const JsonRef status = parseJson(text);
    json_object* available = jsonMember(status.get(), "isInternetConnectionAvailable");
    if (!status)
        PrvPrintErr({}, "Malformed json packet? \n");
    if (!available) {
        PrvPrintErr({}, "Error in getting connectionStatus %s", text);
        return true;
    }
    gCurrentSession.m_networkAvailable = json_object_get_boolean(available);
    if (gCurrentSession.m_networkAvailable)
        connectOrSwitchConnections(status.get());
    else
        networkLost(status.get());
    return true;
}

void connectOrSwitchConnections(json_object* status) {
    bool wifi = false;
    if (!checkConnection(kWifi, status, wifi)) {
        PrvPrintErr({}, "Checking wifi failed - We ran into some parse error?");
        return;
    }
    const bool inSession = gCurrentSession.m_connected || gCurrentSession.m_connecting;
    if (wifi)
        wifiAvailable(status, inSession);
    else
        wifiUnavailable(status, inSession);
}

bool checkConnection(const char* link, json_object* status, bool& isConnected) {
    isConnected = false;
    json_object* state = jsonMember(jsonMember(status, link), "state");
    if (!state) {
        PrvPrintErr({}, "checkConnection failed, mostly because of malformed json");
        return false;
    }
    isConnected = std::string(json_object_get_string(state)) == "connected";
    return true;
}

std::string getIPAddress(const char* link, json_object* status) {
    json_object* address = jsonMember(jsonMember(status, link), "ipAddress");
    if (!address) {
        PrvPrintErr({}, "getIPAddress failed, because of malformed json?");
        return {};
    }
    return json_object_get_string(address);
}
