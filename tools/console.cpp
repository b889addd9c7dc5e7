// SPDX-License-Identifier: GPL-3.0-only
// Printing. Each line is flushed, since the reader may be a pipe that waits for it.
#include "tools/console.h"

#include "tools/json.h"

bool Console::line(const std::string& text) {
    m_out << text << '\n' << std::flush;
    return m_out.good();
}

void Console::complain(const std::string& text) {
    m_err << "pubsubctl: " << text << std::endl;
}

Exit Console::finish(const Reply& reply, const std::string& terse) {
    if (m_json && !reply.payload.empty())
        line(oneLine(reply.payload));
    if (!reply.problem.empty())
        complain(reply.problem);
    else if (!m_json)
        line(terse);
    return reply.exit;
}

Exit Console::usage(const std::string& problem) {
    complain(problem);
    return Exit::Usage;
}

std::string oneLine(const std::string& payload) {
    Json object = readJson(payload);
    if (!object)
        object.reset(json_object_new_string_len(payload.data(), static_cast<int>(payload.size())));
    return jsonLine(object.get());
}
