// SPDX-License-Identifier: GPL-3.0-only
// Ownership of what sd-bus hands out: a registration (match, object, pending call) ends with its slot.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

struct SlotUnref {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using Slot = std::unique_ptr<sd_bus_slot, SlotUnref>;

struct WireUnref {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Wire = std::unique_ptr<sd_bus_message, WireUnref>;

// For the out-argument of an sd-bus call; the target owns the result from the end of the statement.
template <typename Owner>
class Receive {
  public:
    explicit Receive(Owner& target) : m_target(target) {}
    ~Receive() { m_target.reset(m_raw); }
    Receive(const Receive&) = delete;
    Receive& operator=(const Receive&) = delete;
    operator typename Owner::pointer *() { return &m_raw; }  // NOLINT: stands for the out-argument

  private:
    Owner& m_target;
    typename Owner::pointer m_raw = nullptr;
};
