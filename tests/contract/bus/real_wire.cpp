// SPDX-License-Identifier: GPL-3.0-only
// The wire contract as foreign programs see it on real buses: introspection, texts, identity, refusals of the
// daemon, activation, and the layer as client of itself.
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>

#include "tests/contract/bus/real_fixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class OnTheWire : public RealBusTest {
  protected:
    std::string introspect(QSBus bus) {
        WireConnection client(engine(), bus);
        std::string text;
        auto take = [](sd_bus_message* reply, void* out, sd_bus_error*) {
            const char* xml = "";
            sd_bus_message_read(reply, "s", &xml);
            *static_cast<std::string*>(out) = *xml ? xml : "none";
            return 0;
        };
        sd_bus_call_method_async(client.bus(), nullptr, kServiceName, "/",
                                 "org.freedesktop.DBus.Introspectable", "Introspect", take, &text, "");
        EXPECT_TRUE(m_engine->until([&] { return !text.empty(); }));
        return text;
    }

    // Runs a program and returns its output; the loop runs meanwhile.
    std::string outputOf(const std::string& command) {
        FILE* pipe = popen((command + " 2>&1").c_str(), "r");
        std::string output;
        bool ended = false;
        pollfd wait = {fileno(pipe), POLLIN, 0};
        EXPECT_TRUE(m_engine->until([&] {
            std::array<char, 4096> buffer;
            if (poll(&wait, 1, 0) != 1)
                return false;
            ssize_t got = read(wait.fd, buffer.data(), buffer.size());
            ended = got <= 0;
            output.append(buffer.data(), got > 0 ? static_cast<size_t>(got) : 0);
            return ended;
        })) << output;
        pclose(pipe);
        return output;
    }
};

TEST_F(OnTheWire, IntrospectionDescribesMethodsAndSubscriptions) {
    const std::string xml = introspect(QSBus::Private);
    for (const char* method : {"hold", "follow", "secret", "watch"}) {
        EXPECT_THAT(xml, HasSubstr(std::string("  <method name=\"") + method +
                                   "\">\n   <arg type=\"s\" name=\"request\" direction=\"in\"/>\n"
                                   "   <arg type=\"s\" name=\"reply\" direction=\"out\"/>\n"));
    }
    EXPECT_THAT(xml, HasSubstr(" <interface name=\"com.zelt.contract\">\n"));
    EXPECT_THAT(xml, HasSubstr(" <interface name=\"com.zelt.Subscription1\">\n"
                               "  <method name=\"Cancel\">\n"
                               "   <arg type=\"u\" name=\"serial\" direction=\"in\"/>\n"
                               "   <arg type=\"b\" name=\"found\" direction=\"out\"/>\n"
                               "  </method>\n"
                               "  <signal name=\"Answer\">\n"
                               "   <arg type=\"u\" name=\"serial\"/>\n"
                               "   <arg type=\"s\" name=\"payload\"/>\n"
                               "  </signal>\n"
                               "  <signal name=\"Ended\">\n"
                               "   <arg type=\"u\" name=\"serial\"/>\n"
                               "   <arg type=\"s\" name=\"reason\"/>\n"));
}

TEST_F(OnTheWire, IntrospectionOfThePublicBusNamesNoPrivateMethod) {
    const std::string xml = introspect(QSBus::Public);
    EXPECT_THAT(xml, HasSubstr("\"hold\""));
    EXPECT_THAT(xml, Not(HasSubstr("\"secret\"")));
    EXPECT_THAT(xml, Not(HasSubstr("\"watch\"")));
}

TEST_F(OnTheWire, APythonClientFollowsASubscriptionToItsEnd) {
    m_handlers["follow"] = [&](QSHandle* handle, QSMessage* message) {
        EXPECT_TRUE(QSSubscriptionProcess(handle, message, nullptr, m_error));
        EXPECT_TRUE(QSMessageReply(handle, message, R"({"returnValue":true})", m_error));
        EXPECT_TRUE(QSSubscriptionPost(handle, "/", "follow", R"({"item":"\uFFFE"})", m_error));
    };
    const std::string script = std::string(TEST_SOURCE_DIR) + "/tests/contract/bus/foreign_client.py";
    EXPECT_EQ(outputOf("/usr/bin/python3 " + script + " follow"),
              "reply {\"returnValue\":true}\n"
              "answer {\"item\":\"\\uFFFE\"}\n"
              "ended cancelled\n"
              "cancelled True\n");
    EXPECT_THAT(m_cancelled, ElementsAre(R"(public follow {"subscribe":true})"));
}

