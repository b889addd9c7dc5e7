// SPDX-License-Identifier: GPL-3.0-only
// The fixture of all tests that run the service against the fakes: a new session, an empty state folder, a
// bus, a store and a server, and functions for a protocol dialogue.
//
// Every test begins with an empty journal and an empty log, and ends with three checks: every call to another
// service went over the private bus, no bus message is still held after the session has released its own, and
// each log line had the right priority for its text.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "session/pubsubsession.h"
#include "tests/fakes/fakebus.h"
#include "tests/fakes/fakeconnection.h"
#include "tests/fakes/fakeprefs.h"
#include "tests/fakes/journal.h"
#include "tests/fakes/logcapture.h"

using Texts = std::vector<std::string>;

// The answers of a bus caller. Compares as the first one: EXPECT_EQ(call(...), "{ ... }").
class Answer {
  public:
    explicit Answer(FakeMessage* message) : m_message(message) {}
    FakeMessage* message() const { return m_message; }
    // The first answer; "" when there is none yet.
    std::string text() const { return m_message->reply(); }
    const std::vector<std::string>& all() const { return m_message->answers; }
    // Whether the service keeps the request for a later answer.
    bool waiting() const { return m_message->kept() && m_message->answers.empty(); }
    bool kept() const { return m_message->kept(); }
    // Whether the request was released without an answer: the caller got a bus error.
    bool closedUnanswered() const { return m_message->closedUnanswered; }
    friend bool operator==(const Answer& answer, const std::string& text) { return answer.text() == text; }
    friend void PrintTo(const Answer& answer, std::ostream* stream) { *stream << answer.text(); }

  private:
    FakeMessage* m_message;
};

class ServiceTest : public ::testing::Test {
  protected:
    static constexpr char kJid[] = "u1234@example.org";
    static constexpr char kFullJid[] = "u1234@example.org/dev42";
    static constexpr char kResource[] = "dev42";
    static constexpr char kService[] = "pubsub.example.org";
    static constexpr char kServer[] = "xmpp.example.org";
    static constexpr char kLocalAddress[] = "192.0.2.7";

    void SetUp() override;
    void TearDown() override;

    // --- the session
    PubSubSession& session() { return gCurrentSession; }
    QSHandle* privateHandle() { return fakeBus().privateHandle(); }
    QSHandle* publicHandle() { return fakeBus().publicHandle(); }
    QSZeltService* serviceHandle() { return fakeBus().service(); }
    GMainLoop* mainLoop() { return m_loop; }
    // Sets the account's details and a network, as after a login, without a connection.
    void setAccountDetails();
    // Connects, logs in and clears what that wrote to journal, log and server.
    void connectSession();
    // The process ends and starts again: store and files stay, everything else is new (nothing is loaded).
    void restartService();
    // Runs what is ready on the main context, without waiting.
    void pump();

    // --- callers on the bus
    // Runs a handler; a caller with an application id comes over the public bus.
    Answer call(QSFilter handler, const std::string& payload, const std::string& appId = "");
    Answer callPrivate(QSFilter handler, const std::string& method, const std::string& payload,
                       const std::string& appId = "");
    Answer callPublic(QSFilter handler, const std::string& method, const std::string& payload,
                      const std::string& appId = "com.example.app 4711");
    // Allows a message to be held at the end by anyone but the session.
    void allowHeld(const Answer& answer) { m_mayStay.push_back(answer.message()); }

    // --- the server
    // The last stanza that the client wrote; fails and returns an empty one when there is none.
    SentStanza lastStanza();
    std::string lastId() { return lastStanza().id(); }
    std::size_t stanzaCount() const { return fakeServer().stanzas().size(); }
    // Expects the last stanza to read so, with "ID" in place of its id, and returns the id.
    std::string expectStanza(const std::string& xml);
    // A result of the pub-sub service under the request's id.
    void answer(const std::string& id, const std::string& xmlInside = "");
    void answerError(const std::string& id, const std::string& type, const std::string& condition,
                     const std::string& pubsubCondition = "");
    void pushItem(const std::string& node, const std::string& seqNo, const std::string& id,
                  const std::string& payloadText);
    // Any stanza from the server.
    void serverSends(const std::string& xml);

    // --- what happened
    // Takes the journal; ids of stanzas read "ID".
    Texts takeEvents();
    // Takes the texts, or the lines "function: text", that the log wrote.
    Texts takeLog() { return m_log->takeTexts(); }
    Texts takeLogLines() { return m_log->takeLines(); }
    LogCapture& log() { return *m_log; }

    const std::filesystem::path& stateFolder() const { return m_folder; }
    std::string fileText(const std::filesystem::path& path) const;
    void writeFile(const std::filesystem::path& path, const std::string& text) const;

  private:
    void dropSession();
    void freshSession();
    void checkCalls();
    void checkMessages();
    void checkPriorities();

    std::filesystem::path m_folder;
    GMainLoop* m_loop = nullptr;
    std::optional<LogCapture> m_log;
    std::vector<FakeMessage*> m_mayStay;
    unsigned m_pushes = 0;
};
