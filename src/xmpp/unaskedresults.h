// SPDX-License-Identifier: GPL-3.0-only
// Results of operations that nobody here asks for.
//
// The library's interfaces require a handler for each of them. An answer that reaches one has no request
// behind it, so there is nobody to tell and nothing to change.
#pragma once

#include <gloox/discohandler.h>

#include <string>

#include "xmpp/resulthandler.h"

namespace xmpp {

class UnaskedResults : public ResultHandler, public gloox::DiscoHandler {
  public:
    void handleItem(const gloox::JID&, const std::string&, const gloox::Tag*) override {}
    void handleItems(const std::string&, const gloox::JID&, const std::string&,
                     const gloox::PubSub::ItemList&, const gloox::Error*) override {}
    void handleItemDeletation(const std::string&, const gloox::JID&, const std::string&,
                              const gloox::PubSub::ItemList&, const gloox::Error*) override {}
    void handleSubscriptionOptions(const std::string&, const gloox::JID&, const gloox::JID&,
                                   const std::string&, const gloox::DataForm*, const std::string&,
                                   const gloox::Error*) override {}
    void handleSubscriptionOptionsResult(const std::string&, const gloox::JID&, const gloox::JID&,
                                         const std::string&, const std::string&,
                                         const gloox::Error*) override {}
    void handleSubscribers(const std::string&, const gloox::JID&, const std::string&,
                           const gloox::PubSub::SubscriptionList&, const gloox::Error*) override {}
    void handleSubscribersResult(const std::string&, const gloox::JID&, const std::string&,
                                 const gloox::PubSub::SubscriberList*, const gloox::Error*) override {}
    void handleAffiliates(const std::string&, const gloox::JID&, const std::string&,
                          const gloox::PubSub::AffiliateList*, const gloox::Error*) override {}
    void handleAffiliatesResult(const std::string&, const gloox::JID&, const std::string&,
                                const gloox::PubSub::AffiliateList*, const gloox::Error*) override {}
    void handleSubscriptions(const std::string&, const gloox::JID&, const gloox::PubSub::SubscriptionMap&,
                             const gloox::Error*) override {}
    void handleAffiliations(const std::string&, const gloox::JID&, const gloox::PubSub::AffiliationMap&,
                            const gloox::Error*) override {}
    void handleDefaultNodeConfig(const std::string&, const gloox::JID&, const gloox::DataForm*,
                                 const gloox::Error*) override {}
    void handleFeatures(const std::string&, const gloox::JID&, const gloox::StringList&,
                        const gloox::Error*) override {}
    void handleParts(const std::string&, const gloox::JID&, const gloox::StringList&,
                     const gloox::Error*) override {}
    void handlePushRegistration(const std::string&, const gloox::JID&, const std::string&, const std::string&,
                                const gloox::Error*) override {}
    void handleDiscoInfo(const gloox::JID&, const gloox::Disco::Info&, int) override {}
    void handleDiscoItems(const gloox::JID&, const gloox::Disco::Items&, int) override {}
    void handleDiscoError(const gloox::JID&, const gloox::Error*, int) override {}
};

}  // namespace xmpp
