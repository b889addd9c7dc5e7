// SPDX-License-Identifier: GPL-3.0-only
// A service on the device's buses with one method. Applications call it on the public bus, platform services on
// the private one. Build it and call it:
//
//   g++ -std=c++20 greeter.cpp -o greeter $(pkg-config --cflags --libs zelt-bus)
//   busctl call com.example.greeter / com.example.greeter greet s '{"name":"Ada"}'
//
// Only root and the group zelt-services can use the private bus, and the policy of the system bus has to allow the
// name; docs/bus.md shows two buses for a developer's machine.
#include <json-c/json.h>

#include <cstdio>
#include <string>

#include "platform/bus/qsraii.h"

namespace {

bool greet(QSHandle* handle, QSMessage* message, void*) {
    json_object* request = json_tokener_parse(QSMessageGetPayload(message));
    json_object* name = nullptr;
    json_object_object_get_ex(request, "name", &name);
    json_object* answer = json_object_new_object();
    json_object_object_add(answer, "returnValue", json_object_new_boolean(name != nullptr));
    if (name) {
        const std::string text = "Hello " + std::string(json_object_get_string(name));
        json_object_object_add(answer, "text", json_object_new_string(text.c_str()));
    } else {
        json_object_object_add(answer, "errorText", json_object_new_string("name is missing"));
    }
    BusError error;
    const bool sent = QSMessageReply(handle, message, json_object_to_json_string(answer), error);
    json_object_put(answer);
    json_object_put(request);
    return sent;
}

}  // namespace

int main() {
    static const QSMethod methods[] = {{"greet", greet, 0}, {}};
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    QSZeltService* service = nullptr;
    BusError error;
    if (!QSRegisterZeltService("com.example.greeter", &service, error) ||
        !QSZeltServiceRegisterCategory(service, "/", methods, nullptr, nullptr, error) ||
        !QSGmainAttachZeltService(service, loop, error)) {
        QSErrorPrint(error, stderr);
        return 1;
    }
    g_main_loop_run(loop);  // until a bus connection is lost
    return 0;
}
