// SPDX-License-Identifier: GPL-3.0-only
// One bus request: its checks, its refusal, and waiting for the server's result.
//
// Each handler lists its checks in their order. A check that fails returns false and stores the reason, which
// refuse() sends. Log lines carry the name of the handler that constructed the Request.
#pragma once

#include <list>
#include <string>

#include "platform/bus/qs.h"
#include "request/reply.h"
#include "util/jsonref.h"
#include "util/log.h"

// The default refusal of a group of methods, for checks that set no reason of their own.
struct RefusalForm {
    const char* code;
    const char* text;
    const char* subject = nullptr;  // reply member with the node or endpoint of the request; null: none
    bool logged = false;            // with the request's payload
};

// sic: the quotes are part of the texts.
inline constexpr char kQuotedErrBadArgument[] = R"("errBadArgument")";
inline constexpr char kQuotedBadArgument[] = R"("Bad Argument")";

// The forms in use; the methods choose.
inline constexpr RefusalForm kNodeRefusal{
    .code = kQuotedErrBadArgument, .text = kQuotedBadArgument, .subject = "node"};
inline constexpr RefusalForm kQuotedRefusal{.code = kQuotedErrBadArgument, .text = kQuotedBadArgument};
inline constexpr RefusalForm kSubscriptionRefusal{
    .code = "errBadArgument", .text = "Bad Argument", .subject = "node"};
inline constexpr RefusalForm kRegistrationRefusal{
    .code = "errBadArgument", .text = "Bad Argument", .logged = true};
inline constexpr RefusalForm kPlainRefusal{.code = "errBadArgument", .text = "Bad Argument"};
inline constexpr RefusalForm kParameterRefusal{.code = "parameterErr", .text = kQuotedBadArgument};
inline constexpr RefusalForm kEndpointRefusal{
    .code = "parameterErr", .text = kQuotedBadArgument, .subject = "endpoint", .logged = true};

// The refusals when the manager did not accept an operation: of private methods, and of most public ones.
inline constexpr char kGlooxNotInitialized[] = "gloox library is not initialized";
inline constexpr char kLibraryNotInitialized[] = "pubsubservice library is not initialized";

// The refusal when too many changes wait (endpoints/writerate.cpp).
inline constexpr char kTooManyWrites[] =
    "Too many changes of on-close notices wait, the limit is 1024. Wait for their answers";

class Request {
  public:
    // `message` is borrowed for the duration of the call.
    Request(QSHandle* handle, QSMessage* message, const RefusalForm& form, CallSite site = {});

    // The checks.
    bool hasManager();  // a session was created
    bool hasService();  // and it has a pub-sub service
    bool isConnected();
    bool hasJson();
    bool isReady(bool needConnected);  // checkInit, which checks in an order of its own

    // The readers. When a member is missing or empty, `read...` leaves the default reason, and `require...`
    // names the member.
    bool readNode();
    bool readEndpoint();
    bool readNodes(std::list<std::string>& nodes);  // the array "nodes", at least one
    std::string text(const char* key) const;        // "" when it is missing or empty
    bool requireNode();
    bool requireEndpoint();
    bool requireText(const char* key, std::string& value);
    bool requireBoolean(const char* key, bool& value);
    bool requireSubscribe();  // "subscribe" is true
    // The caller's application id, and the full name of the node behind its endpoint.
    bool formNode();
    json_object* json() const { return m_json.get(); }

    // Adds the caller to the subscribers of the bus library when the request asks for it.
    bool processSubscription();
    // Whether the manager accepted the operation; an empty id means that it did not, and `reason` becomes
    // the error text.
    bool wasSent(const std::string& id, const char* reason = kGlooxNotInitialized);
    // These set the reason of a refusal and return false.
    bool fail(const std::string& text);
    bool fail(const std::string& code, const std::string& text);
    const RequestError& error() const { return m_error; }

    // The ways to finish a handler. Each returns true, as a bus handler has to.
    bool refuse();
    bool refuse(const std::string& text);
    bool refuse(const std::string& code, const std::string& text);
    bool reply(const JsonObject& answer);
    // Keeps the request until the result for `id` arrives; refuses it when the operation was not sent.
    bool waitFor(const std::string& id);
    // The same for a request about an endpoint, without the check.
    bool waitForEndpoint(const std::string& id);

    QSHandle* const handle;
    QSMessage* const message;
    std::string node;      // as the caller gave it, or the full name once it is formed
    std::string endpoint;  // as the caller gave it
    std::string appId;     // cut at its first blank

  private:
    const RefusalForm& m_form;
    const CallSite m_site;
    const JsonRef m_json;
    RequestError m_error;
    std::string m_subject;
};
