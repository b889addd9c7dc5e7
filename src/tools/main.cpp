// SPDX-License-Identifier: GPL-3.0-only
// pubsubctl: the command line of the push connection. Parses the arguments, runs one verb, exits
// with its code.
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "tools/manual.h"
#include "tools/verbs.h"

namespace {

// The service looks for the application id in the environment that the kernel shows of this process, which is
// fixed when a program starts: so this one executes itself again. Returns only when nothing needs to be done
// or on failure.
bool takeApplicationId(const std::string& id, char** argv) {
    const char* present = std::getenv("ZELT_APP_ID");
    if (id.empty() || (present && id == present))
        return true;
    setenv("ZELT_APP_ID", id.c_str(), 1);
    execv("/proc/self/exe", argv);
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    // A closed pipe ends a verb by a failed write, so that it can still clean up after itself.
    std::signal(SIGPIPE, SIG_IGN);
    Invocation invocation;
    std::string problem;
    const bool understood = parseArguments({argv + 1, argv + argc}, allVerbs(), invocation, problem);
    Console console(std::cin, std::cout, std::cerr, invocation.json,
                    {isatty(STDOUT_FILENO) == 1, isatty(STDERR_FILENO) == 1, isatty(STDIN_FILENO) == 1});
    if (!understood)
        return static_cast<int>(console.usage(problem));
    if (!takeApplicationId(invocation.app, argv)) {
        console.message(std::string("cannot execute pubsubctl again for --app: ") + std::strerror(errno));
        return static_cast<int>(Exit::NotConnected);
    }
    if (invocation.help)
        std::cout << (invocation.verb            ? helpText(*invocation.verb)
                      : invocation.group.empty() ? overview(allVerbs())
                                                 : groupText(allVerbs(), invocation.group));
    else if (invocation.version)
        std::cout << "pubsubctl " << PUBSUB_VERSION << "\n";
    else if (invocation.manual)
        std::cout << manualText(allVerbs());
    else if (invocation.completes)
        return static_cast<int>(runComplete(invocation, console));
    else
        return static_cast<int>(invocation.verb->run(invocation, console));
    return 0;
}
