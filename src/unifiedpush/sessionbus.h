// SPDX-License-Identifier: GPL-3.0-only
// The session bus of the user: a connection on the main loop, and calls whose answers are awaited.
#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <memory>
#include <string>

#include "platform/bus/sdbussource.h"
#include "platform/bus/slot.h"

class SessionBus {
  public:
    SessionBus() = default;
    ~SessionBus();
    SessionBus(const SessionBus&) = delete;
    SessionBus& operator=(const SessionBus&) = delete;

    // DBUS_SESSION_BUS_ADDRESS, or the bus in XDG_RUNTIME_DIR. On failure `problem` says what to do.
    bool open(std::string& problem);
    sd_bus* get() const { return m_bus; }
    // Called once from the main loop, when the connection is lost.
    std::function<void()> onLost;

    // Sends a call. `answered` gets the method return or the error, also the one for a time limit that was
    // exceeded; it is not called any more once the slot is reset, which it may do itself. False when nothing
    // was sent.
    using Answered = std::function<void(sd_bus_message* answer)>;
    bool call(sd_bus_message* message, unsigned seconds, Slot& slot, Answered answered);
    // The same for a method of the bus daemon with one text as its argument, or with none.
    bool askDaemon(const char* method, const char* argument, Slot& slot, Answered answered);

  private:
    sd_bus* m_bus = nullptr;
    std::unique_ptr<SdBusSource> m_source;
};
