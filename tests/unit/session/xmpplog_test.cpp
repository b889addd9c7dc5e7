// SPDX-License-Identifier: GPL-3.0-only
// The XMPP library's own log: where its lines go, and when the session requests them.
#include <gloox/logsink.h>

#include "tests/fakes/servicefixture.h"
#include "xmpp/client.h"

namespace {

constexpr char kLine[] = "handleLog: Gloox dbg: a line";

class LibraryLog : public ServiceTest {
  protected:
    void logOnce(gloox::LogLevel level, gloox::LogArea area) {
        session().m_client->logInstance().log(level, area, "a line");
    }
    static gloox::LogArea area(unsigned bit) { return static_cast<gloox::LogArea>(1u << bit); }
};

TEST_F(LibraryLog, IsWrittenWithoutItsLevelAndArea) {
    session().handleLog(gloox::LogLevelDebug, gloox::LogAreaXmlIncoming, "a line");
    session().handleLog(gloox::LogLevelError, gloox::LogAreaClassClient, "a line");
    EXPECT_EQ(takeLogLines(), (Texts{kLine, kLine}));
}

TEST_F(LibraryLog, IsNoFormat) {
    session().handleLog(gloox::LogLevelDebug, gloox::LogAreaXmlIncoming, "100%s %n");
    EXPECT_EQ(takeLogLines(), Texts{"handleLog: Gloox dbg: 100%s %n"});
}

TEST_F(LibraryLog, IsCutLikeEveryOtherLine) {
    session().handleLog(gloox::LogLevelDebug, gloox::LogAreaXmlIncoming, std::string(600, 'x'));
    EXPECT_EQ(takeLog(), Texts{("Gloox dbg: " + std::string(600, 'x')).substr(0, 511)});
}

TEST_F(LibraryLog, OfEveryAreaAndLevelIsTakenWhenAskedFor) {
    session().m_debugLog = true;
    connectSession();
    for (unsigned bit = 0; bit < 24; ++bit) {
        logOnce(gloox::LogLevelDebug, area(bit));
        EXPECT_EQ(takeLogLines(), Texts{kLine}) << "area " << bit;
    }
    for (gloox::LogLevel level : {gloox::LogLevelDebug, gloox::LogLevelWarning, gloox::LogLevelError}) {
        logOnce(level, gloox::LogAreaXmlOutgoing);
        EXPECT_EQ(takeLogLines(), Texts{kLine}) << "level " << level;
    }
}

TEST_F(LibraryLog, IsNotTakenByASessionAsItIsMade) {
    EXPECT_FALSE(PubSubSession().m_debugLog);
    connectSession();
    logOnce(gloox::LogLevelError, gloox::LogAreaClassClient);
    EXPECT_EQ(takeLogLines(), Texts{});
}

}  // namespace
