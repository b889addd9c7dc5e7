// SPDX-License-Identifier: GPL-3.0-only
// What the five services share on the bus.
#include "platform/host/busservice.h"

#include <cerrno>

#include "platform/bus/qsraii.h"
#include "platform/host/say.h"
#include "util/jsonref.h"

BusService::~BusService() {
    BusError error;
    if (m_handle)
        QSUnregister(m_handle, error);
}

Presence BusService::take(const char* name) {
    m_name = name;
    BusError error;
    if (QSRegister(QSBus::Private, name, &m_handle, error))
        return Presence::Up;
    m_handle = nullptr;
    if (error.code() == -EEXIST) {
        say("%s is provided by another process already; it keeps it", name);
        return Presence::TakenByAnother;
    }
    say("cannot provide %s on the private bus: %s", name, error.message());
    return Presence::Failed;
}

bool BusService::serve(const char* category, const QSMethod* methods, void* context) {
    BusError error;
    if (QSRegisterCategory(m_handle, category, methods, context, error))
        return true;
    say("%s cannot serve %s: %s", m_name.c_str(), category, error.message());
    return false;
}

bool BusService::attach(GMainLoop* loop) {
    BusError error;
    if (QSGmainAttach(m_handle, loop, error))
        return true;
    say("%s cannot use the main loop: %s", m_name.c_str(), error.message());
    return false;
}

void BusService::reply(QSMessage* message, const std::string& payload) {
    BusError error;
    if (!QSMessageReply(m_handle, message, payload.c_str(), error))
        say("%s: an answer did not reach its caller: %s", m_name.c_str(), error.message());
}

void BusService::accept(QSMessage* message) {
    reply(message, "{\"returnValue\":true}");
}

void BusService::refuse(QSMessage* message, const std::string& words) {
    const JsonRef object(json_object_new_object());
    json_object_object_add(object.get(), "returnValue", json_object_new_boolean(false));
    json_object_object_add(object.get(), "errorText", json_object_new_string(words.c_str()));
    reply(message, json_object_to_json_string_ext(object.get(),
                                                  JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE));
}

void BusService::replyAndSubscribe(QSMessage* message, const std::string& payload) {
    BusError error;
    bool subscribed = false;
    if (QSSubscriptionProcess(m_handle, message, &subscribed, error))
        reply(message, payload);
    else
        refuse(message, std::string("the subscription could not be kept: ") + error.message());
}

void BusService::post(const char* category, const char* method, const std::string& payload) {
    BusError error;
    if (!QSSubscriptionPost(m_handle, category, method, payload.c_str(), error))
        say("%s: a change did not reach every subscriber: %s", m_name.c_str(), error.message());
}
