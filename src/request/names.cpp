// SPDX-License-Identifier: GPL-3.0-only
// Node names of applications, and the mapping of XMPP errors to the error code and text of a reply.
//
// Only public methods form names; private ones take node names unchanged. Keeps no state.
#include "request/names.h"

#include <gloox/error.h>
#include <gloox/gloox.h>
#include <gloox/tag.h>

#include <memory>

#include "session/pubsubsession.h"
#include "util/log.h"

namespace {

constexpr std::size_t kLongestNodeName = 99;

std::unique_ptr<gloox::Tag> elementOf(const gloox::Error* error) {
    return std::unique_ptr<gloox::Tag>(error ? error->tag() : nullptr);
}

// The name of the first child of `element` in `xmlns` that is not called `passedOver`; "" when there is none.
std::string conditionIn(const gloox::Tag& element, const std::string& xmlns,
                        const std::string& passedOver = "") {
    for (const gloox::Tag* child : element.children())
        if (child->xmlns() == xmlns && child->name() != passedOver)
            return child->name();
    return {};
}

}  // namespace

bool getNodeName(std::string node, std::string& fullName, PubSubSession& session, std::string& appId,
                 std::string& errorText) {
    if (appId.empty()) {
        errorText = "Error getting appid of calling app";
        PrvPrintErr({}, "Error getting appid of calling app");
        return false;
    }
    appId = appId.substr(0, appId.find(' '));
    fullName = "/" + session.m_username + "/" + session.m_resource + "/" + appId + "/" + node;
    if (fullName.size() <= kLongestNodeName)
        return true;
    PrvPrintErr({}, "Endpoint name too long \n");
    errorText = "endpoint too long";
    return false;
}

void getErrorCode(const gloox::Error* error, std::string& errorCode, std::string& errorText) {
    const auto element = elementOf(error);
    if (!element)
        return;
    errorCode = element->findAttribute("type");
    if (errorCode.empty())
        PrvPrintErr({}, "Warning, there is no error Type in response %s!", element->xml().c_str());

    // The human-readable text of a stanza error shares the namespace of its condition.
    const std::string condition = conditionIn(*element, gloox::XMLNS_XMPP_STANZAS, "text");
    if (condition.empty())
        PrvPrintErr({}, "Warning, there is no xmpp-stanza in error! %s", element->xml().c_str());
    else
        errorText = condition;

    const std::string detail = conditionIn(*element, gloox::XMLNS_PUBSUB_ERRORS);
    if (!detail.empty())
        errorText += " " + detail;  // sic: begins with a space when there is no stanza condition
}

void printerror(const gloox::Error* error, CallSite site) {
    const auto element = elementOf(error);
    if (!element)
        return;
    if (site.function)
        PrvPrintErr({}, "ERR in func %s: %s", site.function, element->xml().c_str());
    else
        PrvPrintErr({}, "ERR : %s", element->xml().c_str());
}
