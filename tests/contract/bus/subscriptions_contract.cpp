// SPDX-License-Identifier: GPL-3.0-only
// The contract of subscriptions: lists and keys, answers to subscribers, cancelling, the end of a
// subscription and the disconnection of a client.
#include "tests/contract/bus/contractfixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Subscriptions : public OnBothBuses {
  protected:
    QSMessage* subscribe(BusClient& client, size_t& call, const std::string& key,
                         const std::string& payload = "{}") {
        QSMessage* message = request(client, call, "follow", payload);
        EXPECT_TRUE(QSSubscriptionAdd(handle(), key.c_str(), message, m_error)) << m_error.message();
        return message;
    }
    QSMessage* process(BusClient& client, size_t& call) {
        QSMessage* message = request(client, call, "follow", R"({"subscribe":true})");
        bool subscribed = false;
        EXPECT_TRUE(QSSubscriptionProcess(handle(), message, &subscribed, m_error)) << m_error.message();
        EXPECT_TRUE(subscribed);
        return message;
    }
    bool post(const std::string& payload) {
        return QSSubscriptionPost(handle(), "/", "follow", payload.c_str(), m_error);
    }
    bool respondTo(const std::string& key, const std::string& payload) {
        return QSSubscriptionRespond(m_service, key.c_str(), payload.c_str(), m_error);
    }
    void removeFirst(const std::string& key) {
        QSSubscriptionIter* iter = nullptr;
        ASSERT_TRUE(QSSubscriptionAcquire(handle(), key.c_str(), &iter, m_error));
        ASSERT_TRUE(QSSubscriptionHasNext(iter));
        QSSubscriptionNext(iter);
        QSSubscriptionRemove(iter);
        QSSubscriptionRelease(iter);
    }
};
INSTANTIATE_TEST_SUITE_P(, Subscriptions, testing::Values(QSBus::Private, QSBus::Public), busOfCase);

TEST_P(Subscriptions, OfMethodsNeedTheMemberInThePayload) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    for (const char* payload : {"{}", R"({"subscribe":false})", R"({"subscribe":null})", "subscribe",
                                R"(["subscribe"])", R"({"subscribe":0})", R"({"subscribe":0.0})",
                                R"({"subscribe":""})", R"({"subscribe":{"a":1}})", R"({"subscribe":[1]})"}) {
        bool subscribed = true;
        QSMessage* message = request(*client, call, "follow", payload);
        EXPECT_TRUE(QSSubscriptionProcess(handle(), message, &subscribed, m_error)) << payload;
        EXPECT_FALSE(subscribed) << payload;
    }
    m_kept.clear();
    EXPECT_TRUE(post("nobody"));
}

TEST_P(Subscriptions, OfMethodsReadTheMemberByJsonCsConversion) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    for (const char* payload : {R"({"subscribe":1})", R"({"subscribe":-0.5})", R"({"subscribe":"false"})"}) {
        bool subscribed = false;
        QSMessage* message = request(*client, call, "follow", payload);
        EXPECT_TRUE(QSSubscriptionProcess(handle(), message, &subscribed, m_error)) << payload;
        EXPECT_TRUE(subscribed) << payload;
    }
}

TEST_P(Subscriptions, OfMethodsGetEveryPost) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* message = process(*client, call);
    EXPECT_TRUE(reply(message, "first"));
    EXPECT_TRUE(post("second"));
    EXPECT_TRUE(post("third"));
    ASSERT_TRUE(has(*client, call, 3));
    EXPECT_THAT(client->answers(call), ElementsAre("reply first", "answer second", "answer third"));
}

TEST_P(Subscriptions, ThatWereNotAnsweredYetTakeAPostAsTheReply) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    process(*client, call);
    EXPECT_TRUE(post("posted"));
    ASSERT_TRUE(has(*client, call, 1));
    EXPECT_THAT(client->answers(call), ElementsAre("reply posted"));
}

TEST_P(Subscriptions, OfSeveralClientsAllGetAPost) {
    const auto first = m_engine->client(GetParam());
    const auto second = m_engine->client(GetParam());
    size_t firstCall = 0;
    size_t secondCall = 0;
    process(*first, firstCall);
    process(*second, secondCall);
    EXPECT_TRUE(post("news"));
    ASSERT_TRUE(has(*first, firstCall, 1) && has(*second, secondCall, 1));
    EXPECT_THAT(first->answers(firstCall), ElementsAre("reply news"));
    EXPECT_THAT(second->answers(secondCall), ElementsAre("reply news"));
}

