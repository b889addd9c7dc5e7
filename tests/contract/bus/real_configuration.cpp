// SPDX-License-Identifier: GPL-3.0-only
// The installed bus configurations, each tested with its own daemon: the file of the private bus with the
// socket and group of the test, the policy of the system bus after the rules that a system bus starts with.
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/bus/qsraii.h"
#include "tests/contract/bus/contractfixture.h"
#include "tests/contract/bus/real_buses.h"

namespace {

std::string packaged(const std::string& file) {
    std::ifstream stream(std::string(TEST_SOURCE_DIR) + "/packaging/dbus/" + file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::string replaced(std::string text, const std::string& what, const std::string& with) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size(), count++)
        text.replace(at, what.size(), with);
    EXPECT_GT(count, 0u) << what;
    return text;
}

int takeOutcome(sd_bus_message* reply, void* outcome, sd_bus_error*) {
    const sd_bus_error* error = sd_bus_message_get_error(reply);
    *static_cast<std::string*>(outcome) = error ? error->name : "answered";
    return 0;
}

// Calls Ping of an interface of the service and iterates both sides until there is an outcome.
std::string outcomeOf(sd_bus* client, const char* interface) {
    std::string outcome;
    sd_bus_call_method_async(client, nullptr, "com.zelt.pubsubservice", "/", interface, "Ping", takeOutcome,
                             &outcome, "");
    const gint64 deadline = g_get_monotonic_time() + 5 * G_USEC_PER_SEC;
    while (outcome.empty() && g_get_monotonic_time() < deadline) {
        while (sd_bus_process(client, nullptr) > 0) {
        }
        g_main_context_iteration(nullptr, FALSE);
    }
    return outcome;
}

}  // namespace

TEST(PrivateBusConfiguration, LetsTheGroupServeAndCall) {
    TestFolder folder;
    std::string config = replaced(packaged("zelt-private.conf"), "/run/zelt", folder.path());
    config = replaced(config, "zelt-services", getgrgid(getegid())->gr_name);
    config = replaced(config, "<syslog/>", "");
    OwnedProcess daemon = startBusDaemon(folder.path(), "private", config);
    setenv("ZELT_PRIVATE_BUS", ("unix:path=" + folder.path() + "/private_bus").c_str(), 1);
    BusError error;
    QSHandle* service = nullptr;
    QSHandle* client = nullptr;
    ASSERT_TRUE(QSRegister(QSBus::Private, "com.zelt.tried", &service, error)) << error.message();
    ASSERT_TRUE(QSRegister(QSBus::Private, nullptr, &client, error)) << error.message();
    static const QSMethod methods[] = {{"echo",
                                        [](QSHandle* handle, QSMessage* message, void*) {
                                            return QSMessageReply(handle, message, "{}", nullptr);
                                        },
                                        0},
                                       {}};
    ASSERT_TRUE(QSRegisterCategory(service, "/", methods, nullptr, error)) << error.message();
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    ASSERT_TRUE(QSGmainAttach(service, loop, error) && QSGmainAttach(client, loop, error));
    static std::string replied;
    auto take = [](QSHandle*, QSMessage* message, void* data) {
        replied = QSMessageGetPayload(message);
        g_main_loop_quit(static_cast<GMainLoop*>(data));
        return true;
    };
    ASSERT_TRUE(QSCall(client, "zelt://com.zelt.tried/echo", "{}", take, loop, nullptr, error))
        << error.message();
    g_main_loop_run(loop);
    EXPECT_EQ(replied, "{}");
    EXPECT_TRUE(QSUnregister(client, error) && QSUnregister(service, error));
    g_main_loop_unref(loop);
}

