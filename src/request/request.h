// SPDX-License-Identifier: GPL-3.0-only
// One bus request: its checks, its refusal, and its wait for the server's result.
//
// Which checks a method makes, and in which order, stands in its handler. A check that fails returns false and leaves
// the reason, which refuse() sends. Everything is logged under the name of the handler that made the Request.
#pragma once

#include <list>
#include <string>

#include "platform/bus/qs.h"
#include "request/reply.h"
#include "util/jsonref.h"
#include "util/log.h"

// How a group of methods refuses while no check has said more.
struct RefusalForm {
    const char* code;
    const char* text;
    const char* subject = nullptr;  // member of the reply that names what the request is about; null: none
    bool logged = false;            // with the request's payload
};

// sic: the quotes are part of the texts and reach the caller.
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

// What is said when the manager did not take an operation: by private methods, and by most public ones.
inline constexpr char kGlooxNotInitialized[] = "gloox library is not initialized";
inline constexpr char kLibraryNotInitialized[] = "pubsubservice library is not initialized";

// Says that too many changes wait for their turn (endpoints/writerate.cpp).
inline constexpr char kTooManyWrites[] =
    "Too many changes of on-close notices wait, the limit is 1024. Wait for their answers";

class Request {
  public:
    // `message` is borrowed for the time of the call.
    Request(QSHandle* handle, QSMessage* message, const RefusalForm& form, CallSite site = {});

    // The checks.
    bool hasManager();  // a session was made
    bool hasService();  // and it has a pub-sub service to ask
    bool isConnected();
    bool hasJson();
    bool isReady(bool needConnected);  // checkInit, which has an order of its own

    // The readers. Those that `read` leave the reason of a refusal as it is when the member is missing or empty, those
    // that `require` say which one it is.
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

    // Puts the caller on the bus's list of subscribers when the request asks for it.
    bool processSubscription();
    // Whether the manager took the operation; an empty id says that it did not, and `reason` is what the caller hears.
    bool wasSent(const std::string& id, const char* reason = kGlooxNotInitialized);
    // Set the reason of a refusal and return false.
    bool fail(const std::string& text);
    bool fail(const std::string& code, const std::string& text);
    const RequestError& error() const { return m_error; }

    // The ends of a handler. Each returns true, as a bus handler does.
    bool refuse();
    bool refuse(const std::string& text);
    bool refuse(const std::string& code, const std::string& text);
    bool reply(const JsonObject& answer);
    // Keeps the request until the result of `id` is there; refuses it when the operation was not sent.
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
