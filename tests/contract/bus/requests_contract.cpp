// SPDX-License-Identifier: GPL-3.0-only
// The contract of requests: which methods exist, what a handler receives, and the answers that a caller gets.
#include "platform/bus/qscaller.h"
#include "tests/contract/bus/contractfixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

class Requests : public OnBothBuses {};
INSTANTIATE_TEST_SUITE_P(, Requests, testing::Values(QSBus::Private, QSBus::Public), busOfCase);

TEST_P(Requests, ReachTheHandlerWithTheirTexts) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* message = request(*client, call, "hold", R"({"a":"grün \u20ac"})");
    ASSERT_NE(message, nullptr);
    EXPECT_STREQ(QSMessageGetPayload(message), R"({"a":"grün \u20ac"})");
    EXPECT_STREQ(QSMessageGetMethod(message), "hold");
    EXPECT_STREQ(QSMessageGetCategory(message), "/");
    EXPECT_FALSE(QSMessageIsError(message));
    EXPECT_STREQ(QSMessageGetErrorName(message), "");
}

TEST_P(Requests, AreAnsweredByTheMethodReturn) {
    const auto client = m_engine->client(GetParam());
    m_handlers["hold"] = [&](QSHandle* handle, QSMessage* message) {
        EXPECT_EQ(handle, this->handle());
        EXPECT_TRUE(QSMessageReply(handle, message, R"({"returnValue":true})", m_error));
    };
    size_t call = client->call("/", "hold", "{}");
    ASSERT_TRUE(has(*client, call, 1));
    m_engine->settle();
    EXPECT_THAT(client->answers(call), ElementsAre(R"(reply {"returnValue":true})"));
}

TEST_P(Requests, AreHandledInTheOrderOfTheCaller) {
    const auto client = m_engine->client(GetParam());
    for (const char* payload : {"1", "2", "3"})
        client->call("/", "hold", payload);
    ASSERT_TRUE(arrived(3));
    Strings payloads;
    for (const KeptMessage& kept : m_kept)
        payloads.emplace_back(QSMessageGetPayload(kept.get()));
    EXPECT_THAT(payloads, ElementsAre("1", "2", "3"));
}

TEST_P(Requests, MayBeAnsweredLaterAndInAnyOrder) {
    const auto client = m_engine->client(GetParam());
    size_t first = 0;
    size_t second = 0;
    request(*client, first);
    request(*client, second);
    EXPECT_TRUE(respond(m_kept[1].get(), "two"));
    EXPECT_TRUE(respond(m_kept[0].get(), "one"));
    ASSERT_TRUE(has(*client, first, 1) && has(*client, second, 1));
    EXPECT_THAT(client->answers(first), ElementsAre("reply one"));
    EXPECT_THAT(client->answers(second), ElementsAre("reply two"));
}

TEST_P(Requests, TakeLaterAnswersAsAnswersOfTheirOwn) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* message = request(*client, call);
    EXPECT_TRUE(reply(message, "first"));
    EXPECT_TRUE(respond(message, "second"));
    EXPECT_TRUE(reply(message, "third"));
    ASSERT_TRUE(has(*client, call, 3));
    EXPECT_THAT(client->answers(call), ElementsAre("reply first", "answer second", "answer third"));
}

TEST_P(Requests, WithoutAnAnswerAreClosedWithTheLastReference) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    request(*client, call);
    m_engine->settle();
    EXPECT_THAT(client->answers(call), IsEmpty());
    m_kept.clear();
    ASSERT_TRUE(has(*client, call, 1));
    EXPECT_THAT(client->answers(call), ElementsAre("error com.zelt.Error.NoAnswer"));
}

TEST_P(Requests, ThatTheHandlerLetsGoAreClosedAtOnce) {
    const auto client = m_engine->client(GetParam());
    m_handlers["hold"] = [](QSHandle*, QSMessage*) {};
    size_t call = client->call("/", "hold", "{}");
    ASSERT_TRUE(has(*client, call, 1));
    EXPECT_THAT(client->answers(call), ElementsAre("error com.zelt.Error.NoAnswer"));
}

TEST_P(Requests, AreNotEndedWhenTheyNeverWereSubscriptions) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    EXPECT_TRUE(reply(request(*client, call), "only"));
    m_kept.clear();
    m_engine->settle();
    EXPECT_THAT(client->answers(call), ElementsAre("reply only"));
}

