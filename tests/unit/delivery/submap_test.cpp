// SPDX-License-Identifier: GPL-3.0-only
// The public subscribers: one for each node, and the effect of their removal on the bus.
#include "tests/fakes/servicefixture.h"

class SubMap : public ServiceTest {
  protected:
    // A request of its own client, subscribed under `key`.
    FakeMessage* subscriber(QSHandle* handle, const std::string& key) {
        FakeMessage* message = fakeBus().request(handle, "subscribe", "{}", "com.example.app 1");
        EXPECT_TRUE(QSSubscriptionAdd(handle, key.c_str(), message, nullptr));
        QSMessageUnref(message);
        journal().take();
        return message;
    }

    struct Check {
        bool result = false;
        bool found = false;
        std::string appId = "app";
        QSHandle* handle = nullptr;
        std::string code = "code";
        std::string text = "text";
    };
    Check check(const std::string& node) {
        Check c;
        c.result = session().checkSubMap(node, c.found, c.appId, c.handle, c.code, c.text);
        return c;
    }
};

TEST_F(SubMap, LeavesTheErrorTextsForAnAbsentNode) {
    session().setSubMap("/b", "com.example.app", publicHandle());
    Check c;
    c.found = true;
    c.handle = privateHandle();
    c.result = session().checkSubMap("/a", c.found, c.appId, c.handle, c.code, c.text);
    EXPECT_TRUE(c.result);
    EXPECT_FALSE(c.found);
    EXPECT_EQ(c.appId, "app");
    EXPECT_EQ(c.handle, privateHandle());
    EXPECT_EQ(c.code, "code");
    EXPECT_EQ(c.text, "text");
}

TEST_F(SubMap, GivesTheRecordAndTheErrorTextsForAPresentNode) {
    session().setSubMap("/a", "com.example.app", publicHandle());
    const Check c = check("/a");
    EXPECT_TRUE(c.result);
    EXPECT_TRUE(c.found);
    EXPECT_EQ(c.appId, "com.example.app");
    EXPECT_EQ(c.handle, publicHandle());
    EXPECT_EQ(c.code, "appErr");
    EXPECT_EQ(c.text, "Already subscribed for Offline notification");
}

TEST_F(SubMap, KeepsOnlyTheLastOfTwoRecords) {
    session().setSubMap("/a", "com.example.first", publicHandle());
    session().setSubMap("/a", "com.example.second", privateHandle());
    const Check c = check("/a");
    EXPECT_EQ(c.appId, "com.example.second");
    EXPECT_EQ(c.handle, privateHandle());
    EXPECT_EQ(session().subMap.size(), 1u);
}

TEST_F(SubMap, ReplacesOnlyTheHandleOfAnExistingRecord) {
    session().setSubMap("/a", "com.example.app", publicHandle());
    session().setSubMapHandle("/a", nullptr);
    session().setSubMapHandle("/b", publicHandle());
    const Check c = check("/a");
    EXPECT_TRUE(c.found);
    EXPECT_EQ(c.appId, "com.example.app");
    EXPECT_EQ(c.handle, nullptr);
    EXPECT_FALSE(check("/b").found);
}

TEST_F(SubMap, RemovesNothingForAnAbsentNode) {
    EXPECT_FALSE(session().removeSubMap("/a"));
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(SubMap, RemovesARecordWithoutAHandleWithoutTouchingTheBus) {
    FakeMessage* message = subscriber(publicHandle(), "/a");
    session().setSubMap("/a", "com.example.app", nullptr);
    EXPECT_TRUE(session().removeSubMap("/a"));
    EXPECT_FALSE(check("/a").found);
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_TRUE(message->kept());
}

TEST_F(SubMap, RemovesOnlyTheFirstOfTwoBusSubscribers) {
    FakeMessage* first = subscriber(publicHandle(), "/a");
    FakeMessage* second = subscriber(publicHandle(), "/a");
    session().setSubMap("/a", "com.example.app", publicHandle());
    EXPECT_TRUE(session().removeSubMap("/a"));
    EXPECT_FALSE(check("/a").found);
    EXPECT_FALSE(first->kept());
    EXPECT_TRUE(second->kept());
    EXPECT_EQ(takeEvents(), Texts{"bus.unsubscribe public /a"});
}

TEST_F(SubMap, TouchesOnlyTheConnectionOfTheRecord) {
    FakeMessage* other = subscriber(privateHandle(), "/a");
    FakeMessage* own = subscriber(publicHandle(), "/a");
    session().setSubMap("/a", "com.example.app", publicHandle());
    session().removeSubMap("/a");
    EXPECT_TRUE(other->kept());
    EXPECT_FALSE(own->kept());
}

TEST_F(SubMap, RemovesARecordWhoseBusSubscriberIsGone) {
    session().setSubMap("/a", "com.example.app", publicHandle());
    EXPECT_TRUE(session().removeSubMap("/a"));
    EXPECT_FALSE(check("/a").found);
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(SubMap, LogsAListThatCannotBeAcquiredAndRemovesTheRecordAllTheSame) {
    session().setSubMap("/a", "com.example.app", publicHandle());
    fakeBus().failNext("QSSubscriptionAcquire", -5, "no list");
    EXPECT_TRUE(session().removeSubMap("/a"));
    EXPECT_FALSE(check("/a").found);
    EXPECT_EQ(takeLogLines(), Texts{"checkAndRemove: Subscription acquire failed no list\n"});
}

TEST_F(SubMap, BearsTheNameOfTheRecordItself) {
    session().setSubMap("/u1/r1/com.example.application/inbox", "com.example.app", publicHandle());
    EXPECT_TRUE(session().removeSubMap(session().subMap.begin()->first));
    EXPECT_TRUE(session().subMap.empty());
}

TEST_F(SubMap, ComparesNamesAsPlainBytes) {
    session().setSubMap("/A", "com.example.app", nullptr);
    EXPECT_FALSE(check("/a").found);
    EXPECT_FALSE(check("/A/").found);
    EXPECT_TRUE(check("/A").found);
}
