# SPDX-License-Identifier: GPL-3.0-only
"""Random payloads and stanzas, made of the names and values that the system uses, in valid and invalid places."""

import json

PUBLIC = ("createEndpoint", "deleteEndpoint", "getPublishKey", "subscribe", "unsubscribe", "connectStatus",
          "subscribeOnClose", "unsubscribeOnClose", "receive", "acknowledge", "listEndpoints")
PRIVATE = PUBLIC + (
    "createNode", "deleteNode", "publishItem", "registerItemCallback", "registerItemCallbackV2",
    "unRegisterItemCallback", "subscribeToNode", "unsubscribeFromNode", "setNodeConfig", "getNodeConfig",
    "getPendingAuth", "approvePending", "subscribeNodeAuth", "subscribeConnStatus", "getJabberId", "getResource",
    "registerOnClose", "keepAliveTimer", "reconnectTimer", "activateNode", "getPushBackend", "pushRenewalTimer",
    "getTrace", "listNodes")
LEAVING = ("disconnect", "initializeAccount")
KEYS = ("node", "nodes", "endpoint", "item", "xml", "jid", "subid", "id", "approve", "subscriber_jid", "options",
        "subscribe", "app", "onclose", "depth", "nodeType", "parent", "title", "accessType", "description", "device",
        "endpoints", "receipt", "retry", "confirm", "user", "service", "resource", "password", "server", "port",
        "@xmlns", "#text", "pubsub#title", "")
TEXTS = ("", "a", "b", "*", "/", "//", "/../a", "/a/b/c/d", "device@localhost", "device@localhost/bench", "@", "true",
         "0", "-1", "99999999999999999999999", "zelt://com.zelt.fuzz/item", "zelt://", "quor://com.zelt.x/y", "\n\t",
         "\u00fc\u20ac\U0001f600", "\ufffe", "\x01", "<a>&amp;</a>", "\"", "\\", "%s%n", "x" * 98, "y" * 99, "z" * 5000)

NO_OBJECTS = ("", "{", "[]", "null", "5", "\"a\"", "{}x", "[" * 40, "{\"node\":" * 40, "nonsense")

SERVICE = "pubsub.localhost"
PUBSUB = "http://jabber.org/protocol/pubsub"
PUBSUB_EVENT = "http://jabber.org/protocol/pubsub#event"
PUBSUB_OWNER = "http://jabber.org/protocol/pubsub#owner"
COMMANDS = "http://jabber.org/protocol/commands"
STANZAS = "urn:ietf:params:xml:ns:xmpp-stanzas"
DEVICE = "urn:zelt:pubsub:device:0"
AUTHORIZATION = "http://jabber.org/protocol/pubsub#subscribe_authorization"
NODE_CONFIG = "http://jabber.org/protocol/pubsub#node_config"
GET_PENDING = "http://jabber.org/protocol/pubsub#get-pending"
NAMESPACES = (PUBSUB_EVENT, PUBSUB_OWNER, COMMANDS, STANZAS, DEVICE, PUBSUB,
              "http://jabber.org/protocol/pubsub#errors", "jabber:x:data", "http://jabber.org/protocol/disco#info",
              "urn:xmpp:ping", "jabber:iq:version", "jabber:client", "")
ELEMENTS = ("pubsub", "event", "items", "item", "payload", "subscription", "subscriptions", "affiliation", "configure",
            "default", "options", "create", "delete", "purge", "retract", "publish", "command", "x", "field", "value",
            "option", "title", "key", "activate", "activate-nodes", "delete-nodes", "node", "ack", "error", "text",
            "item-not-found", "conflict", "forbidden", "query", "ping", "delay", "body", "collection", "redirect")
ATTRIBUTES = ("node", "id", "seqNo", "jid", "subid", "subscription", "affiliation", "type", "var", "status", "action",
              "sessionid", "error", "code", "label", "uri", "from", "to", "xml:lang", "stamp")
VALUES = ("result", "error", "form", "submit", "cancel", "auth", "subscribed", "pending", "none", "executing",
          "completed", "hidden", "boolean", "list-single", "exists", "401", "pubsub#node", "pusub#subscriber_jid",
          "FORM_TYPE", "pubsub#subid", "pubsub#allow", AUTHORIZATION, GET_PENDING,
          NODE_CONFIG)


def escaped(text):
    text = "".join(c for c in text if c in "\n\t" or " " <= c < "\ufffe" or c > "\uffff")
    return text.replace("&", "&amp;").replace("<", "&lt;").replace("'", "&apos;")


