// SPDX-License-Identifier: GPL-3.0-only
// `doctor`: checks everything between a client and the server, in the order in which it is
// needed. Changes nothing.
#include "tools/doctor.h"

#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tools/verbs.h"
#include "util/jsonref.h"

namespace {

constexpr unsigned kStepSeconds = 5;
constexpr unsigned long long kLeastSpace = 16ULL * 1024 * 1024;

const char* stateName(Finding::State state) {
    switch (state) {
        case Finding::State::Good:
            return "ok";
        case Finding::State::Bad:
            return "bad";
        default:
            return "unknown";
    }
}

std::string fromEnvironment(const char* variable, const char* fallback) {
    const char* value = std::getenv(variable);
    return value && *value ? value : fallback;
}

Finding fromReply(const std::string& check, const Reply& reply, const std::string& detail,
                  const std::string& advice) {
    if (reply.exit == Exit::Ok)
        return {check, Finding::State::Good, detail, ""};
    return {check, Finding::State::Bad, reply.problem, advice};
}

// The platform services that the push service relies on, each with a call that changes nothing.
struct Needed {
    const char* check;
    const char* uri;
    const char* payload;
};
constexpr Needed kNeeded[] = {
    {.check = "power service",
     .uri = "zelt://com.zelt.power/timeout/clear",
     .payload = "{\"key\":\"pubsubctl.doctor\"}"},
    {.check = "installer service", .uri = "zelt://com.zelt.appinstaller/notifyOnChange", .payload = "{}"},
    {.check = "boot service", .uri = "zelt://com.zelt.systemmanager/getBootStatus", .payload = "{}"},
};
constexpr char kUser[] = "pubsub";  // of an installed service
constexpr char kStartHost[] = "start zelt-host, or whatever provides it on this machine";

Finding judgeNetwork(const Reply& reply) {
    if (reply.exit != Exit::Ok)
        return {"network", Finding::State::Bad, reply.problem, kStartHost};
    const JsonRef status = parseWholeJson(reply.payload);
    if (boolMember(status.get(), "isInternetConnectionAvailable"))
        return {"network", Finding::State::Good, "the Internet is reachable", ""};
    return {"network", Finding::State::Bad, "no network link reaches the Internet",
            "check the links and the default route; a machine with only a loopback interface needs "
            "loopback-is-internet=true in the settings of zelt-host"};
}

// What zelt-host does for the connection; nothing where another program provides the platform services.
struct Keeper {
    bool keeps = false;
    bool ended = false;  // somebody ended the connection on purpose
};

Finding judgeLogin(const Reply& reply, const Keeper& keeper) {
    if (reply.exit != Exit::Ok)
        return {"login", Finding::State::Bad, reply.problem, "start pubsubservice"};
    const JsonRef status = parseWholeJson(reply.payload);
    if (boolMember(status.get(), "connected"))
        return {"login", Finding::State::Good, "the service is logged in", ""};
    if (keeper.ended)
        return {"login", Finding::State::Bad, "the connection was ended on purpose",
                "run `pubsubctl session login`"};
    if (keeper.keeps)
        return {
            "login", Finding::State::Bad, "the service is not connected",
            "fix the findings above; zelt-host then asks for the connection by itself (on battery the "
            "service's own alarms do), and `pubsubctl session login` does so at once; the service's log has "
            "the reason"};
    return {"login", Finding::State::Bad, "the service is not connected",
            "fix the findings above, then run `pubsubctl session login`, which is also needed when a login "
            "failed "
            "at a reconnect alarm, since that one is not retried; the service's log has the reason"};
}

std::string readText(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// The service rejects such a credentials file.
bool othersCanRead(const std::string& file) {
    struct stat status = {};
    return stat(file.c_str(), &status) == 0 && (status.st_mode & 077) != 0;
}

class Doctor {
  public:
    Doctor(const Invocation& invocation, Console& console) : m_invocation(invocation), m_console(console) {}
    Exit run();

  private:
    void report(const Finding& finding);
    void checkBuses();
    void checkServices();
    void askKeeper();
    bool findPlace(ServerPlace& place);
    void checkPathToServer();
    void checkFolders();
    void checkExtension();
    Reply ask(const std::string& uri, const std::string& payload);

    const Invocation& m_invocation;
    Console& m_console;
    std::unique_ptr<BusClient> m_private;
    Keeper m_keeper;
    bool m_healthy = true;
};

void Doctor::report(const Finding& finding) {
    m_console.line(findingLine(finding, m_console.json()));
    m_healthy = m_healthy && finding.state != Finding::State::Bad;
}

Reply Doctor::ask(const std::string& uri, const std::string& payload) {
    if (!m_private)
        return {Exit::NotConnected, "", "requires the private bus"};
    return m_private->call(uri, payload, std::min(m_invocation.timeoutSeconds, kStepSeconds));
}

void Doctor::checkBuses() {
    for (auto [bus, name] :
         {std::pair{QSBus::Private, "private bus"}, std::pair{QSBus::Public, "public bus"}}) {
        Reply reply{Exit::Ok, "", ""};
        auto client = openBus(bus, reply);
        report(fromReply(name, reply, "reachable", "start it; its address is in the variable named above"));
        if (bus == QSBus::Private)
            m_private = std::move(client);
    }
}

void Doctor::checkServices() {
    const Reply status = ask(methodUri("subscribeConnStatus"), "{}");
    report(fromReply("push service", status, "answers", "start pubsubservice"));
    for (const Needed& needed : kNeeded)
        report(fromReply(needed.check, ask(needed.uri, needed.payload), "answers", kStartHost));
    report(judgeNetwork(ask("zelt://com.zelt.connectionmanager/getstatus", "{}")));
}

void Doctor::askKeeper() {
    const JsonRef status = parseWholeJson(ask(kHostConnection + std::string("/status"), "{}").payload);
    m_keeper = {.keeps = boolMember(status.get(), "keep"), .ended = boolMember(status.get(), "ended")};
}

bool Doctor::findPlace(ServerPlace& place) {
    const std::string file = fromEnvironment("PUBSUB_STATE_DIR", "/var/pubsub") + "/pubsub.conf";
    const Reply reply = ask("zelt://com.zelt.accountservices/getAccountToken", "");
    if (placeFromAccount(reply.payload, place))
        report({"account", Finding::State::Good, place.user + "@" + place.domain, ""});
    else if (!othersCanRead(file) && placeFromCredentials(readText(file), place))
        report({"account", Finding::State::Good, place.user + "@" + place.domain + ", from " + file,
                m_keeper.keeps ? ""
                               : "also set it with `zelt-host account set`: with this file alone a lost "
                                 "connection is not "
                                 "re-established; `pubsubctl status --public` reconnects"});
    else
        report({"account", Finding::State::Bad,
                othersCanRead(file)     ? file + " is readable by users other than its owner and is ignored"
                : reply.problem.empty() ? "the answer contains no account"
                                        : reply.problem,
                "set it with `zelt-host account set`"});
    return !place.domain.empty();
}

void Doctor::checkPathToServer() {
    ServerPlace place;
    if (!findPlace(place)) {
        for (const char* check : {"name resolution", "connection", "certificate"})
            report({check, Finding::State::Unknown, "requires an account", ""});
        return;
    }
    const std::string caFile = fromEnvironment("PUBSUB_CA_FILE", "/etc/ssl/certs/ca-certificates.crt");
    for (const Finding& finding : checkServer(place, caFile, kStepSeconds))
        report(finding);
}

void Doctor::checkFolders() {
    const auto check = [this](const char* name, const char* variable, const char* installed) {
        const std::string folder = fromEnvironment(variable, installed);
        report(checkFolder(name, folder, folder == installed ? kUser : nullptr));
    };
    check("state folder", "PUBSUB_STATE_DIR", "/var/pubsub");
    check("store", "ZELT_PREFS_DIR", "/var/lib/zelt/prefs");
}

void Doctor::checkExtension() {
    const std::string payload = ask(methodUri("getTrace"), "{\"itemid\":\"pubsubctl-doctor\"}").payload;
    Finding finding = judgeExtension(payload);
    if (finding.state == Finding::State::Bad)
        finding = judgeExtension(payload, ask(methodUri("getPushBackend"), "{}").payload);
    report(finding);
}

Exit Doctor::run() {
    checkBuses();
    checkServices();
    askKeeper();
    checkPathToServer();
    const Finding login = judgeLogin(ask(methodUri("subscribeConnStatus"), "{}"), m_keeper);
    report(login);
    if (login.state == Finding::State::Good)
        checkExtension();
    else
        report({"server extension", Finding::State::Unknown, "requires a login", ""});
    checkFolders();
    return m_healthy ? Exit::Ok : Exit::NotConnected;
}

}  // namespace

bool placeFromAccount(const std::string& payload, ServerPlace& place) {
    std::string text = textMember(parseWholeJson(payload).get(), "jabberId");
    std::erase(text, '\\');
    const JsonRef account = parseWholeJson(text);
    const ServerPlace read{textMember(account.get(), "user"), textMember(account.get(), "service"),
                           textMember(account.get(), "url"), textMember(account.get(), "port")};
    if (read.user.empty() || read.domain.empty() || read.host.empty() || read.port.empty())
        return false;
    place = read;
    return true;
}

bool placeFromCredentials(const std::string& text, ServerPlace& place) {
    std::istringstream lines(text);
    std::string jid;
    std::string password;
    ServerPlace read;
    std::getline(lines, jid) && std::getline(lines, password) && std::getline(lines, read.host) &&
        std::getline(lines, read.port);
    const size_t at = jid.find('@');
    if (at == std::string::npos || read.host.empty() || read.port.empty())
        return false;
    read.user = jid.substr(0, at);
    read.domain = jid.substr(at + 1);
    place = read;
    return true;
}

Finding checkFolder(const std::string& check, const std::string& folder, const char* user) {
    struct statvfs space = {};
    struct stat status = {};
    if (statvfs(folder.c_str(), &space) != 0 || stat(folder.c_str(), &status) != 0)
        return {check, Finding::State::Bad, folder + ": " + strerror(errno),
                "create it for the user that pubsubservice runs as"};
    const passwd* owner = user ? getpwnam(user) : nullptr;
    if (owner && owner->pw_uid != status.st_uid)
        return {check, Finding::State::Bad, folder + " does not belong to the user " + user,
                std::string("chown ") + user + " " + folder};
    if (static_cast<unsigned long long>(space.f_bavail) * space.f_frsize < kLeastSpace)
        return {check, Finding::State::Bad, folder + " has less than 16 MiB left", "free space on its disk"};
    if (access(folder.c_str(), W_OK) != 0 && errno == EROFS)
        return {check, Finding::State::Bad, folder + " is on a read-only file system",
                "remount it read-write"};
    return {check, Finding::State::Good, folder, ""};
}

// Nothing is known of the item, which is no error: only a server without the extension refuses to look.
Finding judgeExtension(const std::string& payload, const std::string& backend) {
    const JsonRef answer = parseWholeJson(payload);
    if (boolMember(answer.get(), "server"))
        return {"server extension", Finding::State::Good, "the server supports device operations", ""};
    const std::string refusal = textMember(answer.get(), "serverError");
    if (refusal.empty())
        return {"server extension", Finding::State::Unknown, "no answer from the server", ""};
    const std::string provider = textMember(parseWholeJson(backend).get(), "provider");
    if (!provider.empty())
        return {
            "server extension", Finding::State::Good,
            "none, but " + provider + " gives endpoints of web push their addresses",
            "your server keeps nothing: what is pushed while the device is away is lost, and no TTL applies; "
            "for that, and for all other endpoints, load mod_pubsub_device on the server"};
    return {"server extension", Finding::State::Bad, "the server answers device operations with: " + refusal,
            "load mod_pubsub_device on the server"};
}

std::string findingLine(const Finding& finding, bool json) {
    if (json)
        return JsonObject()
            .set("check", finding.check)
            .set("state", stateName(finding.state))
            .set("detail", finding.detail)
            .set("advice", finding.advice)
            .line();
    std::string state = stateName(finding.state);
    state.resize(8, ' ');
    const std::string line = state + finding.check + ": " + finding.detail;
    return finding.advice.empty() ? line : line + "\n        -> " + finding.advice;
}

Exit runDoctor(const Invocation& invocation, Console& console) {
    return Doctor(invocation, console).run();
}