TEST_P(Subscriptions, PostWithoutASubscriberSucceeds) {
    EXPECT_TRUE(post("nobody"));
    EXPECT_TRUE(QSSubscriptionPost(handle(), "/", "unheardOf", "nobody", m_error));
}

TEST_P(Subscriptions, RespondWithoutASubscriberFails) {
    EXPECT_FALSE(respondTo("node", "nobody"));
    EXPECT_EQ(m_error.code(), -ENOENT);
    EXPECT_THAT(m_error.message(), HasSubstr("node"));
}

TEST_P(Subscriptions, UnderAFreeKeyGetEveryResponse) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* message = subscribe(*client, call, "/u/d/app/node");
    EXPECT_TRUE(reply(message, "first"));
    EXPECT_TRUE(respondTo("/u/d/app/node", "item"));
    ASSERT_TRUE(has(*client, call, 2));
    EXPECT_THAT(client->answers(call), ElementsAre("reply first", "answer item"));
}

TEST_P(Subscriptions, RefuseAResponseThatIsNotUtf8) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    subscribe(*client, call, "node");
    EXPECT_FALSE(respondTo("node", "\xc0\x80"));
    EXPECT_EQ(m_error.code(), -EILSEQ);
}

TEST_P(Subscriptions, OfAFreeKeyAndOfAMethodNeverMeet) {
    const auto client = m_engine->client(GetParam());
    size_t free = 0;
    size_t method = 0;
    for (const char* key : {"/", "follow", "/follow", "//follow", "/ follow"})
        subscribe(*client, free, key);
    process(*client, method);
    EXPECT_TRUE(post("posted"));
    EXPECT_TRUE(respondTo("/ follow", "responded"));
    ASSERT_TRUE(has(*client, method, 1) && has(*client, free, 1));
    EXPECT_THAT(client->answers(method), ElementsAre("reply posted"));
    EXPECT_THAT(client->answers(free), ElementsAre("reply responded"));
}

TEST_P(Subscriptions, ListTheirRequestsOldestFirst) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    subscribe(*client, call, "key", "one");
    subscribe(*client, call, "key", "two");
    EXPECT_THAT(keysOf(handle(), "key"), ElementsAre("one", "two"));
}

TEST_P(Subscriptions, OfAnUnknownKeyAreAnEmptyList) {
    EXPECT_THAT(keysOf(handle(), "unheard of"), IsEmpty());
    QSSubscriptionIter* iter = nullptr;
    ASSERT_TRUE(QSSubscriptionAcquire(handle(), "unheard of", &iter, m_error));
    EXPECT_FALSE(QSSubscriptionHasNext(iter));
    EXPECT_EQ(QSSubscriptionNext(iter), nullptr);
    QSSubscriptionRemove(iter);
    QSSubscriptionRelease(iter);
}

TEST_P(Subscriptions, OfNoHandleAreAFailure) {
    QSSubscriptionIter* iter = nullptr;
    EXPECT_FALSE(QSSubscriptionAcquire(nullptr, "key", &iter, m_error));
    EXPECT_EQ(m_error.code(), -EINVAL);
}

TEST_P(Subscriptions, MayBeUnderSeveralKeysButOnceUnderEach) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* message = subscribe(*client, call, "a");
    EXPECT_TRUE(QSSubscriptionAdd(handle(), "a", message, m_error));
    EXPECT_TRUE(QSSubscriptionAdd(handle(), "b", message, m_error));
    EXPECT_TRUE(respondTo("a", "to a"));
    EXPECT_TRUE(respondTo("b", "to b"));
    ASSERT_TRUE(has(*client, call, 2));
    m_engine->settle();
    EXPECT_THAT(client->answers(call), ElementsAre("reply to a", "answer to b"));
}

TEST_P(Subscriptions, ThatAreRemovedEndWithoutTheCancelFunction) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    reply(subscribe(*client, call, "key"), "first");
    m_kept.clear();
    removeFirst("key");
    ASSERT_TRUE(has(*client, call, 2));
    m_engine->settle();
    EXPECT_THAT(client->answers(call), ElementsAre("reply first", "ended"));
    EXPECT_THAT(keysOf(handle(), "key"), IsEmpty());
    EXPECT_THAT(m_cancelled, IsEmpty());
    EXPECT_FALSE(respondTo("key", "late"));
}

TEST_P(Subscriptions, ThatAreRemovedStayAnswerableWhileTheyAreKept) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* message = subscribe(*client, call, "key");
    removeFirst("key");
    EXPECT_TRUE(respond(message, "first"));
    EXPECT_TRUE(respond(message, "second"));
    m_kept.clear();
    ASSERT_TRUE(has(*client, call, 3));
    EXPECT_THAT(client->answers(call), ElementsAre("reply first", "answer second", "ended"));
}

