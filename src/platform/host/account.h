// SPDX-License-Identifier: GPL-3.0-only
// The machine's push account: one JSON file that its owner alone may read, written by `zelt-host account
// set`.
#pragma once

#include <string>

struct Account {
    std::string user;     // local part of the JID
    std::string service;  // XMPP domain
    std::string url;      // server to connect to
    std::string port;
    std::string token;  // the password
};

// False with the words of what is wrong with the file and what to do about it.
bool readAccount(const std::string& path, Account& account, std::string& words);
// Replaces the file at once, with mode 0600.
bool writeAccount(const std::string& path, const Account& account, std::string& words);
// False with words when a value is one that clients of the account could not use.
bool checkAccount(const Account& account, std::string& words);
// The answer of getAccountToken: the account as a JSON text within the JSON answer, and the token.
std::string accountPayload(const Account& account);
