// SPDX-License-Identifier: GPL-3.0-only
// `subscribe` without --newest: receiving an endpoint's items, each of which the server keeps until it has
// been printed or its command has ended with 0. An item that could not be handled is not acknowledged, so that
// the next receiver gets it. Keeps no state beyond the process.
#include <glib.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <utility>

#include "tools/command.h"
#include "tools/listener.h"
#include "tools/verbs.h"
#include "util/jsonref.h"

namespace {

// What was published, which is no text where it is encoded.
std::string contentOf(json_object* item) {
    const std::string text = textMember(item, "item");
    if (textMember(item, "encoding") != "base64")
        return text;
    gsize size = 0;
    guchar* bytes = g_base64_decode(text.c_str(), &size);
    std::string content(reinterpret_cast<const char*>(bytes), size);
    g_free(bytes);
    return content;
}

}  // namespace

std::string receivedItem(const std::string& payload, bool json) {
    const JsonRef item = parseWholeJson(payload);
    if (!json)
        return contentOf(item.get());
    JsonObject object;
    for (const char* name : {"endpoint", "item", "itemid", "encoding", "expires", "published", "urgency"}) {
        if (json_object* member = jsonMember(item.get(), name))
            object.set(name, JsonRef(json_object_get(member)));
    }
    return object.line();
}

namespace {

constexpr unsigned kRetries = 3;
constexpr unsigned kMostRetries = 1000000;
constexpr unsigned kLongestPause = 60;  // seconds before a command is run again; they begin with 1
constexpr char kStays[] = "; the item stays with the server and is the next one that is received";

unsigned pauseBefore(unsigned retry) {
    return retry > 6 ? kLongestPause : std::min(kLongestPause, 1U << (retry - 1));
}

bool parseRetries(const std::string& text, unsigned& value) {
    auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), value);
    return fault == std::errc() && end == text.data() + text.size() && value <= kMostRetries;
}

class Receiver {
  public:
    Receiver(const Invocation& invocation, Console& console, Bounds bounds, unsigned retries)
        : m_console(console),
          m_endpoint(invocation.arguments[0]),
          m_timeout(invocation.timeoutSeconds),
          m_retries(retries),
          m_command(invocation.command),
          m_listener(console, bounds) {}

    Exit run() {
        if (m_command.given() && !m_command.exists())
            return m_console.usage("there is no program " + m_command.name() + "; no item was received");
        JsonArray endpoints;
        endpoints.add(m_endpoint);
        const std::string payload =
            JsonObject().set("subscribe", true).set("endpoints", endpoints.release()).line();
        const Exit exit = m_listener.run(
            {QSBus::Public, "receive", payload}, [this](Reply& reply) { return take(reply); },
            [this](int number) { pass(number); });
        return m_failed && (exit == Exit::Ok || exit == Exit::TimedOut) ? Exit::CommandFailed : exit;
    }

  private:
    using Verdict = Listener::Verdict;
    struct Item {
        std::string id;
        std::string text;
        bool operator==(const Item&) const = default;
    };

    Verdict take(Reply& reply) {
        const JsonRef answer = parseWholeJson(reply.payload);
        if (jsonMember(answer.get(), "receipt"))
            return takeItem(answer.get(), reply);
        if (!std::exchange(m_announced, true))
            m_console.message("receiving the items of " + m_endpoint);
        return Verdict::Wait;
    }

    Verdict takeItem(json_object* answer, Reply& reply) {
        const Item item = {textMember(answer, "itemid"), textMember(answer, "item")};
        JsonObject receipt;
        receipt.set("endpoint", textMember(answer, "endpoint")).set("receipt", textMember(answer, "receipt"));
        // An item that has been handled comes again when its acknowledgement did not arrive.
        if (!m_unacknowledged || item != m_last) {
            m_failures = item == m_last ? m_failures : 0;
            m_last = item;
            std::string problem;
            if (!handle(reply.payload, problem))
                return leave(problem, receipt, reply);
        }
        m_failed = false;
        m_failures = 0;
        m_unacknowledged = true;
        const Verdict verdict = answerWith(receipt, Verdict::Counted, reply);
        m_unacknowledged = verdict != Verdict::Counted;
        return verdict;
    }

    bool handle(const std::string& payload, std::string& problem) {
        const std::string text = receivedItem(payload, m_console.json());
        if (m_command.given())
            return m_command.run(text, m_listener.client(), problem);
        problem = "the output is closed or full";
        return m_console.line(text);
    }

    // The service has the item for the pause and hands it out again by itself, so that a limit of time or a
    // signal ends the pause too.
    Verdict leave(const std::string& problem, JsonObject& receipt, Reply& reply) {
        m_failed = true;
        if (!m_command.given() || m_listener.isStopping() || m_failures == m_retries) {
            m_console.message(problem + kStays);
            return Verdict::Stop;
        }
        const unsigned pause = pauseBefore(++m_failures);
        m_console.message(problem + "; it is run again in " + std::to_string(pause) + " s (retry " +
                          std::to_string(m_failures) + " of " + std::to_string(m_retries) + ")");
        receipt.set("retry", static_cast<int64_t>(pause));
        return answerWith(receipt, Verdict::Wait, reply);
    }

    // `done` when the service has accepted the acknowledgement.
    Verdict answerWith(const JsonObject& receipt, Verdict done, Reply& reply) {
        Reply outcome = m_listener.client().callBesides(methodUri("acknowledge"), receipt.line(), m_timeout);
        if (outcome.exit == Exit::Ok)
            return done;
        // The service has left or is new: it hands the item out again when it is asked again.
        const bool comesAgain =
            lacksConnection(outcome) || outcome.problem.find("Unknown receipt") != std::string::npos;
        if (comesAgain) {
            m_console.message("the item was not acknowledged and comes again: " + outcome.problem);
            return Verdict::Wait;
        }
        reply = std::move(outcome);
        return Verdict::Refuse;
    }

    // A terminal interrupts the command itself.
    void pass(int number) const {
        if (number != SIGINT)
            m_command.signal(number);
    }

    Console& m_console;
    std::string m_endpoint;
    unsigned m_timeout;
    unsigned m_retries;
    Command m_command;
    Listener m_listener;
    Item m_last;
    unsigned m_failures = 0;        // of the last item's command, in a row
    bool m_failed = false;          // the last item was not handled
    bool m_unacknowledged = false;  // the last item was handled, but its acknowledgement did not arrive
    bool m_announced = false;
};

}  // namespace

Exit runReceive(const Invocation& invocation, Console& console) {
    Bounds bounds;
    unsigned retries = kRetries;
    std::string problem;
    if (!readBounds(invocation, bounds, problem))
        return console.usage(problem);
    const std::string given = invocation.value("retries");
    if (invocation.has("retries") && invocation.command.empty())
        return console.usage("--retries needs a COMMAND after --");
    if (invocation.has("retries") && !parseRetries(given, retries))
        return console.usage("--retries takes a whole number from 0 to 1000000, not \"" + given + "\"");
    return Receiver(invocation, console, bounds, retries).run();
}
