// SPDX-License-Identifier: GPL-3.0-only
// A client on the private bus for tests: calls, follows and is called. Waits for a condition,
// with a deadline.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "platform/bus/qsraii.h"

class Caller {
  public:
    // With a name it can be called, at zelt://NAME/ring.
    explicit Caller(const char* name = nullptr) : m_loop(g_main_loop_new(nullptr, FALSE)) {
        static constexpr QSMethod methods[] = {{.name = "ring", .handler = onRing}, {}};
        BusError error;
        bool up = QSRegister(QSBus::Private, name, &m_handle, error) &&
                  (!name || QSRegisterCategory(m_handle, "/", methods, this, error)) &&
                  QSGmainAttach(m_handle, m_loop, error);
        EXPECT_TRUE(up) << error.message();
    }
    ~Caller() {
        BusError error;
        if (m_handle)
            QSUnregister(m_handle, error);
        g_main_loop_unref(m_loop);
    }
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    std::vector<std::string> rings;  // payloads that it was called with

    // The first answer.
    std::string call(const std::string& uri, const std::string& payload) {
        auto& answers = follow(uri, payload);
        waitFor([&] { return !answers.empty(); });
        return answers.empty() ? "no answer" : answers[0];
    }
    // All answers, as they come in.
    std::vector<std::string>& follow(const std::string& uri, const std::string& payload) {
        auto& answers = m_answers.emplace_back();
        BusError error;
        EXPECT_TRUE(QSCall(m_handle, uri.c_str(), payload.c_str(), onAnswer, &answers, nullptr, error))
            << error.message();
        return answers;
    }
    static bool waitFor(const std::function<bool()>& condition, int milliseconds = 5000) {
        gint64 deadline = g_get_monotonic_time() + milliseconds * 1000;
        guint tick = g_timeout_add(
            20, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
        while (!condition() && g_get_monotonic_time() < deadline)
            g_main_context_iteration(nullptr, TRUE);
        g_source_remove(tick);
        return condition();
    }

  private:
    static bool onAnswer(QSHandle*, QSMessage* message, void* context) {
        static_cast<std::vector<std::string>*>(context)->push_back(QSMessageGetPayload(message));
        return true;
    }
    static bool onRing(QSHandle*, QSMessage* message, void* context) {
        static_cast<Caller*>(context)->rings.push_back(QSMessageGetPayload(message));
        return true;
    }

    GMainLoop* m_loop;
    QSHandle* m_handle = nullptr;
    std::deque<std::vector<std::string>> m_answers;
};
