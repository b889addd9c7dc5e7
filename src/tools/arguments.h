// SPDX-License-Identifier: GPL-3.0-only
// The command line: the table of verbs and what may follow each. Keeps no state.
#pragma once

#include <map>
#include <span>
#include <string>
#include <vector>

#include "tools/exitcode.h"

struct Invocation;
class Console;

struct OptionSpec {
    const char* name;             // without the dashes
    char letter = 0;              // 0 when there is no short form
    const char* value = nullptr;  // the name of its value in the help; null for a switch
    const char* help;
};

struct Verb {
    std::vector<const char*> words;  // "node", "create"
    const char* usage = "";          // the arguments, for the help
    const char* help;
    size_t minArguments = 0;
    size_t maxArguments = 0;
    std::vector<OptionSpec> options = {};
    Exit (*run)(const Invocation&, Console&);
    bool takesCommand = false;  // whether -- begins a command to run, not further arguments
};

// A parsed command line. Option values are stored under the long name; a switch holds "".
struct Invocation {
    const Verb* verb = nullptr;  // null for --help and --version alone
    std::string group;           // the first word of several verbs, when no second one followed
    std::vector<std::string> arguments;
    std::map<std::string, std::string> options;
    std::vector<std::pair<std::string, std::string>> given;  // all options in order, repeated ones too
    std::vector<std::string> command;                        // what stood after --
    std::string app;                                         // the application id to call as; "" for none
    bool json = false;
    bool help = false;
    bool version = false;
    bool manual = false;
    bool completes = false;
    std::vector<std::string> typed;  // after --complete
    unsigned timeoutSeconds = 30;

    bool has(const char* option) const { return options.contains(option); }
    std::string value(const char* option) const;
    std::vector<std::string> values(const char* option) const;  // of an option that may be repeated
};

// `words` is the command line without the program's name. On failure `problem` says what to change.
bool parseArguments(const std::vector<std::string>& words, const std::vector<Verb>& verbs,
                    Invocation& invocation, std::string& problem);
// A whole number of at least 1; false for anything else.
bool parseCount(const std::string& text, unsigned& value);

// Those that stand before a verb.
std::span<const OptionSpec> globalOptions();
// "node create"
std::string verbName(const Verb& verb);
std::string overview(const std::vector<Verb>& verbs);
// The verbs that begin with a word.
std::string groupText(const std::vector<Verb>& verbs, const std::string& group);
std::string helpText(const Verb& verb);
