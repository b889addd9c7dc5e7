// SPDX-License-Identifier: GPL-3.0-only
// The service of the bus contract, registered with a public and a private table whose handlers the test sets.
// Everything ends with the test.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/bus/qsraii.h"
#include "tests/contract/bus/engine.h"

class BusContract : public testing::Test {
  protected:
    using Strings = std::vector<std::string>;
    // The handlers, by the method's name. A method without one keeps its requests.
    using Handler = std::function<void(QSHandle*, QSMessage*)>;

    void SetUp() override {
        ASSERT_TRUE(QSRegisterZeltService(kServiceName, &m_service, m_error)) << m_error.message();
        ASSERT_TRUE(
            QSZeltServiceRegisterCategory(m_service, "/", kPublicMethods, kPrivateMethods, this, m_error))
            << m_error.message();
        ASSERT_TRUE(QSGmainAttachZeltService(m_service, m_engine->loop(), m_error)) << m_error.message();
        m_private = QSZeltServiceGetPrivateConnection(m_service);
        m_public = QSZeltServiceGetPublicConnection(m_service);
        for (QSHandle* handle : {m_private, m_public})
            ASSERT_TRUE(QSSubscriptionSetCancelFunction(handle, onCancel, this, m_error));
    }

    void TearDown() override {
        m_kept.clear();
        for (QSHandle* handle : {m_private, m_public}) {
            if (handle)
                QSUnregister(handle, nullptr);
        }
    }

    QSHandle* handleOf(QSBus bus) const { return bus == QSBus::Public ? m_public : m_private; }
    bool arrived(size_t count) {
        return m_engine->until([&] { return m_kept.size() >= count; });
    }
    bool has(const BusClient& client, size_t call, size_t count) {
        return m_engine->until([&] { return client.answers(call).size() >= count; });
    }
    // Calls and waits until the handler has kept the request, which is returned.
    QSMessage* request(BusClient& client, size_t& call, const std::string& method = "hold",
                       const std::string& payload = "{}") {
        size_t before = m_kept.size();
        call = client.call("/", method, payload);
        EXPECT_TRUE(arrived(before + 1)) << method;
        return m_kept.size() > before ? m_kept.back().get() : nullptr;
    }
    bool reply(QSMessage* message, const std::string& payload) {
        return QSMessageReply(m_private, message, payload.c_str(), m_error);
    }
    bool respond(QSMessage* message, const std::string& payload) {
        return QSMessageRespond(message, payload.c_str(), m_error);
    }
    Strings keysOf(QSHandle* handle, const std::string& key) {
        QSSubscriptionIter* iter = nullptr;
        EXPECT_TRUE(QSSubscriptionAcquire(handle, key.c_str(), &iter, m_error));
        Strings payloads;
        while (QSSubscriptionHasNext(iter))
            payloads.emplace_back(QSMessageGetPayload(QSSubscriptionNext(iter)));
        QSSubscriptionRelease(iter);
        return payloads;
    }

    std::unique_ptr<BusEngine> m_engine = makeBusEngine();
    BusError m_error;
    QSZeltService* m_service = nullptr;
    QSHandle* m_private = nullptr;
    QSHandle* m_public = nullptr;
    std::map<std::string, Handler> m_handlers;
    std::vector<KeptMessage> m_kept;  // requests of the methods without a handler, in order
    Strings m_cancelled;              // "BUS METHOD PAYLOAD" of each run of the cancel function
    Handler m_onCancel;

  private:
    static bool onRequest(QSHandle* handle, QSMessage* message, void* context) {
        auto* self = static_cast<BusContract*>(context);
        auto found = self->m_handlers.find(QSMessageGetMethod(message));
        if (found == self->m_handlers.end())
            self->m_kept.emplace_back(message);
        else
            found->second(handle, message);
        return true;
    }

    static bool onCancel(QSHandle* handle, QSMessage* message, void* context) {
        auto* self = static_cast<BusContract*>(context);
        self->m_cancelled.push_back(std::string(handle == self->m_public ? "public " : "private ") +
                                    QSMessageGetMethod(message) + " " + QSMessageGetPayload(message));
        if (self->m_onCancel)
            self->m_onCancel(handle, message);
        return true;
    }

    static constexpr QSMethod kPublicMethods[] = {
        {.name = "hold", .handler = onRequest}, {.name = "follow", .handler = onRequest}, {}};
    static constexpr QSMethod kPrivateMethods[] = {
        {.name = "secret", .handler = onRequest}, {.name = "watch", .handler = onRequest}, {}};
};

// Cases that must hold on both buses.
class OnBothBuses : public BusContract, public testing::WithParamInterface<QSBus> {
  protected:
    QSHandle* handle() const { return handleOf(GetParam()); }
    std::string cancelledBy(const std::string& rest) const {
        return (GetParam() == QSBus::Public ? "public " : "private ") + rest;
    }
};

inline std::string busOfCase(const testing::TestParamInfo<QSBus>& info) {
    return info.param == QSBus::Public ? "Public" : "Private";
}
