// SPDX-License-Identifier: GPL-3.0-only
// A small push service on a real bus, within the test's process: it answers from a script and notes what it
// was asked. It is served by whatever loop the verb under test runs.
#pragma once

#include <glib.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/bus/qsraii.h"

class FakeService {
  public:
    using Script = std::map<std::string, std::string>;  // method to reply; "" leaves the call open

    explicit FakeService(QSBus bus = QSBus::Private) : m_loop(g_main_loop_new(nullptr, FALSE)) {
        static const char* names[] = {"createNode",
                                      "deleteNode",
                                      "publishItem",
                                      "subscribeToNode",
                                      "unsubscribeFromNode",
                                      "registerItemCallback",
                                      "unRegisterItemCallback",
                                      "subscribeConnStatus",
                                      "connectStatus",
                                      "getJabberId",
                                      "getResource",
                                      "disconnect",
                                      "initializeAccount"};
        for (const char* name : names)
            m_methods.push_back({name, onCall, 0});
        m_methods.push_back({nullptr, nullptr, 0});
        BusError error;
        bool up = QSRegister(bus, "com.zelt.pubsubservice", &m_handle, error) &&
                  QSRegisterCategory(m_handle, "/", m_methods.data(), this, error) &&
                  QSGmainAttach(m_handle, m_loop, error);
        EXPECT_TRUE(up) << error.message();
    }
    ~FakeService() {
        leave();
        g_main_loop_unref(m_loop);
    }

    // Calls look like `createNode {"node":"/n"}`.
    std::vector<std::string> calls;
    Script script;
    std::function<void(const std::string& method)> afterReply;

    void post(const char* method, const char* payload) {
        BusError error;
        EXPECT_TRUE(QSSubscriptionPost(m_handle, "/", method, payload, error)) << error.message();
    }
    void deliver(const std::string& uri, const std::string& payload) {
        BusError error;
        EXPECT_TRUE(QSCall(m_handle, uri.c_str(), payload.c_str(), nullptr, nullptr, nullptr, error))
            << error.message();
    }
    void leave() {
        BusError error;
        if (m_handle)
            QSUnregister(m_handle, error);
        m_handle = nullptr;
        m_open.clear();
    }

  private:
    static bool onCall(QSHandle* handle, QSMessage* message, void* context) {
        auto* self = static_cast<FakeService*>(context);
        std::string method = QSMessageGetMethod(message);
        self->calls.push_back(method + " " + QSMessageGetPayload(message));
        BusError error;
        bool subscribed = false;
        EXPECT_TRUE(QSSubscriptionProcess(handle, message, &subscribed, error)) << error.message();
        if (self->script[method].empty())
            self->m_open.emplace_back(message);
        else
            EXPECT_TRUE(QSMessageReply(handle, message, self->script[method].c_str(), error))
                << error.message();
        if (self->afterReply)
            self->afterReply(method);
        return true;
    }

    GMainLoop* m_loop;
    QSHandle* m_handle = nullptr;
    std::vector<QSMethod> m_methods;
    std::vector<KeptMessage> m_open;
};
