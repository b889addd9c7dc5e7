// SPDX-License-Identifier: GPL-3.0-only
// The fixture of all tests that run the service against the fakes.
#include "tests/fakes/servicefixture.h"

#include <gloox/tag.h>
#include <syslog.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <utility>

#include "tests/fakes/systemlog.h"
#include "xmpp/client.h"
#include "xmpp/manager.h"

namespace {

constexpr int kMostTurns = 20000;

// All that the service logs below the priority of an error.
const std::set<std::string> kTraces = {"Calling mainloop", "Trying to get login value now that AC is up",
                                       "We had some connection err in the past. So nop."};

std::string escaped(const std::string& text) {
    const gloox::Tag carrier("x", text);
    const std::string xml = carrier.xml();  // <x>TEXT</x>, or <x/> for an empty text
    return xml == "<x/>" ? "" : xml.substr(3, xml.size() - 7);
}

std::filesystem::path makeFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "pubsub-test-XXXXXX").string();
    return mkdtemp(name.data());
}

}  // namespace

void ServiceTest::SetUp() {
    m_folder = makeFolder();
    setenv("PUBSUB_STATE_DIR", m_folder.c_str(), 1);
    setenv("xmpp_config", "1", 1);
    dropSession();
    fakeBus().reset();
    fakePrefs().reset();
    fakeServer().reset();
    fakeServer().install();
    m_loop = g_main_loop_new(nullptr, FALSE);
    freshSession();
    journal().take();
    systemLog().clear();
    m_log.emplace();
}

void ServiceTest::TearDown() {
    const std::string log = m_log->raw();
    checkCalls();
    dropSession();
    checkMessages();
    checkPriorities();
    m_log.reset();
    if (HasFailure() && !log.empty())
        std::fprintf(stderr, "--- log of the failed test\n%s---\n", log.c_str());
    fakeServer().reset();
    fakePrefs().reset();
    fakeBus().reset();
    journal().take();
    g_main_loop_unref(std::exchange(m_loop, nullptr));
    gpMainLoop = nullptr;
    std::filesystem::remove_all(m_folder);
}

// --- the session

void ServiceTest::freshSession() {
    gCurrentSession = gPubSub;
    gCurrentSession.m_privateHandle = privateHandle();
    gCurrentSession.m_publicHandle = publicHandle();
    gCurrentSession.m_serviceHandle = serviceHandle();
    gCurrentSession.m_mainLoop = gpMainLoop = m_loop;
}

// Removes the client without informing the session, so that nothing is posted, then every kept message.
void ServiceTest::dropSession() {
    PubSubSession& old = gCurrentSession;
    if (old.m_client) {
        old.m_client->removeConnectionListener(&old);
        old.m_client->removeMessageHandler(&old);
    }
    old.dropClient();
    delete std::exchange(old.m_pubsub, nullptr);
    pump();
    fakePrefs().restart();
    old.m_prefsHandle = old.m_offlinePrefHandle = nullptr;  // ended with the restart
    old.dropTimers();
    if (const guint timer = std::exchange(old.m_writeTimer, 0))
        g_source_remove(timer);
    gCurrentSession = gPubSub;
}

void ServiceTest::checkMessages() {
    fakeBus().dropSubscriptions();
    for (const FakeMessage* message : fakeBus().liveMessages())
        if (std::find(m_mayStay.begin(), m_mayStay.end(), message) == m_mayStay.end())
            ADD_FAILURE() << "A bus message is still held: " << message->method << ' ' << message->payload
                          << ", " << message->references << " reference(s)";
    m_mayStay.clear();
}

// On the public bus an application could receive the call and answer it.
void ServiceTest::checkCalls() {
    for (const PlacedCall& call : fakeBus().calls())
        EXPECT_NE(call.handle, publicHandle()) << "A call over the public bus: " << call.uri;
}

void ServiceTest::checkPriorities() {
    for (const SystemLogLine& line : systemLog()) {
        const std::size_t head = line.text.find("]: ");
        const std::string text = head == std::string::npos ? line.text : line.text.substr(head + 3);
        EXPECT_EQ(line.priority, kTraces.contains(text) ? LOG_INFO : LOG_ERR) << line.text;
    }
    systemLog().clear();
}

