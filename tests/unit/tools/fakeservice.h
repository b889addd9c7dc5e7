// SPDX-License-Identifier: GPL-3.0-only
// A small push service on a real bus, within the test's process: it answers from a script and records
// its calls. The loop of the verb under test serves it.
#pragma once

#include <glib.h>
#include <gtest/gtest.h>

#include <cstring>
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
                                      "initializeAccount",
                                      "createEndpoint",
                                      "deleteEndpoint",
                                      "getPublishKey",
                                      "listEndpoints",
                                      "subscribe",
                                      "receive",
                                      "acknowledge",
                                      "unsubscribe",
                                      "subscribeOnClose",
                                      "unsubscribeOnClose",
                                      "registerOnClose",
                                      "subscribeNodeAuth",
                                      "approvePending",
                                      "getNodeConfig",
                                      "setNodeConfig",
                                      "getTrace",
                                      "listNodes",
                                      "getPushBackend"};
        for (const char* name : names)
            m_methods.push_back({name, onCall, 0});
        m_methods.push_back({nullptr, nullptr, 0});
        BusError error;
        bool up = QSRegister(bus, "com.zelt.pubsubservice", &m_handle, error) &&
                  QSRegisterCategory(m_handle, "/", m_methods.data(), this, error) &&
                  QSSubscriptionSetCancelFunction(m_handle, onCancel, this, error) &&
                  QSGmainAttach(m_handle, m_loop, error);
        EXPECT_TRUE(up) << error.message();
    }
    ~FakeService() {
        leave();
        g_main_loop_unref(m_loop);
    }

    // Calls look like `createNode {"node":"/n"}`.
    std::vector<std::string> calls;
    std::vector<std::string> cancelled;  // in the same form
    std::vector<std::string> answers;    // to what was asked
    Script script;
    std::function<void(const std::string& method)> afterReply;

    void post(const char* method, const char* payload) {
        BusError error;
        for (const Subscribed& call : m_subscribed) {
            bool sent = call.method != method || QSMessageRespond(call.message.get(), payload, error);
            EXPECT_TRUE(sent) << error.message();
        }
    }
    void deliver(const std::string& uri, const std::string& payload) {
        BusError error;
        EXPECT_TRUE(QSCall(m_handle, uri.c_str(), payload.c_str(), nullptr, nullptr, nullptr, error))
            << error.message();
    }
    // The same with an answer, which is recorded.
    void ask(const std::string& uri, const std::string& payload) {
        BusError error;
        EXPECT_TRUE(QSCall(m_handle, uri.c_str(), payload.c_str(), onAnswer, this, nullptr, error))
            << error.message();
    }
    // Releases the calls that subscribed to a method, which tells their callers that no answer follows.
    void endSubscriptions(const std::string& method) {
        std::erase_if(m_subscribed, [&](const Subscribed& call) { return call.method == method; });
        QSSubscriptionIter* list = nullptr;
        BusError error;
        EXPECT_TRUE(QSSubscriptionAcquire(m_handle, method.c_str(), &list, error)) << error.message();
        while (QSSubscriptionHasNext(list)) {
            QSSubscriptionNext(list);
            QSSubscriptionRemove(list);
        }
        QSSubscriptionRelease(list);
    }
    // Serves until the condition holds; false when it does not within five seconds.
    static bool until(const std::function<bool()>& condition) {
        gint64 deadline = g_get_monotonic_time() + 5 * G_TIME_SPAN_SECOND;
        while (!condition() && g_get_monotonic_time() < deadline) {
            if (!g_main_context_iteration(nullptr, FALSE))
                g_usleep(1000);
        }
        return condition();
    }
    void leave() {
        BusError error;
        if (m_handle)
            QSUnregister(m_handle, error);
        m_handle = nullptr;
        m_open.clear();
        m_subscribed.clear();
    }

  private:
    struct Subscribed {
        std::string method;
        KeptMessage message;
    };

    void keep(const std::string& method, QSMessage* message) {
        BusError error;
        EXPECT_TRUE(QSSubscriptionAdd(m_handle, method.c_str(), message, error)) << error.message();
        m_subscribed.push_back({method, KeptMessage(message)});
    }
    static bool onCancel(QSHandle*, QSMessage* message, void* context) {
        auto* self = static_cast<FakeService*>(context);
        self->cancelled.push_back(std::string(QSMessageGetMethod(message)) + " " +
                                  QSMessageGetPayload(message));
        std::erase_if(self->m_subscribed,
                      [&](const Subscribed& call) { return call.message.get() == message; });
        return true;
    }
    static bool onAnswer(QSHandle*, QSMessage* message, void* context) {
        static_cast<FakeService*>(context)->answers.emplace_back(QSMessageGetPayload(message));
        return true;
    }
    static bool onCall(QSHandle* handle, QSMessage* message, void* context) {
        auto* self = static_cast<FakeService*>(context);
        std::string method = QSMessageGetMethod(message);
        self->calls.push_back(method + " " + QSMessageGetPayload(message));
        BusError error;
        if (std::strstr(QSMessageGetPayload(message), "\"subscribe\":true"))
            self->keep(method, message);
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
    std::vector<Subscribed> m_subscribed;
};
