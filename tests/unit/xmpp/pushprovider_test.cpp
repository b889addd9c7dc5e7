// SPDX-License-Identifier: GPL-3.0-only
// The stanzas to and from a push provider, and what a server says that it offers.
#include <vector>

#include "tests/unit/xmpp/dialogue.h"

namespace {

const std::string kXmlns = "http://gultsch.de/xmpp/drafts/unified-push";

class RecordingPushHandler : public RecordingHandler {
  public:
    void handleFeatures(const std::string&, const gloox::JID& entity, const gloox::StringList& features,
                        const gloox::Error* error) override {
        add("features of " + entity.full(), features, error);
    }
    void handleParts(const std::string&, const gloox::JID& entity, const gloox::StringList& parts,
                     const gloox::Error* error) override {
        add("parts of " + entity.full(), parts, error);
    }
    void handlePushRegistration(const std::string&, const gloox::JID& provider, const std::string& url,
                                const std::string& expiration, const gloox::Error* error) override {
        add("address of " + provider.full(), {url, expiration}, error);
    }
    std::vector<std::string> results;

  private:
    void add(std::string result, const gloox::StringList& values, const gloox::Error* error) {
        for (const std::string& value : values)
            result += ' ' + value;
        results.push_back(result + (error ? " error" : ""));
    }
};

class PushProvider : public Dialogue {
  protected:
    PushProvider() { logIn(); }

    void answerOf(const std::string& from, const std::string& id, const std::string& content,
                  const std::string& type = "result") {
        say("<iq type='" + type + "' id='" + id + "' from='" + from + "'>" + content + "</iq>");
    }
    void takePushes() {
        client->setPushHandler([this](const xmpp::ReceivedPush& push) {
            pushes.push_back(push.id + ' ' + push.from + ' ' + push.application + ' ' + push.instance + ' ' +
                             push.payload);
        });
    }

    const gloox::JID provider{"push.example.org"};
    RecordingPushHandler results;
    std::vector<std::string> pushes;
};

TEST_F(PushProvider, IsAskedForAnAddress) {
    const std::string id = manager->registerPush(provider, "APP=", "INST=", &results);
    EXPECT_EQ(last(), "<iq to='push.example.org' id='" + id + "' type='set'><register xmlns='" + kXmlns +
                          "' application='APP=' instance='INST='/></iq>");
    answerOf("push.example.org", id,
             "<registered xmlns='" + kXmlns + "' expiration='2026-11-23T09:00:00Z' endpoint='https://p/1'/>");
    EXPECT_EQ(results.results,
              std::vector<std::string>{"address of push.example.org https://p/1 2026-11-23T09:00:00Z"});
}

TEST_F(PushProvider, ThatRefusesOrGivesNoneIsReportedWithoutAnAddress) {
    answerOf("push.example.org", manager->registerPush(provider, "A", "B", &results),
             "<error type='auth'><forbidden xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>", "error");
    answerOf("push.example.org", manager->registerPush(provider, "A", "B", &results),
             "<registered xmlns='urn:other' expiration='x' endpoint='https://p/1'/>");
    EXPECT_EQ(results.results, (std::vector<std::string>{"address of push.example.org   error",
                                                         "address of push.example.org  "}));
}

TEST_F(PushProvider, IsTheOnlyOneWhoseAnswerCounts) {
    const std::string id = manager->registerPush(provider, "A", "B", &results);
    answerOf("stranger.example.org", id, "<registered xmlns='" + kXmlns + "' endpoint='https://p/1'/>");
    EXPECT_TRUE(results.results.empty());
}

TEST_F(PushProvider, IsFoundByWhatEntitiesOffer) {
    const std::string info = manager->askFeatures(gloox::JID("example.org"), &results);
    EXPECT_EQ(last(), "<iq to='example.org' id='" + info +
                          "' type='get'><query xmlns='http://jabber.org/protocol/disco#info'/></iq>");
    answerOf("example.org", info,
             "<query xmlns='http://jabber.org/protocol/disco#info'><identity category='server'/>"
             "<feature var='a'/><feature/><feature var='" +
                 kXmlns + "'/></query>");
    const std::string items = manager->askParts(gloox::JID("example.org"), &results);
    EXPECT_EQ(last(), "<iq to='example.org' id='" + items +
                          "' type='get'><query xmlns='http://jabber.org/protocol/disco#items'/></iq>");
    answerOf("example.org", items,
             "<query xmlns='http://jabber.org/protocol/disco#items'><item jid='push.example.org' name='p'/>"
             "<item jid='rooms.example.org'/></query>");
    answerOf("example.org", manager->askParts(gloox::JID("example.org"), &results), "<other xmlns='urn:x'/>");
    EXPECT_EQ(results.results,
              (std::vector<std::string>{"features of example.org a " + kXmlns,
                                        "parts of example.org push.example.org rooms.example.org",
                                        "parts of example.org"}));
}

TEST_F(PushProvider, ItsMessageReachesTheHandlerAndIsAnswered) {
    takePushes();
    say("<iq type='set' id='m&apos;1' from='push.example.org'><push xmlns='" + kXmlns +
        "' application='A' instance='B'>aGk=</push></iq>");
    EXPECT_EQ(pushes, std::vector<std::string>{"m'1 push.example.org A B aGk="});
    EXPECT_EQ(last(), "");
    manager->answerPush({"m'1", "push.example.org"});
    EXPECT_EQ(last(), "<iq to='push.example.org' id='m&apos;1' type='result'/>");
    manager->answerPush({"m2", "push.example.org", "wait", "recipient-unavailable"});
    EXPECT_EQ(last(),
              "<iq to='push.example.org' id='m2' type='error'><error type='wait'><recipient-unavailable "
              "xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error></iq>");
}

TEST_F(PushProvider, OtherStanzasAreNoMessagesOfIt) {
    takePushes();
    say("<iq type='get' id='m1' from='push.example.org'><push xmlns='" + kXmlns + "'>aGk=</push></iq>");
    say("<iq type='set' id='m2' from='push.example.org'><push xmlns='urn:other'>aGk=</push></iq>");
    say("<message id='m3' from='push.example.org'><push xmlns='" + kXmlns + "'>aGk=</push></message>");
    EXPECT_TRUE(pushes.empty());
}

TEST_F(PushProvider, WithoutAHandlerItsMessageIsAnsweredAsUnknown) {
    say("<iq type='set' id='m1' from='push.example.org'><push xmlns='" + kXmlns + "'>aGk=</push></iq>");
    EXPECT_NE(last().find("type='error'"), std::string::npos);
}

}  // namespace
