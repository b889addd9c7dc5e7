// SPDX-License-Identifier: GPL-3.0-only
// getTrace: the stations of this device and those that the server tells, by one clock.
#include <glib.h>
#include <gmock/gmock.h>

#include "maintenance/methods.h"
#include "tests/fakes/servicefixture.h"
#include "util/jsonref.h"

namespace {

constexpr char kAsk[] = R"({"itemid":"trace-1"})";
const std::string kAsked =
    "<iq to='pubsub.example.org' id='ID' type='get'><trace xmlns='urn:zelt:pubsub:device:0' "
    "id='trace-1'/></iq>";

std::string serverTrace(int64_t now, const std::string& stations) {
    return "<trace xmlns='urn:zelt:pubsub:device:0' id='trace-1' now='" + std::to_string(now) + "'>" +
           stations + "</trace>";
}
std::string station(const std::string& name, int64_t at, const std::string& more = "") {
    return "<station name='" + name + "' at='" + std::to_string(at) + "'" + more + "/>";
}

}  // namespace

class GetTrace : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        connectSession();
    }
    // "where name detail" of each station, in the order of the answer.
    static Texts stations(const std::string& answer) {
        Texts all;
        const JsonRef object = parseJson(answer.c_str());
        json_object* list = jsonMember(object.get(), "stations");
        for (std::size_t i = 0; i < json_object_array_length(list); ++i) {
            json_object* each = json_object_array_get_idx(list, i);
            all.push_back(textMember(each, "where") + ' ' + textMember(each, "name") + ' ' +
                          textMember(each, "to") + textMember(each, "resource"));
        }
        return all;
    }
    static int64_t at(const std::string& answer, std::size_t index) {
        const JsonRef object = parseJson(answer.c_str());
        json_object* each = json_object_array_get_idx(jsonMember(object.get(), "stations"), index);
        return json_object_get_int64(jsonMember(each, "at"));
    }
};

TEST_F(GetTrace, TellsTheStationsOfBothInTheOrderOfTheDevicesClock) {
    session().m_traces.append("trace-1", "received");
    const Answer reply = call(getTrace, kAsk);
    EXPECT_TRUE(reply.waiting());
    const int64_t now = g_get_real_time(), hour = 3600LL * G_USEC_PER_SEC;
    answer(expectStanza(kAsked),
           serverTrace(now + hour, station("accepted", now + hour - 2 * G_USEC_PER_SEC) +
                                       station("sent", now + hour + G_USEC_PER_SEC, " resource='dev42'")));
    EXPECT_EQ(stations(reply.text()), (Texts{"server accepted ", "device received ", "server sent dev42"}));
    const JsonRef object = parseJson(reply.text().c_str());
    EXPECT_TRUE(boolMember(object.get(), "server"));
    EXPECT_EQ(textMember(object.get(), "itemid"), "trace-1");
    EXPECT_NEAR(static_cast<double>(json_object_get_int64(jsonMember(object.get(), "serverAhead"))),
                static_cast<double>(hour), G_USEC_PER_SEC);
    EXPECT_NEAR(static_cast<double>(at(reply.text(), 0)), static_cast<double>(now - 2 * G_USEC_PER_SEC),
                G_USEC_PER_SEC);
    EXPECT_FALSE(reply.kept());
}

TEST_F(GetTrace, TellsTheDevicesAloneWhenTheServerRefuses) {
    session().m_traces.append("trace-1", "handed on", "cache");
    const Answer reply = call(getTrace, kAsk);
    answerError(expectStanza(kAsked), "cancel", "bad-request");
    EXPECT_EQ(stations(reply.text()), Texts{"device handed on cache"});
    EXPECT_THAT(reply.text(), testing::HasSubstr(R"("server": false, "serverError": "bad-request")"));
}

TEST_F(GetTrace, TellsTheDevicesAloneWithoutAConnection) {
    session().m_traces.append("trace-1", "received");
    fakeServer().closesWith(gloox::ConnStreamError);
    pump();
    fakeServer().forgetStanzas();
    const std::string reply = call(getTrace, kAsk).text();
    EXPECT_EQ(stations(reply), Texts{"device received "});
    EXPECT_THAT(reply, testing::HasSubstr(R"("server": false, "stations")"));
    EXPECT_EQ(stanzaCount(), 0u);
}

TEST_F(GetTrace, OfAnUnknownItemIsEmpty) {
    const Answer reply = call(getTrace, kAsk);
    answer(expectStanza(kAsked), serverTrace(g_get_real_time(), ""));
    EXPECT_EQ(stations(reply.text()), Texts{});
}

TEST_F(GetTrace, AnswersNothingToAResultThatNobodyWaitsFor) {
    takeEvents();
    session().handleTrace("unknown", gloox::JID(kService), "trace-1", {}, nullptr);
    EXPECT_EQ(takeEvents(), Texts{});
}

TEST_F(GetTrace, IsRefusedWithoutAnItem) {
    EXPECT_THAT(call(getTrace, "{}").text(), testing::HasSubstr(R"("returnValue": false)"));
    EXPECT_THAT(call(getTrace, R"({"itemid":""})").text(), testing::HasSubstr("itemid"));
    EXPECT_THAT(call(getTrace, "x").text(), testing::HasSubstr("Malformed json"));
    EXPECT_EQ(stanzaCount(), 0u);
}
