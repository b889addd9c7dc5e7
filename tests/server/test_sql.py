# SPDX-License-Identifier: GPL-3.0-only
"""The service with its data in PostgreSQL: the schema, what is in the tables, and what its publishers were told when a
member or the database is killed."""
import threading
import time

import xmppclient
from harness import PASSWORD, Instance, ServerTest
from xmppclient import STANZAS


class DatabaseTest(ServerTest):
    database = "postgresql"
    options = ["key_rate=100000", "key_burst=100000"]

    def version(self):
        return self.instance.query("SELECT max(version) FROM pubsub_device_schema")

    def indexes(self):
        return self.instance.query("SELECT indexname FROM pg_indexes WHERE indexname LIKE 'pubsub_device_body_%' "
                                   "AND indexname NOT LIKE '%_pkey' ORDER BY 1").split()


class Schema(DatabaseTest):
    """The newest version of the schema is 3; what it adds to version 2 is for web push, and 2 added an index."""

    all_indexes = ["pubsub_device_body_at", "pubsub_device_body_expires", "pubsub_device_body_topic"]

    def test_an_empty_database_gets_all_tables(self):
        self.assertEqual(self.version(), "3")
        self.assertEqual(self.indexes(), self.all_indexes)

    def test_the_version_before_gets_what_it_lacks_and_keeps_its_data(self):
        owner, bob = self.client("owner"), self.device("bob", "away")
        inbox = self.node + "/inbox"
        key = self.key_node(bob, inbox)
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        bob.kill()
        self.settle()
        self.publish(owner, "before")
        self.assertEqual(self.post(key, "before")[0], 201)
        older = ("ALTER TABLE pubsub_device_body DROP COLUMN expires, DROP COLUMN urgency, DROP COLUMN topic; "
                 "ALTER TABLE pubsub_device_key DROP COLUMN web_push, DROP COLUMN vapid; "
                 "DELETE FROM pubsub_device_schema WHERE version > 2;")
        for before in (older, older + "DROP INDEX pubsub_device_body_at; DELETE FROM pubsub_device_schema WHERE version > 1"):
            self.instance.query(before)
            self.instance.stop()
            self.instance.start()
            self.assertEqual(self.version(), "3")
            self.assertEqual(self.indexes(), self.all_indexes)
        self.assertEqual(self.post(key, "after", headers={"Topic": "a", "TTL": "60"})[0], 201)
        bob = self.device("bob", "away")
        self.assertEqual(self.texts(bob, 1), ["before"])
        self.succeed(self.activate(bob, node=inbox))
        found = self.take(bob, 1, inbox)[0]
        self.ack(bob, found.id, inbox)
        self.assertEqual([found.text] + self.texts(bob, 1, inbox), ["before", "after"])

    def test_a_database_of_a_later_version_is_left_alone(self):
        self.instance.query("INSERT INTO pubsub_device_schema (version) VALUES (99)")
        try:
            self.instance.stop()
            with self.assertRaises(AssertionError) as refused:
                self.instance.start()
            self.assertIn("update the server", str(refused.exception) + self.instance.log())
        finally:
            self.instance.start_database()
            self.instance.query("DELETE FROM pubsub_device_schema WHERE version = 99")
            self.instance.start()


class Refusal(DatabaseTest):
    """A database that takes no more items, as when somebody changed its tables."""

    def test_is_told_and_logged_without_the_text_of_the_item(self):
        owner, bob = self.client("owner"), self.device("bob")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        key = self.key_node(bob, self.node + "/inbox")
        bob.kill()
        self.instance.query("ALTER TABLE pubsub_device_body ADD CONSTRAINT nothing CHECK (number < 0) NOT VALID")
        try:
            self.refused(owner.iq("set", self.publish_stanza("unseen-text", "unseen-id")), "resource-constraint")
            self.assertEqual(self.post(key, "unseen-text")[0], 503)
        finally:
            self.instance.query("ALTER TABLE pubsub_device_body DROP CONSTRAINT nothing")
        self.wait_for(lambda: "items could not be stored: {<<\"23514\">>" in self.instance.log())
        # The engine says it first, with the statement.
        self.assertRegex(self.instance.log(), r"SQL query 'WITH bodies AS \(INSERT INTO pubsub_device_body .*E'\.\.\.'")
        with open(self.instance.folder + "/log/database.log", encoding="utf-8") as log:
            self.assertNotIn("unseen", self.instance.log() + log.read())
        self.publish(owner, "x")