class Fuzz:
    """Draws from the lists above; one object for each thread. `nodes` grows with the names that the service uses."""

    def __init__(self, random):
        self.random = random
        self.nodes = ["/a/b/c/d", "a"]

    def text(self):
        return self.random.choice(TEXTS if self.random.random() < 0.6 else self.nodes[-8:])

    def value(self, depth=0):
        kind = self.random.randrange(12 if depth < 4 else 8)
        if kind < 5:
            return self.text()
        if kind < 8:
            return self.random.choice((True, False, None, 0, 1, 2, -1, 2**31, 2**63, -2**63, 1e308, 0.5))
        if kind < 10:
            return [self.value(depth + 1) for _ in range(self.random.randrange(4))]
        return {self.random.choice(KEYS): self.value(depth + 1) for _ in range(self.random.randrange(4))}

    def payload(self):
        """A JSON text, mostly an object with several of the known keys, sometimes cut short."""
        if self.random.random() < 0.1:
            return self.random.choice(NO_OBJECTS)
        members = {key: self.value() if self.random.random() < 0.3 else self.text()
                   for key in self.random.sample(KEYS, self.random.randrange(8))}
        fitting = {"node": self.text(), "nodes": [self.text(), self.text()], "endpoint": self.text(),
                   "options": {self.text(): self.text()}, "item": self.value(), "subscribe": True, "xml": True,
                   "app": False}
        members.update({key: value for key, value in fitting.items() if self.random.random() < 0.5})
        text = json.dumps(members, ensure_ascii=self.random.random() < 0.5)
        return text[:self.random.randrange(len(text))] if self.random.random() < 0.05 else text

    def element(self, depth=0):
        name = self.random.choice(ELEMENTS)
        attributes = {self.random.choice(ATTRIBUTES): self.attribute() for _ in range(self.random.randrange(4))}
        if self.random.random() < 0.6:
            attributes["xmlns"] = self.random.choice(NAMESPACES)
        inside = self.random.random()
        content = "" if inside < 0.2 else escaped(self.text()) if inside < 0.4 or depth > 5 else \
            "".join(self.element(depth + 1) for _ in range(self.random.randrange(1, 4)))
        written = "".join(f" {key}='{value}'" for key, value in attributes.items())
        return f"<{name}{written}>{content}</{name}>"

    def attribute(self):
        return escaped(self.random.choice(VALUES) if self.random.random() < 0.4 else self.text())

    def item(self):
        node, number = escaped(self.text()), self.random.choice(("", "0", "x", str(self.random.randrange(1, 2**40))))
        payload = self.random.choice((f"<payload>{escaped(self.text())}</payload>", "<payload/>", self.element(4)))
        return (f"<event xmlns='{PUBSUB_EVENT}'><items node='{node}'>"
                f"<item id='{escaped(self.text())}' seqNo='{number}'>{payload}</item></items></event>")

    def form(self, form_type=AUTHORIZATION):
        fields = "".join(f"<field var='{self.attribute()}'><value>{escaped(self.text())}</value></field>"
                         for _ in range(self.random.randrange(5)))
        return (f"<x xmlns='jabber:x:data' type='form'><field var='FORM_TYPE'><value>{form_type}</value></field>"
                f"<field var='pubsub#node'><value>{escaped(self.text())}</value></field>{fields}</x>")

    def stanza(self):
        sender = SERVICE if self.random.random() < 0.8 else self.attribute()
        kind = self.random.random()
        if kind < 0.7:
            inside = self.random.choice((self.item, self.item, self.form, self.element))()
            return f"<message from='{sender}' id='{self.attribute()}'>{inside}</message>"
        name, types = self.random.choice((("iq", ("get", "set", "result", "error")),
                                          ("presence", ("", "subscribe", "error", "unavailable"))))
        attributes = f"from='{sender}' id='{self.attribute()}' type='{self.random.choice(types)}'"
        return f"<{name} {attributes}>{self.element()}</{name}>"

    def answer(self, request):
        """An answer to the request with that id; most are what a server might send."""
        node = escaped(self.text())
        kind, inside = self.random.choice((
            ("result", ""),
            ("result", ""),
            ("result", f"<key xmlns='{DEVICE}' node='{node}' status='exists'>KEY</key>"),
            ("result", f"<activate-nodes xmlns='{DEVICE}'><node id='{node}' error='conflict'/></activate-nodes>"),
            ("result", f"<pubsub xmlns='{PUBSUB_OWNER}'><configure node='{node}'>{self.form()}</configure></pubsub>"),
            ("result", f"<command xmlns='{COMMANDS}' node='{GET_PENDING}' sessionid='{self.attribute()}'>{self.form()}"
                       "</command>"),
            ("error", f"<error type='{self.attribute()}'><item-not-found xmlns='{STANZAS}'/><text xmlns='{STANZAS}'/>"
                      "</error>"),
            ("error", self.element()),
            ("result", self.element())))
        return f"<iq from='{SERVICE}' id='{request}' type='{kind}'>{inside}</iq>"
