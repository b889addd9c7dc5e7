// SPDX-License-Identifier: GPL-3.0-only
// The contract of calls by a service: addresses, replies, later answers, refusals and server status.
#include "tests/contract/bus/contractfixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kOther[] = "com.zelt.other";

class Calls : public BusContract {
  protected:
    // Collects the replies of one call.
    struct Replies {
        Strings payloads;
        Strings errorNames;
        std::string method;
        std::function<void()> then;
    };

    bool call(const std::string& uri, const std::string& payload, Replies* replies,
              QSToken* token = nullptr) {
        return QSCall(m_private, uri.c_str(), payload.c_str(), replies ? onReply : nullptr, replies, token,
                      m_error);
    }
    bool arrivedAt(const OtherService& other, size_t count) {
        return m_engine->until([&] { return other.calls().size() >= count; });
    }
    bool replied(const Replies& replies, size_t count) {
        return m_engine->until([&] { return replies.payloads.size() >= count; });
    }
    bool watch(Replies* replies, QSToken* token = nullptr, const std::string& name = kOther) {
        return call("zelt://com.zelt.bus/signal/registerServerStatus", R"({"serviceName":")" + name + R"("})",
                    replies, token);
    }

  private:
    static bool onReply(QSHandle*, QSMessage* message, void* context) {
        auto* replies = static_cast<Replies*>(context);
        replies->payloads.emplace_back(QSMessageGetPayload(message));
        replies->method = QSMessageGetMethod(message);
        if (QSMessageIsError(message))
            replies->errorNames.emplace_back(QSMessageGetErrorName(message));
        if (replies->then)
            replies->then();
        return true;
    }
};

TEST_F(Calls, ReachTheMethodThatTheAddressNames) {
    const auto other = m_engine->otherService(kOther);
    m_engine->settle();
    Replies replies;
    EXPECT_TRUE(call("zelt://com.zelt.other/timeout/set", R"({"a":1})", &replies));
    EXPECT_TRUE(call("quor://com.zelt.other/getstatus", "{}", nullptr));
    EXPECT_TRUE(call("quor://com.zelt.other/a/b/c", "{}", &replies));
    ASSERT_TRUE(arrivedAt(*other, 3));
    EXPECT_THAT(other->calls(),
                ElementsAre(R"(/timeout set {"a":1})", "/ getstatus {} (no reply)", "/a/b c {}"));
}

TEST_F(Calls, HandTheReplyToTheCallback) {
    const auto other = m_engine->otherService(kOther);
    m_engine->settle();
    Replies replies;
    QSToken token = 0;
    ASSERT_TRUE(call("zelt://com.zelt.other/get", "{}", &replies, &token));
    EXPECT_NE(token, 0u);
    ASSERT_TRUE(arrivedAt(*other, 1));
    other->reply(0, R"({"returnValue":true})");
    ASSERT_TRUE(replied(replies, 1));
    EXPECT_THAT(replies.payloads, ElementsAre(R"({"returnValue":true})"));
    EXPECT_THAT(replies.errorNames, IsEmpty());
    EXPECT_EQ(replies.method, "get");
    EXPECT_FALSE(QSCallCancel(m_private, token, m_error));
    EXPECT_EQ(m_error.code(), -ENOENT);
}

TEST_F(Calls, ThatDoNotSubscribeGetNoLaterAnswer) {
    const auto other = m_engine->otherService(kOther);
    m_engine->settle();
    Replies replies;
    ASSERT_TRUE(call("zelt://com.zelt.other/get", "{}", &replies));
    ASSERT_TRUE(arrivedAt(*other, 1));
    other->reply(0, "first");
    other->answer(0, "later");
    ASSERT_TRUE(replied(replies, 1));
    m_engine->settle();
    EXPECT_THAT(replies.payloads, ElementsAre("first"));
}

TEST_F(Calls, ThatSubscribeGetEveryAnswerUntilTheEnd) {
    const auto other = m_engine->otherService(kOther);
    m_engine->settle();
    Replies replies;
    QSToken token = 0;
    ASSERT_TRUE(call("zelt://com.zelt.other/get", R"({"subscribe":true})", &replies, &token));
    ASSERT_TRUE(arrivedAt(*other, 1));
    other->reply(0, "first");
    other->answer(0, "second");
    other->answer(0, "third");
    ASSERT_TRUE(replied(replies, 3));
    EXPECT_THAT(replies.payloads, ElementsAre("first", "second", "third"));
    other->end(0);
    other->answer(0, "after the end");
    m_engine->settle();
    EXPECT_EQ(replies.payloads.size(), 3u);
    EXPECT_FALSE(QSCallCancel(m_private, token, m_error));
}

