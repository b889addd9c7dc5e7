// SPDX-License-Identifier: GPL-3.0-only
// Names of the forms that the manager writes and reads. No state.
#pragma once

namespace xmpp {

inline constexpr char kDeviceXmlns[] = "urn:zelt:pubsub:device:0";
inline constexpr char kPushXmlns[] = "http://gultsch.de/xmpp/drafts/unified-push";
inline constexpr char kCommandsXmlns[] = "http://jabber.org/protocol/commands";
inline constexpr char kGetPending[] = "http://jabber.org/protocol/pubsub#get-pending";
inline constexpr char kNodeConfigForm[] = "http://jabber.org/protocol/pubsub#node_config";
inline constexpr char kSubscribeOptionsForm[] = "http://jabber.org/protocol/pubsub#subscribe_options";
inline constexpr char kAuthorizationForm[] = "http://jabber.org/protocol/pubsub#subscribe_authorization";

}  // namespace xmpp
