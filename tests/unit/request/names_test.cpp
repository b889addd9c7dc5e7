// SPDX-License-Identifier: GPL-3.0-only
// Node names of applications, and XMPP errors in replies and in the log.
#include "request/names.h"

#include <gloox/error.h>
#include <gloox/parser.h>
#include <gloox/taghandler.h>

#include <memory>

#include "tests/fakes/servicefixture.h"
#include "xmpp/rawerror.h"

namespace {

// An error element as the stream's parser builds it.
class ParsedError : private gloox::TagHandler {
  public:
    explicit ParsedError(const std::string& content) {
        std::string stanza = "<iq xmlns='jabber:client'>" + content + "</iq>";
        gloox::Parser(this).feed(stanza);
        m_error = std::make_unique<xmpp::RawError>(*m_stanza->findChild("error"));
    }
    const gloox::Error* get() const { return m_error.get(); }
    std::string xml() const { return std::unique_ptr<gloox::Tag>(m_error->tag())->xml(); }

  private:
    void handleTag(gloox::Tag* tag) override { m_stanza.reset(tag->clone()); }

    std::unique_ptr<gloox::Tag> m_stanza;
    std::unique_ptr<xmpp::RawError> m_error;
};

const std::string kStanza = "xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'";
const std::string kPubSub = "xmlns='http://jabber.org/protocol/pubsub#errors'";

struct ErrorTexts {
    std::string code;
    std::string text;
    friend bool operator==(const ErrorTexts&, const ErrorTexts&) = default;
    friend void PrintTo(const ErrorTexts& texts, std::ostream* out) {
        *out << texts.code << " / " << texts.text;
    }
};

ErrorTexts errorTextsOf(const gloox::Error* error, ErrorTexts texts = {"", ""}) {
    getErrorCode(error, texts.code, texts.text);
    return texts;
}

struct Mapping {
    const char* name;
    std::string error;
    ErrorTexts texts;
};

void PrintTo(const Mapping& mapping, std::ostream* out) {
    *out << mapping.name;
}

}  // namespace

class NodeName : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        setAccountDetails();
    }
    bool form(const std::string& node, const std::string& appId) {
        m_appId = appId;
        return getNodeName(node, m_full, session(), m_appId, m_errorText);
    }

    std::string m_full = "untouched";
    std::string m_appId;
    std::string m_errorText = "untouched";
};

