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
#include <cstring>

#include "util/jsonref.h"

namespace {

constexpr size_t kLongestFile = 65536;
constexpr int kPrintFlags = JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE;
constexpr char kSetIt[] = "set the account with `zelt-host account set`";

struct Member {
    const char* key;
    std::string Account::*value;
};
const Member kMembers[] = {
    {"user", &Account::user},
    {"service", &Account::service},
    {"url", &Account::url},
    {"port", &Account::port},
};

bool mayTrust(int descriptor, const std::string& path, std::string& words) {
    struct stat status = {};
    if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode))
        words = path + " is no regular file; " + kSetIt;
    else if (status.st_mode & 077)
        words = path + " can be read by others than its owner; `chmod 600` it and have the token changed";
    else if (status.st_uid != geteuid() && status.st_uid != 0)
        words = path + " belongs to another user; give it to the user of this daemon";
    return words.empty();
}

std::string readAll(int descriptor) {
    std::string text;
    char block[4096];
    for (ssize_t count; text.size() < kLongestFile && (count = read(descriptor, block, sizeof block)) > 0;)
        text.append(block, static_cast<size_t>(count));
    return text;
}

// A port may also stand there as a number.
std::string textOf(json_object* object, const char* key) {
    const char* text = json_object_get_string(jsonMember(object, key));
    return text ? text : "";
}

bool isPort(const std::string& text) {
    unsigned port = 0;
    auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), port);
    return fault == std::errc() && end == text.data() + text.size() && port > 0 && port < 65536;
}

// Clients strip quotes and backslashes from what they read, so a value with one would reach them damaged.
bool isPlain(const std::string& text) {
    for (const unsigned char c : text) {
        if (c < 0x20 || c == 0x7f || c == '"' || c == '\\')
            return false;
    }
    return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr);
}

void addMembers(json_object* object, const Account& account) {
    for (const Member& member : kMembers)
        json_object_object_add(object, member.key, json_object_new_string((account.*member.value).c_str()));
}

}  // namespace

bool checkAccount(const Account& account, std::string& words) {
    for (const Member& member : kMembers) {
        if ((account.*member.value).empty())
            words = std::string("the account has no ") + member.key;
        else if (!isPlain(account.*member.value))
            words = std::string("the account's ") + member.key +
                    " holds a quote, a backslash or a control character";
    }
    if (account.token.empty())
        words = "the account has no token";
    else if (!isPlain(account.token))
        words = "the account's token holds a quote, a backslash or a control character";
    if (words.empty() && !isPort(account.port))
        words = "the account's port must be a number from 1 to 65535";
    return words.empty();
}

bool readAccount(const std::string& path, Account& account, std::string& words) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
    if (descriptor < 0) {
        words = errno == ENOENT ? std::string("no account is set; ") + kSetIt
                                : "cannot read " + path + ": " + strerror(errno);
        return false;
    }
    JsonRef object;
    if (mayTrust(descriptor, path, words))
        object = parseJson(readAll(descriptor).c_str());
    close(descriptor);
    if (!words.empty())
        return false;
    for (const Member& member : kMembers)
        account.*member.value = textOf(object.get(), member.key);
    account.token = textOf(object.get(), "token");
    if (!checkAccount(account, words))
        words = path + ": " + words + "; " + kSetIt;
    return words.empty();
}

bool writeAccount(const std::string& path, const Account& account, std::string& words) {
    if (!checkAccount(account, words))
        return false;
    const JsonRef object(json_object_new_object());
    addMembers(object.get(), account);
    json_object_object_add(object.get(), "token", json_object_new_string(account.token.c_str()));
    const std::string text = std::string(json_object_to_json_string_ext(object.get(), kPrintFlags)) + "\n";
    gchar* folder = g_path_get_dirname(path.c_str());
    g_mkdir_with_parents(folder, 0750);
    g_free(folder);
    GError* error = nullptr;
    auto flags =
        static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    // An older file would hand its mode on; the token must not be readable for a moment.
    g_chmod(path.c_str(), 0600);
    if (g_file_set_contents_full(path.c_str(), text.c_str(), static_cast<gssize>(text.size()), flags, 0600,
                                 &error))
        return true;
    words = std::string("cannot write the account: ") + error->message;
    g_error_free(error);
    return false;
}

std::string accountPayload(const Account& account) {
    const JsonRef inner(json_object_new_object());
    addMembers(inner.get(), account);
    const JsonRef object(json_object_new_object());
    json_object_object_add(object.get(), "returnValue", json_object_new_boolean(true));
    json_object_object_add(object.get(), "jabberId",
                           json_object_new_string(json_object_to_json_string_ext(inner.get(), kPrintFlags)));
    json_object_object_add(object.get(), "uniqueId", json_object_new_string(account.token.c_str()));
    return json_object_to_json_string_ext(object.get(), kPrintFlags);
}
