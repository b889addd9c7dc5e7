// SPDX-License-Identifier: GPL-3.0-only
// One platform service on the private bus: its name, its methods and its answers. The connection lives as
// long as the object.
#pragma once

#include <glib.h>

#include <string>

#include "platform/bus/qs.h"

// How the start of a service ended; another process may own its name.
enum class StartResult { Started, NameTaken, Failed };

class BusService {
  public:
    BusService() = default;
    ~BusService();
    BusService(const BusService&) = delete;
    BusService& operator=(const BusService&) = delete;

    // Takes the name; failures are logged. Methods are registered before `attach`, so that early
    // calls find them.
    StartResult take(const char* name);
    bool serve(const char* category, const QSMethod* methods, void* context);
    bool attach(GMainLoop* loop);

    QSHandle* handle() const { return m_handle; }
    void reply(QSMessage* message, const std::string& payload);
    // {"returnValue":true}, or false with the error text.
    void accept(QSMessage* message);
    void refuse(QSMessage* message, const std::string& errorText);
    // Subscribes the request when it asks for it, then sends the first answer.
    void replyAndSubscribe(QSMessage* message, const std::string& payload);
    void post(const char* category, const char* method, const std::string& payload);

  private:
    QSHandle* m_handle = nullptr;
    std::string m_name;
};