void ServiceTest::setAccountDetails() {
    session().setSessionDetails(kJid, "secret", kResource, kServer, kService, 5222);
    session().m_domain = "example.org";
    session().m_networkAvailable = true;
    session().m_ipAddress = kLocalAddress;
}

void ServiceTest::connectSession() {
    setAccountDetails();
    ASSERT_TRUE(session().connectToService()) << log().raw();
    pump();
    ASSERT_TRUE(session().m_connected) << log().raw();
    journal().take();
    fakeServer().forgetStanzas();
    log().clear();
}

void ServiceTest::restartService() {
    dropSession();
    fakeBus().dropSubscriptions();
    freshSession();
    journal().take();
    fakeServer().forgetStanzas();
    log().clear();
}

void ServiceTest::pump() {
    int turns = 0;
    while (g_main_context_iteration(nullptr, FALSE))
        if (++turns > kMostTurns) {
            ADD_FAILURE() << "The main loop does not come to rest";
            return;
        }
}

// --- callers on the bus

Answer ServiceTest::call(QSFilter handler, const std::string& payload, const std::string& appId) {
    QSHandle* handle = appId.empty() ? privateHandle() : publicHandle();
    return Answer(fakeBus().call(handle, handler, "method", payload, appId));
}

Answer ServiceTest::callPrivate(QSFilter handler, const std::string& method, const std::string& payload,
                                const std::string& appId) {
    return Answer(fakeBus().call(privateHandle(), handler, method, payload, appId));
}

Answer ServiceTest::callPublic(QSFilter handler, const std::string& method, const std::string& payload,
                               const std::string& appId) {
    return Answer(fakeBus().call(publicHandle(), handler, method, payload, appId));
}

// --- the server

SentStanza ServiceTest::lastStanza() {
    if (!fakeServer().stanzas().empty())
        return fakeServer().stanzas().back();
    ADD_FAILURE() << "The client wrote no stanza";
    return SentStanza(gloox::Tag("none"));
}

std::string ServiceTest::expectStanza(const std::string& xml) {
    const SentStanza stanza = lastStanza();
    EXPECT_EQ(stanza.textWithoutId(), xml);
    return stanza.id();
}

void ServiceTest::answer(const std::string& id, const std::string& xmlInside) {
    serverSends("<iq type='result' from='" + std::string(kService) + "' to='" + kFullJid + "' id='" +
                escaped(id) + "'>" + xmlInside + "</iq>");
}

void ServiceTest::answerError(const std::string& id, const std::string& type, const std::string& condition,
                              const std::string& pubsubCondition) {
    const std::string special =
        pubsubCondition.empty()
            ? ""
            : '<' + pubsubCondition + " xmlns='http://jabber.org/protocol/pubsub#errors'/>";
    serverSends("<iq type='error' from='" + std::string(kService) + "' to='" + kFullJid + "' id='" +
                escaped(id) + "'><error type='" + type + "'><" + condition +
                " xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/>" + special + "</error></iq>");
}

void ServiceTest::pushItem(const std::string& node, const std::string& seqNo, const std::string& id,
                           const std::string& payloadText) {
    serverSends("<message from='" + std::string(kService) + "' to='" + kFullJid + "' id='push-" +
                std::to_string(++m_pushes) +
                "'><event xmlns='http://jabber.org/protocol/pubsub#event'><items node='" + escaped(node) +
                "'><item id='" + escaped(id) + "' seqNo='" + escaped(seqNo) + "'><payload>" +
                escaped(payloadText) + "</payload></item></items></event></message>");
}

void ServiceTest::serverSends(const std::string& xml) {
    if (!fakeServer().connected())
        ADD_FAILURE() << "No connection to send on: " << xml;
    fakeServer().sends(xml);
    pump();
}

// --- what happened

Texts ServiceTest::takeEvents() {
    Texts events = journal().take();
    for (std::string& event : events)
        if (event.starts_with("xmpp.send "))
            event = "xmpp.send " + withoutId(event.substr(10));
    return events;
}

std::string ServiceTest::fileText(const std::filesystem::path& path) const {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void ServiceTest::writeFile(const std::filesystem::path& path, const std::string& text) const {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
    using std::filesystem::perms;
    std::filesystem::permissions(path, perms::owner_read | perms::owner_write);
}
