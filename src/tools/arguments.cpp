// SPDX-License-Identifier: GPL-3.0-only
// Reads the command line against the table of verbs. A verb's own options win over the global ones of the
// same name, so `node publish NODE --json OBJECT` is the item and `--json node publish` asks for JSON output.
#include "tools/arguments.h"

#include <algorithm>
#include <charconv>
#include <span>

#include "tools/complete.h"
#include "tools/suggestion.h"
#include "util/applicationid.h"

namespace {

constexpr OptionSpec kGlobalOptions[] = {
    {.name = "json", .help = "print machine-readable JSON, one object per line"},
    {.name = "timeout", .value = "SECONDS", .help = "how long to wait for an answer (30)"},
    {.name = "app",
     .value = "ID",
     .help = "call as this application; works where the service lets callers name themselves"},
    {.name = "help", .letter = 'h', .help = "show this help, or the help of a verb"},
    {.name = "version", .help = "show the version"},
    {.name = "complete",
     .value = "WORD...",
     .help = "print what may stand for the last of these words; shells ask this while somebody types"},
    {.name = "manual", .help = "print the part of the manual page that is made from the verbs"},
};

// All verbs, or those of a group.
std::string verbLines(const std::vector<Verb>& verbs, const std::string& group = "") {
    std::string text;
    for (const Verb& verb : verbs) {
        if (group.empty() || group == verb.words[0])
            text +=
                "  " + verbName(verb) + (*verb.usage ? " " : "") + verb.usage + "\n      " + verb.help + "\n";
    }
    return text;
}

// One pass over the words. Words before the verb may only be global options.
class Reader {
  public:
    Reader(const std::vector<std::string>& words, const std::vector<Verb>& verbs, Invocation& invocation,
           std::string& problem)
        : m_words(words), m_verbs(verbs), m_result(invocation), m_problem(problem) {}

    bool read() {
        while (m_next < m_words.size()) {
            const std::string& word = m_words[m_next++];
            if (!readWord(word))
                return false;
        }
        return finish();
    }

  private:
    bool readWord(const std::string& word) {
        if (m_onlyArguments || word == "-" || word.empty() || word[0] != '-')
            return takePlain(word);
        if (word == "--")
            return takeDashes();
        return word[1] == '-' ? readLong(word) : readShort(word);
    }

    bool takeDashes() {
        m_onlyArguments = true;
        if (!m_result.verb || !m_result.verb->takesCommand)
            return true;
        m_result.command.assign(m_words.begin() + static_cast<std::ptrdiff_t>(m_next), m_words.end());
        m_next = m_words.size();
        return !m_result.command.empty() || fail("a COMMAND is missing after --");
    }

    bool takePlain(const std::string& word) {
        if (m_result.verb) {
            m_result.arguments.push_back(word);
            return true;
        }
        m_verbWords.push_back(word);
        return findVerb();
    }

    bool startsLike(const Verb& verb) const {
        if (m_verbWords.size() > verb.words.size())
            return false;
        for (size_t i = 0; i < m_verbWords.size(); i++) {
            if (m_verbWords[i] != verb.words[i])
                return false;
        }
        return true;
    }

    bool findVerb() {
        bool some = false;
        for (const Verb& verb : m_verbs) {
            if (!startsLike(verb))
                continue;
            some = true;
            if (verb.words.size() == m_verbWords.size())
                m_result.verb = &verb;
        }
        if (some)
            return true;
        const std::string meant = suggestion(m_verbWords, m_verbs);
        return fail("unknown verb \"" + m_verbWords.back() + "\"; " +
                    (meant.empty() ? "`pubsubctl --help` lists them" : meant));
    }

    bool readLong(const std::string& word) {
        const size_t equals = word.find('=');
        std::string name = word.substr(2, equals == std::string::npos ? equals : equals - 2);
        const OptionSpec* spec = lookUp([&](const OptionSpec& option) { return name == option.name; });
        if (!spec)
            return unknown(word);
        if (equals == std::string::npos)
            return takeOption(*spec);
        if (!spec->value)
            return fail("--" + name + " takes no value");
        return store(*spec, word.substr(equals + 1));
    }

    bool readShort(const std::string& word) {
        const OptionSpec* spec = lookUp([&](const OptionSpec& option) { return word[1] == option.letter; });
        if (!spec || (!spec->value && word.size() > 2))
            return unknown(word);
        return word.size() > 2 ? store(*spec, word.substr(2)) : takeOption(*spec);
    }

    template <typename Match>
    const OptionSpec* lookUp(Match match) {
        m_global = false;
        if (m_result.verb) {
            for (const OptionSpec& option : m_result.verb->options) {
                if (match(option))
                    return &option;
            }
        }
        m_global = true;
        for (const OptionSpec& option : kGlobalOptions) {
            if (match(option))
                return &option;
        }
        return nullptr;
    }

    bool takeOption(const OptionSpec& spec) {
        if (!spec.value)
            return store(spec, "");
        if (m_next == m_words.size())
            return fail("--" + std::string(spec.name) + " needs a value: " + spec.value);
        return store(spec, m_words[m_next++]);
    }

