// SPDX-License-Identifier: GPL-3.0-only
// A command that is run for each item, with the item on its standard input. Keeps the process that runs.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tools/client.h"

class Command {
  public:
    explicit Command(std::vector<std::string> words) : m_words(std::move(words)) {}

    bool given() const { return !m_words.empty(); }
    const std::string& name() const { return m_words[0]; }
    // Whether there is such a program; checked before any item is received for it.
    bool exists() const;
    // Runs it to its end while the bus is served. False with the reason when it failed.
    bool run(const std::string& input, BusClient& client, std::string& problem);
    // Passes a signal on to the process, when one runs.
    void signal(int number) const;

  private:
    pid_t start(int input);
    int waitForEnd(BusClient& client);
    std::vector<std::string> m_words;
    pid_t m_process = 0;
};
