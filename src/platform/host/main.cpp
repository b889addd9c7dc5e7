// SPDX-License-Identifier: GPL-3.0-only
// zelt-host: provides the platform services on a plain Linux machine, and keeps the push service connected.
// One process, one thread, six bus services. This file wires them; the state of each is described in its own file.
#include <glib-unix.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "platform/host/accountcommand.h"
#include "platform/host/accountservices.h"
#include "platform/host/appinstaller.h"
#include "platform/host/config.h"
#include "platform/host/connectionkeeper.h"
#include "platform/host/connectionmanager.h"
#include "platform/host/filewatch.h"
#include "platform/host/log.h"
#include "platform/host/portalwatch.h"
#include "platform/host/power.h"
#include "platform/host/systemmanager.h"
#include "platform/manager/readiness.h"

namespace {

constexpr char kUsage[] =
    "usage: zelt-host\n"
    "           provides the platform services on the private bus (ZELT_PRIVATE_BUS): power, network, "
    "account,\n"
    "           applications and boot; keeps the push service connected; state is kept in "
    "ZELT_HOST_STATE_DIR\n"
    "           (/var/lib/zelt/host), settings are read from ZELT_HOST_CONF (/etc/zelt/host.conf)\n";

struct Service {
    const char* name;  // as in [services] enabled
    std::function<StartResult()> start;
};

// Signals arrive by descriptor: the signal sources of GLib would start a second thread.
int openSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
}

struct Shutdown {
    GMainLoop* loop;
    bool requested = false;
};

gboolean onSignal(gint, GIOCondition, gpointer data) {
    auto* shutdown = static_cast<Shutdown*>(data);
    shutdown->requested = true;
    g_main_loop_quit(shutdown->loop);
    return G_SOURCE_CONTINUE;
}

// False when a service failed, or when there is none to provide.
bool startAll(const std::vector<Service>& services, const HostConfig& config) {
    int up = 0;
    for (const Service& service : services) {
        if (!config.runs(service.name))
            continue;
        const StartResult result = service.start();
        if (result == StartResult::Failed)
            return false;
        up += result == StartResult::Started;
    }
    if (!up)
        logLine("every service is provided by another process or disabled; nothing to do");
    return up > 0;
}

bool prepareState(const HostConfig& config) {
    if (g_mkdir_with_parents(config.stateDir.c_str(), 0750) == 0)
        return true;
    logLine("cannot create %s: %s; ZELT_HOST_STATE_DIR names another folder", config.stateDir.c_str(),
            strerror(errno));
    return false;
}

// Runs the services until a signal; false when they could not start or the bus was lost.
bool serve(const HostConfig& config, const Shutdown& shutdown) {
    GMainLoop* loop = shutdown.loop;
    SystemBus system;
    system.open();
    Power power(config, system);
    ConnectionManager network(config);
    AccountServices account(config);
    AppInstaller applications(config);
    SystemManager boot(system, sd_booted() > 0);
    PortalWatch portal(system, [&](bool captive) { network.setCaptivePortal(captive); });
    PowerSupply supply;
    ConnectionKeeper keeper(config, supply);
    FileWatch accountFile(config.accountFile, [&] { keeper.accountChanged(); });
    ResumeWatch resume([&] {
        power.ring();
        network.refresh();
        keeper.resumed();
    });
    const std::vector<Service> services = {
        {.name = "power", .start = [&] { return power.start(loop); }},
        {.name = "network", .start = [&] { return network.start(loop); }},
        {.name = "account", .start = [&] { return account.start(loop); }},
        {.name = "applications", .start = [&] { return applications.start(loop); }},
        {.name = "boot", .start = [&] { return boot.start(loop); }},
    };
    // Keeping the connection is no reason to run where others provide all services.
    if (!startAll(services, config) || keeper.start(loop) == StartResult::Failed)
        return false;
    portal.start();
    accountFile.open();
    resume.open();
    const guint watchdog = reportReady();
    g_main_loop_run(loop);
    if (watchdog)
        g_source_remove(watchdog);
    if (!shutdown.requested)
        logLine("the private bus connection is lost; restart zelt-host when the bus is back");
    return shutdown.requested;
}

int runDaemon(const HostConfig& config) {
    if (!prepareState(config))
        return 1;
    Shutdown shutdown{g_main_loop_new(nullptr, FALSE)};
    const int signals = openSignals();
    const guint source = g_unix_fd_add(signals, G_IO_IN, onSignal, &shutdown);
    const bool ok = serve(config, shutdown);
    g_source_remove(source);
    close(signals);
    g_main_loop_unref(shutdown.loop);
    return ok ? 0 : 1;
}

int usageError(const std::string& argument) {
    logLine("unknown argument %s; see zelt-host --help", argument.c_str());
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::string first = arguments.empty() ? "" : arguments[0];
    if (first == "--help" || first == "-h") {
        std::cout << kUsage << kAccountUsage;
        return 0;
    }
    if (first == "--version") {
        std::cout << "zelt-host " << ZELT_VERSION << "\n";
        return 0;
    }
    if (!first.empty() && first != "account")
        return usageError(first);
    HostConfig config;
    std::string problem;
    if (!readHostConfig(config, problem)) {
        logLine("%s", problem.c_str());
        return 1;
    }
    if (first == "account")
        return runAccountCommand({arguments.begin() + 1, arguments.end()}, config, std::cin, std::cout,
                                 std::cerr);
    return runDaemon(config);
}