TEST_F(OnTheWire, ARawNonCharacterIsRefusedWithAdvice) {
    const std::string script = std::string(TEST_SOURCE_DIR) + "/tests/contract/bus/foreign_client.py";
    const std::string output = outputOf("/usr/bin/python3 " + script + " noncharacter");
    EXPECT_THAT(output, HasSubstr("com.zelt.Error.InvalidText"));
    EXPECT_THAT(output, HasSubstr("\\u escape"));
    EXPECT_THAT(m_kept, IsEmpty());
}

TEST_F(OnTheWire, ASignatureOtherThanOneTextIsRefused) {
    std::string output = outputOf("busctl --address=" + engine().buses().address(QSBus::Public) +
                                  " call com.zelt.contract / com.zelt.contract hold u 5");
    EXPECT_THAT(output, HasSubstr("Invalid arguments 'u' to call"));
}

TEST_F(OnTheWire, BusctlGetsAReply) {
    m_handlers["hold"] = [&](QSHandle* handle, QSMessage* message) {
        EXPECT_TRUE(QSMessageReply(handle, message, QSMessageGetPayload(message), m_error));
    };
    EXPECT_EQ(outputOf("busctl --address=" + engine().buses().address(QSBus::Public) +
                       " call com.zelt.contract / com.zelt.contract hold s '{}'"),
              "s \"{}\"\n");
}

TEST_F(OnTheWire, ToolsThatLeaveAtOnceAreServedOnThePrivateBus) {
    size_t handled = 0;
    m_handlers["secret"] = [&](QSHandle*, QSMessage*) { handled++; };
    const std::string address = engine().buses().address(QSBus::Private);
    outputOf("for i in 1 2 3 4 5; do dbus-send --bus=" + address +
             " --type=method_call --dest=com.zelt.contract / com.zelt.contract.secret string:{}; busctl "
             "--address=" +
             address + " --expect-reply=no call com.zelt.contract / com.zelt.contract secret s {}; done");
    EXPECT_TRUE(m_engine->until([&] { return handled == 10; })) << handled;
}

TEST_F(OnTheWire, TheTableOfUsersNamesApplications) {
    const std::string table = engine().buses().folder() + "/users";
    std::ofstream(table) << "# one user each\n" << getuid() << " com.example.by-user\n";
    setenv("ZELT_APP_ID_USERS", table.c_str(), 1);
    const auto client = m_engine->client(QSBus::Public);
    size_t call = 0;
    const std::string id = QSMessageGetApplicationID(request(*client, call));
    unsetenv("ZELT_APP_ID_USERS");
    EXPECT_EQ(id, "com.example.by-user " + std::to_string(getpid()));
}

TEST_F(OnTheWire, AClientNamesItselfOnlyWhereTheServiceIsToldToBelieveIt) {
    unsetenv("ZELT_APP_ID_FROM_ENVIRONMENT");
    const auto client = m_engine->client(QSBus::Public, "com.example.app");
    size_t call = 0;
    EXPECT_STREQ(QSMessageGetApplicationID(request(*client, call)), "");
}

TEST_F(OnTheWire, ANameThatIsTakenIsRefused) {
    QSHandle* second = nullptr;
    EXPECT_FALSE(QSRegister(QSBus::Private, kServiceName, &second, m_error));
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(m_error.code(), -EEXIST);
    EXPECT_THAT(m_error.message(), HasSubstr("another process has it"));
}

TEST_F(OnTheWire, AnAbsentBusIsRefusedWithItsAddress) {
    setenv("ZELT_PUBLIC_BUS", "unix:path=/nonexistent/bus", 1);
    QSHandle* handle = nullptr;
    EXPECT_FALSE(QSRegister(QSBus::Public, nullptr, &handle, m_error));
    EXPECT_EQ(m_error.code(), -ENOENT);
    EXPECT_STREQ(
        m_error.message(),
        "Connecting to the public bus at unix:path=/nonexistent/bus (ZELT_PUBLIC_BUS) failed: No such file "
        "or directory");
    QSZeltService* service = nullptr;
    EXPECT_FALSE(QSRegisterZeltService("com.zelt.second", &service, m_error));
    EXPECT_FALSE(QSRegisterZeltService("no name", &service, m_error));
}

