// SPDX-License-Identifier: GPL-3.0-only
// One platform service's place on the private bus: its name, its methods and the answers it gives. The
// connection lives as long as the object.
#pragma once

#include <glib.h>

#include <string>

#include "platform/bus/qs.h"

// What came of taking the name.
enum class Presence { Up, TakenByAnother, Failed };

class BusService {
  public:
    BusService() = default;
    ~BusService();
    BusService(const BusService&) = delete;
    BusService& operator=(const BusService&) = delete;

    // Takes the name; failures are logged. Methods go in before `attach`, so that no early call goes unknown.
    Presence take(const char* name);
    bool serve(const char* category, const QSMethod* methods, void* context);
    bool attach(GMainLoop* loop);

    QSHandle* handle() const { return m_handle; }
    void reply(QSMessage* message, const std::string& payload);
    // {"returnValue":true}, or false with the words.
    void accept(QSMessage* message);
    void refuse(QSMessage* message, const std::string& words);
    // Subscribes the request when it asks for it, then gives the first answer.
    void replyAndSubscribe(QSMessage* message, const std::string& payload);
    void post(const char* category, const char* method, const std::string& payload);

  private:
    QSHandle* m_handle = nullptr;
    std::string m_name;
};
