// SPDX-License-Identifier: GPL-3.0-only
// A public endpoint request that waits for the server's answer.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "platform/bus/qsraii.h"

struct _endpointStruct {
    std::string endpoint;  // short name, as the caller gave it
    std::string appId;     // the caller's application id, cut at its first blank
    std::string node;      // full node name
    KeptMessage message;   // the request, kept until the reply
    // Counts a creation against its application's bound until it is answered.
    std::shared_ptr<void> creation = nullptr;
};

// The public subscriber of a node.
struct _subMapStruct {
    std::string appId;           // the id that the bus reports for the request
    QSHandle* handle = nullptr;  // the connection of its subscription; null once the client cancelled
};

// A public request that waits for its application's write rate.
struct _waitingWriteStruct {
    QSFilter handler = nullptr;  // the method
    QSHandle* handle = nullptr;
    KeptMessage message;
};

// The write rate of an application.
struct _writeRateStruct {
    int64_t paidUntil = 0;  // monotonic microseconds; each write advances it
    std::deque<_waitingWriteStruct> waiting;
};

enum class WriteTurn { Now, Later, Never };