TEST_F(OnTheWire, APlatformServiceThatIsNotThereIsKnownWithoutAWatch) {
    m_engine->settle();
    EXPECT_FALSE(QSCall(m_private, "zelt://com.zelt.absent/x", "{}", nullptr, nullptr, nullptr, m_error));
    EXPECT_EQ(m_error.code(), -EHOSTUNREACH);
    // Other names are not watched, so nothing is known about them.
    EXPECT_TRUE(QSCall(m_private, "zelt://org.example.absent/x", "{}", nullptr, nullptr, nullptr, m_error));
    const auto there = m_engine->otherService("com.zelt.absent");
    m_engine->settle();
    EXPECT_TRUE(QSCall(m_private, "zelt://com.zelt.absent/x", "{}", nullptr, nullptr, nullptr, m_error));
}

TEST_F(OnTheWire, TheLayerIsItsOwnClient) {
    QSHandle* client = nullptr;
    ASSERT_TRUE(QSRegister(QSBus::Public, nullptr, &client, m_error)) << m_error.message();
    ASSERT_TRUE(QSGmainAttach(client, m_engine->loop(), m_error));
    Strings replies;
    auto take = [](QSHandle*, QSMessage* message, void* out) {
        static_cast<Strings*>(out)->emplace_back(QSMessageGetPayload(message));
        return true;
    };
    QSToken token = 0;
    ASSERT_TRUE(QSCall(client, "zelt://com.zelt.contract/follow", R"({"subscribe":true})", take, &replies,
                       &token, m_error));
    ASSERT_TRUE(arrived(1));
    ASSERT_TRUE(QSSubscriptionProcess(m_public, m_kept[0].get(), nullptr, m_error));
    EXPECT_TRUE(reply(m_kept[0].get(), "first"));
    EXPECT_TRUE(QSSubscriptionPost(m_public, "/", "follow", "second", m_error));
    ASSERT_TRUE(m_engine->until([&] { return replies.size() == 2; }));
    EXPECT_THAT(replies, ElementsAre("first", "second"));
    EXPECT_TRUE(QSCallCancel(client, token, m_error));
    EXPECT_TRUE(m_engine->until([&] { return !m_cancelled.empty(); }));
    EXPECT_TRUE(QSUnregister(client, m_error));
}

TEST_F(OnTheWire, AServiceOnOneBusHasItsOwnCategories) {
    QSHandle* handle = nullptr;
    ASSERT_TRUE(QSRegister(QSBus::Private, "com.zelt.single", &handle, m_error)) << m_error.message();
    static const QSMethod methods[] = {{"set",
                                        [](QSHandle* where, QSMessage* message, void*) {
                                            return QSMessageReply(where, message,
                                                                  QSMessageGetCategory(message), nullptr);
                                        },
                                        0},
                                       {}};
    ASSERT_TRUE(QSRegisterCategory(handle, "/timeout", methods, nullptr, m_error)) << m_error.message();
    EXPECT_FALSE(QSRegisterCategory(handle, "/timeout", methods, nullptr, m_error));
    EXPECT_FALSE(QSRegisterCategory(handle, "timeout", methods, nullptr, m_error));
    ASSERT_TRUE(QSGmainAttach(handle, m_engine->loop(), m_error));
    EXPECT_FALSE(QSGmainAttach(handle, m_engine->loop(), m_error));
    Strings replies;
    auto take = [](QSHandle*, QSMessage* message, void* out) {
        static_cast<Strings*>(out)->emplace_back(QSMessageGetPayload(message));
        return true;
    };
    m_engine->settle();
    ASSERT_TRUE(
        QSCall(m_private, "zelt://com.zelt.single/timeout/set", "{}", take, &replies, nullptr, m_error));
    ASSERT_TRUE(m_engine->until([&] { return !replies.empty(); }));
    EXPECT_THAT(replies, ElementsAre("/timeout"));
    EXPECT_TRUE(QSUnregister(handle, m_error));
}

