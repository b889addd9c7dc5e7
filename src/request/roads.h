// SPDX-License-Identifier: GPL-3.0-only
// Steps that the private node methods share: first checks, refusals, waiting for the server, answering.
//
// Which steps a method takes, and in which order, stands in its handler. `function` is the handler's name,
// under which the step logs.
#pragma once

#include <gloox/jid.h>
#include <json-c/json.h>

#include <list>
#include <string>

#include "platform/bus/qsraii.h"
#include "util/jsonref.h"
#include "util/log.h"

namespace gloox {
class Error;
}
class PubSubSession;

// The two words of a failure. They start as those of a bad argument.
struct FailureWords {
    std::string code = "\"errBadArgument\"";  // sic: the quotes are part of the word and reach the caller
    std::string text = "\"Bad Argument\"";    // sic: likewise
};

// How results of creating, deleting, publishing and configuring report an answer that could not be sent.
// sic: one text for all of them.
inline constexpr char kCreateRespondFailed[] = "Sending response to create Node failed id %s Error %s ";

// Whether there is a manager with a service, a connection and a payload, asked in this order.
bool checkRequest(CallSite site, const PubSubSession& session, json_object* payload, FailureWords& words);
// The elements of the request's array "nodes", as names; false when there is none or it is empty.
bool readNodes(CallSite site, json_object* payload, std::list<std::string>& nodes, FailureWords& words);

// Send the error reply, without or with the member "node", and return true, the result of a bus handler.
bool refuse(QSHandle* handle, QSMessage* message, const FailureWords& words);
bool refuseNode(QSHandle* handle, QSMessage* message, const FailureWords& words, const std::string& node);

// Whether the manager took the operation; an empty id says that it did not.
bool checkRequestId(const std::string& id, FailureWords& words);
// The same, and keeps the request until the result of `id` is there.
bool keepRequest(PubSubSession& session, const std::string& id, QSMessage* message, FailureWords& words);

// {"returnValue": success}
JsonRef newReply(bool success);
void addText(const JsonRef& reply, const char* key, const std::string& text);
void addWords(const JsonRef& reply, const FailureWords& words);
// Logs the server's error about `node` and gives the words for it.
FailureWords serverWords(CallSite site, const std::string& node, const gloox::JID& service,
                         const gloox::Error& error);
// {"returnValue", KEY: name} and, after an error, the words for it.
JsonRef resultReply(CallSite site, const char* key, const std::string& name, const std::string& node,
                    const gloox::JID& service, const gloox::Error* error);

// Answers a kept request; `failure` is the log format for an answer that could not be sent (id, bus error).
void respond(CallSite site, QSMessage* message, const JsonRef& reply, const std::string& id,
             const char* failure);
