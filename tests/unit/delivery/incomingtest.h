// SPDX-License-Identifier: GPL-3.0-only
// The dialogue for messages from the server: a connected session, one node, and the events of its items.
#pragma once

#include <string>

#include "tests/fakes/servicefixture.h"

inline const std::string kNode = "/u1234/dev42/com.example.app/inbox";
inline const std::string kShown = R"(\/u1234\/dev42\/com.example.app\/inbox)";
inline const std::string kPrefs = "com.zelt.pubsubservice";
inline const std::string kPing =
    R"(bus.call zelt://com.zelt.power/timeout/set {"key":"keepAliveTimer", )"
    R"("uri":"quor://com.zelt.pubsubservice/keepAliveTimer", "in":"00:25:00", "wakeup":true, "params":"{}"})";
inline const std::string kPowerOn =
    R"(bus.call zelt://com.zelt.power/com/zelt/power/activityStart {"duration_ms":2000})";

inline std::string serviceObject(const std::string& item, const std::string& id,
                                 const std::string& more = "") {
    return R"({ "item": ")" + item + R"(", "itemid": ")" + id + R"(", "node": ")" + kShown +
           R"(", "returnValue": true)" + more + " }";
}

inline std::string appObject(const std::string& item) {
    return R"({ "item": ")" + item + R"(", "endpoint": "inbox", "returnValue": true })";
}

inline std::string ack(const std::string& id, const std::string& node = kNode) {
    return "xmpp.send <message to='pubsub.example.org' id='ID'><ack xmlns='urn:zelt:pubsub:device:0' node='" +
           node + "' id='" + id + "'/></message>";
}

inline Texts persisted(const std::string& seqNo, const std::string& node = kNode) {
    return {"prefs.set " + kPrefs + ' ' + node + R"( { "seqNo": ")" + seqNo + R"(" })",
            "prefs.commit " + kPrefs};
}

inline Texts join(std::initializer_list<Texts> parts) {
    Texts all;
    for (const Texts& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

class Incoming : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        std::filesystem::create_directory(stateFolder() / "cache");
        connectSession();
    }

    std::filesystem::path cacheFile() const {
        return stateFolder() / "cache" / "dev42-com.example.app-inbox";
    }
    std::string cached() const { return fileText(cacheFile()); }
    bool isCached() const { return std::filesystem::exists(cacheFile()); }

    void registerService(const std::string& endpoint) {
        bool present = false;
        session().addNodeToMap(kNode, endpoint, false, present);
    }
    // A public subscriber as the method subscribe adds it.
    FakeMessage* subscribePublic() {
        FakeMessage* message = fakeBus().request(publicHandle(), "subscribe", "{}", "com.example.app 1");
        EXPECT_TRUE(QSSubscriptionAdd(publicHandle(), kNode.c_str(), message, nullptr));
        QSMessageUnref(message);
        session().setSubMap(kNode, "com.example.app", publicHandle());
        journal().take();
        return message;
    }
    FakeMessage* listenOnClose() {
        FakeMessage* message = fakeBus().request(privateHandle(), "registerOnClose", R"({"subscribe":true})");
        bool subscribed = false;
        EXPECT_TRUE(QSSubscriptionProcess(privateHandle(), message, &subscribed, nullptr));
        QSMessageUnref(message);
        session().m_onCloseRegistered = true;
        journal().take();
        return message;
    }
    void storeSeqNo(const std::string& seqNo) {
        fakePrefs().store(kPrefs, kNode, R"({ "seqNo": ")" + seqNo + R"(" })");
    }
    // Sends a message of the pub-sub service with this content.
    void push(const std::string& inside, const std::string& attributes = "id='m1'") {
        serverSends("<message from='pubsub.example.org' to='u1234@example.org/dev42' " + attributes + ">" +
                    inside + "</message>");
    }
    void pushEvent(const std::string& inside) {
        push("<event xmlns='http://jabber.org/protocol/pubsub#event'>" + inside + "</event>");
    }
    void expectNothingKept() {
        EXPECT_FALSE(isCached());
        EXPECT_EQ(fakePrefs().stored(kPrefs), FakePrefs::Values{});
    }
};
