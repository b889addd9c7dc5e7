// SPDX-License-Identifier: GPL-3.0-only
// The checks of `doctor`, against environments that are broken in a known way.
#include "tools/doctor.h"

#include <gmock/gmock.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <sstream>

#include "tests/unit/host/privatebus.h"
#include "tests/unit/tools/fakehost.h"
#include "tests/unit/tools/fakeservice.h"
#include "tests/unit/tools/loopback.h"
#include "tools/verbs.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using State = Finding::State;

// A CA certificate that has signed nothing.
constexpr char kAuthority[] = R"(-----BEGIN CERTIFICATE-----
MIIBiTCCAS+gAwIBAgIUBg00ujSA0WpzQfSlW0T0tWWk7zYwCgYIKoZIzj0EAwIw
GTEXMBUGA1UEAwwOdGVzdCBhdXRob3JpdHkwIBcNMjYxMTIxMTAwMTE5WhgPMjEy
NjEwMjgxMDAxMTlaMBkxFzAVBgNVBAMMDnRlc3QgYXV0aG9yaXR5MFkwEwYHKoZI
zj0CAQYIKoZIzj0DAQcDQgAE+eh0JI4yVUQCabebHD85Y/sKDMhTBxzZjo7DNNqn
1AKpqLPRJBdLrJVbsYwfsAXMpSQ1Ur+MMywvqLKR4eMWqqNTMFEwHQYDVR0OBBYE
FJ87fgH+Bl3oGgNJgE46voc4yhfnMB8GA1UdIwQYMBaAFJ87fgH+Bl3oGgNJgE46
voc4yhfnMA8GA1UdEwEB/wQFMAMBAf8wCgYIKoZIzj0EAwIDSAAwRQIhAMsf+ZDR
aPdGXSPxssGplOz/uuEXukJKvakuufp+Ui9fAiAGeq42hr5PXhpZGWtlOd1tazoI
gyXw/OuK03uEyUosRA==
-----END CERTIFICATE-----
)";

std::string writeAuthority(const TestFolder& folder) {
    std::ofstream(folder / "ca.crt") << kAuthority;
    return folder / "ca.crt";
}

// Answers its first client from a script and closes.
class Server : public LoopbackListener {
  public:
    explicit Server(std::string text)
        : LoopbackListener([text = std::move(text)](int client) {
              char request[4096];
              if (recv(client, request, sizeof request, 0) > 0)
                  answer(client, text);
          }) {}
};

std::vector<State> states(const std::vector<Finding>& findings) {
    std::vector<State> list;
    for (const Finding& finding : findings)
        list.push_back(finding.state);
    return list;
}

TEST(DoctorPlace, ComesFromTheAccountService) {
    ServerPlace place;
    EXPECT_TRUE(placeFromAccount(R"({"returnValue":true,"jabberId":"{\"user\":\"u\",\"service\":\"d\",)"
                                 R"(\"url\":\"h\",\"port\":\"5222\"}","uniqueId":"t"})",
                                 place));
    EXPECT_EQ(place.user + "@" + place.domain + " " + place.host + " " + place.port, "u@d h 5222");
    ServerPlace none;
    for (const char* payload : {"", "{}", R"({"returnValue":false})", R"({"jabberId":"{\"user\":\"u\"}"})"})
        EXPECT_FALSE(placeFromAccount(payload, none)) << payload;
    EXPECT_EQ(none.domain, "");
}

TEST(DoctorPlace, ComesFromTheCredentialsFileOtherwise) {
    ServerPlace place;
    EXPECT_TRUE(placeFromCredentials("u@d\nsecret\nh\n5222\npubsub.d\n", place));
    EXPECT_EQ(place.user + "@" + place.domain + " " + place.host + " " + place.port, "u@d h 5222");
    for (const char* text : {"", "u@d\n", "u@d\nsecret\nh\n", "u\nsecret\nh\n5222\n"})
        EXPECT_FALSE(placeFromCredentials(text, place)) << text;
}

TEST(DoctorServer, WhoseNameIsUnknownLeavesTheRestUnknown) {
    auto findings = checkServer({"u", "d", "no-such-host.invalid", "5222"}, "/nowhere", 2);
    EXPECT_THAT(states(findings), testing::ElementsAre(State::Bad, State::Unknown, State::Unknown));
    EXPECT_THAT(findings[0].detail, HasSubstr("no-such-host.invalid: "));
    EXPECT_EQ(findings[0].advice, "check the host name in the account and this machine's DNS servers");
}

