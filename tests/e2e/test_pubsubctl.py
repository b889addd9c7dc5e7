# SPDX-License-Identifier: GPL-3.0-only
"""The command line as a person and a script use it: every verb against a real device, its output and exit code."""

import json
import signal
import subprocess
import threading
import unittest
import urllib.request
from xml.etree import ElementTree

from peer import Peer
from stage import BIN, StageTest, wait_until

MAIL, CHAT = ("--app", "com.example.mail"), ("--app", "com.example.chat")


class Running:
    """A pubsubctl that stays; its lines are collected as they come."""

    def __init__(self, stage, *arguments):
        self._process = subprocess.Popen(
            [str(BIN / "pubsubctl"), *arguments], env=environment(stage), stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.lines, self.complaints = [], []
        self._readers = [threading.Thread(target=self._read, args=pair, daemon=True) for pair in
                         ((self._process.stdout, self.lines), (self._process.stderr, self.complaints))]
        for reader in self._readers:
            reader.start()

    @staticmethod
    def _read(stream, lines):
        for line in stream:
            lines.append(line.rstrip("\n"))

    def wait_said(self, words, seconds=20):
        wait_until(lambda: any(words in line for line in self.complaints), f"{words!r} in {self.complaints}", seconds)
        return self

    def wait_lines(self, count, seconds=20):
        wait_until(lambda: len(self.lines) >= count, f"{count} lines", seconds)
        return self.lines

    def signal(self, number):
        self._process.send_signal(number)

    def end(self, seconds=20):
        """Waits for its end; returns (exit code, lines)."""
        code = self._process.wait(seconds)
        for reader in self._readers:
            reader.join(seconds)
        self._process.stdout.close()
        self._process.stderr.close()
        return code, self.lines


def environment(stage):
    return dict(stage.process_environment(), HTTP_URL=stage.env["HTTP_URL"])


class CommandLine(StageTest):
    def run_ctl(self, *arguments, text=None):
        """(exit code, standard output, standard error)"""
        done = subprocess.run([str(BIN / "pubsubctl"), *arguments], env=environment(self.stage), input=text,
                              stdin=subprocess.DEVNULL if text is None else None, capture_output=True, text=True,
                              check=False, timeout=60)
        return done.returncode, done.stdout, done.stderr

    def good(self, *arguments, text=None):
        code, output, complaints = self.run_ctl(*arguments, text=text)
        self.assertEqual(code, 0, complaints)
        return output.rstrip("\n")

    def refused(self, code, words, *arguments):
        found, output, complaints = self.run_ctl(*arguments)
        self.assertEqual((found, words in complaints), (code, True), complaints)
        self.assertEqual(output, "")

    def start(self, *arguments):
        running = Running(self.stage, *arguments)
        self.addCleanup(lambda: running._process.poll() is None and running._process.kill())
        return running

    def post(self, key, text):
        request = urllib.request.Request(f"{self.stage.env['HTTP_URL']}/{key}", text.encode())
        with urllib.request.urlopen(request, timeout=20) as answer:
            return json.load(answer)


class Device:
    def test_status_and_session_name_the_device(self):
        self.assertRegex(self.good("status"),
                         r"^connected  network: yes  account: yes  since: [-\d]+ [:\d]+  last heard: [-\d]+ [:\d]+$")
        self.assertEqual(self.good("status", "--public"), "connected")
        self.assertTrue(self.good("session", "jid").startswith(self.stage.env["DEVICE_USER"]))
        self.assertEqual(json.loads(self.good("--json", "status"))["connected"], True)

    def test_a_node_lives_from_its_creation_to_its_deletion(self):
        self.assertEqual(self.good("node", "create", "/ctl/news"), "created /ctl/news")
        self.refused(3, "a node with this name already exists", "node", "create", "/ctl/news")
        self.assertRegex(self.good("node", "subscribe", "/ctl/news"), r"^subscribed to /ctl/news  subid: \S+$")
        handler = self.start("--json", "handler", "/ctl/news", "-C", "2", "-W", "30").wait_said("receiving")
        self.good("node", "publish", "/ctl/news", "-", text="two\nlines")
        self.good("node", "publish", "/ctl/news", "--json", '{"payload":{"#":"element"}}')
        code, lines = handler.end()
        self.assertEqual((code, [json.loads(line)["item"] for line in lines]), (0, ["two\nlines", '"element"']))
        self.assertEqual(self.good("node", "delete", "/ctl/news"), "deleted /ctl/news")
        self.refused(3, "item-not-found", "node", "delete", "/ctl/news")

    def test_a_handler_that_confirms_gets_one_item_after_the_other(self):
        self.good("node", "create", "/ctl/confirmed")
        self.good("node", "subscribe", "/ctl/confirmed")
        handler = self.start("handler", "/ctl/confirmed", "--confirm", "-C", "3", "-W", "60").wait_said("receiving")
        for text in ("one", "two", "three"):
            self.good("node", "publish", "/ctl/confirmed", text)
        self.assertEqual(handler.end(60), (0, ["one", "two", "three"]))
        self.good("node", "delete", "/ctl/confirmed")

    def test_configuration_is_shown_and_set(self):
        self.good("node", "create", "/ctl/config", "--access", "open")
        self.assertEqual(self.good("node", "config", "/ctl/config"), "pubsub#access_model  open")
        self.assertEqual(self.good("node", "config", "/ctl/config", "--set", "access_model=authorize", "--set",
                                   "pubsub#title=A title"), "configured /ctl/config")
        self.assertEqual(self.good("node", "config", "/ctl/config"), "pubsub#access_model  authorize")
        self.refused(3, "item-not-found", "node", "config", "/ctl/nowhere")

    def test_an_owner_lists_approves_and_denies_who_waits(self):
        self.good("node", "create", "/ctl/door", "--access", "authorize")
        watching = self.start("--json", "pending", "list", "/ctl/door")
        self.stage.account("visitor", "secret")
        visitors = [Peer(self.stage, "visitor", "secret", resource) for resource in ("one", "two")]
        for visitor in visitors:
            self.addCleanup(visitor.close)
            visitor.subscribe("/ctl/door")
        waiting = {}
        wait_until(lambda: waiting.update((json.loads(line)["subscriber_jid"], json.loads(line))
                                          for line in watching.lines) or len(waiting) == 2, "both requests")
        for verb, visitor, outcome in (("approve", visitors[0], "subscribed"), ("deny", visitors[1], "none")):
            asked = waiting[visitor.jid]
            self.good("pending", verb, "/ctl/door", "--id", asked["id"], "--subid", asked["subid"], "--jid",
                      visitor.jid)
            visitor.wait_message(lambda message, words=outcome: f'subscription="{words}"' in text_of(message))
        watching.signal(signal.SIGTERM)
        self.assertEqual(watching.end()[0], 0)

    def test_the_doctor_asks_without_an_error_in_the_services_log(self):
        self.stage.wait_connected()
        before = self.stage.log("service")
        report = self.good("doctor")
        self.assertIn("ok      server extension: the server supports device operations", report)
        self.assertEqual(self.stage.log("service")[len(before):], "")

    def test_wrong_usage_sends_nothing(self):
        self.refused(2, "unknown verb", "frobnicate")
        self.refused(2, 'did you mean "status"?', "stauts")
        self.refused(2, "node publish NODE", "node")
        self.refused(2, "an argument is missing", "endpoint", "create")
        self.refused(2, "application id", "--app", "no id", "status")
        self.refused(2, "--subid is missing", "pending", "deny", "/n", "--id", "1")
        self.refused(2, "there is no program", *MAIL, "subscribe", "x", "--", "no-such-program")


class Endpoints:
    def test_an_endpoint_has_one_key_for_its_life(self):
        key = self.good(*MAIL, "endpoint", "create", "life", "--description", "x" * 49)
        code, again, complaints = self.run_ctl(*MAIL, "endpoint", "create", "life")
        self.assertEqual((code, again, "already exists" in complaints), (0, key + "\n", True))
        self.assertEqual(json.loads(self.good("--json", *MAIL, "endpoint", "key", "life")),
                         {"returnValue": True, "endpoint": "life", "publishKey": key})
        self.refused(3, "description too long", *MAIL, "endpoint", "create", "long", "--description", "x" * 50)
        self.assertEqual(self.good(*MAIL, "endpoint", "delete", "life"), "deleted life")
        self.assertEqual(self.good(*MAIL, "endpoint", "delete", "life"), "there was no endpoint life")
        self.refused(3, "item-not-found", *MAIL, "endpoint", "key", "life")
        self.refused(3, "no endpoint has this key", "publish", key, "late")
        self.assertNotEqual(self.good(*MAIL, "endpoint", "create", "life"), key)

    def test_a_caller_without_an_id_is_no_application(self):
        self.refused(3, "--app ID", "endpoint", "create", "nobody")

    def test_items_are_received_one_after_the_other_by_their_application_alone(self):
        mail, chat = (self.good(*app, "endpoint", "create", "inbox") for app in (MAIL, CHAT))
        self.assertNotEqual(mail, chat)
        receiver = self.start(*MAIL, "subscribe", "inbox", "-C", "3", "-W", "30").wait_said("receiving")
        stranger = self.start("--json", *CHAT, "subscribe", "inbox", "-C", "1", "-W", "30").wait_said("receiving")
        self.assertTrue(self.post(mail, "by any client")["seqNo"].isdigit())
        self.assertRegex(self.good("publish", mail, "by its key"), r"^published  id: \S+  seqNo: \d+$")
        sent = json.loads(self.good("--json", "publish", f"{self.stage.env['HTTP_URL']}/{mail}", text="by its address"))
        self.assertEqual(sorted(sent), ["id", "seqNo"])
        self.assertEqual(receiver.end(), (0, ["by any client", "by its key", "by its address"]))
        self.good("publish", chat, "for the other")
        code, lines = stranger.end()
        self.assertEqual((code, [json.loads(line)["item"] for line in lines]), (0, ["for the other"]))

    def test_items_that_wait_are_all_received_in_order_and_listed_until_then(self):
        key = self.good(*MAIL, "endpoint", "create", "queue")
        sent = [f"job {number}" for number in range(30)]
        for text in sent:
            self.post(key, text)
        self.wait_listed("queue", "queue  receiver: no  subscriber: no  waiting: 30  cached: no")
        worker = self.start(*MAIL, "subscribe", "queue", "-W", "120", "-C", "30", "--", "sh", "-c", "sleep 0.2; cat; echo")
        self.wait_listed("queue", "receiver: yes")
        self.assertEqual(worker.end(120), (0, sent))
        self.wait_listed("queue", "queue  receiver: no  subscriber: no  waiting: 0  cached: no")

    def test_an_item_whose_command_fails_is_run_again_and_then_left(self):
        key = self.good(*MAIL, "endpoint", "create", "retried")
        for text in ("first", "bad", "last"):
            self.post(key, text)
        words = ("--retries", "1", "--", "sh", "-c", 'read -r job; echo "$job"; test "$job" != bad')
        worker = self.start(*MAIL, "subscribe", "retried", "-C", "3", "-W", "60", *words)
        self.assertEqual(worker.end(60), (1, ["first", "bad", "bad"]))
        self.assertIn("pubsubctl: sh exited with code 1; it is run again in 1 s (retry 1 of 1)", worker.complaints)
        rest = self.good(*MAIL, "subscribe", "retried", "-C", "2", "-W", "30")
        self.assertEqual(rest, "bad\nlast")

    def test_an_item_whose_receiver_is_killed_or_cannot_write_comes_again(self):
        key = self.good(*MAIL, "endpoint", "create", "killed")
        for text in ("first", "second"):
            self.post(key, text)
        with open("/dev/full", "w", encoding="ascii") as full:
            done = subprocess.run([str(BIN / "pubsubctl"), *MAIL, "subscribe", "killed"], env=environment(self.stage),
                                  stdin=subprocess.DEVNULL, stdout=full, stderr=subprocess.PIPE, text=True,
                                  check=False, timeout=60)
        self.assertEqual((done.returncode, "the item stays with the server" in done.stderr), (1, True), done.stderr)
        hanging = self.start(*MAIL, "subscribe", "killed", "--", "sh", "-c", "cat; echo; exec sleep 60 >&- 2>&-")
        self.assertEqual(hanging.wait_lines(1), ["first"])
        hanging.signal(signal.SIGKILL)
        hanging.end()
        self.wait_listed("killed", "killed  receiver: no  subscriber: no  waiting: 2")
        self.assertEqual(self.good(*MAIL, "subscribe", "killed", "-C", "2", "-W", "30"), "first\nsecond")

    def wait_listed(self, endpoint, words):
        """That `endpoint list` says this of an endpoint."""
        def listed():
            lines = self.good(*MAIL, "endpoint", "list").splitlines()
            return any(line.startswith(endpoint + " ") and words in line for line in lines)
        wait_until(listed, words)

    def test_the_newest_alone_is_one_item_of_those_that_wait(self):
        key = self.good(*MAIL, "endpoint", "create", "newest")
        waiting = self.start("--json", *MAIL, "subscribe", "--newest", "newest", "-C", "1").wait_said("receiving")
        self.post(key, "taken")
        self.assertEqual(waiting.end(), (0, ['{"endpoint":"newest","item":"taken"}']))
        for text in ("older", "old", "new"):
            self.post(key, text)
        self.wait_listed("newest", "waiting: 0  cached: yes")
        self.assertEqual(self.good(*MAIL, "subscribe", "newest", "--newest", "-C", "1", "-W", "20"), "new")

    def test_a_command_is_run_for_the_newest_item_and_its_failure_is_the_exit_code(self):
        key = self.good(*MAIL, "endpoint", "create", "jobs")
        worker = self.start(*MAIL, "subscribe", "jobs", "--newest", "-C", "3", "-W", "30", "--", "sh", "-c",
                            'read -r job; echo "done: $job"; test "$job" != bad').wait_said("receiving")
        for number, job in enumerate(("first", "bad", "last"), 1):
            self.good("publish", key, job + "\n")
            worker.wait_lines(number)
        self.assertEqual(worker.end(), (1, ["done: first", "done: bad", "done: last"]))
        self.assertIn("pubsubctl: sh exited with code 1", worker.complaints)

    def test_a_wait_ends_by_signal_by_time_and_by_unsubscribing(self):
        self.good(*MAIL, "endpoint", "create", "wait")
        self.assertEqual(self.good(*MAIL, "unsubscribe", "wait"), "nobody was subscribed to wait")
        self.refused(5, "0 of 1 received", *MAIL, "subscribe", "wait", "-C", "1", "-W", "1")
        receiving = self.start(*MAIL, "subscribe", "wait").wait_said("receiving")
        self.refused(3, "Endpoint wait is received by", *MAIL, "subscribe", "wait")
        receiving.signal(signal.SIGINT)
        self.assertEqual(receiving.end()[0], 0)
        self.wait_listed("wait", "receiver: no")
        waiting = self.start(*MAIL, "subscribe", "--newest", "wait").wait_said("receiving")
        self.refused(3, "another process of this application", *MAIL, "subscribe", "--newest", "wait")
        self.assertEqual(self.good(*MAIL, "unsubscribe", "wait"), "unsubscribed from wait")
        # It subscribes again, since its wait was ended by somebody else.
        key = self.good(*MAIL, "endpoint", "key", "wait")
        self.good("publish", key, "again")
        self.assertEqual(waiting.wait_lines(1), ["again"])
        waiting.signal(signal.SIGINT)
        self.assertEqual(waiting.end()[0], 0)
        wait_until(lambda: self.good(*MAIL, "unsubscribe", "wait") == "nobody was subscribed to wait", "the end")

    def test_a_closed_application_is_announced(self):
        key = self.good(*MAIL, "endpoint", "create", "closed")
        listener = self.start("onclose", "listen", "-C", "2", "-W", "30")
        self.assertEqual(self.good(*MAIL, "onclose", "add", "closed"), "notices for closed")
        # The second wish is announced, once the listener is there.
        wait_until(lambda: self.good(*MAIL, "onclose", "add", "closed") and listener.lines, "the notice")
        self.assertRegex(listener.lines[0], r"^open  /.*/com\.example\.mail/closed$")
        waiting = self.start(*MAIL, "subscribe", "closed", "-C", "1", "-W", "30").wait_said("receiving")
        self.good("publish", key, "while open")
        self.assertEqual(waiting.end(), (0, ["while open"]))
        self.assertEqual(self.good(*MAIL, "onclose", "remove", "closed"), "no notices for closed")
        listener.signal(signal.SIGTERM)
        listener.end()

    def test_publishing_says_what_is_wrong_in_its_exit_code(self):
        key = self.good(*MAIL, "endpoint", "create", "errors")
        self.refused(3, "no endpoint has this key", "publish", "NoSuchKey", "x")
        self.refused(3, "rejects this text", "publish", key, "")
        self.refused(2, "a key consists of letters", "publish", "no/key", "x")
        self.refused(4, "cannot be reached", "publish", "http://127.0.0.1:1/push/key", "x")


class Outages:
    def test_a_receiver_stays_while_the_connection_and_the_service_come_and_go(self):
        key = self.good(*MAIL, "endpoint", "create", "steady")
        receiver = self.start(*MAIL, "subscribe", "steady", "-C", "2", "-W", "60").wait_said("receiving")
        self.assertEqual(self.good("session", "disconnect"), "disconnected")
        code, output, _ = self.run_ctl("status")
        self.assertEqual((code, output.startswith("not connected")), (4, True))
        self.refused(4, "connectionErr", *MAIL, "endpoint", "key", "steady")
        self.assertEqual(self.good(*CHAT, "unsubscribe", "steady"), "nobody was subscribed to steady")
        self.good("publish", key, "while away")
        self.assertEqual(self.good("session", "login"), "connected")
        receiver.wait_lines(1)

        self.stage.kill_service()
        receiver.wait_said("left the bus")
        self.refused(4, "not on the bus", *MAIL, "endpoint", "key", "steady")
        self.stage.start_service()
        receiver.wait_said("is back")
        self.assertRegex(self.good("status", "--wait"), r"connected  network: yes  account: yes( |$)[^\n]*$")
        self.good("publish", key, "after the restart")
        self.assertEqual(receiver.end(), (0, ["while away", "after the restart"]))

    def test_unsubscribing_without_a_connection_has_one_answer(self):
        self.good(*MAIL, "endpoint", "create", "alone")
        waiting = self.start(*MAIL, "subscribe", "--newest", "alone").wait_said("receiving")
        self.good("session", "disconnect")
        self.assertEqual(self.good("--timeout", "20", *MAIL, "unsubscribe", "alone"), "unsubscribed from alone")
        waiting.signal(signal.SIGTERM)
        self.assertEqual(waiting.end()[0], 0)
        self.good("session", "login")


class PubSubCtl(Device, Endpoints, Outages, CommandLine):
    """All of it on one stage."""


def text_of(message):
    return ElementTree.tostring(message, encoding="unicode")


if __name__ == "__main__":
    unittest.main()
