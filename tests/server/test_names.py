# SPDX-License-Identifier: GPL-3.0-only
"""Nodes that are created and deleted under one name, and writers that restart: no key or item is lost or misplaced.

NAME_ROUNDS sets the number of random rounds.
"""
import os
import threading

from harness import ServerTest
from xmppclient import DEVICE, OWNER

ROUNDS = int(os.environ.get("NAME_ROUNDS", "100"))


class Inside(ServerTest):
    member = "127.0.0.1"

    def term(self, node=None):
        """The node's records in the server's tables."""
        return "{<<\"%s\">>, <<\"%s\">>}" % (self.server.pubsub, node or self.node)

    def writer(self, verb):
        self.instance.evaluate("sys:%s(element(1, pubsub_device_writer:locate(%s)))" % (verb, self.term()))

    def wait_for_requests(self, count):
        """Waits until this many requests are queued at the node's writer."""
        self.wait_for(lambda: int(self.instance.evaluate(
            "element(2, process_info(whereis(element(1, pubsub_device_writer:locate(%s))), message_queue_len))"
            % self.term())) >= count)


class Names(Inside):
    def request(self, client, name):
        return client.send_iq("set", "<%s xmlns='%s' node='%s'/>" % (name, DEVICE, self.node))

    def delete_request(self, client):
        return client.send_iq("set", "<pubsub xmlns='%s'><delete node='%s'/></pubsub>" % (OWNER, self.node))

    def test_a_node_that_is_made_while_another_session_deletes_it_has_a_key_that_works(self):
        owner, other = self.client("owner"), self.client("owner")
        self.key_node(owner)
        self.writer("suspend")
        made = self.request(owner, "create-key-node")
        self.wait_for_requests(1)
        deleted = self.delete_request(other)
        self.wait_for_requests(2)
        self.writer("resume")
        key = self.succeed(owner.wait_iq(made)).findtext("{%s}key" % DEVICE)
        self.succeed(other.wait_iq(deleted))
        answer = self.ext(owner, "<key node='%s'/>" % self.node, "get")
        exists = self.pubsub(owner, "<configure node='%s'/>" % self.node, "get",
                             OWNER).get("type") == "result"
        self.assertEqual((answer.get("type") == "result", self.post(key, "x")[0] == 201), (exists, exists))

    def test_nodes_made_and_deleted_by_two_sessions_at_once_never_lose_their_key(self):
        """A node of the owner without its key would be a conflict."""
        makers = [self.client("owner") for _ in range(2)]
        answers = []

        def run(client):
            for _ in range(ROUNDS):
                made, deleted = self.request(client, "create-key-node"), self.delete_request(client)
                answers.append(client.wait_iq(made).get("type"))
                client.wait_iq(deleted)

        threads = [threading.Thread(target=run, args=(client,)) for client in makers]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(120)
        self.assertEqual(answers, ["result"] * 2 * ROUNDS)

    def test_an_item_for_a_deleted_node_is_not_kept_for_the_devices_of_the_next(self):
        """The publisher is stopped between the engine and the writer while the node is deleted and created again."""
        owner, publisher, bob = self.client("owner"), self.client("owner"), self.device("bob", "next")
        self.succeed(self.create(owner, access_model="open"))
        self.succeed(self.subscribe(bob))
        self.instance.evaluate("ejabberd_hooks:add(pubsub_publish_item, <<\"localhost\">>, "
                               "fun(_, _, _, _, _, _) -> persistent_term:get(held, none) == none andalso begin "
                               "persistent_term:put(held, self()), "
                               "receive go -> ok after 30000 -> ok end end end, 10)")
        request = publisher.send_iq("set", self.publish_stanza("old"))
        self.wait_for(lambda: self.instance.evaluate("persistent_term:get(held, none)") != "none")
        self.succeed(self.delete(owner))
        self.succeed(self.create(owner, access_model="open"))
        self.succeed(self.subscribe(bob))
        self.instance.evaluate("persistent_term:get(held) ! go")
        self.refused(publisher.wait_iq(request), "item-not-found")
        bob.sync()
        bob.messages()
        bob.kill()
        self.assert_quiet(self.device("bob", "next"))

    def test_a_key_whose_node_was_never_made_is_no_key_of_a_later_node(self):
        owner = self.client("owner")
        self.instance.evaluate("pubsub_device_store:put_key(%s, <<\"left\">>, {<<\"bob\">>, <<\"localhost\">>, <<>>}, "
                               "{false, none})" % self.term())
        self.succeed(self.create(owner))
        self.assertEqual(self.post("left", "x")[0], 404)
        self.refused(self.ext(owner, "<key node='%s'/>" % self.node, "get"), "item-not-found")

    def test_a_name_is_free_again_when_the_process_that_held_it_is_gone(self):
        held = self.instance.evaluate(
            "{_, Monitor} = spawn_monitor(fun() -> exit(pubsub_device_lock:acquire(%s)) end), "
            "receive {'DOWN', Monitor, _, _, Held} -> Held end" % self.term())
        self.assertEqual(held, "ok")
        self.key_node(self.client("owner"))


class Writers(Inside):
    nodes = 16

    def test_an_acknowledgement_is_honoured_by_writers_that_have_started_anew(self):
        owner = self.device("owner", "lives")
        names = ["%s/%d" % (self.node, each) for each in range(self.nodes)]
        for name in names:
            key = self.key_node(owner, name)
            self.succeed(self.activate(owner, node=name))
            for text in ("1", "2", "3"):
                self.post(key, text)
        first = {name: self.take(owner, node=name)[0] for name in names}
        self.instance.evaluate("[exit(whereis(pubsub_device_writer:name(Shard)), kill) "
                               "|| Shard <- pubsub_device_writer:shards()]")
        for name in names:
            self.ack(owner, first[name].id, name)
        for text in ("2", "3"):
            for name in names:
                found = self.take(owner, node=name)[0]
                self.assertEqual(found.text, text)
                self.ack(owner, found.id, name)
        for name in names:
            self.assert_quiet(owner, name)