TEST(DoctorServer, ThatRefusesConnectionsIsToldSo) {
    std::string port = Server("").port();  // closed again by now
    auto findings = checkServer({"u", "d", "127.0.0.1", port}, "/nowhere", 2);
    EXPECT_THAT(states(findings), testing::ElementsAre(State::Good, State::Bad, State::Unknown));
    EXPECT_EQ(findings[1].detail, "127.0.0.1 port " + port + ": Connection refused");
}

TEST(DoctorServer, WithoutTlsIsToldSo) {
    TestFolder folder;
    Server server("<stream:features/></stream:stream>");
    auto findings = checkServer({"u", "d.example", "127.0.0.1", server.port()}, writeAuthority(folder), 2);
    EXPECT_THAT(states(findings), testing::ElementsAre(State::Good, State::Good, State::Bad));
    EXPECT_EQ(findings[2].detail, "the server does not offer TLS for d.example");
}

TEST(DoctorServer, CannotBeVerifiedWithoutAuthorities) {
    Server server("");
    auto findings = checkServer({"u", "d", "127.0.0.1", server.port()}, "/nowhere/ca.crt", 2);
    EXPECT_EQ(findings.back().detail, "/nowhere/ca.crt contains no CA certificates");
    EXPECT_EQ(findings.back().state, State::Bad);
}

TEST(DoctorServer, ThatSpeaksNoTlsAfterAllIsToldSo) {
    TestFolder folder;
    Server server("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/><proceed xmlns='x'/>garbage");
    auto findings = checkServer({"u", "d", "127.0.0.1", server.port()}, writeAuthority(folder), 2);
    EXPECT_EQ(findings.back().check, "certificate");
    EXPECT_EQ(findings.back().state, State::Bad);
}

TEST(DoctorFolder, IsThereOrMissing) {
    TestFolder folder;
    EXPECT_EQ(checkFolder("store", folder.path()).state, State::Good);
    Finding missing = checkFolder("store", folder / "none");
    EXPECT_EQ(missing.state, State::Bad);
    EXPECT_EQ(missing.detail, (folder / "none") + ": No such file or directory");
}

TEST(DoctorFolder, BelongsToTheUserOfTheService) {
    TestFolder folder;
    const passwd* self = getpwuid(geteuid());
    ASSERT_TRUE(self);
    const std::string own = self->pw_name, other = geteuid() == 0 ? "nobody" : "root";
    EXPECT_EQ(checkFolder("store", folder.path(), own.c_str()).state, State::Good);
    EXPECT_EQ(checkFolder("store", folder.path(), "no such user").state, State::Good);
    const Finding found = checkFolder("store", folder.path(), other.c_str());
    EXPECT_EQ(found.state, State::Bad);
    EXPECT_EQ(found.detail, folder.path() + " does not belong to the user " + other);
    EXPECT_EQ(found.advice, "chown " + other + " " + folder.path());
}

TEST(DoctorExtension, IsKnownByTheAnswerToAQuestionThatIsNoError) {
    EXPECT_EQ(judgeExtension(R"({"returnValue":true,"itemid":"i","server":true,"stations":[]})").state,
              State::Good);
    Finding missing = judgeExtension(
        R"({"returnValue":true,"itemid":"i","server":false,"serverError":"service-unavailable","stations":[]})");
    EXPECT_EQ(missing.state, State::Bad);
    EXPECT_EQ(missing.detail, "the server answers device operations with: service-unavailable");
    EXPECT_EQ(judgeExtension(R"({"returnValue":true,"itemid":"i","server":false,"stations":[]})").state,
              State::Unknown);
    EXPECT_EQ(judgeExtension("").state, State::Unknown);
}

TEST(DoctorExtension, ThatIsMissingIsReplacedForWebPushByAProvider) {
    const std::string refused = R"({"returnValue":true,"server":false,"serverError":"not-allowed"})";
    const Finding found =
        judgeExtension(refused, R"({"returnValue":true,"backend":"provider","provider":"push.example.org"})");
    EXPECT_EQ(found.state, State::Good);
    EXPECT_EQ(found.detail, "none, but push.example.org gives endpoints of web push their addresses");
    EXPECT_THAT(found.advice,
                HasSubstr("your server keeps nothing: what is pushed while the device is away is lost"));
    EXPECT_EQ(judgeExtension(refused, R"({"returnValue":true,"backend":"none"})").state, State::Bad);
}

TEST(DoctorOutput, IsALineWithItsAdviceOrAnObject) {
    Finding finding{"store", State::Bad, "why", "what to do"};
    EXPECT_EQ(findingLine(finding, false), "bad     store: why\n        -> what to do");
    EXPECT_EQ(findingLine({"store", State::Good, "/d", ""}, false), "ok      store: /d");
    EXPECT_EQ(findingLine(finding, true),
              R"({"check":"store","state":"bad","detail":"why","advice":"what to do"})");
}

