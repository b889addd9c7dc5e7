// SPDX-License-Identifier: GPL-3.0-only
// `trace`: the report of the stations, what it says is missing, and the whole command against a service.
#include <gmock/gmock.h>

#include "tests/unit/host/privatebus.h"
#include "tests/unit/tools/commandline.h"
#include "tests/unit/tools/fakeservice.h"
#include "tests/unit/tools/loopback.h"
#include "util/jsonref.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

std::string answer(const std::string& stations, bool server = true, const std::string& more = "") {
    return R"({"returnValue":true,"itemid":"trace-1","server":)" + std::string(server ? "true" : "false") +
           more + R"(,"stations":[)" + stations + "]}";
}
std::string station(const std::string& where, const std::string& name, int64_t at,
                    const std::string& more = "") {
    return R"({"name":")" + name + R"(","where":")" + where + R"(","at":)" + std::to_string(at) + more + "}";
}
const std::string kAccepted = station("server", "accepted", 1'001'500);
const std::string kCommitted = kAccepted + "," + station("server", "committed", 1'003'000);
const std::string kSent = kCommitted + "," + station("server", "sent", 1'003'500, R"(,"resource":"dev42")");
const std::string kReceived = kSent + "," + station("device", "received", 1'004'000);
const std::string kHandedOn = kReceived + "," + station("device", "handed on", 1'005'000, R"(,"to":"cache")");
const std::string kDone = kHandedOn + "," + station("device", "acknowledged", 1'006'000) + "," +
                          station("server", "acknowledged", 2'000'000, R"(,"resource":"dev42")");

TEST(TraceReport, HoldsAllStationsInTheOrderOfTime) {
    EXPECT_EQ(traceReport(answer(kCommitted), 1'000'000, 1'002'000),
              R"({"returnValue":true,"itemid":"trace-1","acknowledged":false,"stations":[)"
              R"({"at":1000000,"where":"sender","name":"published"},)"
              R"({"at":1001500,"where":"server","name":"accepted"},)"
              R"({"at":1002000,"where":"sender","name":"answered"},)"
              R"({"at":1003000,"where":"server","name":"committed"}]})");
    EXPECT_THAT(traceReport(answer(kDone), 0, 1), HasSubstr(R"("acknowledged":true)"));
}

TEST(TraceTable, HasALineForEachStationWithTheTimeSinceTheFirst) {
    EXPECT_EQ(traceTable(traceReport(answer(kDone), 1'000'000, 1'002'000)),
              "      0.0 ms  sender  published\n"
              "      1.5 ms  server  accepted\n"
              "      2.0 ms  sender  answered\n"
              "      3.0 ms  server  committed\n"
              "      3.5 ms  server  sent, dev42\n"
              "      4.0 ms  device  received\n"
              "      5.0 ms  device  handed on, cache\n"
              "      6.0 ms  device  acknowledged\n"
              "   1000.0 ms  server  acknowledged, dev42");
}

TEST(TraceGap, SaysWhereTheItemIs) {
    EXPECT_EQ(traceGap(answer(kDone), "/n"), "");
    EXPECT_THAT(traceGap(answer(kHandedOn), "/n"), StartsWith("whoever was handed the item"));
    EXPECT_THAT(traceGap(answer(kReceived), "/n"), StartsWith("the device has the item"));
    EXPECT_THAT(traceGap(answer(kSent), "/n"), StartsWith("another device"));
    EXPECT_THAT(traceGap(answer(kCommitted), "/n"), HasSubstr("`pubsubctl node subscribe /n`"));
    EXPECT_THAT(traceGap(answer(kCommitted), "KEY"), HasSubstr("no program of this device receives"));
    EXPECT_THAT(traceGap(answer(kAccepted), "/n"), HasSubstr("to disk"));
}

TEST(TraceGap, IsTheDevicesAcknowledgementWhereTheServerTellsNothing) {
    const std::string more = R"(,"serverError":"feature-not-implemented")";
    EXPECT_THAT(traceGap(answer(kReceived, false, more), "/n"), HasSubstr("feature-not-implemented"));
    EXPECT_EQ(traceGap(answer(kDone, false, more), "/n"), "");
}

