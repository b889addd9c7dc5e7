# SPDX-License-Identifier: GPL-3.0-only
"""Bad input and faults on a running device: every one has its answer, and the service stays up and whole."""

import os
import socket
import threading
import time
import unittest
from unittest import mock

from bus import BusClient, BusError
from stage import StageTest, is_running, wait_until

NOT_JSON = ("", "{", "null", "hello", "{\"node\":", "\x01", "[1,", "nul")


def open_files(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def resident(pid):
    """Bytes of memory that the process holds."""
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:")) * 1024


class FaultsTest(StageTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.private = BusClient(cls.stage.env["ZELT_PRIVATE_BUS"])
        cls.public = BusClient(cls.stage.env["ZELT_PUBLIC_BUS"])

    def still_works(self):
        self.assertTrue(self.private.call("subscribeConnStatus", {})["connected"])


class BadPayloads(FaultsTest):
    def test_what_is_not_json_is_called_malformed(self):
        expected = {"errorCode": '"errBadArgument"', "errorText": "Malformed json"}
        for method in ("createNode", "deleteNode"):
            for text in NOT_JSON:
                with self.subTest(method=method, text=text):
                    answer = self.private.call(method, text)
                    self.assertEqual(answer, {"node": "", "returnValue": False, **expected})

    def test_what_parses_but_is_no_object_fails_at_its_first_key(self):
        for text in ("[]", "5", "\"text\"", "true"):
            with self.subTest(text):
                self.assertEqual(self.private.call("deleteNode", text)["errorText"], '"Bad Argument"')

    def test_members_of_wrong_types_are_answered(self):
        for payload in ({"node": 5}, {"node": {"a": 1}}, {"node": []}, {"node": None}, {"node": "/x", "nodeType": "a"},
                        {"node": "/x", "nodeType": {}}, {"node": "/x", "accessType": []}):
            with self.subTest(payload):
                self.assertIn("returnValue", self.private.call("createNode", payload))
        self.still_works()

    def test_texts_that_xml_cannot_carry_are_refused_and_the_stream_stays(self):
        for text in ("\x01", "a\x0bb", "\x1f", "\ufffe", "\uffff"):
            with self.subTest(repr(text)):
                answer = self.private.call("createNode", {"node": "/bad" + text})
                self.assertEqual(answer, {"node": "/bad" + text, "returnValue": False, "errorCode": "libErr",
                                          "errorText": "gloox library is not initialized"})
        self.still_works()

    def test_a_huge_private_payload_is_answered_and_the_stream_stays(self):
        answer = self.private.call("publishItem", {"node": "/e2e/huge", "item": "x" * 1_000_000})
        self.assertEqual(answer, {"returnValue": False, "errorCode": "libErr",
                                  "errorText": "gloox library is not initialized"})
        self.still_works()

    def test_a_huge_public_payload_is_refused_by_the_bus(self):
        with self.assertRaises(BusError):
            self.public.call("connectStatus", {"filler": "x" * 100_000})
        self.still_works()

    def test_calls_without_the_text_argument_are_refused(self):
        with self.assertRaises(Exception):
            self.private.call_raw("com.zelt.pubsubservice", "/", "com.zelt.pubsubservice", "createNode")
        self.still_works()


class DyingClients(FaultsTest):
    FILLER = 60_000  # bytes of each request, which the service holds as long as it holds the request

    @classmethod
    def setUpClass(cls):
        # A sanitizer keeps what is freed, to find late uses; here that would look like what is left behind.
        options = os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=1"
        with mock.patch.dict(os.environ, ASAN_OPTIONS=options.lstrip(":")):
            super().setUpClass()

    def die(self, clients, at_once=False):
        """Each client asks for something, subscribes to something and leaves, at once or once the service has
        taken both; nothing that it asked for is answered before it is gone."""
        with self.stage.server_held():
            for number in range(clients):
                client = BusClient(self.stage.env["ZELT_PRIVATE_BUS"])
                client.start("createNode", {"node": f"/e2e/dying/{number}", "filler": "x" * self.FILLER})
                taken = client.start("subscribeConnStatus", {"subscribe": True, "filler": "x" * self.FILLER})
                if at_once:
                    client.connection.flush()
                else:
                    taken.wait(1)
                client.close()
        # What the server still has to answer comes before the answer to this.
        self.private.call("getNodeConfig", {"nodes": ["/e2e/dying/0"]})
        self.still_works()

    def test_clients_that_die_between_call_and_answer_leave_no_descriptor_and_no_memory(self):
        pid = self.stage.service_pid
        clients, rounds = 100, 2
        self.die(clients)  # the memory that a round needs while it lasts stays with the process
        self.die(30, at_once=True)
        files, memory = open_files(pid), resident(pid)
        for _ in range(rounds):
            self.die(clients)
        self.die(30, at_once=True)
        self.assertEqual(open_files(pid), files)
        self.assertLess(resident(pid) - memory, rounds * clients * 2 * self.FILLER / 3,
                        "a third of what the requests held")


class Faults(FaultsTest):

    def test_disconnect_and_connect_again_tells_every_status_subscriber(self):
        public = self.public.start("connectStatus", {"subscribe": True})
        private = self.private.start("subscribeConnStatus", {"subscribe": True})
        self.assertEqual(public.wait(1), {"returnValue": True, "connected": True})
        self.assertEqual(private.wait(1)["connected"], True)
        self.assertEqual(self.private.call("disconnect", {}), {"returnValue": True})
        self.assertEqual(public.wait(2), {"returnValue": True, "connected": False})
        self.assertEqual(private.wait(2), {"returnValue": True, "connected": False, "session": True,
                                           "network": True})
        refused = self.private.call("createNode", {"node": "/e2e/off"})
        self.assertEqual(refused, {"node": "", "returnValue": False, "errorCode": "connectionErr",
                                   "errorText": "Not connected to xmpp server"})
        self.assertEqual(self.private.call("connectStatus", {}), {"returnValue": True, "connected": False})
        self.assertEqual(public.wait(3), {"returnValue": True, "connected": True})
        self.assertEqual(private.wait(3)["connected"], True)
        public.cancel()
        private.cancel()

    def test_a_killed_server_is_noticed_and_the_service_stays_up(self):
        status = self.private.start("subscribeConnStatus", {"subscribe": True})
        self.assertTrue(status.wait(1)["connected"])
        self.stage.kill_server()
        self.assertFalse(status.wait(2)["connected"])
        self.assertTrue(is_running(self.stage.service_pid))
        refused = self.private.call("deleteNode", {"node": "/x"})
        self.assertIn("Not connected to xmpp server", refused["errorText"])
        self.stage.start_server()
        self.private.call("connectStatus", {})
        self.stage.wait_connected()
        status.cancel()


class Silence(StageTest):
    """A service whose server never answers: the connect is under way, everything else goes on."""

    @classmethod
    def setUpClass(cls):
        with mock.patch.dict(os.environ, STAGE_LOGIN="file"):  # a file that the test can turn to another server
            super().setUpClass()

    def seconds_of_calls(self, client):
        """How long 300 calls take, one after the other."""
        start = time.monotonic()
        for _ in range(300):
            self.assertIn("username", client.call("getJabberId", {}))
        return time.monotonic() - start

    def test_a_black_holed_connect_stalls_nobody(self):
        # A listener whose backlog is full answers no SYN: the connect hangs.
        listener = socket.socket()
        listener.bind(("127.0.0.1", 0))
        listener.listen(0)
        fillers = []
        for _ in range(4):
            filler = socket.socket()
            filler.setblocking(False)
            filler.connect_ex(listener.getsockname())
            fillers.append(filler)
        self.addCleanup(listener.close)
        for filler in fillers:
            self.addCleanup(filler.close)

        client = BusClient(self.stage.env["ZELT_PRIVATE_BUS"])
        quiet = self.seconds_of_calls(client)
        self.stage.kill_service()
        attached = self.stage.log("service").count("Attached socket")
        credentials = self.stage.path("state", "pubsub.conf")
        lines = credentials.read_text(encoding="utf-8").splitlines()
        lines[3] = str(listener.getsockname()[1])
        credentials.write_text("\n".join(lines) + "\n", encoding="utf-8")
        self.stage.start_service()
        wait_until(lambda: self.stage.log("service").count("Attached socket") > attached, "the connect to begin")
        # What other work there is on the machine may come and go: the best of a few runs counts.
        hanging = min(self.seconds_of_calls(client) for _ in range(3))
        self.assertFalse(client.call("subscribeConnStatus", {})["connected"])
        self.assertLess(hanging, 5 * quiet, "the calls take as long as when no connect hangs")


class Rest(StageTest):
    def test_connected_and_idle_it_is_one_thread_and_makes_no_system_call(self):
        pid = self.stage.service_pid
        client = BusClient(self.stage.env["ZELT_PRIVATE_BUS"])
        client.call("getJabberId", {})

        def switches():
            total = 0
            for thread in os.listdir(f"/proc/{pid}/task"):
                with open(f"/proc/{pid}/task/{thread}/status", encoding="ascii") as status:
                    total += sum(int(line.split()[1]) for line in status if "ctxt_switches" in line)
            return total

        wait_until(lambda: len(os.listdir(f"/proc/{pid}/task")) == 1, "one thread alone", 40)
        # A system call that returns is at least one switch when the thread sleeps again; the counter's standing
        # still over ten seconds means that it slept in one and the same call.
        stop = threading.Event()
        before = wait_until(lambda: (lambda count: not stop.wait(1.0) and switches() == count and count)(switches()),
                            "the service to come to rest", 40)
        stop.wait(10)
        self.assertEqual(switches(), before)
        self.assertEqual(len(os.listdir(f"/proc/{pid}/task")), 1)


if __name__ == "__main__":
    unittest.main()
