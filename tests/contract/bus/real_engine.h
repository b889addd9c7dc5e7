// SPDX-License-Identifier: GPL-3.0-only
// The engine of the bus contract on real daemons, and plain D-Bus connections that its loop serves. Tests
// beyond the contract that need a real bus use it too.
#pragma once

#include <systemd/sd-bus.h>

#include "tests/contract/bus/engine.h"
#include "tests/contract/bus/real_buses.h"

class RealEngine;

// One connection outside the layer; the engine serves it while it exists.
class WireConnection {
  public:
    WireConnection(RealEngine& engine, QSBus bus, int descriptor = -1);
    virtual ~WireConnection();
    WireConnection(const WireConnection&) = delete;
    WireConnection& operator=(const WireConnection&) = delete;

    sd_bus* bus() const { return m_bus; }
    // Handles what was received; true when there was something.
    bool turn();
    // Sends a ping to the service under test; its answer decrements the count.
    void ping(int* outstanding);

  protected:
    RealEngine& m_engine;
    QSBus m_side;
    sd_bus* m_bus = nullptr;
};

class RealEngine : public BusEngine {
  public:
    explicit RealEngine(const std::string& extraConfig = {});
    ~RealEngine() override;

    GMainLoop* loop() override { return m_loop; }
    std::unique_ptr<BusClient> client(QSBus bus, const std::string& applicationId) override;
    std::unique_ptr<OtherService> otherService(const std::string& name) override;
    bool until(const std::function<bool()>& condition) override;
    void settle() override;

    RealBuses& buses() { return m_buses; }
    bool turn();
    void join(WireConnection* connection) { m_connections.push_back(connection); }
    void leave(WireConnection* connection);

  private:
    RealBuses m_buses;
    GMainLoop* m_loop;
    std::vector<WireConnection*> m_connections;
    std::vector<std::unique_ptr<WireConnection>> m_probes;
};
