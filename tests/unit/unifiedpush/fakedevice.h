// SPDX-License-Identifier: GPL-3.0-only
// The push service as the bridge sees it, on a bus of the test: endpoints with addresses, and items that stay
// until they are acknowledged, one open for each endpoint.
#pragma once

#include <glib.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "platform/bus/qsraii.h"
#include "util/jsonref.h"

class FakeDevice {
  public:
    FakeDevice() : m_loop(g_main_loop_new(nullptr, FALSE)) {
        static const QSMethod methods[] = {{"createEndpoint", onCall, 0}, {"deleteEndpoint", onCall, 0},
                                           {"receive", onCall, 0},        {"acknowledge", onCall, 0},
                                           {"listEndpoints", onCall, 0},  {"connectStatus", onCall, 0},
                                           {nullptr, nullptr, 0}};
        BusError error;
        const bool up = QSRegister(QSBus::Public, "com.zelt.pubsubservice", &m_handle, error) &&
                        QSRegisterCategory(m_handle, "/", methods, this, error) &&
                        QSSubscriptionSetCancelFunction(m_handle, onCancel, this, error) &&
                        QSGmainAttach(m_handle, m_loop, error);
        EXPECT_TRUE(up) << error.message();
    }
    ~FakeDevice() {
        BusError error;
        if (m_handle)
            QSUnregister(m_handle, error);
        g_main_loop_unref(m_loop);
    }
    FakeDevice(const FakeDevice&) = delete;
    FakeDevice& operator=(const FakeDevice&) = delete;

    bool online = true;
    std::string base = "https://push.example.org/push/";
    std::string refusal;                      // of createEndpoint: "CODE TEXT"
    std::string receiveRefusal;               // likewise
    std::string deletionRefusal;              // likewise
    bool silent = false;                      // true: no request is answered
    bool answersAcknowledgements = true;      // false: none is accepted
    std::map<std::string, int> endpoints;     // name to the number of its key
    std::map<std::string, std::string> keys;  // VAPID, by name
    std::vector<std::string> calls;           // `createEndpoint up-...`
    std::vector<std::string> acknowledged;    // ids of items, in their order

    void publish(const std::string& endpoint, const std::string& id, const std::string& text,
                 int64_t expires = 0, bool base64 = false) {
        m_items[endpoint].push_back({id, text, expires, base64});
        handOut(endpoint);
    }
    // The oldest item is another one from now on; whoever has it finds out when it is sent again.
    void replace(const std::string& endpoint, const std::string& id, const std::string& text) {
        m_items[endpoint].front() = {id, text, 0, false};
    }
    // Tells whoever receives the endpoint another address.
    void tellAddress(const std::string& endpoint, const std::string& url) {
        JsonObject told;
        told.set("returnValue", true).set("endpoint", endpoint).set("url", url);
        BusError error;
        for (const Received& receive : m_receives) {
            const auto& names = receive.endpoints;
            if (std::find(names.begin(), names.end(), endpoint) == names.end())
                continue;
            EXPECT_TRUE(QSMessageRespond(receive.message.get(), told.line().c_str(), error)) << error.message();
        }
    }
    // The items that are not acknowledged.
    std::size_t waiting(const std::string& endpoint) { return m_items[endpoint].size(); }
    void setOnline(bool now) {
        online = now;
        BusError error;
        QSSubscriptionPost(m_handle, "/", "connectStatus", status().c_str(), error);
    }
    int count(const std::string& method) const {
        int found = 0;
        for (const std::string& call : calls)
            found += call.starts_with(method + " ") || call == method;
        return found;
    }
    std::size_t receives() const { return m_receives.size(); }
    // Ends all that is received, as when the service takes it away.
    void endReceives() {
        for (const auto& [endpoint, items] : m_items)
            m_open.erase(endpoint);
        m_receives.clear();
        QSSubscriptionIter* list = nullptr;
        BusError error;
        EXPECT_TRUE(QSSubscriptionAcquire(m_handle, "receives", &list, error)) << error.message();
        while (QSSubscriptionHasNext(list)) {
            QSSubscriptionNext(list);
            QSSubscriptionRemove(list);
        }
        QSSubscriptionRelease(list);
    }

  private:
    struct Published {
        std::string id, text;
        int64_t expires;
        bool base64;
    };
    struct Received {
        KeptMessage message;
        std::vector<std::string> endpoints;
    };