TEST_P(Requests, ThatExpectNoReplyGetNoneAndTakeTheAnswerAsGiven) {
    const auto client = m_engine->client(GetParam());
    size_t call = client->callWithoutReply("/", "hold", "{}");
    ASSERT_TRUE(arrived(1));
    EXPECT_TRUE(reply(m_kept[0].get(), "first"));
    EXPECT_TRUE(reply(m_kept[0].get(), "second"));
    m_engine->settle();
    EXPECT_THAT(client->answers(call), ElementsAre("answer second"));
}

TEST_P(Requests, ThatExpectNoReplyAreDroppedInSilence) {
    const auto client = m_engine->client(GetParam());
    size_t call = client->callWithoutReply("/", "hold", "{}");
    ASSERT_TRUE(arrived(1));
    m_kept.clear();
    m_engine->settle();
    EXPECT_THAT(client->answers(call), IsEmpty());
}

TEST_P(Requests, OfUnknownMethodsAreAnsweredAsUnknown) {
    const auto client = m_engine->client(GetParam());
    size_t call = client->call("/", "getSubscriptions", "{}");
    ASSERT_TRUE(has(*client, call, 1));
    EXPECT_THAT(client->answers(call), ElementsAre("error org.freedesktop.DBus.Error.UnknownMethod"));
}

TEST_P(Requests, RefuseAnAnswerThatIsNotUtf8AndStayUnanswered) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* message = request(*client, call);
    EXPECT_FALSE(reply(message, "{\"a\":\"\xff\"}"));
    EXPECT_EQ(m_error.code(), -EILSEQ);
    EXPECT_THAT(m_error.message(), HasSubstr("UTF-8"));
    EXPECT_TRUE(reply(message, "{}"));
    ASSERT_TRUE(has(*client, call, 1));
    EXPECT_THAT(client->answers(call), ElementsAre("reply {}"));
}

TEST_P(Requests, CarryNonCharactersAsEscapes) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* message = request(*client, call);
    EXPECT_TRUE(reply(message, "{\"a\":\"x\xEF\xBF\xBEy\"}"));
    EXPECT_TRUE(reply(message, "\"\xEF\xB7\x90\""));
    EXPECT_TRUE(reply(message, "\"\xF0\x9F\xBF\xBF\""));
    ASSERT_TRUE(has(*client, call, 3));
    EXPECT_THAT(client->answers(call),
                ElementsAre(R"(reply {"a":"x\uFFFEy"})", R"(answer "\uFDD0")", R"(answer "\uD83F\uDFFF")"));
}

TEST_P(Requests, RefuseNullAnswers) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* message = request(*client, call);
    EXPECT_FALSE(QSMessageReply(m_private, message, nullptr, m_error));
    EXPECT_FALSE(QSMessageReply(m_private, nullptr, "{}", m_error));
    EXPECT_EQ(m_error.code(), -EINVAL);
}

TEST_P(Requests, OfADeadClientCannotBeAnswered) {
    auto client = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* message = request(*client, call, "follow", R"({"subscribe":true})");
    ASSERT_TRUE(QSSubscriptionProcess(handle(), message, nullptr, m_error));
    client.reset();
    ASSERT_TRUE(m_engine->until([&] { return !m_cancelled.empty(); }));
    EXPECT_FALSE(respond(message, "late"));
    EXPECT_EQ(m_error.code(), -ENOTCONN);
    EXPECT_THAT(m_error.message(), HasSubstr("gone"));
}

TEST_P(Requests, KnowWhetherTheirCallerIsGone) {
    const auto staying = m_engine->client(GetParam());
    auto leaving = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* first = request(*staying, call);
    QSMessage* second = request(*leaving, call);
    EXPECT_FALSE(QSMessageIsCallerGone(first));
    EXPECT_FALSE(QSMessageIsCallerGone(second));
    leaving.reset();
    EXPECT_TRUE(m_engine->until([&] { return QSMessageIsCallerGone(second); }));
    EXPECT_FALSE(QSMessageIsCallerGone(first));
    EXPECT_FALSE(QSMessageIsCallerGone(nullptr));
}

TEST_P(Requests, ReportTheIdAndTheProcessOfTheirApplication) {
    const auto client = m_engine->client(GetParam(), "com.example.app");
    size_t call = 0;
    QSMessage* message = request(*client, call);
    EXPECT_THAT(QSMessageGetApplicationID(message), MatchesRegex("com\\.example\\.app [0-9]+"));
    QSMessage* second = request(*client, call);
    EXPECT_STREQ(QSMessageGetApplicationID(second), QSMessageGetApplicationID(message));
}

