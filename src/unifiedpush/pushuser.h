// SPDX-License-Identifier: GPL-3.0-only
// The command line on the session bus: manages the bridge, and is an application itself for a test of the
// whole way. One call at a time; each waits for its answer.
#pragma once

#include <functional>
#include <string>

#include "unifiedpush/sessionbus.h"

class PushUser {
  public:
    // Each is false with the reason in `problem`.
    bool open(std::string& problem);
    bool list(std::string& json, unsigned seconds, std::string& problem);
    bool remove(const std::string& endpoint, bool& found, unsigned seconds, std::string& problem);
    // Registers as an application with a name of its own and waits for the address.
    bool enroll(std::string& url, unsigned seconds, std::string& problem);
    // Waits for the message with these bytes.
    bool await(const std::string& bytes, unsigned seconds, std::string& problem);
    bool leave(unsigned seconds, std::string& problem);

  private:
    static int onMessage(sd_bus_message* call, void* data, sd_bus_error*);
    static int onNewEndpoint(sd_bus_message* call, void* data, sd_bus_error*);
    static int onUnregistered(sd_bus_message* call, void* data, sd_bus_error*);
    bool serve(std::string& problem);
    bool ask(Wire call, unsigned seconds, const SessionBus::Answered& answered, std::string& problem);
    static bool wait(const std::function<bool()>& condition, unsigned seconds);

    SessionBus m_bus;
    Slot m_object;
    std::string m_name;
    std::string m_token;
    std::string m_url;
    std::string m_bytes;
    bool m_left = false;
};