// A device without a public bus, whose service has no connection.
class Doctor : public testing::Test {
  protected:
    Doctor() {
        setenv("PUBSUB_STATE_DIR", folder.path().c_str(), 1);
        setenv("ZELT_PREFS_DIR", folder.path().c_str(), 1);
        setenv("ZELT_PUBLIC_BUS", "unix:path=/nowhere/bus", 1);
        service.script["subscribeConnStatus"] = R"({"returnValue":true,"connected":false})";
    }
    ~Doctor() override {
        for (const char* variable : {"PUBSUB_STATE_DIR", "ZELT_PREFS_DIR", "ZELT_PUBLIC_BUS"})
            unsetenv(variable);
    }
    // What `doctor` reports.
    static std::string examine() {
        std::istringstream in;
        std::ostringstream out, err;
        Console console(in, out, err, false);
        EXPECT_EQ(runDoctor(Invocation(), console), Exit::NotConnected);
        return out.str();
    }
    // The same for a device whose account comes from the credentials file. `host`: what the host daemon says of the
    // connection; "" where there is none.
    std::string examineWithFile(mode_t mode, const std::string& host = "") {
        std::optional<FakeHost> keeper;
        if (!host.empty())
            keeper.emplace().answer = host;
        const std::string file = folder / "pubsub.conf";
        std::ofstream(file) << "u1@example.org\nsecret\n127.0.0.1\n1\npubsub.example.org\ndev1\n";
        chmod(file.c_str(), mode);
        return examine();
    }

    PrivateBus bus;
    TestFolder folder;
    FakeService service;
};

TEST_F(Doctor, LooksAtEverythingAndEndsWithFourWhenSomethingIsWrong) {
    const std::string report = examine();
    for (const char* line :
         {"ok      private bus: reachable\n", "bad     public bus: ", "ok      push service: answers\n",
          "bad     power service: com.zelt.power is not on the bus",
          "bad     network: ", "bad     account: ", "        -> set it with `zelt-host account set`\n",
          "unknown certificate: requires an account\n", "bad     login: the service is not connected\n",
          "unknown server extension: requires a login\n", "ok      store: "})
        EXPECT_THAT(report, HasSubstr(line));
}

TEST_F(Doctor, NamesThePushProviderOfAServerWithoutTheExtension) {
    service.script["subscribeConnStatus"] = R"({"returnValue":true,"connected":true})";
    service.script["getTrace"] = R"({"returnValue":true,"server":false,"serverError":"not-allowed"})";
    service.script["getPushBackend"] =
        R"({"returnValue":true,"backend":"provider","provider":"push.example.org"})";
    EXPECT_THAT(examine(), HasSubstr("ok      server extension: none, but push.example.org gives endpoints"));
}

TEST_F(Doctor, SaysOfTheFileThatALossIsForGoodAndThatALoginIsNotTriedAgain) {
    const std::string words = examineWithFile(0600);
    EXPECT_THAT(words, HasSubstr("ok      account: u1@example.org, from "));
    EXPECT_THAT(words, HasSubstr("with this file alone a lost connection is not re-established"));
    EXPECT_THAT(
        words,
        HasSubstr(
            "which is also needed when a login failed at a reconnect alarm, since that one is not retried"));
}

TEST_F(Doctor, CountsOnAHostThatKeepsTheConnection) {
    const std::string words = examineWithFile(0600, R"({"returnValue":true,"keep":true,"ended":false})");
    EXPECT_THAT(words, HasSubstr("ok      account: u1@example.org, from "));
    EXPECT_THAT(words, Not(HasSubstr("zelt-host account set")));
    EXPECT_THAT(words,
                HasSubstr("bad     login: the service is not connected\n"
                          "        -> fix the findings above; zelt-host then asks for the connection"));
}

TEST_F(Doctor, SaysThatTheEndWasOnPurpose) {
    EXPECT_THAT(examineWithFile(0600, R"({"returnValue":true,"keep":true,"ended":true})"),
                HasSubstr("bad     login: the connection was ended on purpose\n"
                          "        -> run `pubsubctl session login`\n"));
}

TEST_F(Doctor, TakesNoAccountFromAFileThatOthersCanRead) {
    EXPECT_THAT(examineWithFile(0644),
                HasSubstr("/pubsub.conf is readable by users other than its owner and is ignored\n"));
}

}  // namespace
