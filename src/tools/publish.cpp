// SPDX-License-Identifier: GPL-3.0-only
// `publish`: one item over HTTP to the endpoint that has a key, as any other publisher does it. Needs no bus.
#include <cstdlib>

#include "tools/http.h"
#include "tools/verbs.h"
#include "util/jsonref.h"

std::string publishBase(const Invocation& invocation) {
    if (invocation.has("url"))
        return invocation.value("url");
    for (const char* name : {"PUBSUB_HTTP_URL", "HTTP_URL"}) {
        if (const char* value = std::getenv(name))
            return value;
    }
    return "";
}

Exit runPublish(const Invocation& invocation, Console& console) {
    if (invocation.arguments.size() > 1 && invocation.has("file"))
        return console.usage("give the item once: as TEXT or with --file");
    std::string url;
    std::string text;
    std::string problem;
    if (!publishUrl(invocation.arguments[0], publishBase(invocation), url, problem) ||
        !itemText(invocation, console, text, problem))
        return console.usage(problem);
    const Reply reply = postItem(url, text, invocation.timeoutSeconds);
    const JsonRef answer = parseWholeJson(reply.payload);
    return console.finish(reply, "published  id: " + textMember(answer.get(), "id") +
                                     "  seqNo: " + textMember(answer.get(), "seqNo"));
}
