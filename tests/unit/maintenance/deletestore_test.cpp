// SPDX-License-Identifier: GPL-3.0-only
// The deletion store: the nodes that an application owns, and deleting them with it.
#include <gloox/error.h>

#include <utility>

#include "tests/unit/maintenance/deletestoretest.h"
#include "xmpp/manager.h"

// --- adding a node

TEST_F(DeleteStore, StartsARecordForAnApplication) {
    EXPECT_TRUE(add("/u/a"));
    EXPECT_EQ(takeEvents(),
              (Texts{"prefs.set " + kStore + ' ' + kKey + ' ' + nodesOf(R"("\/u\/a")"), kCommit}));
    EXPECT_EQ(at(kKey), nodesOf(R"("\/u\/a")"));
    EXPECT_EQ(fakePrefs().openHandles(), 1u);
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(DeleteStore, AppendsFurtherNodes) {
    add("/u/b");
    EXPECT_TRUE(add("/u/a"));
    EXPECT_EQ(at(kKey), nodesOf(R"("\/u\/b", "\/u\/a")"));
}

TEST_F(DeleteStore, StoresANodeOnce) {
    add("/u/a");
    takeEvents();
    EXPECT_TRUE(add("/u/a"));
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(at(kKey), nodesOf(R"("\/u\/a")"));
}

TEST_F(DeleteStore, KeepsApplicationsApart) {
    session().addNodeToDeleteStore("/u/a", "com.example.one");
    session().addNodeToDeleteStore("/u/b", "com.example.two");
    EXPECT_EQ(at("deletecom.example.one"), nodesOf(R"("\/u\/a")"));
    EXPECT_EQ(at("deletecom.example.two"), nodesOf(R"("\/u\/b")"));
}

TEST_F(DeleteStore, SurvivesARestart) {
    add("/u/a");
    restartService();
    add("/u/b");
    EXPECT_EQ(at(kKey), nodesOf(R"("\/u\/a", "\/u\/b")"));
}

TEST_F(DeleteStore, AddsNothingToARecordThatIsDamaged) {
    store(kKey, "damaged");
    EXPECT_FALSE(add("/u/a"));
    store(kKey, "{}");
    EXPECT_FALSE(add("/u/a"));
    store(kKey, R"({"nodes":5})");
    EXPECT_FALSE(add("/u/a"));
    EXPECT_EQ(takeLogLines(), (Texts{"addNodeToDeleteStore: Parsing value failed",
                                     "addNodeToDeleteStore: Parsing nodes key failed",
                                     "addNodeToDeleteStore: Parsing nodes key failed"}));
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(DeleteStore, AddsNothingWhenTheStoreFails) {
    store(kKey, nodesOf(R"("\/u\/a")"));
    fakePrefs().failNext("QPAppGetHandle", QP_IO);
    EXPECT_FALSE(add("/u/b"));
    fakePrefs().failNext("QPAppCopyValue", QP_IO);
    EXPECT_FALSE(add("/u/b"));
    fakePrefs().failNext("QPAppSetValue", QP_BUSY);
    EXPECT_FALSE(add("/u/b"));
    EXPECT_EQ(takeLog(), (Texts{"Getting app handle failed. 3",
                                "Reading deletecom.example.app from the preferences failed. 3",
                                "Error: QPAppSetValue returned 4, On failed"}));
    EXPECT_EQ(at(kKey), nodesOf(R"("\/u\/a")"));
}

TEST_F(DeleteStore, LogsAStoreThatCannotBeReopened) {
    add("/u/a");
    fakePrefs().failNext("QPAppGetHandle", QP_IO);
    EXPECT_TRUE(add("/u/b"));
    EXPECT_EQ(takeLog(), Texts{"Getting app handle failed!"});
    EXPECT_EQ(session().m_prefsHandle, nullptr);
    EXPECT_TRUE(add("/u/c"));
    EXPECT_EQ(at(kKey), nodesOf(R"("\/u\/a", "\/u\/b", "\/u\/c")"));
}

// --- removing a node

TEST_F(DeleteStore, RemovesANodeFromItsRecord) {
    store(kKey, nodesOf(R"("\/u\/a", "\/u\/b", "\/u\/a")"));
    EXPECT_TRUE(remove("/u/a"));
    EXPECT_EQ(takeEvents(),
              (Texts{"prefs.set " + kStore + ' ' + kKey + ' ' + nodesOf(R"("\/u\/b")"), kCommit}));
    EXPECT_EQ(at(kKey), nodesOf(R"("\/u\/b")"));
}

TEST_F(DeleteStore, RemovesTheRecordWithItsLastNode) {
    add("/u/a");
    takeEvents();
    EXPECT_TRUE(remove("/u/a"));
    EXPECT_EQ(takeEvents(), (Texts{"prefs.remove " + kStore + ' ' + kKey, kCommit}));
    EXPECT_EQ(stored(), FakePrefs::Values{});
}

TEST_F(DeleteStore, LogsANodeOfAnApplicationWithoutARecord) {
    EXPECT_FALSE(remove("/u/a"));
    EXPECT_EQ(takeLogLines(),
              Texts{"removeNodeFromDeleteStore: Node /u/a not present in appid com.example.app"});
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(DeleteStore, WritesARecordWithoutTheNodeAnew) {
    store(kKey, nodesOf(R"("\/u\/a")"));
    EXPECT_TRUE(remove("/u/b"));
    EXPECT_EQ(takeEvents(),
              (Texts{"prefs.set " + kStore + ' ' + kKey + ' ' + nodesOf(R"("\/u\/a")"), kCommit}));
}

TEST_F(DeleteStore, RemovesNothingFromARecordThatIsDamaged) {
    store(kKey, "damaged");
    EXPECT_FALSE(remove("/u/a"));
    store(kKey, R"({"nodes":null})");
    EXPECT_FALSE(remove("/u/a"));
    EXPECT_EQ(takeLogLines(), (Texts{"removeNodeFromDeleteStore: Parsing value failed",
                                     "removeNodeFromDeleteStore: Parsing nodes key failed"}));
}

TEST_F(DeleteStore, RemovesNothingWhenTheStoreFails) {
    store(kKey, nodesOf(R"("\/u\/a")"));
    fakePrefs().failNext("QPAppGetHandle", QP_IO);
    EXPECT_FALSE(remove("/u/a"));
    fakePrefs().failNext("QPAppRemoveValue", QP_IO);
    EXPECT_FALSE(remove("/u/a"));
    fakePrefs().failNext("QPAppSetValue", QP_BUSY);
    EXPECT_FALSE(remove("/u/b"));
    EXPECT_EQ(takeLog(), (Texts{"Getting app handle failed. 3", "Removing delete key failed " + kKey,
                                "Error: QPAppSetValue returned 4, On failed"}));
    EXPECT_EQ(at(kKey), nodesOf(R"("\/u\/a")"));
}

// --- the number of a node's last item

TEST_F(DeleteStore, RemovesTheNumberOfANode) {
    session().persistSeqNo("/u/a", "42");
    session().persistSeqNo("/u/b", "7");
    takeEvents();
    removeSeqNo("/u/a", session());
    EXPECT_EQ(takeEvents(), (Texts{"prefs.remove " + kStore + " /u/a", kCommit}));
    EXPECT_FALSE(session().isStalePacket("/u/a", "1"));
    EXPECT_TRUE(session().isStalePacket("/u/b", "7"));
}

TEST_F(DeleteStore, RemovesAMissingNumberSilently) {
    removeSeqNo("/u/a", session());
    EXPECT_EQ(takeLogLines(), Texts{});
    EXPECT_EQ(takeEvents(), Texts{kCommit});
}

TEST_F(DeleteStore, LogsEachFailureToRemoveANumber) {
    fakePrefs().failNext("QPAppGetHandle", QP_IO);
    removeSeqNo("/u/a", session());
    EXPECT_EQ(takeLog(), Texts{"Getting app handle failed. 3"});
    session().persistSeqNo("/u/a", "42");
    fakePrefs().failNext("QPAppFreeHandle", QP_BUSY);
    fakePrefs().failNext("QPAppGetHandle", QP_IO);
    removeSeqNo("/u/a", session());
    EXPECT_EQ(takeLogLines(),
              (Texts{"removeSeqNo: Commit failed 4 ", "removeSeqNo: Getting app handle failed! 3 "}));
    EXPECT_EQ(session().m_prefsHandle, nullptr);
    EXPECT_TRUE(session().isStalePacket("/u/a", "42"));
}

// --- clean-up

TEST_F(CleanUp, RemovesAllStateAndDeletesAllNodesAtOnce) {
    addNodes();
    EXPECT_TRUE(cleanUp());
    const std::string id = expectStanza(kBulk);
    EXPECT_EQ(stanzaCount(), 1u);
    expectTraces("/u/a", false);
    expectTraces("/u/b", false);
    expectTraces("/u/other", true);
    EXPECT_EQ(session().m_deleteMap, (std::map<std::string, std::string>{{id, kKey}}));
    EXPECT_EQ(at("delete"), kListedOnce);
    EXPECT_EQ(at(kKey), nodesOf(R"("\/u\/b", "\/u\/a")"));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(CleanUp, ListsTheRecordBeforeAnyStateIsRemoved) {
    store(kKey, nodesOf(R"("\/u\/a")"));
    session().persistSeqNo("/u/a", "42");
    session().m_offlineMap["/u/a"] = kApp;
    fakePrefs().store("pubsubservice.offlineMap", "/u/a", kApp);
    FakeMessage* subscriber = fakeBus().request(publicHandle(), "subscribe", "{}", "com.example.app 1");
    ASSERT_TRUE(QSSubscriptionAdd(publicHandle(), "/u/a", subscriber, nullptr));
    QSMessageUnref(subscriber);
    session().setSubMap("/u/a", kApp, publicHandle());
    takeEvents();
    cleanUp();
    EXPECT_EQ(takeEvents(),
              (Texts{"prefs.set " + kStore + " delete " + kListedOnce, kCommit,
                     "prefs.remove pubsubservice.offlineMap /u/a", "prefs.commit pubsubservice.offlineMap",
                     "bus.unsubscribe public /u/a", "prefs.remove " + kStore + " /u/a", kCommit,
                     "xmpp.send <iq to='pubsub.example.org' id='ID' type='set'><delete-nodes "
                     "xmlns='urn:zelt:pubsub:device:0'><node id='/u/a'/></delete-nodes></iq>"}));
}

TEST_F(CleanUp, DoesNothingForAnApplicationWithoutARecord) {
    cleanUp();
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(CleanUp, UsesAGivenKeyUnchanged) {
    store("deletekey", nodesOf(R"("\/u\/a")"));
    session().cleanupNodes("ignored", "deletekey");
    EXPECT_EQ(at("delete"), listed(R"("deletekey")"));
}

TEST_F(CleanUp, WhileDisconnectedOnlyListsTheRecord) {
    addNodes();
    disconnectSession();
    session().activated("/u/a", true);
    session().activated("/u/b", true);
    takeEvents();
    EXPECT_TRUE(cleanUp());
    EXPECT_EQ(takeEvents(), (Texts{"prefs.set " + kStore + " delete " + kListedOnce, kCommit}));
    expectTraces("/u/a", true);
    expectTraces("/u/b", true);
    EXPECT_TRUE(session().m_deleteMap.empty());

    // The retry reads the quoted key, finds nothing and does nothing more.
    fakeServer().forgetStanzas();
    ASSERT_TRUE(session().connectToService());
    pump();
    ASSERT_TRUE(session().m_connected);
    for (const SentStanza& stanza : fakeServer().stanzas())
        EXPECT_EQ(stanza.xml().find("delete-nodes"), std::string::npos) << stanza.xml();
    EXPECT_EQ(at("delete"), kListedOnce);
    EXPECT_EQ(at(kKey), nodesOf(R"("\/u\/b", "\/u\/a")"));
}

TEST_F(CleanUp, TwiceListsTheRecordTwiceAndEitherAnswerRemovesBoth) {
    addNodes();
    cleanUp();
    const std::string first = lastId();
    cleanUp();
    const std::string second = lastId();
    EXPECT_NE(first, second);
    EXPECT_EQ(at("delete"), listed(R"("deletecom.example.app", "deletecom.example.app")"));
    takeEvents();
    takeLog();
    answer(second);
    EXPECT_EQ(takeEvents(), (Texts{kPing, "prefs.remove " + kStore + ' ' + kKey,
                                   "prefs.remove " + kStore + " delete", kCommit}));
    EXPECT_FALSE(stored().contains(kKey));
    EXPECT_FALSE(stored().contains("delete"));
    answer(first);
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_EQ(takeLogLines(), Texts{"handleBulkDelete: Removing delete key failed " + kKey});
    EXPECT_TRUE(session().m_deleteMap.empty());
}

TEST_F(CleanUp, LogsADeletionThatCannotBeSentAndKeepsItListed) {
    add("/u/a");
    session().dropClient();
    EXPECT_TRUE(cleanUp());
    EXPECT_EQ(takeLogLines(), (Texts{"deleteOfflineMap: Error removing value from prefs /u/a ",
                                     "cleanupNodes: Bulk delete local call failed"}));
    EXPECT_TRUE(session().m_deleteMap.empty());
    EXPECT_EQ(at("delete"), kListedOnce);
    delete std::exchange(session().m_pubsub, nullptr);
    EXPECT_TRUE(cleanUp());
    EXPECT_TRUE(log().contains("Bulk delete local call failed"));
}

TEST_F(CleanUp, LogsWhatIsDamagedAndStops) {
    store(kKey, "damaged");
    EXPECT_FALSE(cleanUp());
    store(kKey, R"({"nodes":"x"})");
    EXPECT_FALSE(cleanUp());
    store(kKey, nodesOf(R"("\/u\/a")"));
    store("delete", "damaged");
    EXPECT_FALSE(cleanUp());
    store("delete", R"({"appid":5})");
    EXPECT_FALSE(cleanUp());
    EXPECT_EQ(takeLog(),
              (Texts{"Parsing delete appid key value failed " + kKey, "Parsing nodes in key failed " + kKey,
                     "Parsing delete appid key value failed " + kKey, "Parsing delete key failed"}));
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(stanzaCount(), 0u);
}

TEST_F(CleanUp, StopsWhenTheListingCannotBeWritten) {
    store(kKey, nodesOf(R"("\/u\/a")"));
    session().setSubMap("/u/a", kApp, nullptr);
    fakePrefs().failNext("QPAppSetValue", QP_BUSY);
    EXPECT_FALSE(cleanUp());
    EXPECT_EQ(takeLog(), Texts{"Error: QPAppSetValue returned 4, On failed"});
    EXPECT_TRUE(session().subMap.contains("/u/a"));
    EXPECT_EQ(stanzaCount(), 0u);
}

// --- the server's answer

TEST_F(CleanUp, AnswerRemovesTheRecordAndItsListing) {
    addNodes();
    store("delete", listed(R"("deletecom.example.more")"));
    cleanUp();
    takeEvents();
    answer(lastId());
    EXPECT_EQ(takeEvents(),
              (Texts{kPing, "prefs.remove " + kStore + ' ' + kKey,
                     "prefs.set " + kStore + " delete " + listed(R"("deletecom.example.more")"), kCommit}));
    EXPECT_FALSE(stored().contains(kKey));
    EXPECT_TRUE(session().m_deleteMap.empty());
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(CleanUp, ErrorAnswerRemovesTheRecordsAllTheSame) {
    addNodes();
    cleanUp();
    takeEvents();
    answerError(lastId(), "auth", "forbidden");
    EXPECT_TRUE(log().contains("ERR in func handleBulkDelete: " + kForbidden));
    EXPECT_FALSE(stored().contains(kKey));
    EXPECT_FALSE(stored().contains("delete"));
}

TEST_F(CleanUp, UnknownAnswerOnlyMovesThePingAndLogsItsError) {
    addNodes();
    session().handleBulkDelete("unknown", gloox::JID(kService), nullptr);
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_EQ(takeLog(), Texts{});
    const gloox::Error forbidden(gloox::StanzaErrorTypeAuth, gloox::StanzaErrorForbidden);
    session().handleBulkDelete("unknown", gloox::JID(kService), &forbidden);
    EXPECT_EQ(takeEvents(), Texts{kPing});
    EXPECT_EQ(takeLog(), Texts{"ERR in func handleBulkDelete: " + kForbidden});
    EXPECT_TRUE(stored().contains(kKey));
}

TEST_F(CleanUp, AnswerLeavesADamagedListingAlone) {
    store(kKey, nodesOf(R"("\/u\/a")"));
    cleanUp();
    store("delete", "damaged");
    takeEvents();
    takeLog();
    answer(lastId());
    EXPECT_EQ(takeLogLines(), Texts{"handleBulkDelete: Parsing value failed"});
    EXPECT_EQ(at("delete"), "damaged");
    EXPECT_FALSE(stored().contains(kKey));
}

TEST_F(CleanUp, AnswerRemovesTheRecordAlsoWhenItsListingCannotBeWritten) {
    store(kKey, nodesOf(R"("\/u\/a")"));
    store("delete", listed(R"("deletecom.example.more")"));
    cleanUp();
    takeLog();
    fakePrefs().failNext("QPAppSetValue", QP_BUSY);
    answer(lastId());
    EXPECT_EQ(takeLog(), Texts{"Error: QPAppSetValue returned 4, On failed"});
    EXPECT_EQ(at("delete"), listed(R"("deletecom.example.more", "deletecom.example.app")"));
    EXPECT_FALSE(stored().contains(kKey));
}

TEST_F(CleanUp, AnswerThatFindsNoListingRemovesTheRecord) {
    store(kKey, nodesOf(R"("\/u\/a")"));
    session().m_deleteMap["id-1"] = kKey;
    session().handleBulkDelete("id-1", gloox::JID(kService), nullptr);
    EXPECT_FALSE(stored().contains(kKey));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(CleanUp, AnswerWithoutAStoreIsLoggedAndForgotten) {
    session().m_deleteMap["id-1"] = kKey;
    fakePrefs().failNext("QPAppGetHandle", QP_IO);
    session().m_prefsHandle = nullptr;
    session().handleBulkDelete("id-1", gloox::JID(kService), nullptr);
    EXPECT_EQ(takeLog(), Texts{"Getting app handle failed. 3"});
    EXPECT_TRUE(session().m_deleteMap.empty());
}

// --- the retry at a connect

TEST_F(CleanUp, RetryHandsOnEachEntryWithItsQuotes) {
    store("delete", listed(R"("plain", 5)"));
    store("plain", nodesOf(R"("\/u\/a")"));
    store("\"plain\"", nodesOf(R"("\/u\/b")"));
    store("5", nodesOf(R"("\/u\/c")"));
    session().deleteBulkNodes();
    ASSERT_EQ(stanzaCount(), 2u);
    for (const auto& [at, node] : {std::pair(0, "/u/b"), std::pair(1, "/u/c")})
        EXPECT_EQ(fakeServer().stanzas()[at].textWithoutId(),
                  "<iq to='pubsub.example.org' id='ID' type='set'><delete-nodes "
                  "xmlns='urn:zelt:pubsub:device:0'><node id='" +
                      std::string(node) + "'/></delete-nodes></iq>");
}

TEST_F(CleanUp, RetryWithoutAListingDoesNothing) {
    session().deleteBulkNodes();
    EXPECT_EQ(takeEvents(), Texts{});
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(CleanUp, RetryLogsADamagedListing) {
    store("delete", "damaged");
    session().deleteBulkNodes();
    store("delete", "{}");
    session().deleteBulkNodes();
    EXPECT_EQ(takeLogLines(), (Texts{"deleteBulkNodes: Parsing delete key failed",
                                     "deleteBulkNodes: Parsing delete key failed"}));
}

TEST_F(CleanUp, RetryWithoutAStoreIsLogged) {
    session().m_prefsHandle = nullptr;
    fakePrefs().failNext("QPAppGetHandle", QP_IO);
    session().deleteBulkNodes();
    EXPECT_EQ(takeLog(), Texts{"Getting app handle failed. 3"});
}
