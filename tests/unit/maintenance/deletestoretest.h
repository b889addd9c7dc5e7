// SPDX-License-Identifier: GPL-3.0-only
// The deletion store's dialogue: an application, its record, and the state kept for its nodes.
#pragma once

#include <map>
#include <string>

#include "tests/fakes/servicefixture.h"
#include "xmpp/manager.h"

inline const std::string kStore = "com.zelt.pubsubservice";
inline const std::string kApp = "com.example.app";
inline const std::string kKey = "deletecom.example.app";
inline const std::string kCommit = "prefs.commit " + kStore;
inline const std::string kPing =
    R"(bus.call zelt://com.zelt.power/timeout/set {"key":"keepAliveTimer", )"
    R"("uri":"quor://com.zelt.pubsubservice/keepAliveTimer", "in":"00:25:00", "wakeup":true, "params":"{}"})";
inline const std::string kForbidden =
    "<error type='auth'><forbidden xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>";

inline std::string nodesOf(const std::string& nodes) {
    return R"({ "nodes": [ )" + nodes + " ] }";
}

inline std::string listed(const std::string& keys) {
    return R"({ "appid": [ )" + keys + " ] }";
}

inline const std::string kListedOnce = listed(R"("deletecom.example.app")");

class DeleteStore : public ServiceTest {
  protected:
    const FakePrefs::Values& stored() { return fakePrefs().stored(kStore); }
    void store(const std::string& key, const std::string& value) { fakePrefs().store(kStore, key, value); }
    std::string at(const std::string& key) { return stored().contains(key) ? stored().at(key) : "none"; }
    bool add(const std::string& node) { return session().addNodeToDeleteStore(node, kApp); }
    bool remove(const std::string& node) { return session().removeNodeFromDeleteStore(node, kApp); }
    bool cleanUp() { return session().cleanupNodes(kApp, ""); }
};

class CleanUp : public DeleteStore {
  protected:
    void SetUp() override {
        DeleteStore::SetUp();
        connectSession();
    }
    // An application with two nodes that are in every map and store.
    void addNodes() {
        for (const std::string node : {"/u/b", "/u/a"}) {
            add(node);
            session().setOfflineMap(node, kApp);
            session().setSubMap(node, kApp, nullptr);
            session().persistSeqNo(node, "42");
            session().activated(node, true);
        }
        session().setOfflineMap("/u/other", "com.example.other");
        session().setSubMap("/u/other", "com.example.other", nullptr);
        session().persistSeqNo("/u/other", "42");
        session().activated("/u/other", true);
        takeEvents();
    }
    void expectTraces(const std::string& node, bool there) {
        EXPECT_EQ(session().m_offlineMap.contains(node), there) << node;
        EXPECT_EQ(session().subMap.contains(node), there) << node;
        EXPECT_EQ(stored().contains(node), there) << node;
        EXPECT_EQ(session().m_activateMap.contains(node), there) << node;
    }
    void disconnectSession() {
        fakeServer().closesWith(gloox::ConnStreamError);
        pump();
        ASSERT_FALSE(session().m_connected);
        takeLog();
    }

    const std::string kBulk =
        "<iq to='pubsub.example.org' id='ID' type='set'><delete-nodes xmlns='urn:zelt:pubsub:device:0'>"
        "<node id='/u/b'/><node id='/u/a'/></delete-nodes></iq>";
};
