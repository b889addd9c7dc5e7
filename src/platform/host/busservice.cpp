// SPDX-License-Identifier: GPL-3.0-only
// What the five services have in common on the bus.
#include "platform/host/busservice.h"

#include <cerrno>

#include "platform/bus/qsraii.h"
#include "platform/host/log.h"
#include "util/jsonref.h"

BusService::~BusService() {
    BusError error;
    if (m_handle)
        QSUnregister(m_handle, error);
}

StartResult BusService::take(const char* name) {
    m_name = name;
    BusError error;
    if (QSRegister(QSBus::Private, name, &m_handle, error))
        return StartResult::Started;
    m_handle = nullptr;
    if (error.code() == -EEXIST) {
        logLine("%s is already provided by another process, which keeps it", name);
        return StartResult::NameTaken;
    }
    logLine("cannot provide %s on the private bus: %s", name, error.message());
    return StartResult::Failed;
}

bool BusService::serve(const char* category, const QSMethod* methods, void* context) {
    BusError error;
    if (QSRegisterCategory(m_handle, category, methods, context, error))
        return true;
    logLine("%s cannot serve %s: %s", m_name.c_str(), category, error.message());
    return false;
}

bool BusService::attach(GMainLoop* loop) {
    BusError error;
    if (QSGmainAttach(m_handle, loop, error))
        return true;
    logLine("%s cannot use the main loop: %s", m_name.c_str(), error.message());
    return false;
}

void BusService::reply(QSMessage* message, const std::string& payload) {
    BusError error;
    if (!QSMessageReply(m_handle, message, payload.c_str(), error))
        logLine("%s: an answer could not be sent: %s", m_name.c_str(), error.message());
}

void BusService::accept(QSMessage* message) {
    reply(message, "{\"returnValue\":true}");
}

void BusService::refuse(QSMessage* message, const std::string& errorText) {
    reply(message, JsonObject().set("returnValue", false).set("errorText", errorText).line());
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
        logLine("%s: a change could not be sent to every subscriber: %s", m_name.c_str(), error.message());
}