TEST_F(Calls, ThatSubscribeEndWithTheDeathOfTheirService) {
    auto other = m_engine->otherService(kOther);
    m_engine->settle();
    Replies replies;
    QSToken token = 0;
    ASSERT_TRUE(call("zelt://com.zelt.other/get", R"({"subscribe":true})", &replies, &token));
    ASSERT_TRUE(arrivedAt(*other, 1));
    other->reply(0, "first");
    ASSERT_TRUE(replied(replies, 1));
    m_engine->settle();
    Replies status;
    ASSERT_TRUE(watch(&status));
    ASSERT_TRUE(replied(status, 1));
    other.reset();
    ASSERT_TRUE(replied(status, 2));
    m_engine->settle();
    EXPECT_FALSE(QSCallCancel(m_private, token, m_error));
    EXPECT_THAT(replies.payloads, ElementsAre("first"));
}

TEST_F(Calls, ThatAreCancelledStaySilentAndEndAtTheService) {
    const auto other = m_engine->otherService(kOther);
    m_engine->settle();
    Replies replies;
    QSToken token = 0;
    ASSERT_TRUE(call("zelt://com.zelt.other/get", R"({"subscribe":true})", &replies, &token));
    ASSERT_TRUE(arrivedAt(*other, 1));
    other->reply(0, "first");
    ASSERT_TRUE(replied(replies, 1));
    EXPECT_TRUE(QSCallCancel(m_private, token, m_error));
    ASSERT_TRUE(m_engine->until([&] { return !other->cancelled().empty(); }));
    EXPECT_THAT(other->cancelled(), ElementsAre(0u));
    other->answer(0, "late");
    m_engine->settle();
    EXPECT_THAT(replies.payloads, ElementsAre("first"));
}

TEST_F(Calls, ThatAreCancelledBeforeTheReplyStaySilent) {
    const auto other = m_engine->otherService(kOther);
    m_engine->settle();
    Replies replies;
    QSToken token = 0;
    ASSERT_TRUE(call("zelt://com.zelt.other/get", "{}", &replies, &token));
    ASSERT_TRUE(arrivedAt(*other, 1));
    EXPECT_TRUE(QSCallCancel(m_private, token, m_error));
    other->reply(0, "late");
    m_engine->settle();
    EXPECT_THAT(replies.payloads, IsEmpty());
}

TEST_F(Calls, MayBeCancelledInsideTheirCallback) {
    const auto other = m_engine->otherService(kOther);
    m_engine->settle();
    Replies replies;
    QSToken token = 0;
    replies.then = [&] { QSCallCancel(m_private, token, nullptr); };
    ASSERT_TRUE(call("zelt://com.zelt.other/get", R"({"subscribe":true})", &replies, &token));
    ASSERT_TRUE(arrivedAt(*other, 1));
    other->reply(0, "first");
    ASSERT_TRUE(replied(replies, 1));
    ASSERT_TRUE(m_engine->until([&] { return !other->cancelled().empty(); }));
    other->answer(0, "late");
    m_engine->settle();
    EXPECT_THAT(replies.payloads, ElementsAre("first"));
}

TEST_F(Calls, HandABusErrorToTheCallbackAsAFailedReply) {
    const auto other = m_engine->otherService(kOther);
    m_engine->settle();
    Replies replies;
    ASSERT_TRUE(call("zelt://com.zelt.other/get", R"({"subscribe":true})", &replies));
    ASSERT_TRUE(arrivedAt(*other, 1));
    other->refuse(0, "com.example.Error.Broken", "it is \"broken\"");
    ASSERT_TRUE(replied(replies, 1));
    EXPECT_THAT(replies.payloads,
                ElementsAre(R"({"returnValue":false,"errorCode":-1,"errorText":"it is \"broken\""})"));
    EXPECT_THAT(replies.errorNames, ElementsAre("com.example.Error.Broken"));
}

TEST_F(Calls, WithoutAnAnswerDoNotReachTheCallback) {
    const auto other = m_engine->otherService(kOther);
    m_engine->settle();
    Replies replies;
    QSToken token = 0;
    ASSERT_TRUE(call("zelt://com.zelt.other/get", "{}", &replies, &token));
    ASSERT_TRUE(arrivedAt(*other, 1));
    other->refuse(0, "com.zelt.Error.NoAnswer", "get gives no answer");
    ASSERT_TRUE(m_engine->until([&] { return !QSCallCancel(m_private, token, nullptr); }));
    EXPECT_THAT(replies.payloads, IsEmpty());
}

TEST_F(Calls, CarryNonCharactersAsEscapes) {
    const auto other = m_engine->otherService(kOther);
    m_engine->settle();
    ASSERT_TRUE(call("zelt://com.zelt.other/get", "\"\xEF\xBF\xBF\"", nullptr));
    ASSERT_TRUE(arrivedAt(*other, 1));
    EXPECT_THAT(other->calls(), ElementsAre(R"(/ get "\uFFFF" (no reply))"));
}

