// SPDX-License-Identifier: GPL-3.0-only
// The account file. The token is never logged.
#include "platform/host/account.h"

#include <fcntl.h>
#include <glib.h>
#include <glib/gstdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "util/jsonref.h"

namespace {

constexpr size_t kLongestFile = 65536;
constexpr char kHowToSet[] = "set the account with `zelt-host account set`";

struct Member {
    const char* key;
    std::string Account::*value;
};
constexpr Member kMembers[] = {
    {.key = "user", .value = &Account::user},
    {.key = "service", .value = &Account::service},
    {.key = "url", .value = &Account::url},
    {.key = "port", .value = &Account::port},
};

bool isTrusted(int descriptor, const std::string& path, std::string& problem) {
    struct stat status = {};
    if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode))
        problem = path + " is not a regular file; " + kHowToSet;
    else if (status.st_mode & 077)
        problem =
            path + " is readable by users other than its owner; `chmod 600` it and have the token changed";
    else if (status.st_uid != geteuid() && status.st_uid != 0)
        problem = path + " belongs to another user; `chown` it to the user of this daemon";
    return problem.empty();
}

std::string readAll(int descriptor) {
    std::string text;
    char block[4096];
    for (ssize_t count; text.size() < kLongestFile && (count = read(descriptor, block, sizeof block)) > 0;)
        text.append(block, static_cast<size_t>(count));
    return text;
}

// A port may also be a number.
std::string textOf(json_object* object, const char* key) {
    const char* text = json_object_get_string(jsonMember(object, key));
    return text ? text : "";
}

bool isPort(const std::string& text) {
    unsigned port = 0;
    auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), port);
    return fault == std::errc() && end == text.data() + text.size() && port > 0 && port < 65536;
}

// Clients remove quotes and backslashes from what they read, so a value with one would reach them changed.
bool isPlain(const std::string& text) {
    for (const unsigned char c : text) {
        if (c < 0x20 || c == 0x7f || c == '"' || c == '\\')
            return false;
    }
    return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr);
}

JsonObject withMembers(const Account& account) {
    JsonObject object;
    for (const Member& member : kMembers)
        object.set(member.key, account.*member.value);
    return object;
}

// Root writes the file for a daemon that has a user of its own. As that user, who owns the folder: what the
// daemon puts there leads root nowhere else.
class AsOwnerOf {
  public:
    explicit AsOwnerOf(const char* folder) {
        struct stat status = {};
        m_changed = geteuid() == 0 && stat(folder, &status) == 0 && status.st_uid != 0;
        if (m_changed && (setegid(status.st_gid) != 0 || seteuid(status.st_uid) != 0))
            std::abort();  // root may become anybody
    }
    ~AsOwnerOf() {
        if (m_changed && (seteuid(0) != 0 || setegid(getgid()) != 0))
            std::abort();  // and with a saved id of root itself again
    }
    AsOwnerOf(const AsOwnerOf&) = delete;
    AsOwnerOf& operator=(const AsOwnerOf&) = delete;

  private:
    bool m_changed = false;
};

}  // namespace

bool checkAccount(const Account& account, std::string& problem) {
    for (const Member& member : kMembers) {
        if ((account.*member.value).empty())
            problem = std::string("the account has no ") + member.key;
        else if (!isPlain(account.*member.value))
            problem = std::string("the account's ") + member.key +
                      " contains a quote, a backslash or a control character";
    }
    if (account.token.empty())
        problem = "the account has no token";
    else if (!isPlain(account.token))
        problem = "the account's token contains a quote, a backslash or a control character";
    if (problem.empty() && !isPort(account.port))
        problem = "the account's port must be a number from 1 to 65535";
    return problem.empty();
}

bool readAccount(const std::string& path, Account& account, std::string& problem) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
    if (descriptor < 0) {
        problem = errno == ENOENT ? std::string("no account is set; ") + kHowToSet
                                  : "cannot read " + path + ": " + strerror(errno);
        return false;
    }
    JsonRef object;
    if (isTrusted(descriptor, path, problem))
        object = parseJson(readAll(descriptor).c_str());
    close(descriptor);
    if (!problem.empty())
        return false;
    for (const Member& member : kMembers)
        account.*member.value = textOf(object.get(), member.key);
    account.token = textOf(object.get(), "token");
    if (!checkAccount(account, problem))
        problem = path + ": " + problem + "; " + kHowToSet;
    return problem.empty();
}

bool writeAccount(const std::string& path, const Account& account, std::string& problem) {
    if (!checkAccount(account, problem))
        return false;
    const std::string text = withMembers(account).set("token", account.token).line() + "\n";
    gchar* folder = g_path_get_dirname(path.c_str());
    g_mkdir_with_parents(folder, 0750);
    // The new file gets the mode of the old one; the token must not be readable even for a moment.
    g_chmod(path.c_str(), 0600);
    const AsOwnerOf owner(folder);
    g_free(folder);
    GError* error = nullptr;
    auto flags =
        static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    if (g_file_set_contents_full(path.c_str(), text.c_str(), static_cast<gssize>(text.size()), flags, 0600,
                                 &error))
        return true;
    problem = std::string("cannot write the account: ") + error->message;
    g_error_free(error);
    return false;
}

std::string accountPayload(const Account& account) {
    return JsonObject()
        .set("returnValue", true)
        .set("jabberId", withMembers(account).line())
        .set("uniqueId", account.token)
        .line();
}
