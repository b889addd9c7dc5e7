// SPDX-License-Identifier: GPL-3.0-only
// The part of the host daemon that keeps the connection, on a real bus within the test's process: it records
// its calls and answers each with one text.
#pragma once

#include <glib.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/bus/qsraii.h"

class FakeHost {
  public:
    FakeHost() {
        static constexpr QSMethod methods[] = {
            {.name = "keep", .handler = onCall}, {.name = "status", .handler = onCall}, {}};
        BusError error;
        const bool up = QSRegister(QSBus::Private, "com.zelt.host", &m_handle, error) &&
                        QSRegisterCategory(m_handle, "/connection", methods, this, error) &&
                        QSGmainAttach(m_handle, m_loop, error);
        EXPECT_TRUE(up) << error.message();
    }
    ~FakeHost() {
        BusError error;
        QSUnregister(m_handle, error);
        g_main_loop_unref(m_loop);
    }
    FakeHost(const FakeHost&) = delete;
    FakeHost& operator=(const FakeHost&) = delete;

    // Also taken into here, so that the order of the calls to several services can be seen.
    std::vector<std::string>* journal = nullptr;
    std::string answer = R"({"returnValue":true})";
    std::vector<std::string> calls;  // `keep {"keep":true}`

  private:
    static bool onCall(QSHandle* handle, QSMessage* message, void* context) {
        auto* self = static_cast<FakeHost*>(context);
        self->calls.push_back(std::string(QSMessageGetMethod(message)) + " " + QSMessageGetPayload(message));
        if (self->journal)
            self->journal->push_back(self->calls.back());
        BusError error;
        EXPECT_TRUE(QSMessageReply(handle, message, self->answer.c_str(), error)) << error.message();
        return true;
    }

    GMainLoop* m_loop = g_main_loop_new(nullptr, FALSE);
    QSHandle* m_handle = nullptr;
};
