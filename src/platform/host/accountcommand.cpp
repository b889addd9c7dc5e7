// SPDX-License-Identifier: GPL-3.0-only
// The account command. The token is no argument: every user of a machine can read the arguments of a process.
#include "platform/host/accountcommand.h"

#include <glib/gstdio.h>

#include <cerrno>
#include <cstring>

#include "platform/host/account.h"

const char kAccountUsage[] =
    "usage: zelt-host account set --user NAME --service DOMAIN [--url HOST] [--port PORT]\n"
    "           writes the account; the token is the first line of standard input\n"
    "       zelt-host account show\n"
    "           prints the account without its token\n"
    "       zelt-host account clear\n"
    "           removes the account\n";

namespace {

struct Option {
    const char* name;
    std::string Account::*value;
};
const Option kOptions[] = {
    {"--user", &Account::user},
    {"--service", &Account::service},
    {"--url", &Account::url},
    {"--port", &Account::port},
};

bool takeOption(const std::string& name, const std::string& value, Account& account) {
    for (const Option& option : kOptions) {
        if (name == option.name) {
            account.*option.value = value;
            return true;
        }
    }
    return false;
}

int misuse(std::ostream& err, const std::string& problem) {
    err << "zelt-host: " << problem << "\n" << kAccountUsage;
    return 2;
}

int fail(std::ostream& err, const std::string& problem) {
    err << "zelt-host: " << problem << "\n";
    return 1;
}

int setAccount(const std::vector<std::string>& words, const std::string& path, std::istream& in,
               std::ostream& out, std::ostream& err) {
    Account account{.port = "5222"};
    for (size_t i = 1; i < words.size(); i += 2) {
        if (i + 1 == words.size())
            return misuse(err, words[i] + " needs a value");
        if (!takeOption(words[i], words[i + 1], account))
            return misuse(err, "unknown option " + words[i]);
    }
    if (account.user.empty() || account.service.empty())
        return misuse(err, "--user and --service are needed");
    if (account.url.empty())
        account.url = account.service;
    std::getline(in, account.token);
    std::string problem;
    if (!writeAccount(path, account, problem))
        return fail(err, problem);
    out << "account " << account.user << "@" << account.service << " written to " << path
        << "; `pubsubctl session login` uses it\n";
    return 0;
}

int showAccount(const std::string& path, std::ostream& out, std::ostream& err) {
    Account account;
    std::string problem;
    if (!readAccount(path, account, problem))
        return fail(err, problem);
    out << account.user << "@" << account.service << " at " << account.url << ":" << account.port << "\n";
    return 0;
}

int clearAccount(const std::string& path, std::ostream& err) {
    if (g_unlink(path.c_str()) == 0 || errno == ENOENT)
        return 0;
    return fail(err, "cannot remove " + path + ": " + strerror(errno));
}

}  // namespace

int runAccountCommand(const std::vector<std::string>& words, const HostConfig& config, std::istream& in,
                      std::ostream& out, std::ostream& err) {
    const std::string& path = config.accountFile;
    if (words.empty())
        return misuse(err, "account needs one word more");
    if (words[0] == "set")
        return setAccount(words, path, in, out, err);
    if (words.size() > 1)
        return misuse(err, "one argument too many: " + words[1]);
    if (words[0] == "show")
        return showAccount(path, out, err);
    if (words[0] == "clear")
        return clearAccount(path, err);
    return misuse(err, "unknown word " + words[0]);
}
