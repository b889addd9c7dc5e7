// SPDX-License-Identifier: GPL-3.0-only
// zelt-host: makes a plain Linux machine into the platform. One process, one thread, five bus services. This
// file wires them; what each keeps stands in its own file.
#include <glib-unix.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <vector>

#include "platform/host/config.h"
#include "platform/host/connectionmanager.h"
#include "platform/host/power.h"
#include "platform/host/say.h"

namespace {

constexpr char kUsage[] =
    "usage: zelt-host\n"
    "\n"
    "Provides the platform's services on the private bus (ZELT_PRIVATE_BUS): network state, alarms.\n"
    "State is kept in ZELT_HOST_STATE_DIR, settings come from ZELT_HOST_CONF (/etc/zelt/host.conf).\n";

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
        Presence presence = service.start();
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

int runDaemon(const HostConfig& config) {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    Ending ending{loop};
    int signals = openSignals();
    guint signalSource = g_unix_fd_add(signals, G_IO_IN, onSignal, &ending);
    {
        SystemBus system;
        system.open();
        ConnectionManager network(config);
        Power power(config, system);
        ResumeWatch resume([&] {
            power.ring();
            network.refresh();
        });
        resume.open();
        const std::vector<Service> services = {
            {"power", [&] { return power.start(loop); }},
            {"network", [&] { return network.start(loop); }},
        };
        if (startAll(services, config)) {
            sd_notify(0, "READY=1");
            g_main_loop_run(loop);
            if (!ending.asked)
                say("the private bus is lost; start again when it is back");
        }
    }
    g_source_remove(signalSource);
    close(signals);
    g_main_loop_unref(loop);
    return ending.asked ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    HostConfig config;
    std::string problem;
    if (argc > 1 && (!strcmp(argv[1], "--help") || !strcmp(argv[1], "-h"))) {
        fputs(kUsage, stdout);
        return 0;
    }
    if (argc > 1 && !strcmp(argv[1], "--version")) {
        puts("zelt-host " ZELT_VERSION);
        return 0;
    }
    if (argc > 1) {
        say("unknown argument %s; see zelt-host --help", argv[1]);
        return 2;
    }
    if (!readHostConfig(config, problem)) {
        say("%s", problem.c_str());
        return 1;
    }
    return prepareState(config) ? runDaemon(config) : 1;
}
