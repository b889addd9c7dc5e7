// SPDX-License-Identifier: GPL-3.0-only
// `setup`: from a server and an account to an item that arrives. Asks for what the command line does not say,
// tries it, has zelt-host store it, and lets the other verbs do the rest. Nothing is stored before a login
// with it has succeeded.
#include <gio/gio.h>
#include <grp.h>
#include <pwd.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <memory>

#include "tools/doctor.h"
#include "tools/trylogin.h"
#include "tools/verbs.h"
#include "util/jsonref.h"

namespace {

constexpr unsigned kStepSeconds = 10;
constexpr unsigned kReceiveSeconds = 30;
constexpr char kFirstEndpoint[] = "first";
constexpr char kTrialNode[] = "setup";  // below the device's own names

struct Wanted {
    ServerPlace place;
    std::string token;
};

// Switches the terminal's echo off for its lifetime, when standard input is one. An interrupt switches it on
// again before it ends the program.
class Silence {
  public:
    Silence() : m_changed(tcgetattr(STDIN_FILENO, &s_before) == 0) {
        if (!m_changed)
            return;
        m_handler = std::signal(SIGINT, endLoudly);
        termios quiet = s_before;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    }
    ~Silence() {
        if (!m_changed)
            return;
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &s_before);
        std::signal(SIGINT, m_handler);
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

  private:
    static void endLoudly(int number) {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &s_before);
        std::signal(number, SIG_DFL);
        std::raise(number);
    }
    static inline termios s_before = {};
    const bool m_changed;
    void (*m_handler)(int) = SIG_DFL;
};

std::string ownFolder() {
    g_autofree char* self = g_file_read_link("/proc/self/exe", nullptr);
    g_autofree char* folder = self ? g_path_get_dirname(self) : nullptr;
    return folder ? folder : "/usr/bin";
}

// Who typed the command, when root runs it for a user: 0 for nobody.
uid_t typist() {
    const char* user = getuid() == 0 ? std::getenv("SUDO_UID") : nullptr;
    return user ? static_cast<uid_t>(std::strtoul(user, nullptr, 10)) : 0;
}

void becomeTypist(gpointer) {
    const uid_t user = typist();
    const passwd* entry = getpwuid(user);
    if (!entry || initgroups(entry->pw_name, entry->pw_gid) != 0 || setgid(entry->pw_gid) != 0 ||
        setuid(user) != 0)
        _exit(127);
}

class Setup {
  public:
    Setup(const Invocation& invocation, Console& console) : m_invocation(invocation), m_console(console) {}
    Exit run();

  private:
    bool ask(const char* option, const std::string& question, const std::string& fallback,
             std::string& value);
    bool gather();
    bool tryServer();
    bool store();
    bool logIn();
    bool firstEndpoint();
    bool trialNode();
    bool traced(const std::string& node);
    std::string applicationId() const;
    std::string prefix();
    bool isForTypist() const { return m_invocation.app.empty() && typist() != 0; }
    void step(const std::string& text) { m_console.message(text); }
    bool fail(Exit exit, const std::string& problem) {
        m_console.message(problem);
        m_exit = exit;
        return false;
    }

    struct Unref {
        void operator()(GSubprocess* program) const { g_object_unref(program); }
    };
    using Program = std::unique_ptr<GSubprocess, Unref>;
    // Null when it could not be started, which is said. `asTypist`: as the user who typed the command.
    Program startProgram(const std::vector<std::string>& words, bool asTypist);
    // The same with this program and a verb of it.
    Program start(std::vector<std::string> words, bool asTypist);
    // Gives a program its input and waits for its end; whether it succeeded.
    static bool finish(GSubprocess* program, const std::string& input, std::string& output);
    bool runVerb(const std::vector<std::string>& words, bool asTypist, std::string& output);

    const Invocation& m_invocation;
    Console& m_console;
    Wanted m_wanted;
    Exit m_exit = Exit::Ok;
};

// --- what is wanted

bool Setup::ask(const char* option, const std::string& question, const std::string& fallback,
                std::string& value) {
    value = m_invocation.value(option);
    if (m_invocation.has(option))
        return true;
    const bool asks = m_console.isInteractive();
    if (asks)
        m_console.ask(question + (fallback.empty() ? "" : " [" + fallback + "]") + ": ", value);
    if (value.empty())
        value = fallback;
    return !value.empty() || fail(Exit::Usage, std::string("--") + option + " is needed" +
                                                   (asks ? "" : "; on a terminal it would be asked for"));
}

bool Setup::gather() {
    ServerPlace& place = m_wanted.place;
    if (!ask("service", "Domain of the account", "", place.domain) ||
        !ask("user", "User name, the part before the @", "", place.user) ||
        !ask("url", "Host of the server", place.domain, place.host) ||
        !ask("port", "Port", "5222", place.port))
        return false;
    {
        const Silence silence;
        m_console.ask(m_console.isInteractive() ? "Token (password): " : "", m_wanted.token);
    }
    return !m_wanted.token.empty() || fail(Exit::Usage, "the token is the first line of standard input");
}

bool Setup::tryServer() {
    step("Trying the server");
    const char* authorities = std::getenv("PUBSUB_CA_FILE");
    const std::string caFile = authorities ? authorities : "/etc/ssl/certs/ca-certificates.crt";
    for (const Finding& finding : checkServer(m_wanted.place, caFile, kStepSeconds)) {
        m_console.line(findingLine(finding, m_console.json()));
        if (finding.state == Finding::State::Bad)
            return fail(Exit::NotConnected, "nothing was stored; fix this and run `pubsubctl setup` again");
    }
    const std::string problem = tryLogin(m_wanted.place, m_wanted.token, caFile, kStepSeconds);
    if (!problem.empty())
        return fail(Exit::Refused, problem + "; nothing was stored");
    const std::string jid = m_wanted.place.user + "@" + m_wanted.place.domain;
    m_console.line(
        findingLine({"account", Finding::State::Good, "the server takes " + jid, ""}, m_console.json()));
    return true;
}

