// SPDX-License-Identifier: GPL-3.0-only
// The fast path: messages, answers to the manager and misplaced stanzas are handled straight from the parser.
//
// gloox matches every stanza against all its extensions, which takes most of its time; nothing
// here needs them.
#include <gloox/messagehandler.h>
#include <gloox/tlsbase.h>

#include <algorithm>
#include <string_view>

#include "util/log.h"
#include "xmpp/client.h"
#include "xmpp/manager.h"

namespace xmpp {
namespace {

const std::string kStreamManagement = "urn:xmpp:sm:3";
constexpr std::size_t kSenders = 8;
constexpr std::size_t kLongestJid = 3071;  // RFC 7622, section 3.1: three parts of 1,023 bytes

bool isElement(const gloox::Tag& tag, const std::string& name, const std::string& xmlns) {
    return tag.name() == name && (tag.xmlns() == xmlns || tag.hasAttribute("xmlns", xmlns));
}

bool isAnswer(const gloox::Tag& tag) {
    if (tag.name() != "iq")
        return false;
    const std::string& type = tag.findAttribute("type");
    return type == "result" || type == "error";
}

// What a stream may carry before it is encrypted.
bool mayBePlain(const gloox::Tag& tag) {
    if (tag.xmlns() == gloox::XMLNS_STREAM)
        return true;
    return (tag.name() == "proceed" || tag.name() == "failure") && tag.xmlns() == gloox::XMLNS_STREAM_TLS;
}

}  // namespace

void Client::parse(const std::string& data) {
    if (m_disposed || m_ended || m_streamParser.feed(data))
        return;
    reportMessagesDone();
    const std::string& fault = m_streamParser.fault();
    if (m_relaysLog)
        gloox::Client::logInstance().err(gloox::LogAreaClassClientbase,
                                         "parse error (" + fault + "): " + data);
    PrvPrintErr({}, "The server's stream cannot be taken (%s), disconnecting", fault.c_str());
    auto* error = new gloox::Tag("stream:error");
    new gloox::Tag(error, "restricted-xml", "xmlns", gloox::XMLNS_XMPP_STREAM);
    send(error);
    gloox::ClientBase::disconnect(gloox::ConnParseError);
}

void Client::handleTag(gloox::Tag* tag) {
    if (m_disposed || m_ended)
        return;
    const bool bound = m_streamUp || m_resourceBound;
    const bool isMessage = tag && bound && tag->name() == "message";
    if (!isMessage)
        reportMessagesDone();
    if (!tag) {
        gloox::Client::handleTag(tag);
        return;
    }
    if (isOutOfPlace(*tag)) {
        PrvPrintErr({}, "The server sent <%s> before TLS was up, disconnecting", tag->name().c_str());
        gloox::ClientBase::disconnect(gloox::ConnTlsFailed);
        return;
    }
    if (isMessage) {
        logIncoming(*tag);
        passMessage(*tag);
        return;
    }
    if (bound && m_manager && isAnswer(*tag) && Manager::isOurs(tag->findAttribute("id"))) {
        logIncoming(*tag);
        m_manager->handleAnswer(*tag);
        return;
    }
    if (bound && passPush(*tag))
        return;
    // Never requested; gloox would treat "enabled" as the end of the login.
    if (tag->xmlns() == kStreamManagement)
        return;
    // The server begins its stream anew.
    if (isElement(*tag, "success", gloox::XMLNS_STREAM_SASL))
        m_streamParser.restart();
    gloox::Client::handleTag(tag);
}

// Otherwise an attacker on the network could finish the login without TLS, or inject
// stanzas after <proceed/>.
bool Client::isOutOfPlace(const gloox::Tag& tag) const {
    if (m_encryptionActive)
        return m_encryption && !m_encryption->isSecure();
    return tls() == gloox::TLSRequired && !mayBePlain(tag);
}

void Client::passMessage(const gloox::Tag& message) {
    if (isForeignEvent(message)) {
        PrvPrintErr({}, "Dropped an event or form from %s, which is not the pub-sub service",
                    message.findAttribute("from").c_str());
        return;
    }
    const ReceivedMessage received(message);
    for (std::size_t i = 0; i < m_messageHandlers.size(); ++i)
        m_messageHandlers[i]->handleMessage(received);
}

bool Client::passPush(const gloox::Tag& stanza) {
    if (!m_pushHandler || m_disposed)
        return false;
    const std::optional<ReceivedPush> push = readPush(stanza);
    if (!push)
        return false;
    logIncoming(stanza);
    m_pushHandler(*push);
    return true;
}

bool Client::isForeignEvent(const gloox::Tag& message) {
    for (const gloox::Tag* child : message.children()) {
        if (isElement(*child, "event", gloox::XMLNS_PUBSUB_EVENT) ||
            isElement(*child, "x", gloox::XMLNS_X_DATA))
            return !isFromService(message.findAttribute("from"));
    }
    return false;
}

bool Client::isFromService(const std::string& from) {
    if (!m_service || from.empty() || from.size() > kLongestJid)
        return false;
    const auto known = std::find_if(m_senders.begin(), m_senders.end(),
                                    [&from](const Sender& sender) { return sender.text == from; });
    if (known != m_senders.end())
        return known->isService;
    if (m_senders.size() == kSenders)
        m_senders.pop_back();
    m_senders.push_front({from, isService(from)});
    return m_senders.front().isService;
}

bool Client::isService(const std::string& jid) const {
    const gloox::JID prepared(jid);
    return prepared && prepared.full() == m_service.full();
}

void Client::logIncoming(const gloox::Tag& tag) {
    if (m_relaysLog)
        gloox::Client::logInstance().dbg(gloox::LogAreaXmlIncoming, tag.xml());
}

}  // namespace xmpp