class TraceCommand : public testing::Test, public CommandLine {
  protected:
    PrivateBus bus{"ZELT_PRIVATE_BUS"};
    FakeService service{QSBus::Private};

    std::string mark() const {
        for (const std::string& call : service.calls)
            if (call.starts_with("publishItem "))
                return textMember(parseWholeJson(call.substr(12)).get(), "trace");
        return "";
    }
};

TEST_F(TraceCommand, PublishesAMarkedItemAndAsksUntilItIsAcknowledged) {
    service.script = {{"publishItem", R"({"returnValue":true})"}, {"getTrace", answer(kAccepted)}};
    service.afterReply = [this](const std::string& method) {
        if (method == "getTrace" && service.calls.size() >= 3)
            service.script["getTrace"] = answer(kDone);
    };
    EXPECT_EQ(run({"trace", "/n"}), Exit::Ok);
    EXPECT_EQ(service.calls.at(0),
              R"(publishItem {"node":"/n","item":"a test of pubsubctl trace","trace":")" + mark() + R"("})");
    EXPECT_EQ(mark().size(), 32u);
    EXPECT_EQ(service.calls.at(1), R"(getTrace {"itemid":"trace-)" + mark() + R"("})");
    EXPECT_THAT(out.str(), HasSubstr("server  acknowledged, dev42\n"));
    EXPECT_EQ(err.str(), "");
}

TEST_F(TraceCommand, EndsWithFiveAndWhatIsMissing) {
    service.script = {{"publishItem", R"({"returnValue":true})"}, {"getTrace", answer(kHandedOn)}};
    EXPECT_EQ(run({"trace", "/n", "-W", "1"}), Exit::TimedOut);
    EXPECT_THAT(out.str(), HasSubstr("device  handed on, cache\n"));
    EXPECT_EQ(err.str(),
              "pubsubctl: not acknowledged within 1 s: whoever was handed the item has not "
              "acknowledged it yet\n");
}

TEST_F(TraceCommand, PrintsTheReportUnderJson) {
    service.script = {{"publishItem", R"({"returnValue":true})"}, {"getTrace", answer(kDone)}};
    EXPECT_EQ(run({"--json", "trace", "/n"}), Exit::Ok);
    EXPECT_THAT(out.str(), StartsWith(R"({"returnValue":true,"itemid":"trace-1","acknowledged":true,)"));
}

TEST_F(TraceCommand, EndsAsThePublicationWhenThatIsRefused) {
    service.script = {
        {"publishItem", R"({"returnValue":false,"errorCode":"cancel","errorText":"item-not-found"})"}};
    EXPECT_EQ(run({"trace", "/n"}), Exit::Refused);
    EXPECT_EQ(service.calls.size(), 1u);
    EXPECT_EQ(out.str(), "");
}

TEST_F(TraceCommand, SendsTheMarkOverHttpForAKey) {
    std::string request;
    LoopbackListener listener([&](int client) {
        char block[4096];
        while (request.find("a test of") == std::string::npos) {
            const ssize_t count = read(client, block, sizeof block);
            if (count <= 0)
                return;
            request.append(block, static_cast<size_t>(count));
        }
        LoopbackListener::answer(client, "HTTP/1.1 201 Created\r\nContent-Length: 2\r\n\r\n{}");
    });
    service.script = {{"getTrace", answer(kDone)}};
    EXPECT_EQ(run({"trace", "KEY", "--url", "http://127.0.0.1:" + listener.port() + "/push"}), Exit::Ok)
        << err.str();
    listener.finish();
    EXPECT_THAT(request, HasSubstr("POST /push/KEY "));
    const std::string asked = service.calls.at(0);
    const std::string marked = textMember(parseWholeJson(asked.substr(9)).get(), "itemid").substr(6);
    EXPECT_EQ(marked.size(), 32u);
    EXPECT_THAT(request, HasSubstr("\r\nTrace: " + marked + "\r\n"));
}

TEST_F(TraceCommand, RefusesWhatIsNeitherANodeNorAKey) {
    EXPECT_EQ(run({"trace", "a b"}), Exit::Usage);
    EXPECT_EQ(run({"trace", "/n", "-W", "x"}), Exit::Usage);
    EXPECT_TRUE(service.calls.empty());
}

}  // namespace
