// SPDX-License-Identifier: GPL-3.0-only
// Applications with more nodes than their record holds: the cost of one more, their bound, and records
// of earlier releases.
#include <set>

#include "tests/unit/maintenance/deletestoretest.h"
#include "util/jsonref.h"

namespace {

std::string nodeNumber(int i) {
    return "/u/" + std::to_string(1000000 + i);
}

std::string shownNumber(int i) {
    return R"("\/u\/)" + std::to_string(1000000 + i) + '"';
}

std::size_t lengthOf(const Texts& events) {
    std::size_t length = 0;
    for (const std::string& event : events)
        length += event.size();
    return length;
}

}  // namespace

TEST_F(DeleteStore, WorkOfOneCreationDoesNotGrowWithTheNodes) {
    std::size_t first = 0;
    for (int i = 0; i < 500; ++i) {
        add(nodeNumber(i));
        const Texts events = takeEvents();
        ASSERT_EQ(events.size(), 2u) << i;
        if (i == 63)
            first = lengthOf(events);
        if (i > 63) {
            ASSERT_LE(lengthOf(events), first) << i;
        }
    }
    EXPECT_LT(at(kKey).size(), 64u * 20);
}

TEST_F(DeleteStore, HoldsFurtherNodesBesideTheRecordAndKnowsThemAfterARestart) {
    for (int i = 0; i < 66; ++i)
        EXPECT_TRUE(add(nodeNumber(i)));
    EXPECT_EQ(at(kKey + ' ' + nodeNumber(64)), nodesOf(shownNumber(64)));
    EXPECT_EQ(at(kKey + ' ' + nodeNumber(65)), nodesOf(shownNumber(65)));
    EXPECT_EQ(stored().size(), 3u);
    for (int restarted = 0; restarted < 2; ++restarted) {
        takeEvents();
        EXPECT_TRUE(add(nodeNumber(0)));
        EXPECT_TRUE(add(nodeNumber(65)));
        EXPECT_EQ(takeEvents(), Texts{});
        restartService();
    }
    EXPECT_TRUE(remove(nodeNumber(64)));
    EXPECT_EQ(takeEvents(), (Texts{"prefs.remove " + kStore + ' ' + kKey + ' ' + nodeNumber(64), kCommit}));
    EXPECT_TRUE(add("/u/new"));
    EXPECT_TRUE(stored().contains(kKey + " /u/new"));
    EXPECT_EQ(takeLogLines(), Texts{});
}

TEST_F(DeleteStore, TakesOverALongRecordOfAnEarlierRelease) {
    std::string nodes;
    for (int i = 0; i < 500; ++i)
        nodes += (i ? ", " : "") + shownNumber(i);
    for (const bool adding : {true, false}) {
        fakePrefs().reset();
        restartService();
        store(kKey, nodesOf(nodes));
        EXPECT_TRUE(adding ? add("/u/new") : remove(nodeNumber(499)));
        EXPECT_EQ(stored().size(), adding ? 1u + 437u : 1u + 435u);
        std::set<std::string> known;
        for (const auto& [key, value] : stored()) {
            const JsonRef record = parseJson(value.c_str());
            json_object* listed = jsonMember(record.get(), "nodes");
            for (std::size_t i = 0; i < json_object_array_length(listed); ++i)
                known.insert(json_object_get_string(json_object_array_get_idx(listed, i)));
        }
        EXPECT_EQ(known.size(), adding ? 501u : 499u);
        takeEvents();
        EXPECT_TRUE(add(nodeNumber(0)));
        EXPECT_TRUE(add(nodeNumber(400)));
        EXPECT_EQ(takeEvents(), Texts{});
        EXPECT_TRUE(add("/u/another"));
        EXPECT_LT(lengthOf(takeEvents()), 200u);
    }
}

TEST_F(DeleteStore, LeavesALongRecordAsItIsWhenTheStoreTakesNoFurtherNode) {
    std::string nodes;
    for (int i = 0; i < 70; ++i)
        nodes += (i ? ", " : "") + shownNumber(i);
    store(kKey, nodesOf(nodes));
    for (const bool adding : {true, false}) {
        fakePrefs().failNext("QPAppSetValue", QP_BUSY);
        EXPECT_FALSE(adding ? add("/u/new") : remove(nodeNumber(69)));
        EXPECT_EQ(takeLog(), Texts{"Error: QPAppSetValue returned 4, On failed"});
        EXPECT_EQ(stored(), (FakePrefs::Values{{kKey, nodesOf(nodes)}}));
    }
    EXPECT_TRUE(add("/u/new"));
    EXPECT_EQ(stored().size(), 1u + 7u);
}

