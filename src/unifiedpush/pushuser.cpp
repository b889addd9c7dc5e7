// SPDX-License-Identifier: GPL-3.0-only
// Calls of the bridge from the command line.
#include "unifiedpush/pushuser.h"

#include <glib.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "unifiedpush/connector.h"
#include "unifiedpush/distributor.h"
#include "unifiedpush/management.h"
#include "unifiedpush/timer.h"

namespace {

constexpr char kConnector2[] = "org.unifiedpush.Connector2";
constexpr char kDistributor2[] = "org.unifiedpush.Distributor2";

// The text of a member of an a{sv}; "" when there is none. Reads the message from its beginning.
std::string memberOf(sd_bus_message* message, const char* wanted) {
    const char *key = "", *contents = nullptr;
    char type = 0;
    std::string found;
    sd_bus_message_rewind(message, 1);
    if (sd_bus_message_enter_container(message, 'a', "{sv}") <= 0)
        return found;  // uncovered: the calls have a dictionary, by their signature
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
        const void* bytes = nullptr;
        size_t length = 0;
        const char* text = nullptr;
        sd_bus_message_read(message, "s", &key);
        sd_bus_message_peek_type(message, &type, &contents);
        const bool isWanted = std::strcmp(key, wanted) == 0;
        if (isWanted && std::strcmp(contents, "s") == 0 &&
            sd_bus_message_read(message, "v", "s", &text) > 0) {
            found = text;
        } else if (isWanted && std::strcmp(contents, "ay") == 0 &&
                   sd_bus_message_enter_container(message, 'v', "ay") > 0) {
            if (sd_bus_message_read_array(message, 'y', &bytes, &length) > 0)
                found.assign(static_cast<const char*>(bytes), length);
            sd_bus_message_exit_container(message);
        } else {
            sd_bus_message_skip(message, "v");
        }
        sd_bus_message_exit_container(message);
    }
    return found;
}

Wire newCall(sd_bus* bus, const char* path, const char* interface, const char* method) {
    Wire call;
    sd_bus_message_new_method_call(bus, Receive(call), kDistributorName, path, interface, method);
    return call;
}

}  // namespace

bool PushUser::open(std::string& problem) {
    return m_bus.open(problem);
}

bool PushUser::wait(const std::function<bool()>& condition, unsigned seconds) {
    bool over = false;
    Timer deadline;
    deadline.start(int64_t{seconds} * 1000, [&] { over = true; });
    while (!condition() && !over)
        g_main_context_iteration(nullptr, TRUE);
    return condition();
}

bool PushUser::ask(Wire call, unsigned seconds, const SessionBus::Answered& answered, std::string& problem) {
    bool done = false;
    Slot slot;
    const bool sent = call && m_bus.call(call.get(), seconds, slot, [&](sd_bus_message* answer) {
        done = true;
        if (const sd_bus_error* error = sd_bus_message_get_error(answer))
            problem = std::string("the bridge does not answer: ") +
                      (error->message ? error->message : error->name) + "; start zelt-unifiedpush";
        else
            answered(answer);
    });
    if (!sent)
        problem = "the call could not be sent";  // uncovered: a call is sent, or the bus is lost
    return sent && wait([&] { return done; }, seconds + 1) && problem.empty();
}

bool PushUser::list(std::string& json, unsigned seconds, std::string& problem) {
    return ask(
        newCall(m_bus.get(), kManagementPath, kManagement, "List"), seconds,
        [&](sd_bus_message* answer) {
            const char* text = "";
            sd_bus_message_read(answer, "s", &text);
            json = text;
        },
        problem);
}

bool PushUser::remove(const std::string& endpoint, bool& found, unsigned seconds, std::string& problem) {
    Wire call = newCall(m_bus.get(), kManagementPath, kManagement, "Remove");
    if (call)
        sd_bus_message_append(call.get(), "s", endpoint.c_str());
    return ask(
        std::move(call), seconds,
        [&](sd_bus_message* answer) {
            int answered = 0;
            sd_bus_message_read(answer, "b", &answered);
            found = answered != 0;
        },
        problem);
}

bool PushUser::serve(std::string& problem) {
    static const sd_bus_vtable methods[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Message", "a{sv}", "a{sv}", onMessage, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("NewEndpoint", "a{sv}", "a{sv}", onNewEndpoint, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Unregistered", "a{sv}", "a{sv}", onUnregistered, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    m_name = "com.zelt.pubsubctl.p" + std::to_string(getpid());
    m_token = std::to_string(g_random_int()) + std::to_string(g_random_int());
    int result =
        sd_bus_add_object_vtable(m_bus.get(), Receive(m_object), kConnectorPath, kConnector2, methods, this);
    if (result >= 0)
        result = sd_bus_request_name(m_bus.get(), m_name.c_str(), 0);
    if (result < 0)
        problem = std::string("cannot take a name on the session bus: ") + std::strerror(-result);
    return result >= 0;
}

bool PushUser::enroll(std::string& url, unsigned seconds, std::string& problem) {
    if (!serve(problem))
        return false;
    Wire call = newCall(m_bus.get(), kDistributorPath, kDistributor2, "Register");
    if (call)
        sd_bus_message_append(call.get(), "a{sv}", 3, "service", "s", m_name.c_str(), "token", "s",
                              m_token.c_str(), "description", "s", "a test of the command line");
    std::string reason;
    const auto answered = [&](sd_bus_message* answer) { reason = memberOf(answer, "reason"); };
    if (!ask(std::move(call), seconds, answered, problem))
        return false;
    if (!reason.empty())
        problem = "the registration failed: " + reason;
    else if (!wait([&] { return !m_url.empty(); }, seconds))
        problem = "no address came after the registration";
    url = m_url;
    return problem.empty();
}

bool PushUser::await(const std::string& bytes, unsigned seconds, std::string& problem) {
    if (wait([&] { return m_bytes == bytes; }, seconds))
        return true;
    problem = "the message did not arrive within " + std::to_string(seconds) + " s";
    return false;
}

bool PushUser::leave(unsigned seconds, std::string& problem) {
    Wire call = newCall(m_bus.get(), kDistributorPath, kDistributor2, "Unregister");
    if (call)
        sd_bus_message_append(call.get(), "a{sv}", 1, "token", "s", m_token.c_str());
    if (!ask(
            std::move(call), seconds, [](sd_bus_message*) {}, problem))
        return false;
    if (!wait([&] { return m_left; }, seconds))
        problem = "the end of the registration was not confirmed";
    return problem.empty();
}

int PushUser::onMessage(sd_bus_message* call, void* data, sd_bus_error*) {
    static_cast<PushUser*>(data)->m_bytes = memberOf(call, "message");
    return sd_bus_reply_method_return(call, "a{sv}", 0);
}

int PushUser::onNewEndpoint(sd_bus_message* call, void* data, sd_bus_error*) {
    static_cast<PushUser*>(data)->m_url = memberOf(call, "endpoint");
    return sd_bus_reply_method_return(call, "a{sv}", 0);
}

int PushUser::onUnregistered(sd_bus_message* call, void* data, sd_bus_error*) {
    static_cast<PushUser*>(data)->m_left = true;
    return sd_bus_reply_method_return(call, "a{sv}", 0);
}
