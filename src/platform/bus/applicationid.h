// SPDX-License-Identifier: GPL-3.0-only
// Reading an application id from what the system reports about a process. Pure functions; identity.cpp
// reads the system itself.
#pragma once

#include <string>
#include <string_view>

// A unit of the control group path of a process.
struct AppUnit {
    std::string applicationId;  // "" when the process runs in no unit of the desktop form
    std::string cgroup;         // path of the unit's own group, for the check of its owner
    bool ofLogin = false;       // the unit belongs to a user's own manager
};

// The id in a unit name app[-launcher]-ID-RANDOM.scope or app[-launcher]-ID@RANDOM.service, \x escapes
// resolved; "" for any other name.
std::string applicationIdOfUnit(std::string_view unit);
// Reads the text of /proc/PID/cgroup.
AppUnit appUnitOfCgroup(std::string_view text);
// The value of `key` in the text of /proc/PID/environ; "" when it is absent.
std::string environmentValue(std::string_view environment, std::string_view key);
// The id in a security label "PREFIX" + ID; a confinement mode in brackets after it is ignored. ""
// for any other label.
std::string applicationIdOfLabel(std::string_view label, std::string_view prefix);
// The id that a table of lines "UID ID" gives to a user; "" when it has none. "#" begins a comment.
std::string applicationIdOfUser(std::string_view table, unsigned user);
