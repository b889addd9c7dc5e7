// SPDX-License-Identifier: GPL-3.0-only
// The account command. The token is not an argument: every user of a machine can read the arguments
// of a process.
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
constexpr Option kOptions[] = {
    {.name = "--user", .value = &Account::user},
    {.name = "--service", .value = &Account::service},
    {.name = "--url", .value = &Account::url},
    {.name = "--port", .value = &Account::port},
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

int usageError(std::ostream& err, const std::string& problem) {
    err << "zelt-host: " << problem << "\n" << kAccountUsage;
    return 2;
}

int fail(std::ostream& err, const std::string& problem) {
    err << "zelt-host: " << problem << "\n";
    return 1;
}

int setAccount(const std::vector<std::string>& arguments, const std::string& path, std::istream& in,
               std::ostream& out, std::ostream& err) {
    Account account{.port = "5222"};
    for (size_t i = 1; i < arguments.size(); i += 2) {
        if (i + 1 == arguments.size())
            return usageError(err, arguments[i] + " needs a value");
        if (!takeOption(arguments[i], arguments[i + 1], account))
            return usageError(err, "unknown option " + arguments[i]);
    }
    if (account.user.empty() || account.service.empty())
        return usageError(err, "--user and --service are required");
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

int runAccountCommand(const std::vector<std::string>& arguments, const HostConfig& config, std::istream& in,
                      std::ostream& out, std::ostream& err) {
    const std::string& path = config.accountFile;
    if (arguments.empty())
        return usageError(err, "account needs a command: set, show or clear");
    if (arguments[0] == "set")
        return setAccount(arguments, path, in, out, err);
    if (arguments.size() > 1)
        return usageError(err, "unexpected argument: " + arguments[1]);
    if (arguments[0] == "show")
        return showAccount(path, out, err);
    if (arguments[0] == "clear")
        return clearAccount(path, err);
    return usageError(err, "unknown command " + arguments[0]);
}
