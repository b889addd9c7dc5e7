// SPDX-License-Identifier: GPL-3.0-only
// listEndpoints: who gets each endpoint's items, and what waits.
#include "tests/unit/endpoints/receivetest.h"

class ListEndpoints : public ReceiveTest {
  protected:
    const std::string kAsked =
        deviceIq("get", "<waiting xmlns='urn:zelt:pubsub:device:0'><node id='" + kNode + "'/><node id='" +
                            nodeOf("news") + "'/></waiting>");
    Answer list() { return ask(listEndpoints, "listEndpoints", "{}"); }
    static std::string entry(const std::string& endpoint, const std::string& rest) {
        return R"({ "endpoint": ")" + endpoint + R"(", )" + rest + " }";
    }
    static std::string listing(const std::string& entries) {
        return R"({ "returnValue": true, "endpoints": [ )" + entries + " ] }";
    }
    const std::string kNothing = R"("receiver": false, "subscriber": false, "cached": false)";
};

TEST_F(ListEndpoints, TellsWhatWaitsAtTheServer) {
    own({"inbox", "news"});
    const Answer reply = list();
    EXPECT_TRUE(reply.waiting());
    answer(expectStanza(kAsked), "<waiting xmlns='urn:zelt:pubsub:device:0'><node id='" + kNode +
                                     "' count='3'/><node id='" + nodeOf("news") + "' count='0'/></waiting>");
    EXPECT_EQ(
        reply,
        listing(entry("inbox", R"("receiver": false, "subscriber": false, "waiting": 3, "cached": false)") +
                ", " +
                entry("news", R"("receiver": false, "subscriber": false, "waiting": 0, "cached": false)")));
    EXPECT_FALSE(reply.kept());
}

TEST_F(ListEndpoints, TellsWhoGetsTheItemsAndWhatIsCached) {
    own({"inbox", "news"});
    pushItem(kNode, "7", "i1", "hello");
    askReceive(R"({"subscribe":true,"endpoints":["inbox"]})");
    askSubscribe(R"({"endpoint":"news"})");
    const Answer reply = list();
    answerError(lastId(), "cancel", "feature-not-implemented");
    EXPECT_EQ(reply,
              listing(entry("inbox", R"("receiver": true, "subscriber": false, "cached": true)") + ", " +
                      entry("news", R"("receiver": false, "subscriber": true, "cached": false)")));
}

TEST_F(ListEndpoints, LeavesOutWhatWaitsWithoutAConnection) {
    own({"inbox"});
    loseConnection();
    EXPECT_EQ(list(), listing(entry("inbox", kNothing)));
}

TEST_F(ListEndpoints, IsAnsweredWhenTheStreamEndsFirst) {
    own({"inbox"});
    const Answer reply = list();
    loseConnection();
    EXPECT_EQ(reply.all(), Texts{listing(entry("inbox", kNothing))});
}

TEST_F(ListEndpoints, OfAnApplicationWithoutEndpointsIsEmptyAndAsksNobody) {
    EXPECT_EQ(list(), R"({ "returnValue": true, "endpoints": [ ] })");
    EXPECT_EQ(stanzaCount(), 0u);
}

TEST_F(ListEndpoints, ListsNoOtherApplicationsAndNoOtherAccounts) {
    fakePrefs().store(kPrefs, "deletecom.example.app",
                      R"({"nodes":["/former/dev42/com.example.app/inbox"]})");
    fakePrefs().store(kPrefs, "deletecom.example.other", R"({"nodes":["/u1234/dev42/com.example.other/a"]})");
    EXPECT_EQ(list(), R"({ "returnValue": true, "endpoints": [ ] })");
}

TEST_F(ListEndpoints, IsRefusedToACallerWithoutAnApplicationId) {
    EXPECT_EQ(
        ask(listEndpoints, "listEndpoints", "{}", ""),
        R"({ "returnValue": false, "errorCode": "libErr", "errorText": "Error getting appid of calling app" })");
}
