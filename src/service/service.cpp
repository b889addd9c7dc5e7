// SPDX-License-Identifier: GPL-3.0-only
// Start-up in its fixed order, the main loop, and the only exit path.
//
// Owns the main loop and the registration on the bus. State that survives a restart is loaded here: the
// handler file, the offline map, the credentials file and the preferences handle. Log lines carry the
// caller's name, that of the process entry.
#include "service/service.h"

#include <glib.h>
#include <sys/stat.h>

#include "platform/bus/qsraii.h"
#include "platform/manager/readiness.h"
#include "service/cancel.h"
#include "service/methods.h"
#include "service/watchers.h"
#include "session/credentials.h"
#include "session/preferences.h"
#include "session/pubsubsession.h"
#include "util/log.h"
#include "util/paths.h"

namespace {

constexpr char kServiceName[] = "com.zelt.pubsubservice";

struct Bus {
    QSZeltService* service = nullptr;
    QSHandle* privateHandle = nullptr;
    QSHandle* publicHandle = nullptr;
};

// Frees the error record, so that the next call can use it.
bool logFailure(const char* text, BusError& error, CallSite site) {
    PrvPrintErr(site, text, error.message());
    QSErrorFree(error);
    return false;
}

bool startBus(Bus& bus, BusError& error, CallSite site) {
    gpMainLoop = g_main_loop_new(nullptr, FALSE);
    if (!gpMainLoop) {
        PrvPrintErr(site, "Creating new mainloop failed \n");
        return false;
    }
    if (!QSRegisterZeltService(kServiceName, &bus.service, error))
        return logFailure("Register of com.zelt.pubsubservice failed %s\n", error, site);
    if (!QSZeltServiceRegisterCategory(bus.service, "/", pubMethods, methods, nullptr, error))
        return logFailure("Registering of category for pubsub service failed %s\n", error, site);
    if (!QSGmainAttachZeltService(bus.service, gpMainLoop, error))
        return logFailure("Attaching to mainloop failed %s\n", error, site);
    bus.privateHandle = QSZeltServiceGetPrivateConnection(bus.service);
    bus.publicHandle = QSZeltServiceGetPublicConnection(bus.service);
    if (!QSSubscriptionSetCancelFunction(bus.privateHandle, cancelFunction, nullptr, error) ||
        !QSSubscriptionSetCancelFunction(bus.publicHandle, publicCancelFunc, nullptr, error))
        return logFailure("Failed registering cancel function %s\n", error, site);
    return true;
}

void resetSession(const Bus& bus) {
    gCurrentSession = gPubSub;
    gCurrentSession.m_privateHandle = bus.privateHandle;
    gCurrentSession.m_publicHandle = bus.publicHandle;
    gCurrentSession.m_serviceHandle = bus.service;
    gCurrentSession.m_mainLoop = gpMainLoop;
}

void loadCredentials() {
    struct stat status;
    if (stat(credentialsFile().c_str(), &status) != 0)
        return;
    ReadCredentials(gjid, gpasswd, gresource, gserver, gport, gpNode);
    gCurrentSession.setSessionDetails(gjid, gpasswd, gresource, gserver, gpNode, gport);
    gCurrentSession.setDomain(domainOf(gjid));
}

bool openPreferences(CallSite site) {
    return gCurrentSession.preferences().open("Error: QPAppGetHandle returned %d", site);
}

bool startWatchers(QSHandle* handle, CallSite site) {
    if (!registerConnectionManagerStatus(handle)) {
        PrvPrintErr(site, "registerConnectionManagerStatus failed");
        return false;
    }
    // The service can run without these; they log their own failures.
    registerAppInstallerStatus(handle);
    registerAccountSrvcStatus(handle);
    registerSystemMgrStatus(handle);
    return true;
}

bool start(Bus& bus, BusError& error, CallSite site) {
    if (!startBus(bus, error, site))
        return false;
    resetSession(bus);
    gCurrentSession.ReadHandlerFile();
    gCurrentSession.createCacheDir();
    gCurrentSession.loadOfflineMapFromDisk();
    loadCredentials();
    return openPreferences(site) && startWatchers(bus.privateHandle, site);
}

// The service never ends its loop itself, so this is always reached by a failure.
void shutDown(const Bus& bus, BusError& error, CallSite site) {
    PrvPrintErr(site, "Exiting main because of errors");
    if (bus.privateHandle && !QSUnregister(bus.privateHandle, error))
        QSErrorPrint(error, stderr);
    if (gpMainLoop)
        g_main_loop_unref(gpMainLoop);
    gpMainLoop = nullptr;
    gCurrentSession.m_mainLoop = nullptr;
    PrvPrintErr(site, "PUBSUB SERVICE EXITS BECAUSE OF ERRORS");
}

}  // namespace

int runService(CallSite entry) {
    BusError error;
    Bus bus;
    if (start(bus, error, entry)) {
        PrintDbgRelease(entry, "Calling mainloop");
        const guint watchdog = reportReady();
        g_main_loop_run(gpMainLoop);
        if (watchdog)
            g_source_remove(watchdog);  // uncovered: a unit with a watchdog starts the program itself
    }
    shutDown(bus, error, entry);
    return 0;
}
