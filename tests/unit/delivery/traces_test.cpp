// SPDX-License-Identifier: GPL-3.0-only
// What is recorded of a marked item on its way through the device.
#include "delivery/methods.h"
#include "tests/unit/delivery/incomingtest.h"

class TracedItem : public Incoming {
  protected:
    Texts stations(const std::string& itemId = "trace-1") {
        Texts all;
        for (const Traces::Station& each : session().m_traces.of(itemId))
            all.push_back(each.name + (each.to.empty() ? "" : "/" + each.to));
        return all;
    }
};

TEST_F(TracedItem, ForTheCache) {
    pushItem(kNode, "7", "trace-1", "hello");
    EXPECT_EQ(stations(), (Texts{"received", "handed on/cache", "acknowledged"}));
}

TEST_F(TracedItem, ForTheSubscriber) {
    subscribePublic();
    pushItem(kNode, "7", "trace-1", "hello");
    EXPECT_EQ(stations(), (Texts{"received", "handed on/subscriber", "acknowledged"}));
}

TEST_F(TracedItem, ForHandlers) {
    registerService("zelt://com.example.one/item");
    pushItem(kNode, "7", "trace-1", "hello");
    EXPECT_EQ(stations(), (Texts{"received", "handed on/handlers", "acknowledged"}));
}

TEST_F(TracedItem, ForNobodyIsReceivedAlone) {
    std::filesystem::remove(stateFolder() / "cache");
    pushItem(kNode, "7", "trace-1", "hello");
    EXPECT_EQ(stations(), Texts{"received"});
}

TEST_F(TracedItem, ThatWasHandledBefore) {
    storeSeqNo("7");
    pushItem(kNode, "7", "trace-1", "hello");
    EXPECT_EQ(stations(), (Texts{"received", "known already", "acknowledged"}));
}

TEST_F(TracedItem, ForConfirmingHandlersIsAcknowledgedWhenTheyAnswer) {
    call(registerItemCallback,
         R"({"node":")" + kNode + R"(","endpoint":"zelt://com.example.one/item","confirm":true})");
    answer(lastId());
    pushItem(kNode, "7", "trace-1", "hello");
    EXPECT_EQ(stations(), (Texts{"received", "handed on/confirming handlers"}));
    EXPECT_TRUE(fakeBus().replyTo("zelt://com.example.one/item", R"({"returnValue":true})"));
    pump();
    EXPECT_EQ(stations(), (Texts{"received", "handed on/confirming handlers", "acknowledged"}));
    pushItem(kNode, "7", "trace-1", "hello");
    EXPECT_EQ(stations(), (Texts{"received", "handed on/confirming handlers", "acknowledged", "received",
                                 "known already", "acknowledged"}));
}

TEST_F(TracedItem, WithoutAMarkIsNotRecorded) {
    pushItem(kNode, "7", "i1", "hello");
    EXPECT_EQ(stations("i1"), Texts{});
}
