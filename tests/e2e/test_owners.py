# SPDX-License-Identifier: GPL-3.0-only
"""A node's owner and a second account: configuration, pending subscribers, the owner's decision."""

import json
import unittest

from bus import BusClient
from peer import Peer
from stage import StageTest, wait_until

PUBSUB = "{http://jabber.org/protocol/pubsub}"
EVENT = "{http://jabber.org/protocol/pubsub#event}"
RESET = "We had an handler for non existent node?, Resetting pending list"
UNHEARD = "Warning: No one approve message?"


class OwnersTest(StageTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.stage.account("reader", "secret")
        cls.reader = Peer(cls.stage, "reader", "secret")
        cls.owner = BusClient(cls.stage.env["ZELT_PRIVATE_BUS"])

    @classmethod
    def tearDownClass(cls):
        cls.reader.close()
        super().tearDownClass()

    def create(self, node, **members):
        self.assertEqual(self.owner.call("createNode", dict(members, node=node)),
                         {"returnValue": True, "node": node})

    def ask(self, node):
        """The reader asks to be let in; returns the id of its pending subscription."""
        subscription = self.reader.subscribe(node).find(f".//{PUBSUB}subscription")
        self.assertEqual(subscription.get("subscription"), "pending")
        return subscription.get("subid")

    def listen(self, *nodes):
        call = self.owner.start("subscribeNodeAuth", {"subscribe": True, "nodes": nodes})
        self.assertEqual(call.wait(1), {"returnValue": True})
        self.addCleanup(call.cancel)
        return call

    def form(self, listener, node):
        """The first request for the node that the listener was sent."""
        def found():
            return next((answer for answer in listener.answers[1:] if answer["node"] == node), None)
        self.owner.pump(found, f"a request for {node}")
        return found()

    def decide(self, form, approve):
        decision = {"node": form["node"], "id": form["id"], "subid": form["subid"], "approve": approve,
                    "subscriber_jid": form["subscriber_jid"]}
        self.assertEqual(self.owner.call("approvePending", decision), {"returnValue": True})

    def reader_is_told(self, node):
        """The state that the server's event gives the reader's subscription."""
        message = self.reader.wait_message(
            lambda element: any(told.get("node") == node for told in element.iter(EVENT + "subscription")))
        return message.find(f".//{EVENT}subscription").get("subscription")

    def log_count(self, words):
        return self.stage.log("service").count(words)


class Approval(OwnersTest):
    def test_a_subscriber_that_waited_before_the_owner_listened_is_reported_and_approved(self):
        node = "/owners/early"
        self.create(node, accessType=2)
        unheard = self.log_count(UNHEARD)
        subid = self.ask(node)
        wait_until(lambda: self.log_count(UNHEARD) >= unheard + 2, "the unheard form, under both keys")
        listener = self.listen(node)
        form = listener.wait(2)
        self.assertTrue(form["id"])
        self.assertEqual(listener.texts[1], json.dumps(
            {"subid": subid, "node": node, "subscriber_jid": self.reader.jid, "id": form["id"]})
            .replace("{", "{ ").replace("}", " }").replace("/", "\\/"))
        self.decide(form, "true")
        self.assertEqual(self.reader_is_told(node), "subscribed")
        self.assertEqual(self.owner.call("publishItem", {"node": node, "item": "for those let in"}),
                         {"returnValue": True})
        item = self.reader.wait_message(lambda element: element.find(f".//{EVENT}item") is not None)
        self.assertIn("for those let in", "".join(item.itertext()))

    def test_a_subscriber_that_comes_while_the_owner_listens_is_reported_and_denied(self):
        node = "/owners/late"
        self.create(node, accessType=2)
        listener = self.listen(node)
        subid = self.ask(node)
        form = listener.wait(2)
        self.assertEqual((form["subid"], form["node"], form["subscriber_jid"]),
                         (subid, node, self.reader.jid))
        self.decide(form, "false")
        self.assertEqual(self.reader_is_told(node), "none")
        # What is published now reaches the reader through another node alone.
        self.create("/owners/open")
        self.reader.subscribe("/owners/open")
        for name in (node, "/owners/open"):
            self.owner.call("publishItem", {"node": name, "item": "denied or not"})
        item = self.reader.wait_message(lambda element: element.find(f".//{EVENT}item") is not None)
        self.assertEqual(item.find(f".//{EVENT}items").get("node"), "/owners/open")

    def test_a_listener_of_every_node_hears_beside_the_listener_of_one(self):
        for node in ("/owners/star/one", "/owners/star/two"):
            self.create(node, accessType=2)
        every, one = self.listen("*"), self.listen("/owners/star/one")
        for node in ("/owners/star/one", "/owners/star/two"):
            self.ask(node)
        # The server may tell one request twice, when it was asked what is pending just then.
        form = self.form(one, "/owners/star/one")
        self.assertEqual(self.form(every, "/owners/star/one"), form)
        self.decide(self.form(every, "/owners/star/two"), "true")
        self.assertEqual(self.reader_is_told("/owners/star/two"), "subscribed")
        self.decide(form, "false")
        self.assertEqual(self.reader_is_told("/owners/star/one"), "none")
        self.assertEqual({answer["node"] for answer in one.answers[1:]}, {"/owners/star/one"})

    def test_one_listener_follows_several_nodes(self):
        nodes = ["/owners/several/a", "/owners/several/b"]
        for node in nodes:
            self.create(node, accessType=2)
        subids = [self.ask(node) for node in nodes]
        listener = self.listen(*nodes)
        for node, subid in zip(nodes, subids):
            form = self.form(listener, node)
            self.assertEqual(form["subid"], subid)
            self.decide(form, "true")
            self.assertEqual(self.reader_is_told(node), "subscribed")


class Pending(OwnersTest):
    """A subscriber that stays pending for the whole class."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.node = "/owners/pending"
        cls.owner.call("createNode", {"node": cls.node, "accessType": 2})
        cls.reader.subscribe(cls.node)

    def settle(self):
        """Returns once the server has answered whatever was asked of it before, and what that answer asked."""
        for _ in range(20):
            self.owner.call("getNodeConfig", {"nodes": [self.node]})

    def test_get_pending_sends_the_same_request_again(self):
        listener = self.listen(self.node)
        first = listener.wait(2)
        self.settle()  # a question that is renewed for another node brings this node's request a second time
        sent = len(listener.texts)
        self.assertEqual(self.owner.call("getPendingAuth", {}), {"returnValue": True})
        again = listener.wait(sent + 1)
        self.assertEqual({key: again[key] for key in ("node", "subid", "subscriber_jid")},
                         {key: first[key] for key in ("node", "subid", "subscriber_jid")})

    def test_a_node_that_nobody_listens_to_is_asked_for_once_more_and_no_more(self):
        other = "/owners/unheard"
        self.create(other, accessType=2)
        self.ask(other)
        before = self.log_count(RESET)
        listener = self.listen("*")
        wait_until(lambda: self.log_count(RESET) > before, "the renewal of the listener's question")
        before = self.log_count(RESET)
        self.assertEqual(self.owner.call("getPendingAuth", {}), {"returnValue": True})
        wait_until(lambda: self.log_count(RESET) > before, "the renewal of the owner's question")
        self.settle()  # a further renewal would be answered before this
        self.assertEqual(self.log_count(RESET), before + 1)
        self.assertEqual(len(listener.texts), 1, "what was pending goes to the node's own listeners alone")

    def test_what_is_missing_in_a_decision_is_answered_with_the_node(self):
        whole = {"node": self.node, "id": "1", "subid": "2", "approve": "true", "subscriber_jid": "a@b"}
        for key in whole:
            for value in (None, ""):
                with self.subTest(key=key, value=value):
                    payload = dict(whole)
                    del payload[key]
                    if value is not None:
                        payload[key] = value
                    call = self.owner.start("approvePending", payload)
                    call.wait(1)
                    shown = "" if key == "node" else self.node.replace("/", "\\/")
                    self.assertEqual(call.texts[0], '{ "node": "%s", "returnValue": false, "errorCode": '
                                     '"\\"errBadArgument\\"", "errorText": "\\"Bad Argument\\"" }' % shown)

    def test_what_is_wrong_with_a_listener_is_answered_in_the_order_of_the_keys(self):
        no_array = "Malformed json - nodes takes an array of nodes "
        for payload, text in (({}, "No subscribe provided"),
                              ({"subscribe": False}, "Subscribe should be true"),
                              ({"subscribe": True}, no_array), ({"subscribe": True, "nodes": "/a"}, no_array),
                              ({"subscribe": True, "nodes": []}, "No nodes provided")):
            with self.subTest(payload):
                self.assertEqual(self.owner.call("subscribeNodeAuth", payload),
                                 {"returnValue": False, "errorCode": '"errBadArgument"', "errorText": text})


class Configuration(OwnersTest):
    def test_several_nodes_are_answered_on_one_message(self):
        models = {"/owners/config/open": "open", "/owners/config/closed": "authorize"}
        for node, model in models.items():
            self.create(node, accessType=1 if model == "open" else 2)
        nodes = [f"/owners/config/{name}" for name in ("closed", "missing", "open", "closed")]
        call = self.owner.start("getNodeConfig", {"nodes": nodes})
        call.wait(4)
        # This server answers in the order of the questions.
        self.assertEqual([answer["node"] for answer in call.answers], nodes)
        for answer in call.answers:
            if answer["node"] in models:
                self.assertEqual(answer, {"returnValue": True, "node": answer["node"],
                                          "options": {"pubsub#access_model": models[answer["node"]]}})
            else:
                self.assertEqual(answer, {"returnValue": False, "node": answer["node"], "errorCode": "cancel",
                                          "errorText": "item-not-found"})
        self.owner.call("getNodeConfig", {"nodes": nodes[:1]})
        self.assertEqual(len(call.texts), 4)

    def test_the_first_answer_is_the_return_and_later_ones_are_signals(self):
        self.create("/owners/config/first")
        call = self.owner.start("getNodeConfig", {"nodes": ["/owners/config/first", "/owners/config/none"]})
        call.wait(1)
        self.assertEqual(call.signals, 0)
        call.wait(2)
        self.assertEqual(call.signals, 1)

    def test_an_access_model_that_is_changed_is_read_back_and_lets_others_in(self):
        node = "/owners/config/changed"
        self.create(node, accessType=2)
        self.ask(node)
        changed = self.owner.call("setNodeConfig", {"node": node, "options": {"pubsub#access_model": "open"}})
        self.assertEqual(changed, {"returnValue": True, "node": node})
        self.assertEqual(self.owner.call("getNodeConfig", {"nodes": [node]}),
                         {"returnValue": True, "node": node, "options": {"pubsub#access_model": "open"}})
        self.create(node + "/open")
        answer = self.reader.subscribe(node + "/open")
        self.assertEqual(answer.find(f".//{PUBSUB}subscription").get("subscription"), "subscribed")

    def test_what_the_server_does_not_accept_is_answered_in_its_words(self):
        self.create("/owners/config/refused")
        answer = self.owner.call("setNodeConfig", {"node": "/owners/config/refused",
                                                   "options": {"pubsub#access_model": "nobody"}})
        self.assertEqual(answer, {"returnValue": False, "node": "/owners/config/refused", "errorCode": "wait",
                                  "errorText": "resource-constraint"})
        missing = self.owner.call("setNodeConfig", {"node": "/owners/config/absent",
                                                    "options": {"pubsub#access_model": "open"}})
        self.assertEqual(missing, {"returnValue": False, "node": "/owners/config/absent",
                                   "errorCode": "cancel", "errorText": "item-not-found"})

    def test_what_is_missing_is_answered_without_asking_the_server(self):
        self.assertEqual(self.owner.call("setNodeConfig", {"node": "/owners/x"}),
                         {"node": "/owners/x", "returnValue": False, "errorCode": '"errBadArgument"',
                          "errorText": "No options provided"})
        self.assertEqual(self.owner.call("getNodeConfig", {"nodes": "/owners/x"}),
                         {"returnValue": False, "errorCode": '"errBadArgument"',
                          "errorText": "Malformed json - nodes takes an array of nodes "})


if __name__ == "__main__":
    unittest.main()
