// SPDX-License-Identifier: GPL-3.0-only
// The machine's push account: one JSON file that its owner alone may read, written by
// `zelt-host account set`.
#pragma once

#include <string>

struct Account {
    std::string user;     // local part of the JID
    std::string service;  // XMPP domain
    std::string url;      // server to connect to
    std::string port;
    std::string token;  // the password
};

// On failure `problem` says what is wrong with the file and what to do about it.
bool readAccount(const std::string& path, Account& account, std::string& problem);
// Replaces the file atomically, with mode 0600.
bool writeAccount(const std::string& path, const Account& account, std::string& problem);
// False with the reason for a value that clients of the account could not use.
bool checkAccount(const Account& account, std::string& problem);
// The answer of getAccountToken: the account as a JSON text within the JSON answer, and the token.
std::string accountPayload(const Account& account);
