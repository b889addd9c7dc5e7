// SPDX-License-Identifier: GPL-3.0-only
// Messages of push providers: each becomes the open item of its endpoint, or waits behind it.
//
// They are in PubSubSession::m_openNodes, with the other open items, and nowhere else: the provider keeps nothing
// either. It is answered when the message was taken, and that nobody is there when it was not.
#include <glib.h>

#include <optional>

#include "session/pubsubsession.h"
#include "util/clock.h"
#include "xmpp/manager.h"
#include "xmpp/xmltext.h"

namespace {

constexpr std::size_t kLongestPush = 4096;       // bytes, of web push
constexpr std::size_t kMostWaiting = 8;          // behind the open one of an endpoint
constexpr std::size_t kMostBytes = 1024 * 1024;  // of all that wait

// The bytes of a text in base64, in its one form.
std::optional<std::string> decoded(const std::string& text) {
    gsize length = 0;
    guchar* bytes = g_base64_decode(text.c_str(), &length);
    std::string result(reinterpret_cast<const char*>(bytes), length);
    gchar* again = g_base64_encode(bytes, length);
    const bool isSound = !result.empty() && text == again;
    g_free(again);
    g_free(bytes);
    return isSound ? std::optional(std::move(result)) : std::nullopt;
}

std::string newItemId() {
    gchar* uuid = g_uuid_string_random();
    std::string id = uuid;
    g_free(uuid);
    return id;
}

std::string withoutBlanks(std::string text) {
    std::erase_if(text, [](char each) { return g_ascii_isspace(each); });
    return text;
}

std::string nodeOf(PubSubSession& session, const xmpp::ReceivedPush& push) {
    const gloox::JID from(push.from);
    for (const auto& [node, registration] : session.pushNodes())
        if (from && registration.provider == from.full() && registration.application == push.application &&
            registration.instance == push.instance)
            return node;
    return {};
}

// Without a condition the message was taken.
void answer(const PubSubSession& session, const xmpp::ReceivedPush& push, const char* type = nullptr,
            const char* condition = nullptr) {
    if (session.m_pubsub)
        session.m_pubsub->answerPush({push.id, push.from, type, condition});
}

std::size_t bytesOf(const _openNodeStruct& entry) {
    std::size_t bytes = 0;
    for (const _itemStruct& item : entry.pushed)
        bytes += item.text.size();
    return bytes;
}

}  // namespace

void PubSubSession::handlePush(const xmpp::ReceivedPush& push) {
    setPingTimer();
    const std::string node = nodeOf(*this, push);
    // A stranger learns no more than somebody who sends to an endpoint that is gone.
    if (node.empty())
        return answer(*this, push, "cancel", "item-not-found");
    const std::string text = withoutBlanks(push.payload);
    const std::optional<std::string> bytes = decoded(text);
    if (!bytes)
        return answer(*this, push, "modify", "bad-request");
    if (bytes->size() > kLongestPush)
        return answer(*this, push, "modify", "not-acceptable");
    if (!keepsOpenItem(node) || !isWanted(node, m_openNodes[node]))
        return answer(*this, push, "wait", "recipient-unavailable");
    _openNodeStruct& entry = m_openNodes[node];
    std::size_t waiting = text.size();
    for (const auto& [each, other] : m_openNodes)
        waiting += bytesOf(other);
    if (entry.open && (entry.pushed.size() >= kMostWaiting || waiting > kMostBytes))
        return answer(*this, push, "wait", "resource-constraint");
    _itemStruct item;
    item.id = newItemId();
    const bool isText = xmpp::isXmlText(*bytes);
    item.text = isText ? *bytes : text;
    item.encoding = isText ? "" : "base64";
    item.push = std::make_shared<PushReply>(
        [this, push, account = m_jid.bare()](bool taken) {
            if (account != m_jid.bare())
                return;
            taken ? answer(*this, push) : answer(*this, push, "wait", "recipient-unavailable");
        },
        bootTime());
    if (entry.open) {
        entry.pushed.push_back(std::move(item));
        return;
    }
    entry.open = std::move(item);
    handOut(node);
}
