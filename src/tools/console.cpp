// SPDX-License-Identifier: GPL-3.0-only
// Printing. Each line is flushed, since the reader may be at the other end of a pipe.
#include "tools/console.h"

#include "util/jsonref.h"

bool Console::line(const std::string& text) {
    m_out << (m_terminals.out ? escapeForTerminal(text) : text) << '\n' << std::flush;
    return m_out.good();
}

void Console::message(const std::string& text) {
    m_err << "pubsubctl: " << (m_terminals.err ? escapeForTerminal(text) : text) << std::endl;
}

bool Console::ask(const std::string& question, std::string& answer) {
    m_err << question << std::flush;
    return static_cast<bool>(std::getline(m_in, answer));
}

Exit Console::finish(const Reply& reply, const std::string& terse) {
    if (m_json && !reply.payload.empty())
        line(oneLine(reply.payload));
    if (!reply.problem.empty())
        message(reply.problem);
    else if (!m_json)
        line(terse);
    return reply.exit;
}

Exit Console::usage(const std::string& problem) {
    message(problem);
    return Exit::Usage;
}

std::string oneLine(const std::string& payload) {
    JsonRef object = parseWholeJson(payload);
    if (!object)
        object.reset(json_object_new_string_len(payload.data(), static_cast<int>(payload.size())));
    return jsonLine(object.get());
}

std::string escapeForTerminal(const std::string& text) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string escaped;
    const auto byte = [&text](size_t at) {
        return at < text.size() ? static_cast<unsigned char>(text[at]) : static_cast<unsigned char>(0);
    };
    const auto append = [&escaped](unsigned char value) {
        escaped += {'\\', 'x', kDigits[value >> 4], kDigits[value & 15]};
    };
    for (size_t at = 0; at < text.size(); ++at) {
        const unsigned char value = byte(at);
        const bool c1 = value == 0xc2 && byte(at + 1) >= 0x80 && byte(at + 1) < 0xa0;
        if (c1) {
            append(value);
            append(byte(++at));
        } else if ((value < 0x20 && value != '\n' && value != '\t') || value == 0x7f) {
            append(value);
        } else {
            escaped += text[at];
        }
    }
    return escaped;
}