    std::string status() const {
        return JsonObject().set("returnValue", true).set("connected", online).line();
    }
    static std::string failure(const std::string& refused) {
        const std::size_t blank = refused.find(' ');
        return JsonObject()
            .set("returnValue", false)
            .set("errorCode", refused.substr(0, blank))
            .set("errorText", refused.substr(blank + 1))
            .line();
    }
    static bool onCancel(QSHandle*, QSMessage* message, void* context) {
        auto* self = static_cast<FakeDevice*>(context);
        std::erase_if(self->m_receives, [&](const Received& receive) {
            if (receive.message.get() != message)
                return false;
            for (const std::string& endpoint : receive.endpoints)
                self->m_open.erase(endpoint);
            return true;
        });
        return true;
    }
    static bool onCall(QSHandle* handle, QSMessage* message, void* context) {
        auto* self = static_cast<FakeDevice*>(context);
        const JsonRef json = parseWholeJson(QSMessageGetPayload(message));
        const std::string method = QSMessageGetMethod(message);
        const std::string endpoint = textMember(json.get(), "endpoint");
        self->calls.push_back(endpoint.empty() ? method : method + " " + endpoint);
        if (self->silent) {
            self->m_unanswered.emplace_back(message);
            return true;
        }
        BusError error;
        const std::string answer = self->answerTo(method, endpoint, json.get(), message);
        EXPECT_TRUE(QSMessageReply(handle, message, answer.c_str(), error)) << error.message();
        for (const auto& [each, number] : self->endpoints)
            self->handOut(each);
        return true;
    }
    std::string answerTo(const std::string& method, const std::string& endpoint, json_object* json,
                         QSMessage* message) {
        if (method == "connectStatus")
            return subscribe(message);
        if (method == "receive")
            return receive(json, message);
        if (method == "acknowledge")
            return acknowledge(endpoint, textMember(json, "receipt"));
        if (method == "listEndpoints")
            return list();
        if (!online)
            return failure("connectionErr Not connected to xmpp server");
        return method == "createEndpoint" ? create(endpoint, json) : destroy(endpoint);
    }
    std::string subscribe(QSMessage* message) {
        bool subscribed = false;
        BusError error;
        EXPECT_TRUE(QSSubscriptionProcess(m_handle, message, &subscribed, error));
        return status();
    }
    std::string create(const std::string& endpoint, json_object* json) {
        if (!refusal.empty())
            return failure(refusal);
        EXPECT_TRUE(boolMember(json, "webPush"));
        if (!endpoints.contains(endpoint))
            endpoints[endpoint] = ++m_keys;
        keys[endpoint] = textMember(json, "vapid");
        JsonObject answer;
        answer.set("returnValue", true).set("endpoint", endpoint).set("publishKey", "k");
        if (!base.empty())
            answer.set("url", base + std::to_string(endpoints[endpoint]));
        return answer.line();
    }
    std::string destroy(const std::string& endpoint) {
        if (!deletionRefusal.empty())
            return failure(deletionRefusal);
        endpoints.erase(endpoint);
        m_items.erase(endpoint);
        m_open.erase(endpoint);
        return JsonObject().set("returnValue", true).set("endpoint", endpoint).line();
    }
    std::string list() const {
        JsonArray names;
        for (const auto& [endpoint, number] : endpoints)
            names.add(JsonObject().set("endpoint", endpoint).release());
        return JsonObject().set("returnValue", true).set("endpoints", names.release()).line();
    }
    std::string receive(json_object* json, QSMessage* message) {
        if (!receiveRefusal.empty())
            return failure(receiveRefusal);
        Received receive{KeptMessage(message), {}};
        json_object* names = jsonMember(json, "endpoints");
        for (std::size_t i = 0; i < json_object_array_length(names); ++i) {
            const std::string name = json_object_get_string(json_object_array_get_idx(names, i));
            if (!endpoints.contains(name))
                return failure("appErr No endpoint " + name + ". Call createEndpoint first");
            receive.endpoints.push_back(name);
        }
        BusError error;
        EXPECT_TRUE(QSSubscriptionAdd(m_handle, "receives", message, error)) << error.message();
        m_receives.push_back(std::move(receive));
        return JsonObject().set("returnValue", true).line();
    }
    std::string acknowledge(const std::string& endpoint, const std::string& receipt) {
        const auto open = m_open.find(endpoint);
        if (!answersAcknowledgements || open == m_open.end() || open->second != receipt)
            return failure("appErr Unknown receipt");
        acknowledged.push_back(m_items[endpoint].front().id);
        m_items[endpoint].pop_front();
        m_open.erase(open);
        return JsonObject().set("returnValue", true).set("endpoint", endpoint).line();
    }
    void handOut(const std::string& endpoint) {
        if (m_open.contains(endpoint) || m_items[endpoint].empty())
            return;
        for (const Received& receive : m_receives)
            for (const std::string& name : receive.endpoints)
                if (name == endpoint) {
                    sendItem(endpoint, receive.message.get());
                    return;
                }
    }
    void sendItem(const std::string& endpoint, QSMessage* receiver) {
        const Published& item = m_items[endpoint].front();
        m_open[endpoint] = "r" + std::to_string(++m_receipts);
        JsonObject answer;
        answer.set("returnValue", true)
            .set("endpoint", endpoint)
            .set("item", item.text)
            .set("itemid", item.id)
            .set("receipt", m_open[endpoint]);
        if (item.base64)
            answer.set("encoding", "base64");
        if (item.expires)
            answer.set("expires", item.expires);
        BusError error;
        if (!QSMessageRespond(receiver, answer.line().c_str(), error))  // it has just ended
            m_open.erase(endpoint);
    }

    GMainLoop* m_loop;
    QSHandle* m_handle = nullptr;
    int m_keys = 0;
    int m_receipts = 0;
    std::map<std::string, std::deque<Published>> m_items;
    std::map<std::string, std::string> m_open;  // endpoint to its receipt
    std::vector<Received> m_receives;
    std::vector<KeptMessage> m_unanswered;
};
