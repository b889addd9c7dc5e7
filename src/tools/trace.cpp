// SPDX-License-Identifier: GPL-3.0-only
// `trace`: publishes a marked item and prints when it passed each station, from this program to the
// acknowledgement at the server. The stations are the service's and the server's own (getTrace). Keeps no state.
#include <glib.h>

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <vector>

#include "tools/http.h"
#include "tools/verbs.h"
#include "util/jsonref.h"

namespace {

constexpr gulong kPause = 50'000;          // microseconds between two questions
constexpr unsigned kAcknowledgement = 10;  // seconds for the way to a receiver and back

struct Passed {
    int64_t at = 0;
    std::string where, name, detail;
};

// The time of this program's own part is that of its answer.
struct Published {
    Reply reply;
    int64_t asked = 0, answered = 0;
};

std::string newMark() {
    gchar* uuid = g_uuid_string_random();
    std::string mark = uuid;
    g_free(uuid);
    std::erase(mark, '-');
    return mark;
}

int64_t numberMember(json_object* object, const char* key) {
    return json_object_get_int64(jsonMember(object, key));
}

Published publishMarked(const Invocation& invocation, const std::string& url, const std::string& mark) {
    const std::string text = "a test of pubsubctl trace";
    const std::string payload =
        JsonObject().set("node", invocation.arguments[0]).set("item", text).set("trace", mark).line();
    Published published;
    published.asked = g_get_real_time();
    published.reply = url.empty() ? callService(invocation, "publishItem", payload)
                                  : postItem(url, text, invocation.timeoutSeconds, {"Trace: " + mark});
    published.answered = g_get_real_time();
    return published;
}

std::vector<Passed> stationsOf(json_object* answer) {
    std::vector<Passed> stations;
    json_object* list = jsonMember(answer, "stations");
    const bool isList = json_object_is_type(list, json_type_array);
    for (size_t i = 0; isList && i < json_object_array_length(list); ++i) {
        json_object* each = json_object_array_get_idx(list, i);
        const std::string to = textMember(each, "to"), resource = textMember(each, "resource");
        stations.push_back({numberMember(each, "at"), textMember(each, "where"), textMember(each, "name"),
                            to.empty() ? resource : to});
    }
    return stations;
}

bool has(const std::vector<Passed>& stations, const char* where, const char* name) {
    return std::any_of(stations.begin(), stations.end(),
                       [&](const Passed& each) { return each.where == where && each.name == name; });
}

// Where the server tells nothing, the device's acknowledgement is what is known.
bool isAcknowledged(json_object* answer, const std::vector<Passed>& stations) {
    return has(stations, boolMember(answer, "server") ? "server" : "device", "acknowledged");
}

// What the way so far says about what is missing.
std::string missing(const std::vector<Passed>& stations, json_object* answer, const std::string& target) {
    if (!boolMember(answer, "server"))
        return "the server tells nothing of its part: " + textMember(answer, "serverError");
    if (has(stations, "device", "handed on"))
        return "whoever was handed the item has not acknowledged it yet";
    if (has(stations, "device", "received"))
        return "the device has the item, and nobody has taken it";
    if (has(stations, "server", "sent"))
        return "another device of the account was sent the item, and this one was not";
    if (!has(stations, "server", "committed"))
        return "the server has not written the item to disk";
    return "the server was not asked to send it here: " +
           (target.starts_with('/') ? "`pubsubctl node subscribe " + target + "` subscribes this device"
                                    : std::string("no program of this device receives the endpoint now; the "
                                                  "server keeps the item until one does"));
}

}  // namespace

std::string traceTable(const std::string& report) {
    const JsonRef object = parseWholeJson(report);
    json_object* list = jsonMember(object.get(), "stations");
    std::ostringstream text;
    int64_t first = 0;
    for (size_t i = 0; i < json_object_array_length(list); ++i) {
        json_object* each = json_object_array_get_idx(list, i);
        const int64_t at = numberMember(each, "at");
        first = i == 0 ? at : first;
        const std::string detail = textMember(each, "detail");
        text << (i == 0 ? "" : "\n") << std::fixed << std::setprecision(1) << std::setw(9)
             << static_cast<double>(at - first) / 1000 << " ms  " << std::left << std::setw(8)
             << textMember(each, "where") << textMember(each, "name") << (detail.empty() ? "" : ", " + detail)
             << std::right;
    }
    return text.str();
}

std::string traceReport(const std::string& answer, int64_t asked, int64_t answered) {
    const JsonRef object = parseWholeJson(answer);
    std::vector<Passed> stations = stationsOf(object.get());
    stations.push_back({asked, "sender", "published", ""});
    stations.push_back({answered, "sender", "answered", ""});
    std::stable_sort(stations.begin(), stations.end(),
                     [](const Passed& one, const Passed& other) { return one.at < other.at; });
    JsonArray array;
    for (const Passed& each : stations) {
        JsonObject station;
        station.set("at", each.at).set("where", each.where).set("name", each.name);
        if (!each.detail.empty())
            station.set("detail", each.detail);
        array.add(station.release());
    }
    return JsonObject()
        .set("returnValue", true)
        .set("itemid", textMember(object.get(), "itemid"))
        .set("acknowledged", isAcknowledged(object.get(), stations))
        .set("stations", array.release())
        .line();
}

std::string traceGap(const std::string& payload, const std::string& target) {
    const JsonRef answer = parseWholeJson(payload);
    const std::vector<Passed> stations = stationsOf(answer.get());
    return isAcknowledged(answer.get(), stations) ? "" : missing(stations, answer.get(), target);
}

Exit runTrace(const Invocation& invocation, Console& console) {
    const std::string& target = invocation.arguments[0];
    std::string url, problem;
    if (!target.starts_with('/') && !publishUrl(target, publishBase(invocation), url, problem))
        return console.usage(problem);
    Bounds bounds;
    if (!readBounds(invocation, bounds, problem))
        return console.usage(problem);
    const unsigned seconds = invocation.has("wait") ? bounds.seconds : kAcknowledgement;
    const std::string mark = newMark();
    const Published published = publishMarked(invocation, url, mark);
    if (published.reply.exit != Exit::Ok)
        return console.finish(published.reply, "");
    const std::string ask = JsonObject().set("itemid", "trace-" + mark).line();
    const int64_t deadline = g_get_monotonic_time() + int64_t{seconds} * G_USEC_PER_SEC;
    Reply told = callService(invocation, "getTrace", ask);
    while (told.exit == Exit::Ok && !traceGap(told.payload, target).empty() &&
           g_get_monotonic_time() < deadline) {
        g_usleep(kPause);
        told = callService(invocation, "getTrace", ask);
    }
    if (told.exit != Exit::Ok)
        return console.finish(told, "");
    const std::string report = traceReport(told.payload, published.asked, published.answered);
    const std::string gap = traceGap(told.payload, target);
    if (!console.line(console.json() ? report : traceTable(report)))
        return Exit::Ok;
    if (gap.empty())
        return Exit::Ok;
    console.message("not acknowledged within " + std::to_string(seconds) + " s: " + gap);
    return Exit::TimedOut;
}