    bool store(const OptionSpec& spec, const std::string& value) {
        const std::string name = spec.name;
        if (!m_global) {
            m_result.options[name] = value;
            m_result.given.emplace_back(name, value);
            return true;
        }
        if (name == "json")
            m_result.json = true;
        else if (name == "help")
            m_result.help = true;
        else if (name == "version")
            m_result.version = true;
        else if (name == "app")
            return takeApplication(value);
        else if (name == "manual")
            m_result.manual = true;
        else if (name == "complete")
            return takeTyped(value);
        else if (!parseCount(value, m_result.timeoutSeconds))
            return fail("--timeout takes a whole number of seconds from 1 to 1000000, not \"" + value + "\"");
        return true;
    }

    bool takeTyped(const std::string& first) {
        m_result.completes = true;
        m_result.typed = {first};
        m_result.typed.insert(m_result.typed.end(), m_words.begin() + static_cast<std::ptrdiff_t>(m_next),
                              m_words.end());
        m_next = m_words.size();
        m_result.app = applicationIn(m_result.typed);
        return true;
    }

    bool takeApplication(const std::string& id) {
        m_result.app = id;
        return isApplicationId(id) ||
               fail("--app takes an application id of letters, digits, '.', '_' and '-', not \"" + id + "\"");
    }

    bool unknown(const std::string& word) {
        const std::string where =
            m_result.verb ? "`pubsubctl " + verbName(*m_result.verb) + " --help`" : "`pubsubctl --help`";
        return fail("unknown option " + word + "; see " + where +
                    " (write -- before text that begins with a dash)");
    }

    bool finish() {
        if (!m_result.verb && !m_verbWords.empty())
            m_result.group = m_verbWords[0];
        if (m_result.help || m_result.version || m_result.manual || m_result.completes)
            return true;
        if (!m_result.verb)
            return m_verbWords.empty() ? fail("no verb given; `pubsubctl --help` lists them")
                                       : fail("\"" + m_verbWords[0] + "\" needs a second word:\n" +
                                              verbLines(m_verbs, m_verbWords[0]));
        const Verb& verb = *m_result.verb;
        const std::string usage = "usage: pubsubctl " + verbName(verb) + " " + verb.usage;
        if (m_result.arguments.size() < verb.minArguments)
            return fail("an argument is missing; " + usage);
        if (m_result.arguments.size() > verb.maxArguments)
            return fail("one argument too many: \"" + m_result.arguments[verb.maxArguments] + "\"; " + usage);
        return true;
    }

    bool fail(const std::string& problem) {
        m_problem = problem;
        return false;
    }

    const std::vector<std::string>& m_words;
    const std::vector<Verb>& m_verbs;
    Invocation& m_result;
    std::string& m_problem;
    std::vector<std::string> m_verbWords;
    size_t m_next = 0;
    bool m_onlyArguments = false;
    bool m_global = false;  // where lookUp found the last option
};

std::string optionLine(const OptionSpec& option) {
    std::string left = option.letter ? std::string("-") + option.letter + ", " : "";
    left += "--" + std::string(option.name) + (option.value ? std::string(" ") + option.value : "");
    left.resize(std::max<size_t>(left.size() + 2, 26), ' ');
    return "  " + left + option.help + "\n";
}

std::string optionLines(std::span<const OptionSpec> options) {
    std::string text;
    for (const OptionSpec& option : options)
        text += optionLine(option);
    return text;
}

}  // namespace

std::span<const OptionSpec> globalOptions() {
    return kGlobalOptions;
}

std::string verbName(const Verb& verb) {
    std::string name;
    for (const char* word : verb.words)
        name += (name.empty() ? "" : " ") + std::string(word);
    return name;
}

std::string Invocation::value(const char* option) const {
    auto found = options.find(option);
    return found == options.end() ? "" : found->second;
}

std::vector<std::string> Invocation::values(const char* option) const {
    std::vector<std::string> list;
    for (const auto& [name, text] : given) {
        if (name == option)
            list.push_back(text);
    }
    return list;
}

bool parseCount(const std::string& text, unsigned& value) {
    unsigned parsed = 0;
    auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (fault != std::errc() || end != text.data() + text.size() || parsed == 0 || parsed > 1000000)
        return false;
    value = parsed;
    return true;
}

bool parseArguments(const std::vector<std::string>& words, const std::vector<Verb>& verbs,
                    Invocation& invocation, std::string& problem) {
    return Reader(words, verbs, invocation, problem).read();
}

std::string overview(const std::vector<Verb>& verbs) {
    std::string text = "usage: pubsubctl [OPTION...] VERB ...\n\nVerbs:\n" + verbLines(verbs);
    text += "\nOptions:\n" + optionLines(kGlobalOptions);
    text +=
        "\nExit codes: 0 done, 1 a command failed, 2 wrong usage, 3 refused by the service, 4 not connected, "
        "5 timed out.\n"
        "ZELT_PRIVATE_BUS and ZELT_PUBLIC_BUS say where the buses are, PUBSUB_HTTP_URL or HTTP_URL where to\n"
        "publish with a key.\n";
    return text;
}

std::string groupText(const std::vector<Verb>& verbs, const std::string& group) {
    return "usage: pubsubctl [OPTION...] " + group + " ...\n\nVerbs:\n" + verbLines(verbs, group) +
           "\n`pubsubctl " + group + " VERB --help` explains one.\n";
}

std::string helpText(const Verb& verb) {
    std::string text = "usage: pubsubctl " + verbName(verb) + " " + verb.usage + "\n\n" + verb.help + "\n";
    if (!verb.options.empty())
        text += "\nOptions:\n" + optionLines(verb.options);
    return text + "\nGlobal options, before the verb:\n" + optionLines(kGlobalOptions);
}
