// SPDX-License-Identifier: GPL-3.0-only
// Endpoints of web push on a server without the device extension: what its push provider has given for them,
// and the messages that it waits for an answer to.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

// An endpoint's address, as it is stored.
struct _pushRegistrationStruct {
    std::string jid;          // the full JID that messages are sent to
    std::string provider;     // JID
    std::string application;  // 32 bytes in base64, as the next two: what the provider knows it by
    std::string instance;
    std::string url;
    int64_t expires = 0;  // Unix seconds
    int64_t renew = 0;    // Unix seconds: half of its time is over
    bool untold = false;  // the url has changed, and no receiver has been told
};

// Who gives endpoints of web push their addresses, as far as it is known in this connection. None: neither
// the pub-sub service nor a provider.
enum class PushBackend { Unknown, Asking, Extension, Provider, None };

struct _pushSearchStruct {
    PushBackend backend = PushBackend::Unknown;
    std::string provider;                         // JID
    std::string service;                          // id of the question to the pub-sub service
    std::string parts;                            // id of the question for what else the server has
    std::map<std::string, std::string> asked;     // id of a question -> the JID that may be the provider
    std::map<std::string, std::string> refusals;  // id of a public request that waits -> the server's refusal
    std::set<std::string> reports;                // ids of private requests that wait
};

// Tries to renew a registration, since the last success or connect.
struct _pushTriesStruct {
    unsigned count = 0;
    int64_t next = 0;  // Unix seconds
};

struct _pushRenewalStruct {
    std::map<std::string, std::string> requests;    // request id -> node
    std::map<std::string, _pushTriesStruct> tries;  // node -> renewals without success
    std::set<std::string> presences;                // providers that know of this connection
    int64_t alarm = 0;                              // Unix seconds: when it is due; 0: it is not set
};

// Where a message of a provider came from. Its provider is always answered: one that is given back, dropped or
// forgotten with its receiver is refused for now.
class PushReply {
  public:
    using Answer = std::function<void(bool taken)>;
    explicit PushReply(Answer answer, int64_t since) : m_answer(std::move(answer)), m_since(since) {}
    ~PushReply() {
        if (m_answer)
            m_answer(false);
    }
    PushReply(const PushReply&) = delete;
    PushReply& operator=(const PushReply&) = delete;

    void take() { std::exchange(m_answer, nullptr)(true); }
    int64_t since() const { return m_since; }  // boot-time clock

  private:
    Answer m_answer;
    int64_t m_since;
};
