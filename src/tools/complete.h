// SPDX-License-Identifier: GPL-3.0-only
// What may stand for the last word of a command line, for the shells: words of the table of verbs, and names that the
// service that runs knows. Keeps no state.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/arguments.h"

struct Candidate {
    std::string text;
    std::string help;
};

// What the shell has to look up itself, in place of a candidate.
inline constexpr char kAnyFile[] = ":file";
inline constexpr char kAnyCommand[] = ":command";

// Where names come from; each is asked at most once, and only when it is needed.
struct NameSources {
    std::function<std::vector<std::string>()> nodes;
    std::function<std::vector<std::string>()> endpoints;      // of the calling application
    std::function<std::vector<std::string>()> registrations;  // of the session, for push messages
};

// `words` is the command line without the program's name; its last one is still being typed, and may be "".
std::vector<Candidate> candidates(const std::vector<std::string>& words, const std::vector<Verb>& verbs,
                                  const NameSources& sources);
// The value of --app in such a command line; "" without it.
std::string applicationIn(const std::vector<std::string>& words);
