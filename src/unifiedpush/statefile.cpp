// SPDX-License-Identifier: GPL-3.0-only
// The state as JSON. A file that is damaged is kept beside the new one, since it may hold what a person can
// still use.
#include "unifiedpush/statefile.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "util/jsonref.h"
#include "util/log.h"

namespace {

constexpr int kFormat = 1;
constexpr int64_t kDay = 24 * 60 * 60;
constexpr off_t kLargest = 16 << 20;
constexpr mode_t kFileMode = 0600;
constexpr int kFolderMode = 0700;

class File {
  public:
    explicit File(int descriptor) : m_descriptor(descriptor) {}
    ~File() { close(); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    bool isOpen() const { return m_descriptor >= 0; }
    int get() const { return m_descriptor; }
    bool close() { return m_descriptor < 0 || ::close(std::exchange(m_descriptor, -1)) == 0; }

  private:
    int m_descriptor;
};

bool writeAll(int file, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = ::write(file, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR)
            return false;
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return true;
}

bool readAll(int file, std::string& text) {
    char block[16384];
    ssize_t count;
    while ((count = ::read(file, block, sizeof block)) != 0) {
        if (count < 0 && errno != EINTR)
            return false;
        text.append(block, count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    return true;
}

int64_t numberMember(json_object* object, const char* key) {
    return json_object_get_int64(jsonMember(object, key));
}

std::size_t lengthOf(json_object* array) {
    return json_object_is_type(array, json_type_array) ? json_object_array_length(array) : 0;
}

JsonRef registrationJson(const Registration& registration) {
    JsonObject object;
    object.set("service", registration.service)
        .set("token", registration.token)
        .set("version", registration.version)
        .set("url", registration.url)
        .set("announced", registration.announced)
        .set("newest", registration.newest);
    if (!registration.vapid.empty())
        object.set("vapid", registration.vapid);
    if (!registration.description.empty())
        object.set("description", registration.description);
    return object.release();
}

// False when it is none that `Register` would have accepted.
bool readRegistration(json_object* object, Registration& registration) {
    registration.service = textMember(object, "service");
    registration.token = textMember(object, "token");
    registration.vapid = textMember(object, "vapid");
    registration.description = textMember(object, "description");
    registration.url = isUrl(textMember(object, "url")) ? textMember(object, "url") : "";
    registration.version = numberMember(object, "version") == 1 ? 1 : 2;
    registration.announced = boolMember(object, "announced");
    registration.newest = boolMember(object, "newest", true);
    return isServiceName(registration.service) && isToken(registration.token) &&
           isDescription(registration.description) &&
           (registration.vapid.empty() || isVapidKey(registration.vapid));
}

JsonRef agesJson(const std::map<std::string, Age>& ages) {
    JsonObject object;
    for (const auto& [name, age] : ages) {
        JsonObject entry;
        entry.set("days", age.days).set("counted", age.counted);
        object.set(name.c_str(), entry.release());
    }
    return object.release();
}

void readAges(json_object* object, std::map<std::string, Age>& ages) {
    if (!json_object_is_type(object, json_type_object))
        return;
    json_object_object_foreach(object, name, entry) {
        ages[name] = {static_cast<int>(numberMember(entry, "days")), numberMember(entry, "counted")};
    }
}

std::string stateText(const State& state) {
    JsonArray registrations, deleting;
    for (const auto& [endpoint, registration] : state.registrations)
        registrations.add(registrationJson(registration));
    for (const std::string& endpoint : state.deleting)
        deleting.add(endpoint);
    JsonObject object;
    object.set("format", kFormat)
        .set("registrations", registrations.release())
        .set("deleting", deleting.release())
        .set("absent", agesJson(state.absent))
        .set("unclaimed", agesJson(state.unclaimed));
    return object.line() + "\n";
}

// False when any part of it is not what stateText() writes; the rest is read all the same.
bool readState(json_object* object, State& state) {
    json_object* registrations = jsonMember(object, "registrations");
    json_object* deleting = jsonMember(object, "deleting");
    bool whole = json_object_is_type(registrations, json_type_array);
    for (std::size_t i = 0; i < lengthOf(registrations); ++i) {
        Registration registration;
        if (readRegistration(json_object_array_get_idx(registrations, i), registration))
            state.registrations[registration.endpoint()] = registration;
        else
            whole = false;
    }
    for (std::size_t i = 0; i < lengthOf(deleting); ++i) {
        json_object* entry = json_object_array_get_idx(deleting, i);
        const std::string endpoint =
            json_object_is_type(entry, json_type_string) ? json_object_get_string(entry) : "";
        if (isEndpointName(endpoint))
            state.deleting.insert(endpoint);
    }
    readAges(jsonMember(object, "absent"), state.absent);
    readAges(jsonMember(object, "unclaimed"), state.unclaimed);
    return whole;
}

bool setAside(const std::string& path) {
    std::string aside;
    for (unsigned number = 1; number < 1000; ++number) {
        aside = path + ".damaged-" + std::to_string(number);
        if (access(aside.c_str(), F_OK) != 0)
            break;
    }
    if (rename(path.c_str(), aside.c_str()) != 0)
        return false;
    PrvPrintErr({},
                "%s is damaged. What could not be read has to be registered again; the file is kept as %s",
                path.c_str(), aside.c_str());
    return true;
}

}  // namespace

void Age::count(int64_t now) {
    if (counted == 0 || now < counted) {
        counted = now;
    } else if (now - counted >= kDay) {
        ++days;
        counted = now;
    }
}

std::string stateFolder() {
    const char* home = std::getenv("XDG_STATE_HOME");
    // The XDG base directories are absolute; a relative path is to be ignored.
    if (home && home[0] == '/')
        return std::string(home) + "/zelt-unifiedpush";
    return std::string(g_get_home_dir()) + "/.local/state/zelt-unifiedpush";
}

bool StateFile::load(State& state, std::string& problem) const {
    File file(::open(path().c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!file.isOpen() && errno == ENOENT)
        return true;
    struct stat info = {};
    std::string text;
    if (!file.isOpen() || fstat(file.get(), &info) != 0 ||
        (S_ISREG(info.st_mode) && info.st_size <= kLargest && !readAll(file.get(), text))) {
        problem = "cannot read " + path() + ": " + std::strerror(errno);
        return false;
    }
    const JsonRef json = parseWholeJson(text);
    if (numberMember(json.get(), "format") > kFormat) {
        problem = path() + " was written by a newer version; install that one, or move the file away";
        return false;
    }
    if (numberMember(json.get(), "format") == kFormat && readState(json.get(), state))
        return true;
    if (setAside(path())) {
        save(state);
        return true;
    }
    problem = path() + " is damaged and cannot be moved away: " + std::strerror(errno);
    return false;
}

bool StateFile::write(const std::string& file, const std::string& text) const {
    if (g_mkdir_with_parents(m_folder.c_str(), kFolderMode) != 0)
        return false;
    File out(::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kFileMode));
    return out.isOpen() && fchmod(out.get(), kFileMode) == 0 && writeAll(out.get(), text) &&
           fsync(out.get()) == 0 && out.close();
}

bool StateFile::save(const State& state) const {
    const std::string unfinished = path() + ".new";
    if (!write(unfinished, stateText(state)) || rename(unfinished.c_str(), path().c_str()) != 0) {
        PrvPrintErr({}, "Writing %s failed: %s", path().c_str(), std::strerror(errno));
        unlink(unfinished.c_str());
        return false;
    }
    const File folder(::open(m_folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder.isOpen() && fsync(folder.get()) == 0;
}
