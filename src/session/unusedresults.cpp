// SPDX-License-Identifier: GPL-3.0-only
// Results of operations that this service never asks for.
//
// The library's interfaces require these handlers; an answer that reaches one of them has no request behind
// it, so there is nobody to tell and nothing to change.
#include "session/pubsubsession.h"

void PubSubSession::handleItem(const gloox::JID&, const std::string&, const gloox::Tag*) {}

void PubSubSession::handleItems(const std::string&, const gloox::JID&, const std::string&,
                                const gloox::PubSub::ItemList&, const gloox::Error*) {}

void PubSubSession::handleItemDeletation(const std::string&, const gloox::JID&, const std::string&,
                                         const gloox::PubSub::ItemList&, const gloox::Error*) {}

void PubSubSession::handleSubscriptionOptions(const std::string&, const gloox::JID&, const gloox::JID&,
                                              const std::string&, const gloox::DataForm*, const std::string&,
                                              const gloox::Error*) {}

void PubSubSession::handleSubscriptionOptionsResult(const std::string&, const gloox::JID&, const gloox::JID&,
                                                    const std::string&, const std::string&,
                                                    const gloox::Error*) {}

void PubSubSession::handleSubscribers(const std::string&, const gloox::JID&, const std::string&,
                                      const gloox::PubSub::SubscriptionList&, const gloox::Error*) {}

void PubSubSession::handleSubscribersResult(const std::string&, const gloox::JID&, const std::string&,
                                            const gloox::PubSub::SubscriberList*, const gloox::Error*) {}

void PubSubSession::handleAffiliates(const std::string&, const gloox::JID&, const std::string&,
                                     const gloox::PubSub::AffiliateList*, const gloox::Error*) {}

void PubSubSession::handleAffiliatesResult(const std::string&, const gloox::JID&, const std::string&,
                                           const gloox::PubSub::AffiliateList*, const gloox::Error*) {}

void PubSubSession::handleSubscriptions(const std::string&, const gloox::JID&,
                                        const gloox::PubSub::SubscriptionMap&, const gloox::Error*) {}

void PubSubSession::handleAffiliations(const std::string&, const gloox::JID&,
                                       const gloox::PubSub::AffiliationMap&, const gloox::Error*) {}

void PubSubSession::handleDefaultNodeConfig(const std::string&, const gloox::JID&, const gloox::DataForm*,
                                            const gloox::Error*) {}

void PubSubSession::handleDiscoInfo(const gloox::JID&, const gloox::Disco::Info&, int) {}

void PubSubSession::handleDiscoItems(const gloox::JID&, const gloox::Disco::Items&, int) {}

void PubSubSession::handleDiscoError(const gloox::JID&, const gloox::Error*, int) {}