TEST_F(DeleteStore, KeepsAFurtherNodeThatTheStoreDoesNotRemove) {
    for (int i = 0; i < 65; ++i)
        add(nodeNumber(i));
    const std::string key = kKey + ' ' + nodeNumber(64);
    fakePrefs().failNext("QPAppRemoveValue", QP_IO);
    EXPECT_FALSE(remove(nodeNumber(64)));
    EXPECT_EQ(takeLogLines(), Texts{"removeNodeFromDeleteStore: Removing delete key failed " + key});
    EXPECT_TRUE(session().furtherNodes(kKey).contains(nodeNumber(64)));
    EXPECT_TRUE(remove(nodeNumber(64)));
    EXPECT_FALSE(stored().contains(key));
}

TEST_F(DeleteStore, AnApplicationMayHaveOnlySoManyNodesAndKeepsThose) {
    EXPECT_TRUE(session().mayOwnNode("/u/new", kApp));
    for (int i = 0; i < 999; ++i)
        add(nodeNumber(i));
    EXPECT_TRUE(session().mayOwnNode("/u/new", kApp));
    add("/u/new");
    for (int restarted = 0; restarted < 2; ++restarted) {
        EXPECT_FALSE(session().mayOwnNode("/u/newer", kApp));
        EXPECT_TRUE(session().mayOwnNode("/u/new", kApp));
        EXPECT_TRUE(session().mayOwnNode(nodeNumber(5), kApp));
        EXPECT_TRUE(session().mayOwnNode("/u/newer", "com.example.other"));
        EXPECT_TRUE(session().mayOwnNode("/u/newer", "com.example.ap"));
        restartService();
    }
    remove(nodeNumber(500));
    EXPECT_TRUE(session().mayOwnNode("/u/newer", kApp));
}

TEST_F(DeleteStore, AStoreThatCannotBeReadBoundsNoApplication) {
    for (int i = 0; i < 1'000; ++i)
        add(nodeNumber(i));
    fakePrefs().failNext("QPAppCopyValue", QP_IO);
    EXPECT_TRUE(session().mayOwnNode("/u/new", kApp));
    EXPECT_EQ(takeLog(), Texts{"Reading " + kKey + " from the preferences failed. 3"});
    EXPECT_FALSE(session().mayOwnNode("/u/new", kApp));
    restartService();
    fakePrefs().failNext("QPAppGetHandle", QP_IO);
    EXPECT_TRUE(session().mayOwnNode("/u/new", kApp));
    EXPECT_FALSE(session().mayOwnNode("/u/new", kApp));
}

TEST_F(DeleteStore, TakesNoNumberOfANodeForAFurtherNode) {
    store("deletecom.example.app news", R"({ "seqNo": "42" })");
    EXPECT_TRUE(session().furtherNodes(kKey).empty());
    EXPECT_TRUE(session().isStalePacket("deletecom.example.app news", "42"));
}

TEST_F(DeleteStore, TakesNoKeyThatCannotBeReadForAFurtherNode) {
    store("deletecom.example.app /u/a", nodesOf(R"("\/u\/a")"));
    store("deletecom.example.app /u/b", nodesOf(R"("\/u\/b")"));
    session().persistSeqNo("/x", "1");  // opens the store
    fakePrefs().failNext("QPAppCopyValue", QP_IO);
    EXPECT_EQ(session().furtherNodes(kKey), (std::set<std::string>{"/u/b"}));
    EXPECT_EQ(takeLog(), Texts{"Reading deletecom.example.app /u/a from the preferences failed. 3"});
}

TEST_F(CleanUp, TakesEveryNodeOfALargeApplicationAndLeavesNothing) {
    for (const bool record : {true, false}) {
        for (int i = 0; i < 70; ++i)
            add(nodeNumber(i));
        session().addNodeToDeleteStore("/u/other", "com.example.app2");
        for (int i = 0; !record && i < 64; ++i)
            remove(nodeNumber(i));
        EXPECT_EQ(stored().contains(kKey), record);
        takeLog();
        EXPECT_TRUE(cleanUp());
        const std::string stanza = lastStanza().xml();
        for (int i = record ? 0 : 64; i < 70; ++i)
            EXPECT_NE(stanza.find("<node id='" + nodeNumber(i) + "'/>"), std::string::npos) << i;
        takeLog();
        answer(lastId());
        EXPECT_EQ(stored(), (FakePrefs::Values{{"deletecom.example.app2", nodesOf(R"("\/u\/other")")}}));
        EXPECT_EQ(takeLogLines(), Texts{});
        EXPECT_TRUE(session().mayOwnNode("/u/new", kApp));
    }
}
