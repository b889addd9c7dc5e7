// SPDX-License-Identifier: GPL-3.0-only
// Starts and stops the bus daemons of a test.
#include "tests/contract/bus/real_buses.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

const char* busName(QSBus bus) {
    return bus == QSBus::Public ? "public" : "private";
}

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void replaceAll(std::string& text, const std::string& what, const std::string& with) {
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
        text.replace(at, what.size(), with);
}

}  // namespace

OwnedProcess& OwnedProcess::operator=(OwnedProcess&& other) noexcept {
    std::swap(m_pid, other.m_pid);
    return *this;
}

void OwnedProcess::stop() {
    pid_t pid = std::exchange(m_pid, -1);
    if (pid <= 0)
        return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

RealBuses::RealBuses(const std::string& extraConfig) {
    m_private = startDaemon(QSBus::Private, extraConfig);
    m_public = startDaemon(QSBus::Public, extraConfig);
    setenv("ZELT_PRIVATE_BUS", address(QSBus::Private).c_str(), 1);
    setenv("ZELT_PUBLIC_BUS", address(QSBus::Public).c_str(), 1);
}

TestFolder::TestFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zelt-bus-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("no folder for the test buses");
    m_path = pattern;
}

TestFolder::~TestFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string RealBuses::socketPath(QSBus bus) const {
    return m_folder.path() + "/" + busName(bus) + "_bus";
}

void RealBuses::stopDaemon(QSBus bus) {
    (bus == QSBus::Public ? m_public : m_private).stop();
}

OwnedProcess RealBuses::startDaemon(QSBus bus, const std::string& extraConfig) {
    std::string config = readFile(std::string(TEST_SOURCE_DIR) + "/packaging/dbus/zelt-dev.conf.in");
    replaceAll(config, "@DIR@", m_folder.path());
    replaceAll(config, "@BUS@", busName(bus));
    replaceAll(config, "@EXTRA@", extraConfig);
    return startBusDaemon(m_folder.path(), busName(bus), config);
}

OwnedProcess startBusDaemon(const std::string& folder, const std::string& name, const std::string& config) {
    std::string file = folder + "/" + name + ".conf";
    const std::string log = folder + "/" + name + ".log";
    std::ofstream(file) << config;
    int ready[2];
    if (pipe(ready) != 0)
        throw std::runtime_error("no pipe to the bus daemon");
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(ready[0]);
        if (!freopen(log.c_str(), "w", stderr))
            _exit(127);
        const std::string configOption = "--config-file=" + file;
        const std::string addressOption = "--print-address=" + std::to_string(ready[1]);
        execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile", "--nosyslog", configOption.c_str(),
               addressOption.c_str(), nullptr);
        _exit(127);
    }
    close(ready[1]);
    OwnedProcess daemon(pid);
    // The address is printed when the daemon listens; the end of the pipe means that it failed.
    char byte;
    const bool listens = read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!listens)
        throw std::runtime_error("the " + name + " bus daemon did not start: " + readFile(log));
    return daemon;
}
