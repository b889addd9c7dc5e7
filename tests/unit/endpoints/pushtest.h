// SPDX-License-Identifier: GPL-3.0-only
// The dialogue of an endpoint whose address comes from a push provider, on a server without the device extension.
#pragma once

#include <cstdlib>
#include <string>

#include "tests/unit/endpoints/receivetest.h"

inline const std::string kProvider = "push.example.org";
inline const std::string kPushXmlns = "http://gultsch.de/xmpp/drafts/unified-push";
inline const std::string kWebPush = R"({"endpoint":"inbox","webPush":true})";
inline const std::string kUrl = "https://push.example.org/push/1";
inline const std::string kAddress =
    R"({ "returnValue": true, "endpoint": "inbox", "url": "https:\/\/push.example.org\/push\/1" })";
inline const std::string kPushKey = "push:u1234@example.org";
inline const std::string kNodeKey = kPushKey + " " + kNode;

class PushTest : public ReceiveTest {
  protected:
    void SetUp() override {
        setenv("PUBSUB_PUSH_PROVIDER", kProvider.c_str(), 1);
        ReceiveTest::SetUp();
    }
    void TearDown() override {
        ReceiveTest::TearDown();
        unsetenv("PUBSUB_PUSH_PROVIDER");
    }

    Answer askCreate(const std::string& payload = kWebPush) {
        return ask(createEndpoint, "createEndpoint", payload);
    }

    void answerFrom(const std::string& from, const std::string& id, const std::string& inside) {
        serverSends("<iq type='result' from='" + from + "' to='" + kFullJid + "' id='" + id + "'>" + inside +
                    "</iq>");
    }
    void refuseFrom(const std::string& from, const std::string& id, const std::string& type,
                    const std::string& condition, const std::string& text = "") {
        serverSends("<iq type='error' from='" + from + "' to='" + kFullJid + "' id='" + id +
                    "'><error type='" + type + "'><" + condition +
                    " xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/>" + text + "</error></iq>");
    }
    static std::string discoStanza(const std::string& to, const std::string& what = "info") {
        return "<iq to='" + to + "' id='ID' type='get'><query xmlns='http://jabber.org/protocol/disco#" +
               what + "'/></iq>";
    }
    static std::string features(const std::string& feature) {
        return "<query xmlns='http://jabber.org/protocol/disco#info'><feature var='urn:xmpp:ping'/><feature "
               "var='" +
               feature + "'/></query>";
    }
    // The last stanza that reads so, with "ID" for its id; fails and returns "" when there is none.
    std::string idOf(const std::string& xml) {
        const auto& stanzas = fakeServer().stanzas();
        for (auto stanza = stanzas.rbegin(); stanza != stanzas.rend(); ++stanza)
            if (stanza->textWithoutId() == xml)
                return stanza->id();
        ADD_FAILURE() << "The client did not write " << xml;
        return "";
    }
    int count(const std::string& xml) const {
        int found = 0;
        for (const SentStanza& stanza : fakeServer().stanzas())
            found += stanza.textWithoutId() == xml;
        return found;
    }
    // The last request for an address.
    SentStanza lastRegister() {
        const auto& stanzas = fakeServer().stanzas();
        for (auto stanza = stanzas.rbegin(); stanza != stanzas.rend(); ++stanza)
            if (stanza->tag().findChild("register"))
                return *stanza;
        ADD_FAILURE() << "The client did not ask for an address";
        return SentStanza(gloox::Tag("none"));
    }
    int registers() const {
        int found = 0;
        for (const SentStanza& stanza : fakeServer().stanzas())
            found += stanza.tag().findChild("register") != nullptr;
        return found;
    }
    static std::string inUnixTime(int64_t seconds) {
        GDateTime* time = g_date_time_new_from_unix_utc(g_get_real_time() / G_USEC_PER_SEC + seconds);
        gchar* text = g_date_time_format(time, "%Y-%m-%dT%H:%M:%SZ");
        std::string result = text;
        g_free(text);
        g_date_time_unref(time);
        return result;
    }
    void giveAddress(const std::string& url = kUrl, int64_t lifetime = 86'400) {
        answerFrom(kProvider, lastRegister().id(),
                   "<registered xmlns='" + kPushXmlns + "' expiration='" + inUnixTime(lifetime) +
                       "' endpoint='" + url + "'/>");
    }
    // The server lacks the extension, as the service finds out with its first request.
    void lackExtension() {
        answerError(lastId(), "cancel", "service-unavailable");
        answerError(idOf(discoStanza("pubsub.example.org")), "cancel", "service-unavailable");
    }
    // An endpoint with an address; the events until then are cleared.
    void makeEndpoint() {
        const Answer created = askCreate();
        lackExtension();
        application = lastRegister().tag().findChild("register")->findAttribute("application");
        instance = lastRegister().tag().findChild("register")->findAttribute("instance");
        giveAddress();
        ASSERT_EQ(created, kAddress);
        takeEvents();
        log().clear();
        fakeServer().forgetStanzas();
    }
    void push(const std::string& id, const std::string& base64, const std::string& from = kProvider) {
        pushTo(instance, id, base64, from);
    }
    void pushTo(const std::string& to, const std::string& id, const std::string& base64,
                const std::string& from = kProvider) {
        serverSends("<iq type='set' from='" + from + "' to='" + kFullJid + "' id='" + id + "'><push xmlns='" +
                    kPushXmlns + "' application='" + application + "' instance='" + to + "'>" + base64 +
                    "</push></iq>");
    }
    // What the provider was answered: "result" or "TYPE CONDITION"; "" when nothing.
    std::string answered(const std::string& id) const {
        std::string found;
        for (const SentStanza& stanza : fakeServer().stanzas()) {
            if (stanza.id() != id || stanza.tag().name() != "iq")
                continue;
            const gloox::Tag* error = stanza.tag().findChild("error");
            found += found.empty() ? "" : ", ";
            found +=
                error ? error->findAttribute("type") + ' ' + error->children().front()->name() : "result";
        }
        return found;
    }
    static std::string member(const Answer& answer, const char* name) {
        return textMember(parseJson(answer.all().back().c_str()).get(), name);
    }
    // A receiver of the endpoint that was made.
    Answer receivePushes() {
        const Answer receiver = askReceive();
        takeEvents();
        fakeServer().forgetStanzas();
        return receiver;
    }

    std::string application, instance;
};
