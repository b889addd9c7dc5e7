// SPDX-License-Identifier: GPL-3.0-only
// The identity of a client. The credentials come from the bus daemon, which got them from the kernel when the
// client connected; nothing that a client sends is used. The settings of the installation are read from the
// environment for each new client. No state.
#include "platform/bus/identity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sstream>
#include <vector>

#include "platform/bus/applicationid.h"
#include "util/applicationid.h"
#include "util/log.h"

namespace {

constexpr unsigned kUnknownUser = static_cast<unsigned>(-1);
constexpr unsigned kFirstLoginUser = 1000;  // below are the system's
constexpr unsigned kNobody = 65534;

bool isSwitchedOn(const char* variable) {
    const char* value = std::getenv(variable);
    return value && std::strcmp(value, "1") == 0;
}

// The whole content of a file, or "" when any part of it cannot be read. Not with a stream: a process may end
// between the open and the read, which a stream's iterator reports by an exception.
std::string fileText(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (file < 0)
        return {};
    std::string text;
    char block[4096];
    ssize_t count;
    while ((count = ::read(file, block, sizeof block)) > 0 || (count < 0 && errno == EINTR)) {
        if (count > 0)
            text.append(block, static_cast<size_t>(count));
    }
    ::close(file);
    return count < 0 ? std::string() : text;
}

std::string procText(unsigned pid, const char* file) {
    return fileText("/proc/" + std::to_string(pid) + "/" + file);
}

bool isProcessOf(const std::string& mark, unsigned user) {
    return user == kUnknownUser || mark.ends_with(' ' + std::to_string(user));
}

// Process ids are reused: what is read from the process with this id is used only if it was the same process
// before and after the reading, and belongs to the user that connected.
std::string ofOneProcess(const BusCredentials& who, std::string (*rule)(const BusCredentials&)) {
    const std::string before = busProcessMark(who.pid);
    if (before.empty() || !isProcessOf(before, who.user))
        return {};
    const std::string id = rule(who);
    return !id.empty() && busProcessMark(who.pid) == before ? id : std::string();
}

// Only root can create a control group that root owns: below a group that is delegated to a user, the user
// owns new groups. A group that is not found in one of the usual layouts is not trusted.
bool isGroupOfRoot(const std::string& cgroup) {
    for (const char* root : {"/sys/fs/cgroup", "/sys/fs/cgroup/unified", "/sys/fs/cgroup/systemd"}) {
        struct stat info;
        if (::stat((root + cgroup).c_str(), &info) == 0)
            return info.st_uid == 0;
    }
    return false;
}

std::string idInEnvironment(const BusCredentials& who) {
    const std::string id = environmentValue(procText(who.pid, "environ"), "ZELT_APP_ID");
    return isApplicationId(id) ? id : std::string();
}

std::string idFromEnvironment(const BusCredentials& who) {
    return isSwitchedOn("ZELT_APP_ID_FROM_ENVIRONMENT") ? ofOneProcess(who, idInEnvironment) : std::string();
}

std::string idFromLabel(const BusCredentials& who) {
    const char* prefix = std::getenv("ZELT_APP_ID_LABEL_PREFIX");
    return prefix ? applicationIdOfLabel(who.label, prefix) : std::string();
}

std::string idFromUser(const BusCredentials& who) {
    const char* table = std::getenv("ZELT_APP_ID_USERS");
    return table ? applicationIdOfUser(fileText(table), who.user) : std::string();
}

std::string idInUnit(const BusCredentials& who) {
    const AppUnit unit = appUnitOfCgroup(procText(who.pid, "cgroup"));
    if (unit.applicationId.empty())
        return {};
    const bool trusted =
        unit.ofLogin ? isSwitchedOn("ZELT_APP_ID_TRUST_USER_UNITS") : isGroupOfRoot(unit.cgroup);
    return trusted ? unit.applicationId : std::string();
}

std::string idFromUnit(const BusCredentials& who) {
    return ofOneProcess(who, idInUnit);
}

// No other source gives an id with "@", so a user cannot be taken for an application.
std::string idOfLoginUser(const BusCredentials& who) {
    const bool isLoginUser = who.user >= kFirstLoginUser && who.user != kNobody && who.user != kUnknownUser;
    return isLoginUser && isSwitchedOn("ZELT_APP_ID_OF_USERS") ? "@" + std::to_string(who.user)
                                                               : std::string();
}

void readField(sd_bus_message* reply, BusCredentials& who) {
    const char* key = nullptr;
    const void* bytes = nullptr;
    size_t length = 0;
    if (sd_bus_message_read(reply, "s", &key) < 0)
        return;
    if (std::strcmp(key, "ProcessID") == 0) {
        sd_bus_message_read(reply, "v", "u", &who.pid);
    } else if (std::strcmp(key, "UnixUserID") == 0) {
        sd_bus_message_read(reply, "v", "u", &who.user);
    } else if (std::strcmp(key, "LinuxSecurityLabel") == 0 &&
               sd_bus_message_enter_container(reply, 'v', "ay") > 0) {
        if (sd_bus_message_read_array(reply, 'y', &bytes, &length) > 0)
            who.label.assign(static_cast<const char*>(bytes), length);
        sd_bus_message_exit_container(reply);
    } else {
        sd_bus_message_skip(reply, "v");
    }
}

}  // namespace

std::string busProcessMark(unsigned pid) {
    // The process name may contain anything, so the fields are counted from the last bracket: the first is
    // the state, the 20th the start time.
    const std::string text = procText(pid, "stat");
    std::istringstream numbers(text.substr(std::min(text.size(), text.rfind(')') + 1)));
    std::vector<std::string> fields{std::istream_iterator<std::string>(numbers), {}};
    if (fields.size() < 20 || fields[0] == "Z" || fields[0] == "X")
        return {};
    const std::string status = procText(pid, "status");
    const size_t at = status.find("\nUid:");
    unsigned real = 0, effective = 0;
    if (at == std::string::npos || std::sscanf(status.c_str() + at, "\nUid: %u %u", &real, &effective) != 2)
        return {};
    return fields[19] + ' ' + std::to_string(effective);
}

BusCredentials busReadCredentials(sd_bus_message* reply) {
    BusCredentials who;
    if (sd_bus_message_enter_container(reply, 'a', "{sv}") <= 0)
        return who;
    while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
        readField(reply, who);
        sd_bus_message_exit_container(reply);
    }
    return who;
}

std::string busApplicationId(const BusCredentials& who) {
    if (!who.pid)
        return {};
    for (auto rule : {idFromEnvironment, idFromLabel, idFromUser, idFromUnit, idOfLoginUser}) {
        const std::string id = rule(who);
        if (!id.empty())
            return id + " " + std::to_string(who.pid);
    }
    return {};
}

void busWarnOfTrustedEnvironment() {
    static bool said = false;
    if (said || !isSwitchedOn("ZELT_APP_ID_FROM_ENVIRONMENT"))
        return;
    said = true;
    PrvPrintErr(
        {},
        "ZELT_APP_ID_FROM_ENVIRONMENT=1: every client names itself. For development only; unset it on a "
        "device");
}
