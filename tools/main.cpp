// SPDX-License-Identifier: GPL-3.0-only
// pubsubctl: the command line of the push connection. Reads the command line, runs one verb, ends with its
// code.
#include <csignal>
#include <iostream>

#include "tools/verbs.h"

int main(int argc, char** argv) {
    // A reader that goes away ends a verb by a failed write, so that it can still clean up after itself.
    std::signal(SIGPIPE, SIG_IGN);
    Invocation invocation;
    std::string problem;
    bool understood = parseArguments({argv + 1, argv + argc}, allVerbs(), invocation, problem);
    Console console(std::cin, std::cout, std::cerr, invocation.json);
    if (!understood)
        return static_cast<int>(console.usage(problem));
    if (invocation.help)
        std::cout << (invocation.verb ? helpText(*invocation.verb) : overview(allVerbs()));
    else if (invocation.version)
        std::cout << "pubsubctl " << PUBSUB_VERSION << "\n";
    else
        return static_cast<int>(invocation.verb->run(invocation, console));
    return 0;
}
