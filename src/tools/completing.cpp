// SPDX-License-Identifier: GPL-3.0-only
// `--complete`: the candidates for a shell, one a line, with their help after a tab. Says nothing where there is no
// service to ask: somebody is typing.
#include "tools/complete.h"
#include "tools/verbs.h"
#include "unifiedpush/pushuser.h"
#include "util/jsonref.h"

namespace {

constexpr unsigned kPatience = 2;  // seconds

// The texts of an array, or of a member of its objects.
std::vector<std::string> namesOf(const std::string& payload, const char* list, const char* member) {
    const JsonRef answer = parseWholeJson(payload);
    json_object* array = jsonMember(answer.get(), list);
    std::vector<std::string> names;
    for (size_t i = 0; json_object_is_type(array, json_type_array) && i < json_object_array_length(array);
         ++i) {
        json_object* each = json_object_array_get_idx(array, i);
        names.push_back(member ? textMember(each, member) : json_object_get_string(each));
    }
    return names;
}

std::vector<std::string> registrations() {
    PushUser user;
    std::string json, problem;
    if (!user.open(problem) || !user.list(json, kPatience, problem))
        return {};
    return namesOf(json, "registrations", "endpoint");
}

}  // namespace

Exit runComplete(const Invocation& invocation, Console& console) {
    Invocation asked = invocation;
    asked.timeoutSeconds = kPatience;
    const NameSources sources = {
        .nodes = [&] { return namesOf(callService(asked, "listNodes", "{}").payload, "nodes", nullptr); },
        .endpoints =
            [&] {
                return namesOf(callPublic(asked, "listEndpoints", "{}").payload, "endpoints", "endpoint");
            },
        .registrations = registrations,
    };
    for (const Candidate& each : candidates(invocation.typed, allVerbs(), sources))
        console.line(each.help.empty() ? each.text : each.text + "\t" + each.help);
    return Exit::Ok;
}
