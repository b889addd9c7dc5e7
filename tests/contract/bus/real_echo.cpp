// SPDX-License-Identifier: GPL-3.0-only
// The service that echoes.
#include "tests/contract/bus/real_echo.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "platform/bus/qsraii.h"
#include "tests/contract/bus/engine.h"

namespace {

bool echo(QSHandle* handle, QSMessage* message, void*) {
    return QSMessageReply(handle, message, QSMessageGetPayload(message), nullptr);
}

bool answerAtLength(QSHandle* handle, QSMessage* message, void*) {
    static const std::string text(60000, 'x');
    return QSMessageReply(handle, message, text.c_str(), nullptr);
}

bool follow(QSHandle* handle, QSMessage* message, void*) {
    return QSSubscriptionProcess(handle, message, nullptr, nullptr) &&
           QSMessageReply(handle, message, "{}", nullptr);
}

}  // namespace

[[noreturn]] void serveEchoes() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    static constexpr QSMethod methods[] = {{.name = "echo", .handler = echo},
                                           {.name = "follow", .handler = follow},
                                           {.name = "long", .handler = answerAtLength},
                                           {}};
    BusError error;
    QSZeltService* service = nullptr;
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    if (QSRegisterZeltService(kServiceName, &service, error) &&
        QSZeltServiceRegisterCategory(service, "/", methods, nullptr, nullptr, error) &&
        QSGmainAttachZeltService(service, loop, error))
        g_main_loop_run(loop);
    QSErrorPrint(error, stderr);
    _exit(1);
}
