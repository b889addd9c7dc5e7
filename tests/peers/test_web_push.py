# SPDX-License-Identifier: GPL-3.0-only
"""The push service with the sender that most application servers use, the package web-push, unmodified."""
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path[:0] = [str(ROOT / "tools"), str(ROOT / "tests/server")]
import webpush  # noqa: E402
from pushtest import PushTest  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
MODULES = ROOT / "build/peers"
DEADLINE = 300


def install():
    """Installs the packages of the lock file."""
    if not shutil.which("npm"):
        subprocess.run([str(ROOT / "scripts/install-packages"), "nodejs", "npm"], check=True)
    MODULES.mkdir(parents=True, exist_ok=True)
    for name in ("package.json", "package-lock.json"):
        shutil.copy(HERE / name, MODULES / name)
    subprocess.run(["npm", "ci", "--ignore-scripts", "--no-audit", "--no-fund", "--silent"], cwd=MODULES, check=True,
                   stdin=subprocess.DEVNULL, timeout=DEADLINE)


class WebPush(PushTest):
    @classmethod
    def setUpClass(cls):
        install()
        super().setUpClass()

    def setUp(self):
        super().setUp()
        self.sender, self.application = webpush.Sender(), webpush.Receiver()
        self.owner, self.key = self.endpoint(more="web-push='true' vapid='%s'" % self.sender.key)

    def send(self, *messages, sender=None, url=None):
        """Sends (content, options) each, and returns the answers."""
        subscription = {"endpoint": url or self.url(self.key),
                        "keys": self.application.subscription._asdict()}
        signer = sender or self.sender
        private = webpush.b64(signer.private.private_numbers().private_value.to_bytes(32, "big"))
        vapid = {"subject": "mailto:sender@example.org", "publicKey": signer.key, "privateKey": private}
        lines = [json.dumps({"subscription": subscription, "content": content,
                             "options": dict({"vapidDetails": vapid}, **options)}) for content, options in messages]
        done = subprocess.run(["node", str(HERE / "send.js"), str(MODULES)], input="\n".join(lines), text=True,
                              capture_output=True, timeout=DEADLINE, check=False,
                              env=dict(os.environ, NODE_EXTRA_CA_CERTS=self.server.env["CA_FILE"], NO_PROXY="*"))
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return [json.loads(line) for line in done.stdout.splitlines()]

    def received(self, count):
        return [self.application.decrypt(each).decode() for each in self.contents(self.owner, count)]

    def test_the_program_of_the_page_for_senders_sends(self):
        page = (ROOT / "docs/senders.md").read_text(encoding="utf-8")
        program, = re.findall(r"^```js\n(.*?)^```$", page, re.MULTILINE | re.DOTALL)
        subscription = {"endpoint": self.url(self.key), "keys": self.application.subscription._asdict()}
        private = webpush.b64(self.sender.private.private_numbers().private_value.to_bytes(32, "big"))
        script = "const [subscription, publicKey, privateKey] = %s;\n(async () => {%s})();" % (
            json.dumps([subscription, self.sender.key, private]), program)
        done = subprocess.run(["node", "-e", script], cwd=MODULES, text=True, capture_output=True, timeout=DEADLINE,
                              check=False, env=dict(os.environ, NODE_EXTRA_CA_CERTS=self.server.env["CA_FILE"],
                                                    NODE_PATH=str(MODULES / "node_modules"), NO_PROXY="*"))
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(self.received(1), ["Lunch at noon?"])

    def test_ten_messages_arrive_in_order_and_are_decrypted(self):
        texts = ["message %d, ünïcode" % each for each in range(10)]
        answers = self.send(*[(text, {}) for text in texts])
        self.assertEqual([each["status"] for each in answers], [201] * 10)
        self.assertEqual(self.received(10), texts)

    def test_the_time_to_live_is_granted(self):
        answer, = self.send(("kept", {"TTL": 90}))
        self.assertEqual((answer["status"], answer["headers"]["ttl"]), (201, "90"))
        self.assertEqual(self.received(1), ["kept"])

    def test_a_topic_replaces_the_message_that_waits_and_an_urgency_is_accepted(self):
        self.owner.kill()
        answers = self.send(("first", {"topic": "news"}), ("other", {"urgency": "high"}), ("last", {"topic": "news"}))
        self.assertEqual([each["status"] for each in answers], [201] * 3)
        self.owner = self.again()
        self.assertEqual(self.received(2), ["other", "last"])

    def test_another_application_server_is_refused(self):
        answer, = self.send(("x", {}), sender=webpush.Sender())
        self.assertEqual(answer["status"], 403)
        self.assert_quiet(self.owner)

    def test_an_endpoint_that_was_deleted_is_not_found(self):
        self.succeed(self.delete(self.owner))
        answer, = self.send(("x", {}))
        self.assertEqual(answer["status"], 404)


if __name__ == "__main__":
    unittest.main()
