// SPDX-License-Identifier: GPL-3.0-only
// An application of the session: registers, and answers what the bridge calls it with as the test says.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "unifiedpush/connector.h"
#include "unifiedpush/distributor.h"
#include "unifiedpush/sessionbus.h"

class Application {
  public:
    // The name is owned from the start, unless it is "".
    explicit Application(const std::string& name = "org.example.app", bool hasObject = true) : m_name(name) {
        std::string problem;
        EXPECT_TRUE(m_bus.open(problem)) << problem;
        if (hasObject)
            makeObject();
        if (!name.empty())
            own(name);
    }

    std::vector<std::string> calls;    // `Message TOKEN BYTES ID`, as they come in
    std::vector<std::string> answers;  // to Register: "" or the reason
    std::string error;                 // the name of the error that calls are answered with; "" answers
    bool silent = false;
    std::function<void()> onAnswer;    // runs when Register is answered

    void makeObject() {
        static const sd_bus_vtable version1[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("Message", "says", "", onCall, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("NewEndpoint", "ss", "", onCall, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("Unregistered", "s", "", onCall, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END,
        };
        static const sd_bus_vtable version2[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("Message", "a{sv}", "", onCall, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("NewEndpoint", "a{sv}", "", onCall, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("Unregistered", "a{sv}", "", onCall, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END,
        };
        EXPECT_GE(sd_bus_add_object_vtable(m_bus.get(), Receive(m_objects[0]), kConnectorPath,
                                           "org.unifiedpush.Connector1", version1, this),
                  0);
        EXPECT_GE(sd_bus_add_object_vtable(m_bus.get(), Receive(m_objects[1]), kConnectorPath,
                                           "org.unifiedpush.Connector2", version2, this),
                  0);
    }
    void own(const std::string& name) { EXPECT_GE(sd_bus_request_name(m_bus.get(), name.c_str(), 0), 0); }
    void disown(const std::string& name) { EXPECT_GE(sd_bus_release_name(m_bus.get(), name.c_str()), 0); }
    std::string uniqueName() {
        const char* name = "";
        sd_bus_get_unique_name(m_bus.get(), &name);
        return name;
    }

    void enroll(const std::string& token, const std::string& vapid = "", const std::string& description = "mail") {
        enrollAs(m_name, token, vapid, description);
    }
    void enrollAs(const std::string& service, const std::string& token, const std::string& vapid = "",
                  const std::string& description = "mail") {
        Wire call = newCall(2, "Register");
        sd_bus_message_append(call.get(), "a{sv}", vapid.empty() ? 4 : 5, "service", "s", service.c_str(), "token",
                              "s", token.c_str(), "description", "s", description.c_str(), "color", "s", "blue",
                              "vapid", "s", vapid.c_str());
        send(std::move(call));
    }
    void enroll1(const std::string& token, const std::string& description = "mail") {
        Wire call = newCall(1, "Register");
        sd_bus_message_append(call.get(), "sss", m_name.c_str(), token.c_str(), description.c_str());
        send(std::move(call));
    }
    // A member that is no text.
    void enrollWithNumber(const std::string& token) {
        Wire call = newCall(2, "Register");
        sd_bus_message_append(call.get(), "a{sv}", 3, "service", "s", m_name.c_str(), "token", "s", token.c_str(),
                              "description", "u", 5);
        send(std::move(call));
    }
    void leave(const std::string& token) {
        Wire call = newCall(2, "Unregister");
        sd_bus_message_append(call.get(), "a{sv}", 1, "token", "s", token.c_str());
        send(std::move(call));
    }
    void leave1(const std::string& token) {
        Wire call = newCall(1, "Unregister");
        sd_bus_message_append(call.get(), "s", token.c_str());
        sd_bus_message_set_expect_reply(call.get(), 0);
        sd_bus_send(m_bus.get(), call.get(), nullptr);
    }
    // Answers the calls that were not, when the application was silent.
    void answerWhatWaits() {
        for (const Wire& call : m_unanswered)
            sd_bus_reply_method_return(call.get(), "");
        m_unanswered.clear();
    }
    Wire newCall(int version, const char* method) {
        Wire call;
        sd_bus_message_new_method_call(
            m_bus.get(), Receive(call), kDistributorName, kDistributorPath,
            version == 1 ? "org.unifiedpush.Distributor1" : "org.unifiedpush.Distributor2", method);
        return call;
    }
    void send(Wire call) {
        const auto slot = m_calls.emplace(m_calls.end());
        EXPECT_TRUE(m_bus.call(call.get(), 60, *slot, [this](sd_bus_message* answer) {
            answers.push_back(textOf(answer));
            if (onAnswer)
                onAnswer();
        }));
    }
    sd_bus* bus() { return m_bus.get(); }
    SessionBus& session() { return m_bus; }

  private:
    static std::string textOf(sd_bus_message* answer) {
        if (const sd_bus_error* failed = sd_bus_message_get_error(answer))
            return failed->name;
        const char *result = "", *reason = "";
        if (sd_bus_message_has_signature(answer, "ss") > 0) {
            sd_bus_message_read(answer, "ss", &result, &reason);
            return std::string(result) + (*reason ? std::string(" ") + reason : "");
        }
        std::string text;
        sd_bus_message_enter_container(answer, 'a', "{sv}");
        while (sd_bus_message_read(answer, "{sv}", &result, "s", &reason) > 0)
            text += (text.empty() ? "" : " ") + std::string(reason);
        return text;
    }
    static std::string textOfBytes(sd_bus_message* message) {
        const void* bytes = nullptr;
        std::size_t length = 0;
        sd_bus_message_read_array(message, 'y', &bytes, &length);
        return {static_cast<const char*>(bytes), length};
    }
    // The values, in their order.
    static std::string valuesOf(sd_bus_message* message) {
        std::string text;
        char type = 0;
        const char *contents = nullptr, *value = "";
        if (sd_bus_message_enter_container(message, 'a', "{sv}") > 0) {
            while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
                sd_bus_message_read(message, "s", &value);
                sd_bus_message_peek_type(message, &type, &contents);
                sd_bus_message_enter_container(message, 'v', contents);
                text += " ";
                if (contents[0] == 'a')
                    text += textOfBytes(message);
                else if (sd_bus_message_read(message, "s", &value) > 0)
                    text += value;
                sd_bus_message_exit_container(message);
                sd_bus_message_exit_container(message);
            }
            return text;
        }
        while (sd_bus_message_peek_type(message, &type, &contents) > 0) {
            if (type == 'a')
                text += " " + textOfBytes(message);
            else if (sd_bus_message_read(message, "s", &value) > 0)
                text += std::string(" ") + value;
        }
        return text;
    }
    static int onCall(sd_bus_message* call, void* data, sd_bus_error*) {
        auto* self = static_cast<Application*>(data);
        self->calls.push_back(sd_bus_message_get_member(call) + valuesOf(call));
        if (self->silent) {
            self->m_unanswered.emplace_back(sd_bus_message_ref(call));
            return 1;
        }
        if (!self->error.empty())
            return sd_bus_reply_method_errorf(call, self->error.c_str(), "as the test says");
        // Both are answered with nothing in it: any return counts.
        return sd_bus_reply_method_return(call, "");
    }

    std::string m_name;
    SessionBus m_bus;
    Slot m_objects[2];
    std::list<Slot> m_calls;
    std::vector<Wire> m_unanswered;
};
