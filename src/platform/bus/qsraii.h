// SPDX-License-Identifier: GPL-3.0-only
// Ownership of bus objects: an error record that frees itself and a message kept for a later answer.
#pragma once

#include <utility>

#include "platform/bus/qs.h"

class BusError {
  public:
    BusError() { QSErrorInit(&m_error); }
    ~BusError() { QSErrorFree(&m_error); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;

    // For the out-argument of a bus call.
    operator QSError*() { return &m_error; }  // NOLINT: reads as the record it stands for
    int code() const { return m_error.code; }
    const char* message() const { return m_error.message ? m_error.message : ""; }

  private:
    QSError m_error;
};

// Holds one reference on a bus message; copying takes another one.
class KeptMessage {  // NOLINT(cppcoreguidelines-special-member-functions): one assignment, by value
  public:
    KeptMessage() = default;
    explicit KeptMessage(QSMessage* message) : m_message(message) {
        if (m_message)
            QSMessageRef(m_message);
    }
    KeptMessage(const KeptMessage& other) : KeptMessage(other.m_message) {}
    KeptMessage(KeptMessage&& other) noexcept : m_message(std::exchange(other.m_message, nullptr)) {}
    KeptMessage& operator=(KeptMessage other) noexcept {
        std::swap(m_message, other.m_message);
        return *this;
    }
    ~KeptMessage() {
        if (m_message)
            QSMessageUnref(m_message);
    }

    QSMessage* get() const { return m_message; }
    explicit operator bool() const { return m_message != nullptr; }

  private:
    QSMessage* m_message = nullptr;
};
