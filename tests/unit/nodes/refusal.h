// SPDX-License-Identifier: GPL-3.0-only
// Refusals of private methods as tables: the state, the request, the whole reply and the handler's log line.
#pragma once

#include <string>

#include "tests/fakes/servicefixture.h"
#include "xmpp/manager.h"

// The default error code and text of the node methods, escaped for JSON.
inline const std::string kQuotedCode = R"(\"errBadArgument\")";
inline const std::string kQuotedText = R"(\"Bad Argument\")";

inline std::string errorReply(const std::string& code, const std::string& text) {
    return R"({ "returnValue": false, "errorCode": ")" + code + R"(", "errorText": ")" + text + R"(" })";
}
inline std::string nodeErrorReply(const std::string& node, const std::string& code, const std::string& text) {
    return R"({ "node": ")" + node + R"(", "returnValue": false, "errorCode": ")" + code +
           R"(", "errorText": ")" + text + R"(" })";
}

enum class Given { Ready, NoManager, NoService, Disconnected, NoClient };

struct RefusalCase {
    std::string name;
    QSFilter handler;
    Given given;
    std::string payload;
    std::string reply;
    std::string ownLog = "";  // "function: text", written before the error reply; "" for none
};

inline void PrintTo(const RefusalCase& refusal, std::ostream* out) {
    *out << refusal.payload;
}

inline std::string caseName(const testing::TestParamInfo<RefusalCase>& test) {
    return test.param.name;
}

class NodeRefusal : public ServiceTest, public testing::WithParamInterface<RefusalCase> {
  protected:
    void give(Given given) {
        if (given != Given::NoManager)
            connectSession();
        if (given == Given::NoService)
            session().m_pubsubService.clear();
        if (given == Given::Disconnected)
            session().m_connected = false;
        if (given == Given::NoClient)
            session().m_pubsub->detach();
    }

    // The caller gets the reply at once, the reason is logged, and nothing else happens.
    void checkRefusal() {
        const RefusalCase& refusal = GetParam();
        give(refusal.given);
        const Answer answer = call(refusal.handler, refusal.payload);
        EXPECT_EQ(answer, refusal.reply);
        EXPECT_FALSE(answer.kept());
        EXPECT_EQ(takeEvents(), Texts{"bus.reply method " + refusal.reply});
        Texts expected;
        if (!refusal.ownLog.empty())
            expected.push_back(refusal.ownLog);
        expected.push_back("HandleError: Sending return error " + refusal.reply + " \n");
        EXPECT_EQ(takeLogLines(), expected);
        EXPECT_TRUE(session().m_msgMap.empty());
    }
};
