// SPDX-License-Identifier: GPL-3.0-only
// Reads the words before the last one as the command line is read, without refusing any.
#include "tools/complete.h"

#include <glib.h>

#include <algorithm>
#include <sstream>

namespace {

// What the words before the last one are, as far as they go.
struct Typed {
    const Verb* verb = nullptr;
    std::vector<std::string> verbWords;   // of a verb that is not complete
    const OptionSpec* waiting = nullptr;  // an option whose value is the next word
    size_t arguments = 0;
    bool onlyArguments = false;  // after --
};

const OptionSpec* optionOf(const std::string& word, const Verb* verb) {
    const auto matches = [&word](const OptionSpec& option) {
        return word == std::string("--") + option.name ||
               (option.letter && word == std::string("-") + option.letter);
    };
    if (verb) {
        const auto own = std::find_if(verb->options.begin(), verb->options.end(), matches);
        if (own != verb->options.end())
            return &*own;
    }
    const auto options = globalOptions();
    const auto global = std::find_if(options.begin(), options.end(), matches);
    return global == options.end() ? nullptr : &*global;
}

bool beginsWith(const Verb& verb, const std::vector<std::string>& words) {
    return words.size() <= verb.words.size() &&
           std::equal(words.begin(), words.end(), verb.words.begin(),
                      [](const std::string& word, const char* other) { return word == other; });
}

void takePlain(const std::string& word, const std::vector<Verb>& verbs, Typed& typed) {
    if (typed.verb) {
        ++typed.arguments;
        return;
    }
    typed.verbWords.push_back(word);
    for (const Verb& verb : verbs) {
        if (verb.words.size() == typed.verbWords.size() && beginsWith(verb, typed.verbWords))
            typed.verb = &verb;
    }
}

Typed read(const std::vector<std::string>& words, const std::vector<Verb>& verbs) {
    Typed typed;
    for (size_t i = 0; i + 1 < words.size(); ++i) {
        const std::string& word = words[i];
        if (typed.waiting)
            typed.waiting = nullptr;
        else if (!typed.onlyArguments && word == "--")
            typed.onlyArguments = true;
        else if (typed.onlyArguments || word.size() < 2 || word[0] != '-')
            takePlain(word, verbs, typed);
        else if (const OptionSpec* option = optionOf(word, typed.verb))
            typed.waiting = option->value ? option : nullptr;
    }
    return typed;
}

void addNames(const std::vector<std::string>& names, std::vector<Candidate>& found) {
    for (const std::string& name : names)
        found.push_back({name});
}

// For the name of a value in the help: NODE, ENDPOINT, FILE, or a choice of words.
void addValues(const std::string& kind, const Verb* verb, const NameSources& sources,
               std::vector<Candidate>& found) {
    std::istringstream kinds(kind);
    std::string each;
    while (std::getline(kinds, each, '|')) {
        if (each == "NODE")
            addNames(sources.nodes(), found);
        else if (each == "ENDPOINT" && verb->words[0] == std::string("push"))
            addNames(sources.registrations(), found);
        else if (each == "ENDPOINT")
            addNames(sources.endpoints(), found);
        else if (each == "FILE")
            found.push_back({kAnyFile});
        else if (std::none_of(each.begin(), each.end(), [](char letter) { return g_ascii_isupper(letter); }))
            found.push_back({each});
    }
}

void addOptions(std::span<const OptionSpec> options, std::vector<Candidate>& found) {
    for (const OptionSpec& option : options)
        found.push_back({std::string("--") + option.name, option.help});
}

void addVerbWords(const std::vector<Verb>& verbs, const Typed& typed, std::vector<Candidate>& found) {
    const size_t at = typed.verbWords.size();
    for (const Verb& verb : verbs) {
        if (!beginsWith(verb, typed.verbWords) || verb.words.size() <= at)
            continue;
        const bool isGroup = verb.words.size() > at + 1;
        if (!found.empty() && found.back().text == verb.words[at])
            continue;
        found.push_back({verb.words[at], isGroup ? "several verbs" : verb.help});
    }
}

// The first argument is the first word of the usage, "NODE ..." or "[NODE...] ...", unless that is an option.
void addArguments(const Typed& typed, const NameSources& sources, std::vector<Candidate>& found) {
    const std::string usage = typed.verb->usage;
    const std::string kind = usage.substr(usage.starts_with("[") ? 1 : 0);
    if (typed.onlyArguments && typed.verb->takesCommand)
        found.push_back({kAnyCommand});
    else if (!kind.starts_with("-") && (typed.arguments == 0 || usage.starts_with("[NODE...]")))
        addValues(kind.substr(0, kind.find_first_of(" .]")), typed.verb, sources, found);
}

}  // namespace

std::vector<Candidate> candidates(const std::vector<std::string>& words, const std::vector<Verb>& verbs,
                                  const NameSources& sources) {
    const std::string last = words.empty() ? "" : words.back();
    const Typed typed = read(words, verbs);
    std::vector<Candidate> found;
    if (typed.waiting)
        addValues(typed.waiting->value, typed.verb, sources, found);
    else if (!typed.onlyArguments && last.starts_with("-")) {
        if (typed.verb)
            addOptions(typed.verb->options, found);
        addOptions(globalOptions(), found);
    } else if (typed.verb)
        addArguments(typed, sources, found);
    else
        addVerbWords(verbs, typed, found);
    std::erase_if(found, [&last](const Candidate& each) {
        return !each.text.starts_with(last) && !each.text.starts_with(":");
    });
    return found;
}

std::string applicationIn(const std::vector<std::string>& words) {
    const auto option = std::find(words.begin(), words.end(), "--app");
    return words.end() - option > 1 ? *(option + 1) : "";
}
