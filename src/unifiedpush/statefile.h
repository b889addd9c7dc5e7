// SPDX-License-Identifier: GPL-3.0-only
// What the bridge keeps on disk: registrations.json in a folder of its own, mode 0600, replaced whole.
#pragma once

#include <map>
#include <set>
#include <string>

#include "unifiedpush/registration.h"

// On how many days something was seen to be so. Days on which the bridge did not run do not count, and a
// clock that jumps adds one day at the most.
struct Age {
    int days = 0;
    int64_t counted = 0;  // Unix seconds when the last day was counted

    // Counts a day when one has gone by since the last.
    void count(int64_t now);
};

struct State {
    std::map<std::string, Registration> registrations;  // by endpoint
    std::set<std::string>
        deleting;  // endpoints that the server has still to delete, before they are made anew
    std::map<std::string, Age> absent;  // applications that could not be reached, by service
    std::map<std::string, Age>
        unclaimed;  // endpoints that no registration is known for, or only an older one
};

class StateFile {
  public:
    // The file may not exist yet, nor the folder.
    explicit StateFile(std::string folder) : m_folder(std::move(folder)) {}

    // False, with what to do, when there is a file that must not be replaced. What is no state is moved
    // aside.
    bool load(State& state, std::string& problem) const;
    // On disk, also over a power cut, when it returns true; otherwise what was there is still there.
    bool save(const State& state) const;
    std::string path() const { return m_folder + "/registrations.json"; }

  private:
    bool write(const std::string& file, const std::string& text) const;
    std::string m_folder;
};

// $XDG_STATE_HOME/zelt-unifiedpush, or below ~/.local/state.
std::string stateFolder();