namespace {

class OtherConfiguration : public RealBusTest {
  protected:
    explicit OtherConfiguration(const std::string& extra) {
        m_engine.reset();
        m_engine = std::make_unique<RealEngine>(extra);
    }
};

class FewMatchRules : public OtherConfiguration {
  protected:
    FewMatchRules() : OtherConfiguration(R"(<limit name="max_match_rules_per_connection">3</limit>)") {}
};

class NoMatchRules : public OtherConfiguration {
  protected:
    NoMatchRules() : OtherConfiguration(R"(<limit name="max_match_rules_per_connection">0</limit>)") {}
};

// The activation files are written before the daemons start, so they have their own folder.
struct ServiceFolder {
    ServiceFolder() {
        std::ofstream(folder.path() + "/com.zelt.startable.service")
            << "[D-BUS Service]\nName=com.zelt.startable\nExec=/bin/false\n";
    }
    TestFolder folder;
};

class WithActivation : protected ServiceFolder, public OtherConfiguration {
  protected:
    WithActivation() : OtherConfiguration("<servicedir>" + folder.path() + "</servicedir>") {}
};

}  // namespace

TEST_F(FewMatchRules, AreSharedByManyClients) {
    std::vector<std::unique_ptr<BusClient>> clients;
    size_t call = 0;
    for (int i = 0; i < 5; i++) {
        clients.push_back(m_engine->client(QSBus::Public));
        QSMessage* kept = request(*clients.back(), call, "hold", std::to_string(i));
        ASSERT_TRUE(QSSubscriptionAdd(m_public, "key", kept, m_error)) << i << m_error.message();
    }
    for (size_t gone : {4, 0, 2}) {
        m_cancelled.clear();
        clients[gone].reset();
        ASSERT_TRUE(m_engine->until([&] { return !m_cancelled.empty(); })) << gone;
        EXPECT_THAT(m_cancelled, ElementsAre("public hold " + std::to_string(gone)));
    }
}

TEST_F(NoMatchRules, ARefusedWatchCostsTheSubscriptionAndNotTheConnection) {
    std::vector<std::unique_ptr<BusClient>> clients;
    size_t call = 0;
    for (int i = 0; i < 5; i++) {
        clients.push_back(m_engine->client(QSBus::Public));
        request(*clients.back(), call);
    }
    EXPECT_FALSE(QSSubscriptionAdd(m_public, "key", m_kept[4].get(), m_error));
    EXPECT_EQ(m_error.code(), -EAGAIN);
    EXPECT_THAT(m_error.message(), HasSubstr("max_match_rules_per_connection"));
    EXPECT_TRUE(respond(m_kept[4].get(), "answered"));
    ASSERT_TRUE(has(*clients[4], call, 1));
    // A client whose disconnection would not be reported is removed with its last request.
    EXPECT_EQ(m_public->peers.size(), 5u);
    m_kept.pop_back();
    EXPECT_EQ(m_public->peers.size(), 4u);
}

TEST_F(WithActivation, ACallToAServiceThatTheBusCanStartGoesOut) {
    m_engine->settle();
    std::string error;
    auto take = [](QSHandle*, QSMessage* message, void* out) {
        *static_cast<std::string*>(out) = QSMessageGetErrorName(message);
        return true;
    };
    EXPECT_TRUE(QSCall(m_private, "zelt://com.zelt.startable/x", "{}", take, &error, nullptr, m_error));
    ASSERT_TRUE(m_engine->until([&] { return !error.empty(); }));
    EXPECT_THAT(error, HasSubstr("org.freedesktop.DBus.Error.Spawn"));
    EXPECT_FALSE(QSCall(m_private, "zelt://com.zelt.absent/x", "{}", nullptr, nullptr, nullptr, m_error));
}

TEST_F(WithActivation, AServiceThatIsInstalledLaterIsFoundAfterOneRefusal) {
    m_engine->settle();
    EXPECT_FALSE(QSCall(m_private, "zelt://com.zelt.later/x", "{}", nullptr, nullptr, nullptr, m_error));
    m_engine->settle();
    std::ofstream(folder.path() + "/com.zelt.later.service")
        << "[D-BUS Service]\nName=com.zelt.later\nExec=/bin/false\n";
    WireConnection administrator(engine(), QSBus::Private);
    EXPECT_TRUE(m_engine->until([&] {
        sd_bus_call_method_async(administrator.bus(), nullptr, "org.freedesktop.DBus",
                                 "/org/freedesktop/DBus", "org.freedesktop.DBus", "ReloadConfig", nullptr,
                                 nullptr, "");
        m_engine->settle();
        return QSCall(m_private, "zelt://com.zelt.later/x", "{}", nullptr, nullptr, nullptr, m_error);
    }));
}
