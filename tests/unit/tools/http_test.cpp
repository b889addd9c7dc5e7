// SPDX-License-Identifier: GPL-3.0-only
// Publishing over HTTP: where to, what each status means, and a server that answers, refuses or stays silent.
#include "tools/http.h"

#include <gmock/gmock.h>

#include "tests/unit/tools/loopback.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

TEST(PublishUrl, IsTheBaseWithTheKeyOrTheWholeAddress) {
    std::string url;
    std::string problem;
    EXPECT_TRUE(publishUrl("Key_-1", "http://h/push", url, problem));
    EXPECT_EQ(url, "http://h/push/Key_-1");
    EXPECT_TRUE(publishUrl("K", "http://h/push/", url, problem));
    EXPECT_EQ(url, "http://h/push/K");
    for (const char* whole : {"http://h/push/K", "https://h/push/K"}) {
        EXPECT_TRUE(publishUrl(whole, "", url, problem));
        EXPECT_EQ(url, whole);
    }
}

TEST(PublishUrl, RefusesWhatIsNoKeyAndAKeyWithoutABase) {
    std::string url;
    for (const char* target : {"", "a/b", "a b", "ftp://h/K", "\xc3\xa4"}) {
        std::string problem;
        EXPECT_FALSE(publishUrl(target, "http://h", url, problem)) << target;
        EXPECT_EQ(problem, "a key consists of letters, digits, - and _; give a key or a full http:// URL");
    }
    std::string problem;
    EXPECT_FALSE(publishUrl("K", "", url, problem));
    EXPECT_EQ(
        problem,
        "the address to publish to is unknown; give --url, or set PUBSUB_HTTP_URL to the URL before the key");
}

struct StatusCase {
    HttpAnswer answer;
    const char* problem;
};

class RefusedPublication : public testing::TestWithParam<StatusCase> {};

TEST_P(RefusedPublication, EndsWithThreeAndClearWords) {
    Reply reply = judgeHttp(GetParam().answer);
    EXPECT_EQ(reply.exit, Exit::Refused);
    EXPECT_EQ(reply.problem, GetParam().problem);
}

INSTANTIATE_TEST_SUITE_P(
    Table, RefusedPublication,
    testing::Values(
        StatusCase{{400, R"({"error":"why"})", ""},
                   "the server rejects this text: it is empty, or contains characters that XML cannot "
                   "carry (why)"},
        StatusCase{{404, "no json", ""},
                   "no endpoint has this key; `pubsubctl endpoint key` prints the right one"},
        StatusCase{{405, "", ""}, "this is not an address to publish to; check the part before the key"},
        StatusCase{{413, "", ""}, "the text is too long for the server; publish a reference to it instead"},
        StatusCase{{429, "", "7"}, "too many items for this key; try again in 7 s"},
        StatusCase{{503, R"({"error":"full"})", "30"},
                   "the server cannot store more items at the moment (full); try again in 30 s"},
        StatusCase{{302, "", ""}, "the server answered with status 302"},
        StatusCase{{200, "", ""}, "the server answered with status 200"}));

TEST(Publication, IsDoneAtStatus201) {
    Reply reply = judgeHttp({201, R"({"id":"i","seqNo":"1"})", ""});
    EXPECT_EQ(reply.exit, Exit::Ok);
    EXPECT_EQ(reply.payload, R"({"id":"i","seqNo":"1"})");
}

// Keeps its first request and answers it from a script, or not at all.
class HttpServer {
  public:
    explicit HttpServer(std::string answer)
        : m_listener([this, answer = std::move(answer)](int client) { serve(client, answer); }) {
        url = "http://127.0.0.1:" + m_listener.port() + "/push/KEY";
    }
    // Waits until the client has disconnected.
    void finish() { m_listener.finish(); }

    std::string url;
    std::string request;  // valid once finished

  private:
    void serve(int client, const std::string& answer) {
        char block[4096];
        ssize_t count = 0;
        while (!request.ends_with("BODY") && (count = recv(client, block, sizeof block, 0)) > 0)
            request.append(block, static_cast<size_t>(count));
        if (answer.empty())
            LoopbackListener::drain(client);
        else
            LoopbackListener::answer(client, answer);
    }

    LoopbackListener m_listener;  // the last member: its thread uses the others
};

TEST(Post, SendsTheTextAndTakesTheAnswer) {
    HttpServer server("HTTP/1.1 201 Created\r\nContent-Length: 22\r\n\r\n{\"id\":\"i\",\"seqNo\":\"1\"}");
    Reply reply = postItem(server.url, "a\nBODY", 5);
    server.finish();
    EXPECT_EQ(reply.exit, Exit::Ok) << reply.problem;
    EXPECT_EQ(reply.payload, R"({"id":"i","seqNo":"1"})");
    EXPECT_THAT(server.request, StartsWith("POST /push/KEY HTTP/1.1\r\n"));
    EXPECT_THAT(server.request, HasSubstr("\r\nContent-Length: 6\r\n"));
    EXPECT_THAT(server.request, HasSubstr("\r\n\r\na\nBODY"));
}

TEST(Post, TellsWhenToComeBack) {
    HttpServer server("HTTP/1.1 429 Too Many\r\nRetry-After: 12\r\nContent-Length: 0\r\n\r\n");
    Reply reply = postItem(server.url, "BODY", 5);
    EXPECT_EQ(reply.exit, Exit::Refused);
    EXPECT_EQ(reply.problem, "too many items for this key; try again in 12 s");
}

TEST(Post, EndsWithFiveWhenTheServerStaysSilent) {
    HttpServer server("");
    Reply reply = postItem(server.url, "BODY", 1);
    EXPECT_EQ(reply.exit, Exit::TimedOut);
    EXPECT_EQ(reply.problem,
              "the server did not answer within 1 s; --timeout SECONDS waits longer. The item may have been "
              "stored nevertheless");
}

TEST(Post, EndsWithFourWhenTheServerCannotBeReached) {
    HttpServer server("");
    std::string url = server.url;
    server.finish();
    Reply reply = postItem(url, "BODY", 5);
    EXPECT_EQ(reply.exit, Exit::NotConnected);
    EXPECT_THAT(reply.problem, StartsWith("the server cannot be reached: "));
    EXPECT_THAT(reply.problem, testing::Not(HasSubstr("KEY")));
}

TEST(Post, TakesNoAnswerThatIsTooLongAndNoAddressThatIsNone) {
    HttpServer server("HTTP/1.1 200 OK\r\n\r\n" + std::string(100000, 'x'));
    EXPECT_EQ(postItem(server.url, "BODY", 5).exit, Exit::NotConnected);
    EXPECT_EQ(postItem("http://[nonsense", "x", 5).exit, Exit::Usage);
}

}  // namespace