TEST_F(Calls, OfInvalidAddressesAreRefusedAtOnce) {
    for (const char* uri : {"", "get", "http://com.zelt.other/get", "zelt://", "zelt://com.zelt.other",
                            "zelt://com.zelt.other/", "zelt://other/get", "zelt://com.zelt.other/a//get",
                            "zelt://com.zelt.other/with blank/get", "zelt://com.zelt.other/get-it",
                            "zelt://com.zelt.other/get?x=1", "zelt://com.my-app/get"}) {
        QSToken token = 7;
        EXPECT_FALSE(QSCall(m_private, uri, "{}", nullptr, nullptr, &token, m_error)) << uri;
        EXPECT_EQ(m_error.code(), -EINVAL) << uri;
        EXPECT_THAT(m_error.message(), HasSubstr(uri));
        EXPECT_EQ(token, 0u);
    }
    EXPECT_FALSE(QSCall(m_private, nullptr, "{}", nullptr, nullptr, nullptr, m_error));
}

TEST_F(Calls, OfBadPayloadsAreRefusedAtOnce) {
    EXPECT_FALSE(call("zelt://com.zelt.other/get", "\xed\xa0\x80", nullptr));
    EXPECT_EQ(m_error.code(), -EILSEQ);
    EXPECT_FALSE(QSCall(m_private, "zelt://com.zelt.other/get", nullptr, nullptr, nullptr, nullptr, m_error));
    EXPECT_FALSE(QSCall(nullptr, "zelt://com.zelt.other/get", "{}", nullptr, nullptr, nullptr, m_error));
    EXPECT_EQ(m_error.code(), -EINVAL);
}

class ServerStatus : public Calls {};

TEST_F(ServerStatus, OfARunningServiceIsReportedAtOnce) {
    const auto other = m_engine->otherService(kOther);
    Replies replies;
    ASSERT_TRUE(watch(&replies));
    ASSERT_TRUE(replied(replies, 1));
    m_engine->settle();
    EXPECT_THAT(replies.payloads, ElementsAre(R"({"connected":true})"));
}

TEST_F(ServerStatus, OfAnAbsentServiceIsFirstReportedWhenItComes) {
    Replies replies;
    ASSERT_TRUE(watch(&replies));
    m_engine->settle();
    EXPECT_THAT(replies.payloads, IsEmpty());
    auto other = m_engine->otherService(kOther);
    ASSERT_TRUE(replied(replies, 1));
    other.reset();
    ASSERT_TRUE(replied(replies, 2));
    other = m_engine->otherService(kOther);
    ASSERT_TRUE(replied(replies, 3));
    EXPECT_THAT(replies.payloads,
                ElementsAre(R"({"connected":true})", R"({"connected":false})", R"({"connected":true})"));
}

TEST_F(ServerStatus, IsReportedOfTheWatchedServiceAlone) {
    Replies replies;
    ASSERT_TRUE(watch(&replies));
    const auto stranger = m_engine->otherService("com.zelt.stranger");
    m_engine->settle();
    EXPECT_THAT(replies.payloads, IsEmpty());
}

TEST_F(ServerStatus, EndsWithTheCancelOfTheCall) {
    auto other = m_engine->otherService(kOther);
    Replies replies;
    QSToken token = 0;
    ASSERT_TRUE(watch(&replies, &token));
    ASSERT_TRUE(replied(replies, 1));
    replies.then = [&] { EXPECT_TRUE(QSCallCancel(m_private, token, m_error)); };
    other.reset();
    ASSERT_TRUE(replied(replies, 2));
    other = m_engine->otherService(kOther);
    m_engine->settle();
    EXPECT_THAT(replies.payloads, ElementsAre(R"({"connected":true})", R"({"connected":false})"));
}

TEST_F(ServerStatus, NeedsANameAndACallback) {
    Replies replies;
    EXPECT_FALSE(watch(&replies, nullptr, "not a name"));
    EXPECT_EQ(m_error.code(), -EINVAL);
    EXPECT_FALSE(call("zelt://com.zelt.bus/signal/registerServerStatus", "{}", &replies));
    EXPECT_FALSE(call("zelt://com.zelt.bus/signal/registerServerStatus", "no json", &replies));
    EXPECT_FALSE(watch(nullptr));
}

TEST_F(ServerStatus, OfAnAbsentServiceMakesCallsToItFailAtOnce) {
    Replies replies;
    ASSERT_TRUE(watch(&replies));
    m_engine->settle();
    EXPECT_FALSE(call("zelt://com.zelt.other/get", "{}", nullptr));
    EXPECT_EQ(m_error.code(), -EHOSTUNREACH);
    EXPECT_THAT(m_error.message(), HasSubstr(kOther));
    auto other = m_engine->otherService(kOther);
    ASSERT_TRUE(replied(replies, 1));
    EXPECT_TRUE(call("zelt://com.zelt.other/get", "{}", nullptr));
    ASSERT_TRUE(arrivedAt(*other, 1));
    other.reset();
    ASSERT_TRUE(replied(replies, 2));
    EXPECT_FALSE(call("zelt://com.zelt.other/get", "{}", nullptr));
}
