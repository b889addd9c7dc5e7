// SPDX-License-Identifier: GPL-3.0-only
// Published items as the server delivers them: none ends the stream, whatever the names of its elements and
// wherever the network splits it. And input that no server may send.
#include <gloox/parser.h>

#include <cstdlib>
#include <random>

#include "tests/unit/xmpp/dialogue.h"
#include "xmpp/streamparser.h"

namespace {

constexpr char kStreams[] = "xmlns:stream='http://etherx.jabber.org/streams'";

std::string messageWith(const std::string& payload) {
    return "<message from='pubsub.example.org'><event xmlns='http://jabber.org/protocol/pubsub#event'><items "
           "node='/a'><item id='1' seqNo='2'><payload>" +
           payload + "</payload></item></items></event></message>";
}

struct Case {
    const char* name;
    std::string payload;
    std::string received;  // empty: as it was sent
};

class Payload : public Dialogue, public testing::WithParamInterface<Case> {
  protected:
    Payload() {
        logIn();
        listener.events.clear();
    }
    std::string expected() const {
        const std::string& received = GetParam().received;
        return "message " + messageWith(received.empty() ? GetParam().payload : received);
    }
};

TEST_P(Payload, ArrivesAndLeavesTheStreamUp) {
    say(messageWith(GetParam().payload));
    say(messageWith("next"));
    EXPECT_EQ(listener.events, (std::vector<std::string>{expected(), "message " + messageWith("next")}));
}

TEST_P(Payload, ArrivesWhereverItIsCut) {
    const std::string message = messageWith(GetParam().payload);
    for (std::size_t cut = 1; cut < message.size(); ++cut) {
        listener.events.clear();
        say(message.substr(0, cut));
        say(message.substr(cut));
        ASSERT_EQ(listener.events, std::vector<std::string>{expected()}) << "cut at " << cut;
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, Payload,
    testing::Values(
        Case{"Header", "a<stream:stream/>b"}, Case{"OpenHeader", "<stream:stream>x</stream:stream>"},
        Case{"DeclaredHeader", std::string("<stream:stream ") + kStreams + "><b/></stream:stream>"},
        Case{"HeaderByDefault", "<stream xmlns='http://etherx.jabber.org/streams'>x</stream>"},
        Case{"UnderAnotherElementOfStreams", std::string("<stream:a ") + kStreams + "><stream/></stream:a>"},
        Case{"EndInAnElementOfStreams",
             std::string("<stream:a ") + kStreams + "><stream>x</stream></stream:a>"},
        Case{"Error", "<stream:error><conflict/></stream:error>"},
        Case{"Features", "<stream:features/><success/><proceed/><failure/>"},
        Case{"DoubleQuotesInSingleOnes", "<a b='x\"y'/>", "<a b='x&quot;y'/>"},
        Case{"BlanksInTags", "<a  b = 'c' ></a ><d />", "<a b='c'/><d/>"},
        Case{"Reference", "&#x1F600;&#128512;", "\xF0\x9F\x98\x80\xF0\x9F\x98\x80"},
        Case{"Comment", "a<!-- <b> & \" ' - -->b", "ab"}, Case{"Instruction", "a<?php <b> & ?>b", "ab"},
        Case{"CharacterData", "<![CDATA[<b>]]]]><![CDATA[>&amp;]]>", "&lt;b&gt;]]&gt;&amp;amp;"},
        Case{"Prefixes", "<p:a xmlns:p='urn:p' p:b='c'><p:d/></p:a>"}),
    [](const auto& each) { return each.param.name; });

// What the server sent as references is sent back as references.
TEST_F(Dialogue, AnItemsIdKeepsItsTabsAndLineBreaks) {
    logIn();
    listener.events.clear();
    say("<message from='pubsub.example.org'><event xmlns='http://jabber.org/protocol/pubsub#event'><items "
        "node='/a'><item id='1&#9;2&#10;3&#13;'/></items></event></message>");
    ASSERT_EQ(listener.events.size(), 1u);
    EXPECT_NE(listener.events[0].find("id='1\t2\n3\r'"), std::string::npos);
}

// --- random documents

class Documents {
  public:
    // `plain`: only what the library's own parser accepts.
    Documents(unsigned seed, bool plain) : m_random(seed), m_plain(plain) {}

    std::string content(int depth = 0) {
        std::string xml;
        for (unsigned parts = below(4); parts > 0; --parts)
            xml += below(3) == 0 || depth > 6 ? text() : element(depth);
        return xml;
    }
    unsigned below(unsigned bound) { return static_cast<unsigned>(m_random() % bound); }

  private:
    std::string element(int depth) {
        const std::string name = one(m_plain ? kPlainNames : kNames);
        std::string xml = "<" + name;
        if (name.starts_with("p:"))
            xml += " xmlns:p='urn:p'";
        if (below(4) == 0)
            xml += m_plain || below(2) ? " xmlns='urn:x'" : " xmlns='http://etherx.jabber.org/streams'";
        if (below(3) == 0)
            xml += m_plain || below(2) ? " b='c&lt;&apos;'" : " b = \"'x>\" c='\"'";
        if (below(5) == 0)
            xml += " empty=''";
        if (below(4) == 0)
            return xml + (m_plain || below(2) ? "/>" : " />");
        return xml + ">" + content(depth + 1) + "</" + name + (m_plain || below(2) ? ">" : " >");
    }
    std::string text() { return one(m_plain || below(2) ? kPlainTexts : kTexts); }
    std::string one(const std::vector<std::string>& of) {
        return of[below(static_cast<unsigned>(of.size()))];
    }

    static inline const std::vector<std::string> kPlainNames = {"a",        "payload", "xml-b",   "p:a",
                                                                "p:stream", "message", "\xC3\xA9"};
    static inline const std::vector<std::string> kNames = {
        "a",       "stream", "stream:stream", "stream:a", "stream:error", "p:stream",
        "message", "iq",     "success",       "xmlns",    "event"};
    static inline const std::vector<std::string> kPlainTexts = {
        "x", " y ", "&amp;&lt;&gt;", "\n\t", "\xF0\x9F\x98\x80", "]]&gt;", "&#10;&#233;"};
    static inline const std::vector<std::string> kTexts = {"<!-- </stream:stream> -->",
                                                           "<?a b?>",
                                                           "<![CDATA[</stream:stream>]]>",
                                                           "&#x1F600;",
                                                           "&#13;",
                                                           "\r\n",
                                                           "<!---->",
                                                           "'\"",
                                                           "<![CDATA[]]]]>"};

    std::mt19937 m_random;
    bool m_plain;
};

// The number of documents; for a long run set PUBSUB_RANDOM_DOCUMENTS=1000000.
int documentCount() {
    const char* asked = getenv("PUBSUB_RANDOM_DOCUMENTS");
    return asked ? atoi(asked) : 2'000;
}

class Chance : public Dialogue {};

TEST_F(Chance, LeavesTheStreamUp) {
    logIn();
    Documents documents(1, false);
    for (int i = 0; i < documentCount(); ++i) {
        listener.events.clear();
        const std::string message = messageWith(documents.content());
        const std::size_t cut = documents.below(static_cast<unsigned>(message.size()));
        say(message.substr(0, cut));
        say(message.substr(cut));
        ASSERT_EQ(listener.events.size(), 1u) << message;
        ASSERT_EQ(listener.count("message"), 1) << message;
    }
}

struct Kept : gloox::TagHandler {
    std::vector<std::string> seen;
    void handleTag(gloox::Tag* tag) override { seen.push_back(tag ? describe(*tag) : "end"); }
    static std::string describe(const gloox::Tag& tag) {
        std::string text = tag.xml() + " [" + tag.prefix() + " " + tag.xmlns() + " " + tag.cdata();
        for (const gloox::Tag::Attribute* each : tag.attributes())
            text += " " + each->prefix() + ":" + each->name() + "=" + each->value() + "/" + each->xmlns();
        for (const gloox::Tag* child : tag.children())
            text += " " + describe(*child);
        return text + "]";
    }
};

const std::string kHead =
    std::string("<stream:stream ") + kStreams + " xmlns='jabber:client' id='s' version='1.0'>";

TEST(StreamParser, BuildsTheElementsOfTheLibrarysParser) {
    Kept ours, theirs;
    xmpp::StreamParser parser(ours);
    gloox::Parser reference(&theirs);
    const auto feed = [&](std::string text) {
        EXPECT_TRUE(parser.feed(text)) << text << ": " << parser.fault();
        EXPECT_EQ(reference.feed(text), -1) << text;
    };
    feed("<?xml version='1.0'?>" + kHead);
    feed("<stream:features><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/></stream:features>");
    feed("<stream:error><conflict xmlns='urn:ietf:params:xml:ns:xmpp-streams'/></stream:error>");
    Documents documents(2, true);
    for (int i = 0; i < documentCount(); ++i) {
        feed(messageWith(documents.content()));
        ASSERT_EQ(ours.seen, theirs.seen);
        ours.seen.clear();
        theirs.seen.clear();
    }
}

// --- bounds

class Bounds : public testing::Test {
  protected:
    Bounds() { EXPECT_TRUE(parser.feed(kHead)); }
    bool feedRepeated(const std::string& text, std::size_t times) {
        std::string piece;
        while (times > 0) {
            for (piece.clear(); times > 0 && piece.size() < 262'144; --times)
                piece += text;
            if (!parser.feed(piece))
                return false;
        }
        return true;
    }
    // Keeps the text of the first few elements only, since texts can be long.
    struct Count : gloox::TagHandler {
        std::vector<std::string> seen;
        std::size_t count = 0;
        void handleTag(gloox::Tag* tag) override {
            if (++count <= 4)
                seen.push_back(tag ? tag->xml() : "end");
        }
    } kept;
    xmpp::StreamParser parser{kept};
};

TEST_F(Bounds, LeaveOutWhatIsTooDeepAndKeepTheRest) {
    const std::size_t levels = 300'000;
    EXPECT_TRUE(parser.feed("<message><before/>"));
    EXPECT_TRUE(feedRepeated("<a>", levels));
    EXPECT_TRUE(parser.feed("deep"));
    EXPECT_TRUE(feedRepeated("</a>", levels));
    EXPECT_TRUE(parser.feed("<after>x</after></message><message/>"));
    ASSERT_EQ(kept.seen.size(), 3u) << "header and two messages";
    EXPECT_TRUE(kept.seen[1].starts_with("<message><before/><a>"));
    EXPECT_NE(kept.seen[1].find("</a><after>x</after></message>"), std::string::npos);
    EXPECT_EQ(kept.seen[1].find("deep"), std::string::npos);
    EXPECT_TRUE(kept.seen[2].starts_with("<message/>"));
}

TEST_F(Bounds, KeepTheDeepestThatIsAllowed) {
    // The message itself is one level.
    std::string open = "<message>", close = "</message>";
    for (std::size_t i = 0; i < xmpp::StreamParser::kMaxDepth; ++i) {
        open += "<a>";
        close = "</a>" + close;
    }
    EXPECT_TRUE(parser.feed(open + "deep" + close));
    EXPECT_EQ(kept.seen.back(), open + "deep" + close);
    open += "<a>";
    close = "</a>" + close;
    EXPECT_TRUE(parser.feed(open + "deep" + close));
    EXPECT_EQ(kept.seen.back().find("deep"), std::string::npos);
}

TEST_F(Bounds, EndAStanzaOfTooManyBytes) {
    EXPECT_TRUE(parser.feed("<message>"));
    EXPECT_TRUE(feedRepeated("x", xmpp::StreamParser::kMaxBytes - 100));
    EXPECT_FALSE(feedRepeated("x", 200));
    EXPECT_EQ(parser.fault(), "a stanza has too many bytes");
}

TEST_F(Bounds, EndATagOfTooManyBytes) {
    EXPECT_TRUE(parser.feed("<message a='"));
    EXPECT_FALSE(feedRepeated("xxxxxxxxxxxxxxxx", xmpp::StreamParser::kMaxBytes / 16 + 1));
}

TEST_F(Bounds, EndAStanzaOfTooManyElementsAndAttributes) {
    EXPECT_TRUE(parser.feed("<message>"));
    EXPECT_TRUE(feedRepeated("<a b=''/>", xmpp::StreamParser::kMaxNodes / 2 - 1));
    EXPECT_FALSE(feedRepeated("<a b=''/>", 1));
    EXPECT_EQ(parser.fault(), "a stanza has too many elements");
}

TEST_F(Bounds, CountEachStanzaForItself) {
    const std::string bytes = "<message>" + std::string(1u << 20, 'x') + "</message>\n";
    EXPECT_TRUE(feedRepeated(bytes, 5));
    std::string elements = "<message>";
    for (std::size_t i = 0; i < xmpp::StreamParser::kMaxNodes / 8; ++i)
        elements += "<a b=''/>";
    EXPECT_TRUE(feedRepeated(elements + "</message> ", 5));
    EXPECT_EQ(kept.count, 11u);
}

// --- what ends a stream, and what begins another

class Refused : public Bounds, public testing::WithParamInterface<std::string> {};

TEST_P(Refused, IsNoStream) {
    EXPECT_FALSE(parser.feed("<message/>" + GetParam() + "<message/>"));
    EXPECT_EQ(kept.seen.size(), 2u);
    EXPECT_FALSE(parser.fault().empty());
}

INSTANTIATE_TEST_SUITE_P(All, Refused,
                         testing::Values("<a></b>", "<a b='1' b='2'/>", "<a b=c/>", "<a>&nbsp;</a>",
                                         "<a>&#1;</a>", "<a>\xC0\x80</a>", std::string("<a>\0</a>", 8),
                                         "<!DOCTYPE a>", "&amp;<a>]]></a>"));

TEST(StreamParser, RefusesDocumentTypesBeforeTheHeader) {
    Kept kept;
    xmpp::StreamParser parser(kept);
    EXPECT_FALSE(parser.feed("<!DOCTYPE a [<!ENTITY e 'x'>]>" + kHead + "<message>&e;</message>"));
    EXPECT_TRUE(kept.seen.empty());
    EXPECT_EQ(parser.fault(), "it holds a document type");
}

TEST(StreamParser, RefusesWhatDoesNotBeginAsAStream) {
    Kept kept;
    xmpp::StreamParser parser(kept);
    EXPECT_FALSE(parser.feed("<message/>"));
    EXPECT_TRUE(kept.seen.empty());
}

struct Restarting : Kept {
    xmpp::StreamParser* parser = nullptr;
    void handleTag(gloox::Tag* tag) override {
        Kept::handleTag(tag);
        if (tag && tag->name() == "success")
            parser->restart();
        if (tag && tag->name() == "last")
            parser->stop();
    }
};

TEST(StreamParser, BeginsAnewBehindTheElementThatAskedForIt) {
    for (const std::string success : {"<success/>", "<success>x</success>"}) {
        Restarting kept;
        xmpp::StreamParser parser(kept);
        kept.parser = &parser;
        EXPECT_TRUE(parser.feed("<?xml version='1.0'?>" + kHead + success + "<?xml version='1.0'?>" + kHead +
                                "<a/>"));
        ASSERT_EQ(kept.seen.size(), 4u);
        EXPECT_TRUE(kept.seen[3].starts_with("<a/>"));
    }
}

TEST(StreamParser, DropsWhatFollowsTheElementThatStoppedIt) {
    Restarting kept;
    xmpp::StreamParser parser(kept);
    kept.parser = &parser;
    EXPECT_TRUE(parser.feed(kHead + "<last/><a/></b>"));
    EXPECT_EQ(kept.seen.size(), 2u);
}

TEST(StreamParser, TellsTheStreamsEndOnce) {
    Kept kept;
    xmpp::StreamParser parser(kept);
    EXPECT_TRUE(parser.feed(kHead + "<a/></stream:"));
    EXPECT_EQ(kept.seen.size(), 2u);
    EXPECT_TRUE(parser.feed("stream>"));
    EXPECT_EQ(kept.seen.back(), "end");
}

}  // namespace