TEST_P(Subscriptions, RemoveTakesOnlyTheLastReturnedOne) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    subscribe(*client, call, "key", "one");
    subscribe(*client, call, "key", "two");
    removeFirst("key");
    EXPECT_THAT(keysOf(handle(), "key"), ElementsAre("two"));
}

TEST_P(Subscriptions, WithoutAnAnswerAreClosedAsUnanswered) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    subscribe(*client, call, "key");
    m_kept.clear();
    removeFirst("key");
    ASSERT_TRUE(has(*client, call, 1));
    m_engine->settle();
    EXPECT_THAT(client->answers(call), ElementsAre("error com.zelt.Error.NoAnswer"));
}

TEST_P(Subscriptions, AreEndedByTheClientsCancel) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    reply(subscribe(*client, call, "key", R"({"endpoint":"e"})"), "first");
    m_kept.clear();
    client->cancel(call);
    ASSERT_TRUE(has(*client, call, 3));
    EXPECT_THAT(client->answers(call),
                testing::UnorderedElementsAre("reply first", "ended", "cancelled true"));
    EXPECT_THAT(m_cancelled, ElementsAre(cancelledBy(R"(follow {"endpoint":"e"})")));
    EXPECT_THAT(keysOf(handle(), "key"), IsEmpty());
}

TEST_P(Subscriptions, AreCancelledOnceThoughTheyAreOnSeveralLists) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* message = process(*client, call);
    QSSubscriptionAdd(handle(), "a", message, m_error);
    QSSubscriptionAdd(handle(), "b", message, m_error);
    Strings left;
    m_onCancel = [&](QSHandle*, QSMessage*) {
        for (const char* key : {"a", "b"}) {
            for (const std::string& payload : keysOf(handle(), key))
                left.push_back(payload);
        }
    };
    client->cancel(call);
    ASSERT_TRUE(has(*client, call, 1));
    client->cancel(call);
    ASSERT_TRUE(has(*client, call, 2));
    EXPECT_THAT(client->answers(call), ElementsAre("cancelled true", "cancelled false"));
    EXPECT_THAT(m_cancelled, ElementsAre(cancelledBy(R"(follow {"subscribe":true})")));
    EXPECT_THAT(left, IsEmpty());
}

TEST_P(Subscriptions, ThatWereCancelledStillGetTheReplyThatIsOwedAndNothingMore) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* message = subscribe(*client, call, "key");
    client->cancel(call);
    ASSERT_TRUE(has(*client, call, 1));
    EXPECT_TRUE(respond(message, "owed"));
    EXPECT_FALSE(respond(message, "more"));
    EXPECT_EQ(m_error.code(), -ECANCELED);
    EXPECT_FALSE(QSSubscriptionAdd(handle(), "key", message, m_error));
    m_kept.clear();
    ASSERT_TRUE(has(*client, call, 3));
    EXPECT_THAT(client->answers(call), ElementsAre("cancelled true", "reply owed", "ended"));
}

TEST_P(Subscriptions, OfAnotherClientCannotBeCancelled) {
    const auto owner = m_engine->client(GetParam());
    const auto stranger = m_engine->client(GetParam());
    size_t owned = 0;
    size_t strange = 0;
    subscribe(*owner, owned, "key");
    request(*stranger, strange);
    stranger->cancel(strange);
    ASSERT_TRUE(has(*stranger, strange, 1));
    EXPECT_THAT(stranger->answers(strange), ElementsAre("cancelled false"));
    EXPECT_THAT(m_cancelled, IsEmpty());
    EXPECT_EQ(keysOf(handle(), "key").size(), 1u);
}

TEST_P(Subscriptions, OfADeadClientAreCancelledOldestFirst) {
    auto client = m_engine->client(GetParam());
    size_t call = 0;
    subscribe(*client, call, "one", "1");
    subscribe(*client, call, "two", "2");
    request(*client, call, "hold", "not subscribed");
    size_t left = 0;
    m_onCancel = [&](QSHandle*, QSMessage*) {
        left += keysOf(handle(), "one").size() + keysOf(handle(), "two").size();
    };
    client.reset();
    ASSERT_TRUE(m_engine->until([&] { return m_cancelled.size() >= 2; }));
    m_engine->settle();
    EXPECT_THAT(m_cancelled, ElementsAre(cancelledBy("follow 1"), cancelledBy("follow 2")));
    EXPECT_EQ(left, 0u);
}

