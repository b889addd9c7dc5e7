// SPDX-License-Identifier: GPL-3.0-only
// The sender of an item: each spelling of its JID is prepared once, whatever came in between.
#include <dlfcn.h>

#include "tests/unit/delivery/incomingtest.h"

namespace {

int gPreparations = 0;

}  // namespace

// Overrides that of libidn, which gloox calls for every part of a JID.
extern "C" int stringprep(char* text, size_t size, int flags, const void* profile) {
    ++gPreparations;
    static const auto real = reinterpret_cast<decltype(&stringprep)>(dlsym(RTLD_NEXT, "stringprep"));
    return real(text, size, flags, profile);
}

class Sender : public Incoming {
  protected:
    // The number of preparations for an item of this sender; `taken` says whether the item was.
    int preparationsOf(const std::string& from, bool taken = true) {
        const std::string number = std::to_string(++m_number);
        gPreparations = 0;
        serverSends("<message from='" + from +
                    "' to='u1234@example.org/dev42'><event "
                    "xmlns='http://jabber.org/protocol/pubsub#event'><items node='" +
                    kNode + "'><item id='i' seqNo='" + number + "'><payload>text</payload></item></items>" +
                    "</event></message>");
        const int counted = gPreparations;
        const FakePrefs::Values stored = fakePrefs().stored(kPrefs);
        const auto last = stored.find(kNode);
        EXPECT_EQ(last != stored.end() && last->second == R"({ "seqNo": ")" + number + R"(" })", taken)
            << from;
        return counted;
    }

  private:
    int m_number = 0;
};

TEST_F(Sender, IsPreparedOnceForAllItsItems) {
    EXPECT_GT(preparationsOf("pubsub.example.org"), 0) << "the preparations are counted";
    EXPECT_EQ(preparationsOf("pubsub.example.org"), 0);
    EXPECT_EQ(preparationsOf("pubsub.example.org"), 0);
}

TEST_F(Sender, InTwoSpellingsIsPreparedOnceInEach) {
    EXPECT_GT(preparationsOf("pubsub.example.org"), 0);
    EXPECT_GT(preparationsOf("PubSub.Example.org"), 0);
    EXPECT_EQ(preparationsOf("pubsub.example.org"), 0);
    EXPECT_EQ(preparationsOf("PubSub.Example.org"), 0);
}

TEST_F(Sender, OfAnotherEntityOrWithoutAValidJidIsRefusedEachTime) {
    for (const char* from : {"mallory@example.org/x", "pubsub.example.org/x", "@", "pubsub.example.org@"}) {
        preparationsOf(from, false);
        EXPECT_EQ(preparationsOf(from, false), 0) << from;
    }
    preparationsOf("pubsub.example.org");
    EXPECT_EQ(preparationsOf("mallory@example.org/x", false), 0);
}

TEST_F(Sender, IsForgottenAfterManyOthers) {
    preparationsOf("pubsub.example.org");
    for (int i = 0; i < 8; ++i)
        EXPECT_GT(preparationsOf("stranger" + std::to_string(i) + "@example.org", false), 0);
    EXPECT_GT(preparationsOf("pubsub.example.org"), 0);
    EXPECT_EQ(preparationsOf("pubsub.example.org"), 0);
}

TEST_F(Sender, LongerThanAnyJidIsRefusedUnprepared) {
    EXPECT_EQ(preparationsOf("pubsub.example.org/" + std::string(3071, 'x'), false), 0);
    EXPECT_EQ(preparationsOf(std::string(3071, 'x') + "@pubsub.example.org", false), 0);
}

TEST_F(Sender, IsTheServiceThatTheAccountHasNow) {
    preparationsOf("pubsub.example.org");
    session().disconnect();
    session().setSessionDetails(kJid, "secret", kResource, kServer, "news.example.org", 5222);
    ASSERT_TRUE(session().connectToService());
    pump();
    journal().take();
    preparationsOf("pubsub.example.org", false);
    preparationsOf("news.example.org");
    const std::string acknowledgement = lastStanza().textWithoutId();
    EXPECT_TRUE(acknowledgement.starts_with("<message to='news.example.org'")) << acknowledgement;
}
