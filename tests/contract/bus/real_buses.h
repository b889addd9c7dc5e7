// SPDX-License-Identifier: GPL-3.0-only
// Two bus daemons of a test, private and public, in their own folder, with the development configuration.
// They are stopped by their process ids and the folder is removed at the end.
#pragma once

#include <sys/types.h>

#include <string>

#include "platform/bus/qs.h"

// A process started by a test; it is killed and reaped with this object, and ends with the test program.
class OwnedProcess {
  public:
    OwnedProcess() = default;
    explicit OwnedProcess(pid_t pid) : m_pid(pid) {}
    OwnedProcess(OwnedProcess&& other) noexcept : m_pid(other.m_pid) { other.m_pid = -1; }
    OwnedProcess& operator=(OwnedProcess&& other) noexcept;
    ~OwnedProcess() { stop(); }

    pid_t pid() const { return m_pid; }
    void stop();

  private:
    pid_t m_pid = -1;
};

// A folder that is removed with its content at the end.
class TestFolder {
  public:
    TestFolder();
    ~TestFolder();
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;

    const std::string& path() const { return m_path; }

  private:
    std::string m_path;
};

// Starts a bus daemon with this configuration, kept as FOLDER/NAME.conf; it listens when this returns.
OwnedProcess startBusDaemon(const std::string& folder, const std::string& name, const std::string& config);

class RealBuses {
  public:
    // Starts both and points ZELT_PRIVATE_BUS and ZELT_PUBLIC_BUS at them. A folder with activation files may
    // be given for both.
    explicit RealBuses(const std::string& extraConfig = {});
    RealBuses(const RealBuses&) = delete;
    RealBuses& operator=(const RealBuses&) = delete;

    const std::string& folder() const { return m_folder.path(); }
    std::string socketPath(QSBus bus) const;
    std::string address(QSBus bus) const { return "unix:path=" + socketPath(bus); }
    void stopDaemon(QSBus bus);

  private:
    OwnedProcess startDaemon(QSBus bus, const std::string& extraConfig);

    TestFolder m_folder;  // first, so that the daemons are stopped before it is removed
    OwnedProcess m_private;
    OwnedProcess m_public;
};
