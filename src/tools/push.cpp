// SPDX-License-Identifier: GPL-3.0-only
// `push`: what the applications of this user's session have registered for push messages, and a test of the
// whole way. Talks to zelt-unifiedpush on the session bus. Keeps no state.
#include <glib.h>

#include "tools/http.h"
#include "tools/verbs.h"
#include "unifiedpush/pushuser.h"
#include "util/jsonref.h"

namespace {

Reply failed(const std::string& problem) {
    return {Exit::NotConnected, "", problem};
}

std::string pushLine(json_object* registration) {
    const std::string description = textMember(registration, "description");
    return textMember(registration, "endpoint") + "  " + textMember(registration, "service") +
           (description.empty() ? "" : "  \"" + description + "\"") + "  " +
           textMember(registration, "state");
}

// The milliseconds of each leg, in their order.
class Legs {
  public:
    void end(const char* name) {
        const int64_t now = g_get_monotonic_time();
        m_legs.set(name, (now - m_begun) / 1000);
        m_text += (m_text.empty() ? "" : "\n") + std::string(name) + ": " +
                  std::to_string((now - m_begun) / 1000) + " ms";
        m_begun = now;
    }
    const std::string& text() const { return m_text; }
    std::string json() {
        return JsonObject().set("returnValue", true).set("milliseconds", m_legs.release()).line();
    }

  private:
    int64_t m_begun = g_get_monotonic_time();
    JsonObject m_legs;
    std::string m_text;
};

}  // namespace

std::string pushLines(const std::string& payload) {
    const JsonRef answer = parseWholeJson(payload);
    json_object* registrations = jsonMember(answer.get(), "registrations");
    const bool isList = json_object_is_type(registrations, json_type_array);
    std::string lines;
    for (size_t i = 0; isList && i < json_object_array_length(registrations); ++i)
        lines += (i ? "\n" : "") + pushLine(json_object_array_get_idx(registrations, i));
    return lines;
}

Exit runPushList(const Invocation& invocation, Console& console) {
    PushUser user;
    std::string json, problem;
    if (!user.open(problem) || !user.list(json, invocation.timeoutSeconds, problem))
        return console.finish(failed(problem), "");
    const std::string lines = pushLines(json);
    if (lines.empty() && !console.json()) {
        console.message("no application of this session has registered for push messages");
        return Exit::Ok;
    }
    return console.finish({Exit::Ok, json, ""}, lines);
}

Exit runPushRemove(const Invocation& invocation, Console& console) {
    const std::string& endpoint = invocation.arguments[0];
    PushUser user;
    std::string problem;
    bool found = false;
    if (!user.open(problem) || !user.remove(endpoint, found, invocation.timeoutSeconds, problem))
        return console.finish(failed(problem), "");
    if (!found)
        return console.finish(
            {Exit::Refused, "", "nothing is registered as " + endpoint + "; see `pubsubctl push list`"}, "");
    return console.finish({Exit::Ok, R"({"returnValue":true})", ""}, "removed " + endpoint);
}

Exit runPushTest(const Invocation& invocation, Console& console) {
    const unsigned seconds = invocation.timeoutSeconds;
    const std::string text = "a test of pubsubctl " + std::to_string(g_random_int());
    PushUser user;
    std::string url, problem, ignored;
    Legs legs;
    if (!user.open(problem) || !user.enroll(url, seconds, problem))
        return console.finish(failed(problem), "");
    legs.end("registered");
    const Reply posted = postItem(url, text, seconds);
    legs.end("accepted by the server");
    const bool arrived = posted.exit == Exit::Ok && user.await(text, seconds, problem);
    legs.end("arrived");
    // In any case: what is left behind would be a registration that nobody has.
    const bool left = user.leave(seconds, arrived ? problem : ignored);
    legs.end("unregistered");
    if (posted.exit != Exit::Ok)
        return console.finish(posted, "");
    return arrived && left ? console.finish({Exit::Ok, legs.json(), ""}, legs.text())
                           : console.finish(failed(problem), "");
}
