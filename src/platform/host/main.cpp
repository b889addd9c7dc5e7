// SPDX-License-Identifier: GPL-3.0-only
// zelt-host: makes a plain Linux machine into the platform. One process, one thread, five bus services. This
// file wires them; what each keeps stands in its own file.
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
#include "platform/host/connectionmanager.h"
#include "platform/host/portalwatch.h"
#include "platform/host/power.h"
#include "platform/host/say.h"
#include "platform/host/systemmanager.h"

namespace {

constexpr char kUsage[] =
    "usage: zelt-host\n"
    "           provides the platform's services on the private bus (ZELT_PRIVATE_BUS): power, network, "
    "account,\n"
    "           applications and boot; state is kept in ZELT_HOST_STATE_DIR (/var/lib/zelt/host), settings "
    "come\n"
    "           from ZELT_HOST_CONF (/etc/zelt/host.conf)\n";

struct Service {
    const char* name;  // as in [services] enabled
    std::function<Presence()> start;
};

// Signals arrive by descriptor: the main loop's own way would cost a second thread.
int openSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
}

struct Ending {
    GMainLoop* loop;
    bool asked = false;
};

gboolean onSignal(gint, GIOCondition, gpointer data) {
    auto* ending = static_cast<Ending*>(data);
    ending->asked = true;
    g_main_loop_quit(ending->loop);
    return G_SOURCE_CONTINUE;
}

// False when a service failed, or when none is left to provide.
bool startAll(const std::vector<Service>& services, const HostConfig& config) {
    int up = 0;
    for (const Service& service : services) {
        if (!config.runs(service.name))
            continue;
        const Presence presence = service.start();
        if (presence == Presence::Failed)
            return false;
        up += presence == Presence::Up;
    }
    if (!up)
        say("every service is provided by another process or switched off; nothing to do");
    return up > 0;
}

bool prepareState(const HostConfig& config) {
    if (g_mkdir_with_parents(config.stateDir.c_str(), 0750) == 0)
        return true;
    say("cannot create %s: %s; ZELT_HOST_STATE_DIR names another folder", config.stateDir.c_str(),
        strerror(errno));
    return false;
}

// Runs the services until told to end; false when they could not start or the bus was lost.
bool serve(const HostConfig& config, const Ending& ending) {
    GMainLoop* loop = ending.loop;
    SystemBus system;
    system.open();
    Power power(config, system);
    ConnectionManager network(config);
    AccountServices account(config);
    AppInstaller applications(config);
    SystemManager boot(system, sd_booted() > 0);
    PortalWatch portal(system, [&](bool captive) { network.setCaptivePortal(captive); });
    ResumeWatch resume([&] {
        power.ring();
        network.refresh();
    });
    const std::vector<Service> services = {
        {"power", [&] { return power.start(loop); }},
        {"network", [&] { return network.start(loop); }},
        {"account", [&] { return account.start(loop); }},
        {"applications", [&] { return applications.start(loop); }},
        {"boot", [&] { return boot.start(loop); }},
    };
    if (!startAll(services, config))
        return false;
    portal.start();
    resume.open();
    sd_notify(0, "READY=1");
    g_main_loop_run(loop);
    if (!ending.asked)
        say("the private bus is lost; start again when it is back");
    return ending.asked;
}

int runDaemon(const HostConfig& config) {
    if (!prepareState(config))
        return 1;
    Ending ending{g_main_loop_new(nullptr, FALSE)};
    const int signals = openSignals();
    const guint source = g_unix_fd_add(signals, G_IO_IN, onSignal, &ending);
    const bool well = serve(config, ending);
    g_source_remove(source);
    close(signals);
    g_main_loop_unref(ending.loop);
    return well ? 0 : 1;
}

int misuse(const std::string& word) {
    say("unknown argument %s; see zelt-host --help", word.c_str());
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    const std::string word = words.empty() ? "" : words[0];
    if (word == "--help" || word == "-h") {
        std::cout << kUsage << kAccountUsage;
        return 0;
    }
    if (word == "--version") {
        std::cout << "zelt-host " << ZELT_VERSION << "\n";
        return 0;
    }
    if (!word.empty() && word != "account")
        return misuse(word);
    HostConfig config;
    std::string problem;
    if (!readHostConfig(config, problem)) {
        say("%s", problem.c_str());
        return 1;
    }
    if (word == "account")
        return runAccountCommand({words.begin() + 1, words.end()}, config, std::cin, std::cout, std::cerr);
    return runDaemon(config);
}