TEST_P(Subscriptions, OfADeadClientKeepTheirTextsForTheCancelFunction) {
    auto client = m_engine->client(GetParam(), "com.example.app");
    size_t call = 0;
    const std::string id = QSMessageGetApplicationID(subscribe(*client, call, "key", R"({"endpoint":"e"})"));
    m_kept.clear();
    Strings seen;
    m_onCancel = [&](QSHandle*, QSMessage* message) {
        seen = {QSMessageGetApplicationID(message), QSMessageGetPayload(message),
                QSMessageGetMethod(message)};
    };
    client.reset();
    ASSERT_TRUE(m_engine->until([&] { return !seen.empty(); }));
    EXPECT_THAT(seen, ElementsAre(id, R"({"endpoint":"e"})", "follow"));
}

TEST_P(Subscriptions, ThatWereRemovedAreNotCancelledByADeath) {
    auto client = m_engine->client(GetParam());
    size_t call = 0;
    subscribe(*client, call, "gone", "gone");
    subscribe(*client, call, "stays", "stays");
    removeFirst("gone");
    client.reset();
    ASSERT_TRUE(m_engine->until([&] { return !m_cancelled.empty(); }));
    m_engine->settle();
    EXPECT_THAT(m_cancelled, ElementsAre(cancelledBy("follow stays")));
}

TEST_P(Subscriptions, MayBeRemovedInsideTheCancelFunction) {
    auto client = m_engine->client(GetParam());
    const auto other = m_engine->client(GetParam());
    size_t call = 0;
    subscribe(*client, call, "key", "dead");
    subscribe(*other, call, "key", "alive");
    m_kept.clear();
    m_onCancel = [&](QSHandle*, QSMessage*) { removeFirst("key"); };
    client.reset();
    ASSERT_TRUE(m_engine->until([&] { return !m_cancelled.empty(); }));
    EXPECT_THAT(keysOf(handle(), "key"), IsEmpty());
}

TEST_P(Subscriptions, AnAcquiredListSurvivesTheEndOfItsClients) {
    auto client = m_engine->client(GetParam());
    size_t call = 0;
    subscribe(*client, call, "key", "text");
    m_kept.clear();
    QSSubscriptionIter* iter = nullptr;
    ASSERT_TRUE(QSSubscriptionAcquire(handle(), "key", &iter, m_error));
    client.reset();
    ASSERT_TRUE(m_engine->until([&] { return !m_cancelled.empty(); }));
    EXPECT_STREQ(QSMessageGetPayload(QSSubscriptionNext(iter)), "text");
    QSSubscriptionRemove(iter);
    QSSubscriptionRelease(iter);
}

class Responses : public BusContract {};

TEST_F(Responses, ReachTheSubscribersOfBothBuses) {
    const auto privateClient = m_engine->client(QSBus::Private);
    const auto publicClient = m_engine->client(QSBus::Public);
    size_t onPrivate = 0;
    size_t onPublic = 0;
    ASSERT_TRUE(QSSubscriptionAdd(m_private, "key", request(*privateClient, onPrivate), m_error));
    ASSERT_TRUE(QSSubscriptionAdd(m_public, "key", request(*publicClient, onPublic), m_error));
    EXPECT_TRUE(QSSubscriptionRespond(m_service, "key", "item", m_error));
    ASSERT_TRUE(has(*privateClient, onPrivate, 1) && has(*publicClient, onPublic, 1));
}

TEST_F(Responses, PostReachesOneConnectionAlone) {
    const auto privateClient = m_engine->client(QSBus::Private);
    const auto publicClient = m_engine->client(QSBus::Public);
    size_t onPrivate = 0;
    size_t onPublic = 0;
    const std::string wish = R"({"subscribe":true})";
    QSMessage* message = request(*privateClient, onPrivate, "follow", wish);
    ASSERT_TRUE(QSSubscriptionProcess(m_private, message, nullptr, m_error));
    message = request(*publicClient, onPublic, "follow", wish);
    ASSERT_TRUE(QSSubscriptionProcess(m_public, message, nullptr, m_error));
    EXPECT_TRUE(QSSubscriptionPost(m_public, "/", "follow", "news", m_error));
    ASSERT_TRUE(has(*publicClient, onPublic, 1));
    m_engine->settle();
    EXPECT_THAT(privateClient->answers(onPrivate), IsEmpty());
}