// The folder is created as its tmpfiles line says, except for the names, in the folder of the test.
TEST(PrivateBusFolder, IsClosedToStrangers) {
    std::ifstream rules(std::string(TEST_SOURCE_DIR) + "/packaging/tmpfiles/zelt.conf");
    std::string kind, path, group, user;
    unsigned mode = 0;
    for (std::string line; kind != "d" && std::getline(rules, line);) {
        std::istringstream fields(line);
        fields >> kind >> path >> std::oct >> mode >> user >> group;
    }
    EXPECT_EQ(path, "/run/zelt");
    EXPECT_EQ(group, "zelt-services");
    TestFolder outer;
    chmod(outer.path().c_str(), 0755);
    const std::string folder = outer.path() + "/zelt";
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    ASSERT_EQ(chmod(folder.c_str(), mode), 0);
    std::string config = replaced(packaged("zelt-private.conf"), "/run/zelt", folder);
    config = replaced(config, "zelt-services", getgrgid(getegid())->gr_name);
    OwnedProcess daemon = startBusDaemon(folder, "private", replaced(config, "<syslog/>", ""));

    sockaddr_un where = {};
    where.sun_family = AF_UNIX;
    const std::string socketPath = folder + "/private_bus";
    std::copy(socketPath.begin(), socketPath.end(), where.sun_path);
    struct stat socketState = {};
    ASSERT_EQ(stat(socketPath.c_str(), &socketState), 0);
    if (getuid() != 0) {
        // The test cannot run as another user, so only the mode is checked.
        EXPECT_EQ(mode & 07, 0u);
        return;
    }
    auto connectAs = [&](unsigned id) {
        const pid_t pid = fork();
        if (pid == 0) {
            if (setgroups(0, nullptr) != 0 || setgid(id) != 0 || setuid(id) != 0)
                _exit(255);
            const int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            _exit(connect(connection, reinterpret_cast<sockaddr*>(&where), sizeof where) == 0 ? 0 : errno);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        return WEXITSTATUS(status);
    };
    EXPECT_EQ(connectAs(0), 0);
    EXPECT_EQ(connectAs(65534), EACCES);
}

TEST(SystemBusPolicy, LetsEveryClientReachTheServiceAndNothingElse) {
    TestFolder folder;
    std::ofstream(folder.path() + "/policy.conf")
        << replaced(packaged("com.zelt.pubsubservice.conf"), "zelt-services", getgrgid(getegid())->gr_name);
    OwnedProcess daemon = startBusDaemon(folder.path(), "public", R"(<busconfig>
      <type>system</type><listen>unix:path=)" + folder.path() + R"(/public_bus</listen><auth>EXTERNAL</auth>
      <policy context="default"><allow user="*"/><deny own="*"/><deny send_type="method_call"/>
        <allow send_type="signal"/><allow send_requested_reply="true" send_type="method_return"/>
        <allow send_requested_reply="true" send_type="error"/><allow receive_type="method_call"/>
        <allow receive_type="method_return"/><allow receive_type="error"/><allow receive_type="signal"/>
        <allow send_destination="org.freedesktop.DBus"/></policy>
      <include>policy.conf</include></busconfig>)");
    setenv("ZELT_PUBLIC_BUS", ("unix:path=" + folder.path() + "/public_bus").c_str(), 1);
    BusError error;
    QSHandle* refused = nullptr;
    EXPECT_FALSE(QSRegister(QSBus::Public, "com.zelt.other", &refused, error));
    EXPECT_EQ(error.code(), -EACCES);
    EXPECT_THAT(error.message(), testing::HasSubstr("the bus configuration does not let this user own it"));
    QSHandle* service = nullptr;
    ASSERT_TRUE(QSRegister(QSBus::Public, "com.zelt.pubsubservice", &service, error)) << error.message();

    static const QSMethod methods[] = {{"x", [](QSHandle*, QSMessage*, void*) { return true; }, 0}, {}};
    ASSERT_TRUE(QSRegisterCategory(service, "/", methods, nullptr, error)) << error.message();
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    ASSERT_TRUE(QSGmainAttach(service, loop, error));
    sd_bus* client = nullptr;
    sd_bus_new(&client);
    sd_bus_set_address(client, ("unix:path=" + folder.path() + "/public_bus").c_str());
    sd_bus_set_bus_client(client, 1);
    sd_bus_start(client);
    EXPECT_EQ(outcomeOf(client, "com.example.Else"), "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_EQ(outcomeOf(client, "com.zelt.pubsubservice"), "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(outcomeOf(client, "com.zelt.Subscription1"), "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(outcomeOf(client, "org.freedesktop.DBus.Peer"), "answered");
    sd_bus_close_unref(client);
    EXPECT_TRUE(QSUnregister(service, error));
    g_main_loop_unref(loop);
}