class Rows(DatabaseTest):
    """What is left in the tables."""

    tables = ("pubsub_device_body", "pubsub_device_copy", "pubsub_device_queue", "pubsub_device_number",
              "pubsub_device_key", "pubsub_device_mark", "pubsub_device_node", "pubsub_node", "pubsub_item",
              "pubsub_state")

    def counts(self):
        return {table: int(self.instance.query("SELECT count(*) FROM %s" % table)) for table in self.tables}

    def test_nothing_is_left_of_a_deleted_node(self):
        before = self.counts()
        owner, bob = self.device("owner", "one"), self.device("bob", "two")
        key = self.key_node(owner)
        plain = self.node + "/plain"
        self.succeed(self.create(owner, plain))
        self.succeed(self.subscribe(bob, node=plain))
        for text in ("1", "2", "3"):
            self.assertEqual(self.post(key, text)[0], 201)
            self.publish(owner, text, node=plain)
        self.assertGreater(self.counts()["pubsub_device_copy"], before["pubsub_device_copy"] + 5)
        for each in (self.node, plain):
            self.succeed(self.delete(owner, each))
        self.assertEqual(self.counts(), before)
        self.assertEqual(self.instance.query("SELECT coalesce(sum(kept), 0), coalesce(sum(bytes), 0) FROM pubsub_device"),
                         "0|0")

    def test_an_item_for_many_is_stored_once(self):
        owner = self.client("owner")
        self.succeed(self.create(owner))
        devices = [self.device("bob", str(each)) for each in range(3)]
        for device in devices:
            self.succeed(self.subscribe(device))
        before = self.counts()
        self.publish(owner, "text")
        after = self.counts()
        self.assertEqual(after["pubsub_device_body"] - before["pubsub_device_body"], 1)
        self.assertEqual(after["pubsub_device_copy"] - before["pubsub_device_copy"], 3)
        for device in devices:
            found = self.take(device)[0]
            self.ack(device, found.id)
        self.wait_for(lambda: self.counts() == dict(before, **{
            "pubsub_device_queue": after["pubsub_device_queue"], "pubsub_device_number": after["pubsub_device_number"]}))


class Texts(DatabaseTest):
    HOSTILE = ("\\'); DELETE FROM pubsub_device_body; --", "'); DELETE FROM pubsub_device_body; --", "\\", "''", "\\\\'")

    def check(self):
        owner, bob = self.client("owner"), self.device("bob", "texts\\'")
        for number, text in enumerate(self.HOSTILE):
            node = "%s%d%s" % (self.node, number, text)
            self.succeed(self.create(owner, node))
            self.succeed(self.subscribe(bob, node=node))
            self.publish(owner, text, text, node)
            found = self.take(bob, node=node)[0]
            self.assertEqual((found.id, found.text), (text, text))
            self.ack(bob, text, node)
            self.succeed(self.delete(owner, node))
        bob.kill()

    def test_what_looks_like_a_statement_is_a_text(self):
        self.check()

    def test_also_where_the_database_takes_backslashes_in_plain_texts_for_escapes(self):
        self.instance.query("DO $$ BEGIN EXECUTE format('ALTER DATABASE %I SET standard_conforming_strings=off', "
                            "current_database()); END $$")
        self.instance.stop()
        self.instance.start()
        self.check()