TEST_F(Responses, ARequestIsNotSubscribedOnTheOtherConnection) {
    const auto client = m_engine->client(QSBus::Private);
    size_t call = 0;
    EXPECT_FALSE(QSSubscriptionAdd(m_public, "key", request(*client, call), m_error));
    EXPECT_EQ(m_error.code(), -EINVAL);
}

TEST_F(Responses, WhatIsNoRequestIsNotSubscribed) {
    EXPECT_FALSE(QSSubscriptionAdd(m_public, "key", nullptr, m_error));
    EXPECT_EQ(m_error.code(), -EINVAL);
    EXPECT_THAT(m_error.message(), HasSubstr("request"));
}

class Bounds : public BusContract {
  protected:
    // Makes as many subscriptions as a public client may have.
    void subscribeToTheBound(BusClient& client, size_t& call) {
        for (int i = 0; i < 64; i++) {
            QSMessage* message = request(client, call);
            ASSERT_TRUE(QSSubscriptionAdd(m_public, "key", message, m_error)) << i;
            ASSERT_TRUE(reply(message, "{}"));
        }
    }
};

TEST_F(Bounds, APublicClientHasSixtyFourSubscriptions) {
    const auto client = m_engine->client(QSBus::Public);
    size_t call = 0;
    ASSERT_NO_FATAL_FAILURE(subscribeToTheBound(*client, call));
    EXPECT_FALSE(QSSubscriptionAdd(m_public, "key", request(*client, call), m_error));
    EXPECT_EQ(m_error.code(), -EDQUOT);
    EXPECT_THAT(m_error.message(), HasSubstr("cancel some"));
    const auto other = m_engine->client(QSBus::Public);
    EXPECT_TRUE(QSSubscriptionAdd(m_public, "key", request(*other, call), m_error));
}

TEST_F(Bounds, APublicClientHas128UnansweredRequests) {
    const auto client = m_engine->client(QSBus::Public);
    for (int i = 0; i < 128; i++)
        client->call("/", "hold", "{}");
    size_t beyond = client->call("/", "hold", "{}");
    ASSERT_TRUE(has(*client, beyond, 1));
    EXPECT_THAT(client->answers(beyond), ElementsAre("error com.zelt.Error.LimitExceeded"));
    ASSERT_TRUE(arrived(128));
    EXPECT_TRUE(reply(m_kept[0].get(), "{}"));
    m_kept.erase(m_kept.begin());
    size_t again = client->call("/", "hold", "{}");
    EXPECT_TRUE(arrived(128));
    EXPECT_THAT(client->answers(again), IsEmpty());
}

TEST_F(Bounds, ARequestThatIsAnsweredAndKeptCountsUntilItGoes) {
    const auto client = m_engine->client(QSBus::Public);
    size_t call = 0;
    for (int i = 0; i < 128; i++)
        ASSERT_TRUE(reply(request(*client, call), "{}")) << i;
    size_t beyond = client->call("/", "hold", "{}");
    ASSERT_TRUE(has(*client, beyond, 1));
    EXPECT_THAT(client->answers(beyond), ElementsAre("error com.zelt.Error.LimitExceeded"));
    m_kept.pop_back();
    request(*client, call);
    EXPECT_EQ(m_kept.size(), 128u);
}

TEST_F(Bounds, ASubscribedRequestCountsAmongTheSubscriptionsAlone) {
    const auto client = m_engine->client(QSBus::Public);
    size_t call = 0;
    ASSERT_NO_FATAL_FAILURE(subscribeToTheBound(*client, call));
    for (int i = 0; i < 128; i++)
        request(*client, call);
    EXPECT_EQ(m_kept.size(), 64u + 128u);
}

TEST_F(Bounds, APublicPayloadHas4KiB) {
    const auto client = m_engine->client(QSBus::Public);
    client->call("/", "hold", std::string(4 * 1024, 'x'));
    ASSERT_TRUE(arrived(1));
    size_t call = client->call("/", "hold", std::string(4 * 1024 + 1, 'x'));
    ASSERT_TRUE(has(*client, call, 1));
    EXPECT_THAT(client->answers(call), ElementsAre("error com.zelt.Error.LimitExceeded"));
    EXPECT_EQ(m_kept.size(), 1u);
}

TEST_F(Bounds, ThePrivateBusHasNone) {
    const auto client = m_engine->client(QSBus::Private);
    size_t call = 0;
    for (int i = 0; i < 140; i++)
        ASSERT_TRUE(QSSubscriptionAdd(m_private, "key", request(*client, call), m_error)) << i;
    request(*client, call, "hold", std::string(100 * 1024, 'x'));
    EXPECT_EQ(m_kept.size(), 141u);
}
