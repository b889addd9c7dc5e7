// SPDX-License-Identifier: GPL-3.0-only
// zelt-unifiedpush: gives the applications of a user's session push messages over the device's one connection.
#include <glib-unix.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "unifiedpush/bridge.h"
#include "util/log.h"

namespace {

constexpr char kUsage[] =
    "usage: zelt-unifiedpush\n"
    "           serves org.unifiedpush.Distributor.pubsubservice on the session bus, with the endpoints of "
    "this\n"
    "           user on the public bus (ZELT_PUBLIC_BUS); keeps its state below XDG_STATE_HOME\n";

// uncovered: a test program has a main() of its own; the end-to-end tests run this one
// Signals arrive by descriptor: the signal sources of GLib would start a second thread.
int openSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
}

gboolean onSignal(gint, GIOCondition, gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

// False when it could not start, or the session bus was lost.
bool serve(GMainLoop* loop) {
    Bridge bridge(stateFolder());
    bool lost = false;
    bridge.onEnd = [&] {
        PrvPrintErr({}, "The session bus is lost");
        lost = true;
        g_main_loop_quit(loop);
    };
    std::string problem;
    if (!bridge.start(problem)) {
        PrvPrintErr({}, "%s", problem.c_str());
        return false;
    }
    sd_notify(0, "READY=1");
    g_main_loop_run(loop);
    return !lost;
}

int runDaemon() {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    const int signals = openSignals();
    const guint source = g_unix_fd_add(signals, G_IO_IN, onSignal, loop);
    const bool served = serve(loop);
    g_source_remove(source);
    close(signals);
    g_main_loop_unref(loop);
    return served ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::string first = arguments.empty() ? "" : arguments[0];
    if (first == "--help" || first == "-h") {
        std::cout << kUsage;
        return 0;
    }
    if (first == "--version") {
        std::cout << "zelt-unifiedpush " << ZELT_VERSION << "\n";
        return 0;
    }
    if (!first.empty()) {
        std::cerr << "unknown argument " << first << "; see zelt-unifiedpush --help\n";
        return 2;
    }
    return runDaemon();
}