TEST_P(Requests, ReportTheNameOfTheirClientAsLongAsTheyAreKept) {
    auto client = m_engine->client(GetParam());
    const auto other = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* first = request(*client, call);
    QSMessage* second = request(*client, call);
    const std::string name = QSMessageGetSender(first);
    EXPECT_NE(name, "");
    EXPECT_EQ(QSMessageGetSender(second), name);
    EXPECT_NE(QSMessageGetSender(request(*other, call)), name);
    ASSERT_TRUE(reply(first, "{}"));
    client.reset();
    EXPECT_TRUE(m_engine->until([&] { return QSMessageIsCallerGone(first); }));
    EXPECT_EQ(QSMessageGetSender(first), name);
}

TEST_P(Requests, OfNoApplicationReportTheEmptyId) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    EXPECT_STREQ(QSMessageGetApplicationID(request(*client, call)), "");
}

TEST_P(Requests, MayBeReleasedAfterTheBusIsUnregistered) {
    const auto client = m_engine->client(GetParam());
    size_t call = 0;
    QSMessage* message = request(*client, call, "follow", R"({"subscribe":true,"endpoint":"e"})");
    ASSERT_TRUE(QSSubscriptionProcess(handle(), message, nullptr, m_error));
    request(*client, call);
    QSHandle* gone = handle();
    (GetParam() == QSBus::Public ? m_public : m_private) = nullptr;
    EXPECT_TRUE(QSUnregister(gone, m_error)) << m_error.message();
    EXPECT_STREQ(QSMessageGetPayload(message), R"({"subscribe":true,"endpoint":"e"})");
    EXPECT_STREQ(QSMessageGetMethod(message), "follow");
    EXPECT_FALSE(respond(message, "late"));
    EXPECT_EQ(m_error.code(), -ENOTCONN);
    m_kept.clear();
    EXPECT_THAT(m_cancelled, IsEmpty());
}

class PrivateMethods : public BusContract {};

TEST_F(PrivateMethods, DoNotExistOnThePublicBus) {
    const auto client = m_engine->client(QSBus::Public);
    size_t call = client->call("/", "secret", "{}");
    ASSERT_TRUE(has(*client, call, 1));
    EXPECT_THAT(client->answers(call), ElementsAre("error org.freedesktop.DBus.Error.UnknownMethod"));
    EXPECT_THAT(m_kept, IsEmpty());
}

TEST_F(PrivateMethods, AreOnThePrivateBusBesideThePublicOnes) {
    const auto client = m_engine->client(QSBus::Private);
    size_t call = 0;
    EXPECT_STREQ(QSMessageGetMethod(request(*client, call, "secret")), "secret");
    EXPECT_STREQ(QSMessageGetMethod(request(*client, call, "hold")), "hold");
}

class Received : public BusContract {};

TEST_F(Received, RequestsOfBothBusesAreHandledByOneRead) {
    const auto privateClient = m_engine->client(QSBus::Private);
    const auto publicClient = m_engine->client(QSBus::Public);
    size_t call = 0;
    request(*privateClient, call);
    request(*publicClient, call);
    m_kept.clear();
    privateClient->call("/", "hold", "private");
    publicClient->call("/", "hold", "public");
    // The read does not wait, so it is repeated until the daemons have delivered both; the loop does not run.
    Strings payloads;
    const gint64 deadline = g_get_monotonic_time() + 5 * G_USEC_PER_SEC;
    while (m_kept.size() < 2 && g_get_monotonic_time() < deadline)
        QSZeltServiceReadReceived(m_service);
    for (const KeptMessage& kept : m_kept)
        payloads.emplace_back(QSMessageGetPayload(kept.get()));
    EXPECT_THAT(payloads, testing::UnorderedElementsAre("private", "public"));
}

TEST_F(Received, ReadingInsideAHandlerHandlesNothing) {
    const auto client = m_engine->client(QSBus::Private);
    m_handlers["watch"] = [&](QSHandle* handle, QSMessage* message) {
        size_t before = m_kept.size();
        QSZeltServiceReadReceived(m_service);
        EXPECT_EQ(m_kept.size(), before);
        EXPECT_TRUE(QSMessageReply(handle, message, "done", m_error));
    };
    const auto other = m_engine->client(QSBus::Public);
    other->call("/", "hold", "{}");
    size_t call = client->call("/", "watch", "{}");
    client->call("/", "hold", "{}");
    ASSERT_TRUE(has(*client, call, 1) && arrived(2));
    EXPECT_THAT(client->answers(call), ElementsAre("reply done"));
}
