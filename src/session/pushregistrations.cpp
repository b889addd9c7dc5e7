// SPDX-License-Identifier: GPL-3.0-only
// What push providers have given for the endpoints of the account in use.
//
// Stored in the service's preferences, and in PubSubSession::m_pushNodes for the account that is in use; it
// survives a restart. The keys:
//   "push:" + bare JID, a blank and a node -> the registration
//   "push:" + bare JID -> {"salt": ...}, with which the names are hashed that providers get
// Every change is committed at once.
#include <glib.h>
#include <sys/random.h>

#include "session/preferences.h"
#include "session/pubsubsession.h"
#include "util/jsonargs.h"

namespace {

constexpr char kPush[] = "push:";
constexpr std::size_t kSaltLength = 32;

std::string base64(const guint8* bytes, gsize length) {
    gchar* text = g_base64_encode(bytes, length);
    std::string result = text;
    g_free(text);
    return result;
}

std::string hashed(const std::string& text) {
    GChecksum* checksum = g_checksum_new(G_CHECKSUM_SHA256);
    g_checksum_update(checksum, reinterpret_cast<const guchar*>(text.data()),
                      static_cast<gssize>(text.size()));
    guint8 digest[32];
    gsize length = sizeof digest;
    g_checksum_get_digest(checksum, digest, &length);
    g_checksum_free(checksum);
    return base64(digest, length);
}

std::string delimited(const std::string& text) {
    return std::to_string(text.size()) + ':' + text;
}

_pushRegistrationStruct registrationOf(json_object* stored) {
    _pushRegistrationStruct registration;
    registration.jid = textMember(stored, "jid");
    registration.provider = textMember(stored, "provider");
    registration.application = textMember(stored, "application");
    registration.instance = textMember(stored, "instance");
    registration.url = textMember(stored, "url");
    registration.expires = json_object_get_int64(jsonMember(stored, "expires"));
    registration.renew = json_object_get_int64(jsonMember(stored, "renew"));
    registration.untold = boolMember(stored, "untold");
    return registration;
}

JsonObject storedForm(const _pushRegistrationStruct& registration) {
    JsonObject stored;
    stored.set("jid", registration.jid).set("provider", registration.provider);
    stored.set("application", registration.application).set("instance", registration.instance);
    stored.set("url", registration.url).set("expires", registration.expires);
    stored.set("renew", registration.renew);
    if (registration.untold)
        stored.set("untold", true);
    return stored;
}

// Of the account's salt, or of a node's registration.
std::string keyOf(const gloox::JID& account, const std::string& node = {}) {
    return kPush + account.bare() + (node.empty() ? "" : ' ' + node);
}

// Made at the first use. False when the store does not take it.
bool readSalt(Preferences store, const std::string& key, std::string& salt) {
    store.open();
    salt = textMember(store.read(key).json.get(), "salt");
    if (!salt.empty())
        return true;
    guint8 bytes[kSaltLength];
    const bool isRandom = getrandom(bytes, sizeof bytes, 0) == sizeof bytes;
    salt = base64(bytes, sizeof bytes);
    JsonObject record;
    record.set("salt", salt);
    if (!isRandom || !store.write(key, record.get()))
        return false;
    store.commit();
    return true;
}

}  // namespace

const std::map<std::string, _pushRegistrationStruct>& PubSubSession::pushNodes() {
    if (m_pushAccount == m_jid.bare())
        return m_pushNodes;
    m_pushAccount.clear();
    m_pushNodes.clear();
    Preferences store = preferences();
    const JsonRef keys = store.open() ? store.keys() : nullptr;
    if (!keys)
        return m_pushNodes;
    m_pushAccount = m_jid.bare();
    const std::string beginning = keyOf(m_jid) + ' ';
    for (std::size_t i = 0; i < json_object_array_length(keys.get()); ++i) {
        const std::string key = json_object_get_string(json_object_array_get_idx(keys.get(), i));
        if (!key.starts_with(beginning))
            continue;
        const _pushRegistrationStruct registration = registrationOf(store.read(key).json.get());
        if (!registration.url.empty())
            m_pushNodes.emplace(key.substr(beginning.size()), registration);
    }
    return m_pushNodes;
}

const _pushRegistrationStruct* PubSubSession::pushRegistration(const std::string& node) {
    const auto& nodes = pushNodes();
    const auto found = nodes.find(node);
    return found == nodes.end() ? nullptr : &found->second;
}

bool PubSubSession::storePush(const std::string& node, const _pushRegistrationStruct& registration) {
    Preferences store = preferences();
    if (!store.open() || !store.write(keyOf(m_jid, node), storedForm(registration).get()))
        return false;
    store.commit();
    pushNodes();
    m_pushNodes[node] = registration;
    return true;
}

void PubSubSession::forgetPush(const std::string& node) {
    if (!isPushNode(node))
        return;
    m_pushNodes.erase(node);
    Preferences store = preferences();
    store.open();
    store.remove(keyOf(m_jid, node));
    store.commit();
}

bool PubSubSession::namesForProvider(const std::string& node, const std::string& appId,
                                     _pushRegistrationStruct& registration) {
    std::string salt;
    if (!readSalt(preferences(), keyOf(m_jid), salt))
        return false;
    registration.application = hashed(salt + delimited(appId));
    const std::size_t prefix = m_username.size() + m_resource.size() + appId.size() + 4;  // and its slashes
    registration.instance = hashed(salt + delimited(appId) + node.substr(prefix));
    return true;
}