// --- programs

Setup::Program Setup::start(std::vector<std::string> words, bool asTypist) {
    words.insert(words.begin(), "/proc/self/exe");
    if (!m_invocation.app.empty())
        words.insert(words.begin() + 1, {"--app", m_invocation.app});
    return startProgram(words, asTypist);
}

Setup::Program Setup::startProgram(const std::vector<std::string>& words, bool asTypist) {
    g_autoptr(GSubprocessLauncher) launcher = g_subprocess_launcher_new(
        static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDIN_PIPE | G_SUBPROCESS_FLAGS_STDOUT_PIPE));
    if (asTypist)
        g_subprocess_launcher_set_child_setup(launcher, becomeTypist, nullptr, nullptr);
    std::vector<const char*> argv;
    argv.reserve(words.size() + 1);
    for (const std::string& word : words)
        argv.push_back(word.c_str());
    argv.push_back(nullptr);
    g_autoptr(GError) error = nullptr;
    Program program(g_subprocess_launcher_spawnv(launcher, argv.data(), &error));
    if (!program)
        m_console.message(words[0] + ": " + error->message);
    return program;
}

bool Setup::finish(GSubprocess* program, const std::string& input, std::string& output) {
    g_autofree char* printed = nullptr;
    if (!program ||
        !g_subprocess_communicate_utf8(program, input.c_str(), nullptr, &printed, nullptr, nullptr))
        return false;
    output = printed ? printed : "";
    while (output.ends_with('\n'))
        output.pop_back();
    return g_subprocess_get_successful(program);
}

bool Setup::runVerb(const std::vector<std::string>& words, bool asTypist, std::string& output) {
    return finish(start(words, asTypist).get(), "", output);
}

bool Setup::store() {
    step("Storing the account");
    const std::string beside = ownFolder() + "/zelt-host";
    const ServerPlace& place = m_wanted.place;
    std::string output;
    const bool isBeside = g_file_test(beside.c_str(), G_FILE_TEST_IS_EXECUTABLE);
    const Program host =
        startProgram({isBeside ? beside : "zelt-host", "account", "set", "--user", place.user, "--service",
                      place.domain, "--url", place.host, "--port", place.port},
                     false);
    if (!finish(host.get(), m_wanted.token + "\n", output))
        return fail(Exit::Refused, "the account could not be stored; run this as root");
    m_console.line(output);
    return true;
}

bool Setup::logIn() {
    step("Connecting the service");
    std::string output;
    if (!runVerb({"session", "login"}, false, output)) {
        runDoctor(m_invocation, m_console);
        return fail(Exit::NotConnected,
                    "the account is stored, and the service has not connected with it; "
                    "the findings above say why");
    }
    return runDoctor(m_invocation, m_console) == Exit::Ok ||
           fail(Exit::NotConnected, "the service is connected; the findings above say what is missing");
}

// --- the first item

std::string Setup::applicationId() const {
    if (!m_invocation.app.empty())
        return m_invocation.app;
    const uid_t user = getuid() == 0 ? typist() : getuid();
    return user == 0 ? "" : "@" + std::to_string(user);
}

// What the names of the device's nodes begin with.
std::string Setup::prefix() {
    const Reply user = callService(m_invocation, "getJabberId", "{}");
    const Reply device = callService(m_invocation, "getResource", "{}");
    return "/" + textMember(parseWholeJson(user.payload).get(), "username") + "/" +
           textMember(parseWholeJson(device.payload).get(), "resource") + "/";
}

bool Setup::traced(const std::string& node) {
    step("Publishing an item to " + node);
    std::string output;
    const bool arrived = runVerb({"trace", node}, false, output);
    m_console.line(output);
    return arrived || fail(Exit::TimedOut, "the item has not arrived; the line above says where it stays");
}

// Items that wait already are received too, and printed.
bool Setup::firstEndpoint() {
    const std::string appId = applicationId();
    const std::string name = m_invocation.has("endpoint") ? m_invocation.value("endpoint") : kFirstEndpoint;
    std::string key;
    if (appId.empty() || !runVerb({"endpoint", "create", name}, isForTypist(), key)) {
        step(
            "No endpoint was created: this user has no application id here (with ZELT_APP_ID_OF_USERS=1 in "
            "the unit of pubsubservice each login user has one). A node shows the way instead");
        return trialNode();
    }
    step("Created the endpoint " + name + " of " + appId + "; publish from anywhere with its key:");
    m_console.line(key);
    const Program receiver = start({"subscribe", name, "-W", std::to_string(kReceiveSeconds)}, isForTypist());
    const bool arrived = traced(prefix() + appId + "/" + name);
    g_subprocess_send_signal(receiver.get(), SIGTERM);
    std::string received;
    finish(receiver.get(), "", received);
    m_console.line("received: " + received);
    return arrived;
}

// Root itself has no endpoints.
bool Setup::trialNode() {
    const std::string node = prefix() + kTrialNode;
    std::string output;
    runVerb({"node", "create", node}, false, output);  // it may be left of a run that was interrupted
    const bool arrived = runVerb({"node", "subscribe", node}, false, output) && traced(node);
    runVerb({"node", "delete", node}, false, output);
    return arrived;
}

Exit Setup::run() {
    if (gather() && tryServer() && store() && logIn() && firstEndpoint())
        step("Done. `pubsubctl --help` has what comes next");
    return m_exit;
}

}  // namespace

Exit runSetup(const Invocation& invocation, Console& console) {
    return Setup(invocation, console).run();
}