TEST_F(NodeName, IsUserResourceApplicationAndShortName) {
    EXPECT_TRUE(form("inbox", "com.example.mail"));
    EXPECT_EQ(m_full, "/u1234/dev42/com.example.mail/inbox");
    EXPECT_EQ(m_appId, "com.example.mail");
    EXPECT_EQ(m_errorText, "untouched");
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(NodeName, LeavesOutTheProcessIdAfterTheApplication) {
    EXPECT_TRUE(form("inbox", "com.example.app 1503"));
    EXPECT_EQ(m_full, "/u1234/dev42/com.example.app/inbox");
    EXPECT_EQ(m_appId, "com.example.app");
}

TEST_F(NodeName, CutsTheApplicationAtItsFirstBlank) {
    EXPECT_TRUE(form("inbox", "com.example.app 1503 more"));
    EXPECT_EQ(m_appId, "com.example.app");
}

TEST_F(NodeName, RefusesACallerWithoutAnApplication) {
    EXPECT_FALSE(form("inbox", ""));
    EXPECT_EQ(m_errorText, "Error getting appid of calling app");
    EXPECT_EQ(m_full, "untouched");
    EXPECT_EQ(takeLogLines(), Texts{"getNodeName: Error getting appid of calling app"});
}

TEST_F(NodeName, AcceptsNinetyNineBytesAndRefusesAHundred) {
    const std::string path = "/u1234/dev42/com.example.mail/";
    const std::string longest(99 - path.size(), 'n');
    EXPECT_TRUE(form(longest, "com.example.mail"));
    EXPECT_EQ(m_full.size(), 99u);
    EXPECT_EQ(takeLogLines(), Texts{});

    EXPECT_FALSE(form(longest + "n", "com.example.mail"));
    EXPECT_EQ(m_errorText, "endpoint too long");
    EXPECT_EQ(m_full, path + longest + "n");
    EXPECT_EQ(takeLogLines(), Texts{"getNodeName: Endpoint name too long \n"});
}

TEST_F(NodeName, CountsBytesNotCharacters) {
    const std::string path = "/u1234/dev42/com.example.mail/";
    const std::string short98(98 - path.size(), 'n');
    EXPECT_FALSE(form(short98 + "\xc3\xa4", "com.example.mail"));
    EXPECT_EQ(m_errorText, "endpoint too long");
}

TEST_F(NodeName, AcceptsAnEmptyShortName) {
    EXPECT_TRUE(form("", "com.example.mail"));
    EXPECT_EQ(m_full, "/u1234/dev42/com.example.mail/");
}

TEST_F(NodeName, TakesAShortNameWithSlashesAsAPath) {
    EXPECT_TRUE(form("a/b", "com.example.mail"));
    EXPECT_EQ(m_full, "/u1234/dev42/com.example.mail/a/b");
}

class ErrorMapping : public testing::TestWithParam<Mapping> {};

TEST_P(ErrorMapping, GivesTypeAndConditions) {
    LogCapture log;
    const ParsedError error(GetParam().error);
    EXPECT_EQ(errorTextsOf(error.get()), GetParam().texts);
    EXPECT_EQ(log.lines(), Texts{});
}

INSTANTIATE_TEST_SUITE_P(
    Errors, ErrorMapping,
    testing::Values(
        Mapping{"StanzaCondition",
                "<error type='cancel'><item-not-found " + kStanza + "/></error>",
                {"cancel", "item-not-found"}},
        Mapping{"BothConditions",
                "<error type='cancel'><feature-not-implemented " + kStanza + "/><unsupported " + kPubSub +
                    " feature='collections'/></error>",
                {"cancel", "feature-not-implemented unsupported"}},
        Mapping{"PubSubConditionFirst",
                "<error type='auth'><presence-subscription-required " + kPubSub + "/><not-authorized " +
                    kStanza + "/></error>",
                {"auth", "not-authorized presence-subscription-required"}},
        Mapping{"TextBeforeTheCondition",
                "<error type='wait'><text " + kStanza + ">Later</text><resource-constraint " + kStanza +
                    "/></error>",
                {"wait", "resource-constraint"}},
        Mapping{"PubSubConditionCalledText",
                "<error type='cancel'><text " + kPubSub + "/><text " + kStanza + "/><conflict " + kStanza +
                    "/></error>",
                {"cancel", "conflict text"}},
        Mapping{"TwoPubSubConditions",
                "<error type='cancel'><conflict " + kStanza + "/><nodeid-required " + kPubSub +
                    "/><unsupported " + kPubSub + "/></error>",
                {"cancel", "conflict nodeid-required"}},
        Mapping{"TwoStanzaConditions",
                "<error type='auth'><forbidden " + kStanza + "/><conflict " + kStanza + "/></error>",
                {"auth", "forbidden"}},
        Mapping{"TypeOutsideTheStandard",
                "<error type='odd'><conflict " + kStanza + "/></error>",
                {"odd", "conflict"}},
        Mapping{"PrefixedCondition",
                "<error type='modify'><s:bad-request xmlns:s='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>",
                {"modify", "bad-request"}}),
    [](const auto& test) { return test.param.name; });

TEST(ErrorCode, LeadsWithABlankWhenThereIsOnlyAPubSubCondition) {
    LogCapture log;
    const ParsedError error("<error type='cancel'><unsupported " + kPubSub + "/></error>");
    EXPECT_EQ(errorTextsOf(error.get()), (ErrorTexts{"cancel", " unsupported"}));
    EXPECT_EQ(log.lines(), Texts{"getErrorCode: Warning, there is no xmpp-stanza in error! " + error.xml()});
}

TEST(ErrorCode, AppendsAPubSubConditionToTheCallersText) {
    const LogCapture log;
    const ParsedError error("<error type='cancel'><unsupported " + kPubSub + "/></error>");
    EXPECT_EQ(errorTextsOf(error.get(), {"old", "old"}), (ErrorTexts{"cancel", "old unsupported"}));
}

TEST(ErrorCode, WarnsOfAnErrorWithoutAType) {
    LogCapture log;
    const ParsedError error("<error><conflict " + kStanza + "/></error>");
    EXPECT_EQ(errorTextsOf(error.get(), {"old", "old"}), (ErrorTexts{"", "conflict"}));
    EXPECT_EQ(log.lines(),
              Texts{"getErrorCode: Warning, there is no error Type in response " + error.xml() + "!"});
}

TEST(ErrorCode, WarnsTwiceOfAnEmptyErrorAndKeepsTheText) {
    LogCapture log;
    const ParsedError error("<error/>");
    EXPECT_EQ(errorTextsOf(error.get(), {"old", "old"}), (ErrorTexts{"", "old"}));
    EXPECT_EQ(log.lines(),
              (Texts{"getErrorCode: Warning, there is no error Type in response " + error.xml() + "!",
                     "getErrorCode: Warning, there is no xmpp-stanza in error! " + error.xml()}));
}

TEST(ErrorCode, LeavesBothTextsWithoutAnError) {
    LogCapture log;
    EXPECT_EQ(errorTextsOf(nullptr, {"code", "text"}), (ErrorTexts{"code", "text"}));
    EXPECT_EQ(log.lines(), Texts{});
}

TEST(ErrorCode, LeavesBothTextsForAnErrorWithoutAnElement) {
    const gloox::Error blank;
    EXPECT_EQ(errorTextsOf(&blank, {"code", "text"}), (ErrorTexts{"code", "text"}));
}

TEST(ErrorCode, ReadsTheLibrarysOwnErrorsToo) {
    const gloox::Error error(gloox::StanzaErrorTypeAuth, gloox::StanzaErrorForbidden);
    EXPECT_EQ(errorTextsOf(&error), (ErrorTexts{"auth", "forbidden"}));
}

TEST(PrintError, NamesTheFunction) {
    LogCapture log;
    const ParsedError error("<error type='cancel'><conflict " + kStanza + "/></error>");
    printerror(error.get(), "handleNodeCreation");
    EXPECT_EQ(log.lines(), Texts{"printerror: ERR in func handleNodeCreation: " + error.xml()});
}

TEST(PrintError, DoesWithoutAFunction) {
    LogCapture log;
    const ParsedError error("<error type='cancel'><conflict " + kStanza + "/></error>");
    printerror(error.get(), nullptr);
    EXPECT_EQ(log.lines(), Texts{"printerror: ERR : " + error.xml()});
}

TEST(PrintError, LogsNothingWithoutAnErrorOrAnElement) {
    LogCapture log;
    printerror(nullptr, "function");
    const gloox::Error blank;
    printerror(&blank, "function");
    EXPECT_EQ(log.lines(), Texts{});
}