class Outage(DatabaseTest):
    """The database is killed while items are published."""

    nodes = 4

    def publish_until(self, stop, label, told, refusals):
        """Publishes to all nodes in turn and notes what was confirmed; a refusal has to be one that passes."""
        client = self.client("owner")
        number = 0
        while not stop.is_set():
            number += 1
            for node in self.names:
                text = "%s %d" % (label, number)
                answer = client.iq("set", self.publish_stanza(text, node=node), deadline=90)
                if answer.get("type") == "result":
                    told.append((node, text))
                else:
                    error = answer.find("{jabber:client}error")
                    refusals.append((error.get("type"), xmppclient.condition(answer),
                                     error.findtext(STANZAS + "text")))
                    time.sleep(0.05)  # as a publisher that tries again would

    def post_until(self, stop, key, told, refusals):
        number = 0
        while not stop.is_set():
            number += 1
            text = "post %d" % number
            status, headers, _ = self.post(key, text)
            if status == 201:
                told.append((self.key_name, text))
            else:
                refusals.append((status, "Retry-After" in headers))
                time.sleep(0.05)

    def collect(self, device, told, deadline=60):
        """The device has everything that was told, and the numbers of each node ascend except for repetitions."""
        missing = set(told)
        last, numbers = {}, {}
        end = time.monotonic() + deadline
        while missing:
            self.assertLess(time.monotonic(), end, "these were lost: %r" % sorted(missing)[:5])
            for message in device.messages():
                found = xmppclient.item(message)
                known = numbers.setdefault((found.node, found.seq_no), found.text)
                self.assertEqual(known, found.text, "a number was given twice")
                if (found.node, found.text) in missing:
                    self.assertGreater(found.seq_no, last.get(found.node, 0), "an item came after a later one")
                    last[found.node] = found.seq_no
                    missing.discard((found.node, found.text))
                self.ack(device, found.id, found.node)
            time.sleep(0.02)

    def test_what_publishers_were_told_survives_and_what_is_refused_may_be_tried_again(self):
        owner = self.device("owner", "owns")
        self.names = ["%s/%d" % (self.node, each) for each in range(self.nodes)]
        self.key_name = self.node + "/key"
        here, away = self.device("bob", "here"), self.device("bob", "away")
        for each in self.names:
            self.succeed(self.create(owner, each, publish_model="open"))
            for device in (here, away):
                self.succeed(self.subscribe(device, node=each))
        key = self.key_node(owner, self.key_name)
        self.succeed(self.activate(owner, node=self.key_name))
        away.kill()
        stop, told, posted, refusals, refused = threading.Event(), [], [], [], []
        threads = [threading.Thread(target=self.publish_until, args=(stop, "a", told, refusals)),
                   threading.Thread(target=self.publish_until, args=(stop, "b", told, refusals)),
                   threading.Thread(target=self.post_until, args=(stop, key, posted, refused))]
        for thread in threads:
            thread.start()
        try:
            for _ in range(2):
                before, before_posted = len(told), len(posted)
                self.wait_for(lambda: len(told) > before + 40 and len(posted) > before_posted + 10, 60)
                earlier, earlier_posted = len(refusals), len(refused)
                self.instance.kill_database()
                self.wait_for(lambda: len(refusals) > earlier + 5 and len(refused) > earlier_posted + 5, 60)
                self.instance.start()
            before, before_posted = len(told), len(posted)
            self.wait_for(lambda: len(told) > before + 40 and len(posted) > before_posted + 10, 60)
        finally:
            stop.set()
            for thread in threads:
                thread.join(120)
        self.assertEqual({(kind, word) for kind, word, _ in refusals}, {("wait", "resource-constraint")})
        self.assertIn("The database of the service does not answer; try again later", {text for _, _, text in refusals})
        self.assertEqual(set(refused), {(503, True)})
        self.collect(here, told)
        self.collect(self.device("bob", "away"), told)
        self.collect(owner, posted)

    def test_requests_that_need_the_database_are_refused_while_it_is_away_and_work_again_later(self):
        owner = self.client("owner")
        self.instance.kill_database()
        try:
            self.wait_for(lambda: "The database does not answer" in self.instance.log())
            self.refused(self.create(owner), "resource-constraint")
            self.refused(owner.iq("set", self.publish_stanza("x")), "resource-constraint")
            self.assertEqual(self.post("some-key", "x")[0], 503)
        finally:
            self.instance.start()
        self.wait_for(lambda: self.create(owner).get("type") == "result")


