// SPDX-License-Identifier: GPL-3.0-only
// A bus daemon for one test in its own folder, ended by process id. While it lives the environment variable
// has its address.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

class TestFolder {
  public:
    TestFolder() {
        char name[] = "/tmp/bustest.XXXXXX";
        m_path = mkdtemp(name);
    }
    ~TestFolder() { std::filesystem::remove_all(m_path); }
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }
    const std::string& path() const { return m_path; }

  private:
    std::string m_path;
};

class PrivateBus {
  public:
    explicit PrivateBus(const char* variable = "ZELT_PRIVATE_BUS") : m_variable(variable) {
        std::ofstream(m_folder / "bus.conf") << configuration();
        start();
    }
    // The same address again after `stop`.
    void start() {
        std::filesystem::remove(m_folder / "bus");
        int ends[2];
        if (pipe(ends) != 0)
            return;
        m_daemon = fork();
        if (m_daemon == 0)
            runDaemon(ends);
        ::close(ends[1]);
        setenv(m_variable, readLine(ends[0]).c_str(), 1);
        ::close(ends[0]);
    }
    ~PrivateBus() {
        stop();
        unsetenv(m_variable);
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    void stop() {
        if (m_daemon <= 0)
            return;
        kill(m_daemon, SIGTERM);
        waitpid(m_daemon, nullptr, 0);
        m_daemon = -1;
    }

  private:
    std::string configuration() const {
        return "<busconfig><type>session</type><listen>unix:path=" + (m_folder / "bus") +
               "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow send_destination=\"*\"/>"
               "<allow own=\"*\"/><allow receive_type=\"method_call\"/><allow "
               "receive_type=\"method_return\"/>"
               "<allow receive_type=\"error\"/><allow receive_type=\"signal\"/></policy></busconfig>";
    }
    void runDaemon(int* ends) {
        // A test that waits for its output must not wait for the daemon's end of the pipe.
        // Its log is of no interest to the tests.
        dup2(ends[1], 3);
        if (!freopen("/dev/null", "w", stderr))
            _exit(126);
        for (int fd = 4; fd < 64; fd++)
            ::close(fd);
        execlp("dbus-daemon", "dbus-daemon", ("--config-file=" + (m_folder / "bus.conf")).c_str(), "--nofork",
               "--nopidfile", "--nosyslog", "--print-address=3", nullptr);
        _exit(127);
    }
    static std::string readLine(int descriptor) {
        std::string line;
        for (char c; read(descriptor, &c, 1) == 1 && c != '\n';)
            line += c;
        return line;
    }

    TestFolder m_folder;
    const char* m_variable;
    pid_t m_daemon = -1;
};
