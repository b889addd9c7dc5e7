# SPDX-License-Identifier: GPL-3.0-only
"""The data of earlier versions. spool-2 is of 0.1.0: a copy of each item for each device, and what the engine stored
besides. spool-3 is of the version before web push, with one body of each item.

Each spool has an ordinary node /shared, subscribed by bob's phone and carol's tablet, with four items, of which the phone
has acknowledged two, and a key node of the owner's device dev1 with two items."""
import os
import subprocess

from harness import ServerTest
from pushtest import PushTest
from xmppclient import DEVICE, PUBSUB

KEY = "6alQD0rG2jpXruoa-CXLwIXyscnDpjwO"
KEY_3 = "2lOAMih6Jr496bapNSEOEkJU90dFht0U"
INBOX = "/owner/dev1/com.example.app/inbox"
LAST = 1795323539049678  # the number of the last item of /shared


def rows(folder):
    """Table -> number of records, read from the data of a server that is stopped."""
    tables = "[pubsub_item, pubsub_device_body, pubsub_device_cursor, pubsub_device_number]"
    program = ("ok = mnesia:start(), ok = mnesia:wait_for_tables(%s, 30000), "
               "[io:format(\"~s ~b~n\", [T, mnesia:table_info(T, size)]) || T <- %s], "
               "io:format(\"old ~b~n\", [length([T || T <- mnesia:system_info(tables), T == pubsub_device_copy])]), "
               "halt(0, [{flush, true}])." % (tables, tables))
    done = subprocess.run(["erl", "-noinput", "-mnesia", "dir", '"%s/spool"' % folder, "-eval", program],
                          stdout=subprocess.PIPE, text=True, check=True, timeout=60,
                          env=dict(os.environ, HOME=folder + "/log"))
    return {line.split()[0]: int(line.split()[1]) for line in done.stdout.splitlines()}


class Earlier(ServerTest):
    spool = "spool-2"

    def received(self, device, count):
        found = self.take(device, count, node="/shared")
        self.assert_quiet(device)
        return found

    def test_its_copies_its_numbers_and_its_keys_are_taken_over_and_nothing_else_is_left(self):
        phone, tablet = self.device("bob", "phone"), self.device("carol", "tablet")
        found = self.received(phone, 2)
        self.assertEqual([each.text for each in found], ["shared2", "shared3"])
        self.assertEqual([each.id for each in found], ["id2", "id3"])
        self.assertEqual(found[-1].seq_no, LAST)
        self.assertEqual([each.text for each in self.received(tablet, 4)], ["shared%d" % each for each in range(4)])
        for device in (phone, tablet):
            for each in range(4):
                self.ack(device, "id%d" % each, "/shared")
            device.sync()
        self.publish(self.client("owner"), "after", "id4", node="/shared")
        self.assertGreater(self.received(phone, 1)[0].seq_no, LAST)

        self.assertEqual(self.post(KEY, "third")[0], 201)
        inbox = self.device("owner", "dev1")
        self.succeed(self.activate(inbox, node=INBOX))
        for text in ("first", "second", "third"):
            found = self.take(inbox, 1, node=INBOX)[0]
            self.assertEqual(found.text, text)
            self.ack(inbox, found.id, INBOX)
        self.assert_quiet(inbox)
        answer = self.pubsub(self.client("owner"), "<items node='%s'/>" % INBOX, "get")
        self.assertEqual(list(answer.iter("{%s}item" % PUBSUB)), [])
        self.ack(phone, "id4", "/shared")
        self.take(tablet, 1, node="/shared")
        self.ack(tablet, "id4", "/shared")
        phone.sync()
        tablet.sync()

        self.instance.stop()
        left = rows(self.instance.folder)
        self.assertEqual((left["pubsub_device_body"], left["old"]), (0, 0))
        self.assertLessEqual(left["pubsub_item"], 1)  # the engine's last item of /shared, which may be asked for
        self.instance.start()
        tablet = self.device("carol", "tablet")
        self.publish(self.client("owner"), "again", node="/shared")
        self.assertEqual([each.text for each in self.received(tablet, 1)], ["again"])


class BeforeWebPush(PushTest):
    spool = "spool-3"

    def test_its_items_and_keys_are_there_and_its_endpoints_take_what_web_push_brings(self):
        phone, tablet = self.device("bob", "phone"), self.device("carol", "tablet")
        self.assertEqual(self.contents(phone, 2, "/shared"), [b"shared2", b"shared3"])
        self.assertEqual(self.contents(tablet, 4, "/shared"), [b"shared%d" % each for each in range(4)])

        self.publish_http(KEY_3, b"\xff third", {"TTL": "600", "Topic": "a", "Urgency": "high"})
        inbox = self.device("owner", "dev1")
        self.succeed(self.activate(inbox, node=INBOX))
        self.assertEqual(self.contents(inbox, 3, INBOX), [b"first", b"second", b"\xff third"])
        got = self.succeed(self.ext(inbox, "<create-key-node node='%s'/>" % INBOX)).find("{%s}key" % DEVICE)
        self.assertEqual((got.text, got.get("status")), (KEY_3, "exists"))
        self.refused(self.make(inbox, "web-push='true'", INBOX), "conflict")
        self.succeed(self.make(inbox, "web-push='true'", INBOX + "/new"))

        self.instance.kill()
        self.instance.start()
        inbox = self.device("owner", "dev1")
        self.refused(self.make(inbox, "", INBOX + "/new"), "conflict")
        self.publish_http(KEY_3, "after")
        self.succeed(self.activate(inbox, node=INBOX))
        self.assertEqual(self.contents(inbox, 1, INBOX), [b"after"])
