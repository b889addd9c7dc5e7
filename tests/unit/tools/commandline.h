// SPDX-License-Identifier: GPL-3.0-only
// Runs a command line as `main` does, with streams that the test reads. What verbs print adds up over the runs.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tools/verbs.h"

class CommandLine {
  public:
    Exit run(std::vector<std::string> words) {
        Invocation invocation;
        std::string problem;
        EXPECT_TRUE(parseArguments(words, allVerbs(), invocation, problem)) << problem;
        Console console(in, out, err, invocation.json);
        return invocation.completes ? runComplete(invocation, console) : invocation.verb->run(invocation, console);
    }

    std::istringstream in;
    std::ostringstream out;
    std::ostringstream err;
};