class SlowAcknowledgements(ServerTest):
    """An acknowledgement counts when the server has it, whenever the database is told."""

    database = "postgresql"
    member = "127.0.0.1"

    def setUp(self):
        super().setUp()
        self.owner, self.bob = self.client("owner"), self.device("bob", "slow")
        self.succeed(self.create(self.owner))
        self.succeed(self.subscribe(self.bob))
        for text in ("1", "2"):
            self.publish(self.owner, text, text)
        self.assertEqual(self.texts(self.bob, 2), ["1", "2"])
        self.instance.evaluate("sys:suspend(pubsub_device_sql_acks)")
        self.addCleanup(self.instance.evaluate, "catch sys:resume(pubsub_device_sql_acks, 1000)")
        self.ack(self.bob, "1")
        self.bob.sync()

    def test_an_item_that_was_acknowledged_a_moment_ago_is_not_repeated_in_the_session(self):
        self.announce(self.bob)
        self.assertEqual(self.texts(self.bob, 1), ["2"])

    def test_nor_is_it_sent_to_the_next_session(self):
        self.bob.kill()
        bob = self.device("bob", "slow")
        self.assertEqual(self.texts(bob, 1), ["2"])

    def test_what_is_written_late_leaves_nothing_behind(self):
        self.assertEqual(self.instance.evaluate("ets:info(pubsub_device_sql_acks, size)"), "1")
        self.instance.evaluate("sys:resume(pubsub_device_sql_acks)")
        self.wait_for(lambda: self.instance.evaluate("ets:info(pubsub_device_sql_acks, size)") == "0")
        self.announce(self.bob)
        self.assertEqual(self.texts(self.bob, 1), ["2"])


class Members(ServerTest):
    """Two members, one database."""

    database = "postgresql"

    @classmethod
    def setUpClass(cls):
        cls.instance = Instance(["key_rate=100000", "key_burst=100000"], member="127.0.0.1", database=cls.database)
        try:
            cls.second = Instance((), member="127.0.0.2", join=cls.instance.folder)
        except BaseException:
            cls.instance.remove()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.second.remove()
        super().tearDownClass()

    def test_two_members_that_both_number_a_node_never_invert_its_numbers(self):
        """Each looks at the node's last number before it numbers items: it is not below what was told before, and what
        follows is above it."""
        owner = self.client("owner")
        self.succeed(self.create(owner))
        self.publish(owner, "1")
        node = "{<<\"%s\">>, <<\"%s\">>}" % (self.server.pubsub, self.node)
        race = (
            "Item = {xmlel, <<\"item\">>, [{<<\"id\">>, <<\"x\">>}], []}, Node = %s, "
            "Publication = {publication, Node, any, <<\"x\">>, Item, [], [], true}, "
            "lists:foldl(fun(_, {Wrong, Told}) -> "
            "Last = case pubsub_device_store:last_item(Node) of {Found, _} -> Found; none -> 0 end, "
            "{[{ok, Number}, {ok, Next}], _, _} = pubsub_device_store:write([Publication, Publication], 0), "
            "{Wrong + length([x || Number =< Last orelse Next =< Number orelse Last < lists:max([0 | Told])]), "
            "[Number, Next | Told]} end, {0, []}, lists:seq(1, 200))" % node)
        results = {}

        def run(instance):
            results[instance] = instance.evaluate(race)

        threads = [threading.Thread(target=run, args=(each,)) for each in (self.instance, self.second)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(120)
        numbers = []
        for text in results.values():
            self.assertRegex(text, r"^\{0,\[")
            numbers += [int(each) for each in text[4:-2].split(",")]
        self.assertEqual(len(set(numbers)), 800)

    def test_a_member_whose_folder_was_lost_is_replaced_by_an_empty_one(self):
        bob = xmppclient.connect(self.second.server, "bob", PASSWORD, "moves")
        self.clients.append(bob)
        self.announce(bob)
        owner = self.client("owner")
        self.succeed(self.create(owner))
        self.succeed(self.subscribe(bob))
        self.second.kill()
        self.second.remove()
        self.publish(owner, "meanwhile")
        type(self).second = Instance((), member="127.0.0.3", join=self.instance.folder)
        bob = xmppclient.connect(self.second.server, "bob", PASSWORD, "moves")
        self.clients.append(bob)
        self.announce(bob)
        self.assertEqual(self.texts(bob, 1), ["meanwhile"])
