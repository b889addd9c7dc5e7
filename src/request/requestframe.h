// SPDX-License-Identifier: GPL-3.0-only
// What every bus method uses: readiness checks, the error reply, and sending a reply.
#pragma once

#include <json-c/json.h>

#include <string>

#include "platform/bus/qs.h"

#include "util/log.h"

class PubSubSession;

// Whether a request may proceed. If not, the two texts give the reason; `payload` is null when the request's
// JSON could not be parsed.
bool checkInit(json_object*& payload, PubSubSession& session, std::string& errorCode, std::string& errorText,
               bool needConnected);

// Sends the error reply: the members of `object` first, then returnValue, errorCode, errorText. Takes
// `object` (null: an empty one).
void HandleError(QSHandle* handle, QSMessage* message, const std::string& errorCode,
                 const std::string& errorText, json_object* object);

// Sends `payload` as the first answer. A failure is logged once, with the name and line of
// the calling handler.
void sendReply(QSHandle* handle, QSMessage* message, const char* payload, CallSite site = {});
