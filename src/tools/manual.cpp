// SPDX-License-Identifier: GPL-3.0-only
// The parts of the manual page that the table of verbs has, in the markup of scdoc: *bold*, _value_, and a tab for
// each step to the right.
#include "tools/manual.h"

#include <cctype>
#include <cstring>

namespace {

// What the markup would take for its own.
std::string plain(const std::string& text) {
    std::string escaped;
    for (const char each : text) {
        if (std::strchr("\\*_#|[]-~<>.`", each))
            escaped += '\\';
        escaped += each;
    }
    return escaped;
}

std::string sentence(const std::string& help) {
    std::string text = plain(help) + ".";
    text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
    return text;
}

std::string optionEntry(const OptionSpec& option, const std::string& indent) {
    std::string text = indent;
    if (option.letter)
        text += std::string("*\\-") + option.letter + "*, ";
    text += "*" + plain(std::string("--") + option.name) + "*";
    if (option.value)
        text += " " + plain(option.value);
    return text + "\n" + indent + "\t" + sentence(option.help) + "\n\n";
}

std::string verbEntry(const Verb& verb) {
    std::string text = "*" + plain(verbName(verb)) + "*" + (*verb.usage ? " " + plain(verb.usage) : "") +
                       "\n\t" + sentence(verb.help) + "\n\n";
    for (const OptionSpec& option : verb.options)
        text += optionEntry(option, "\t");
    return text;
}

}  // namespace

std::string manualText(const std::vector<Verb>& verbs) {
    std::string text = "# OPTIONS\n\nThese stand before the verb.\n\n";
    for (const OptionSpec& option : globalOptions())
        text += optionEntry(option, "");
    text += "# VERBS\n\nThe first word of several verbs alone lists them.\n\n";
    for (const Verb& verb : verbs)
        text += verbEntry(verb);
    return text;
}
