# SPDX-License-Identifier: GPL-3.0-only
"""The commands and programs of the pages for users of the service, as they stand there: run, and what they print."""

import json
import pathlib
import re
import subprocess
import tempfile
import unittest

from stage import BIN, COVERAGE, ROOT, SANITIZE, StageTest
from test_guide import package
from test_pubsubctl import Running, environment

APP = "com.example.pages"
MARK = "@@@ the next block"


def blocks(page, language="sh"):
    text = (ROOT / "docs" / page).read_text(encoding="utf-8")
    return re.findall(rf"^```{language}\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)


class Pages(StageTest):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="pages-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def ctl(self, *arguments):
        return self.stage.ctl("--app", APP, *arguments)[1].strip()

    def endpoint(self):
        """The key and the address of an endpoint, which ends with the test."""
        key = self.ctl("endpoint", "create", "inbox")
        self.addCleanup(self.ctl, "endpoint", "delete", "inbox")
        return {"KEY": key, "URL": f"{self.stage.env['HTTPS_URL']}/{key}"}

    def environment(self, **more):
        env = environment(self.stage)
        path = f"{BIN}:{ROOT / 'tools'}:{env['PATH']}"
        return dict(env, ZELT_APP_ID=APP, CURL_CA_BUNDLE=env["PUBSUB_CA_FILE"], NO_PROXY="*", PATH=path,
                    SSL_CERT_FILE=env["PUBSUB_CA_FILE"], PYTHONDONTWRITEBYTECODE="1", **more)

    def run_blocks(self, page, **more):
        """Runs them one after the other in one shell that ends at the first failure; returns what each printed."""
        script = f"\necho; echo '{MARK}'\n".join(blocks(page))
        done = subprocess.run(["bash", "-euo", "pipefail", "-c", script], cwd=self.folder, timeout=120,
                              env=self.environment(**more), stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              check=False)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return [each.strip() for each in done.stdout.split(MARK)]

    def received(self, count):
        code, lines = Running(self.stage, "--json", "--app", APP, "subscribe", "inbox", "-C", str(count), "-W",
                              "20").end(30)
        self.assertEqual(code, 0, lines)
        return [json.loads(line) for line in lines]


class Senders(Pages):
    def test_every_command_publishes_what_it_says(self):
        subscription = self.folder / "subscription.json"
        told = self.endpoint()
        # A real point of the curve; nobody decrypts here.
        key = "BCVxsr7N_eNgVRqvHtD0zTZsEc6-VV-JvLexhqUzORcxaOzi6-AYWXvTBHm4bjyPjs7Vd8pZGH6SRpkNtoIAiw4"
        subscription.write_text(json.dumps({"endpoint": told["URL"], "keys": {
            "p256dh": key, "auth": "BTBZMqHH6r4Tts7J_aSIgg"}}), encoding="utf-8")
        printed = self.run_blocks("senders.md", **told)
        self.assertIn('"state":"waiting"', printed[3])
        self.assertIn("accepted with 201", printed[4])
        self.assertEqual(json.loads(printed[5]), {"rejected": []})
        items = self.received(5)
        self.assertEqual([(each["item"], each.get("encoding")) for each in items[:3]],
                         [("You have mail", None), ("YW55AGJ5dGVz", "base64"), ("Rain at noon", None)])
        self.assertEqual(items[3]["encoding"], "base64")
        self.assertEqual(json.loads(items[4]["item"])["notification"]["event_id"], "$1")


class Item(Pages):
    def test_every_command_shows_its_station(self):
        told = self.endpoint()
        receiver = Running(self.stage, "--app", APP, "subscribe", "inbox").wait_said("receiving")
        printed = self.run_blocks("item.md", **told)
        lines = {re.sub(r".* ms  (\w+ +)([a-z ]+?)(, .*)?$", r"\1\2", line).replace("  ", " ")
                 for line in printed[0].splitlines()}
        page = (ROOT / "docs/item.md").read_text(encoding="utf-8")
        named = set(re.findall(r"`((?:sender|server|device) [a-z ]+)`", page))
        self.assertEqual(lines - {"sender answered"}, named)
        self.assertRegex(printed[1], r"HTTP/1.1 201 .*\r?\n(?s:.*)\"seqNo\":\"[0-9]+\"")
        self.assertRegex(printed[2], r"inbox  receiver: yes  subscriber: no  waiting: [01]  cached: no")
        self.assertRegex(printed[3], r"^connected ")
        self.assertRegex(printed[4], r'"state":"(waiting|taken)"')
        receiver.wait_lines(3)
        self.assertEqual(receiver.lines, ["a test of pubsubctl trace", "You have mail", "The last one"])


class Applications(Pages):
    def test_every_command_in_the_shell_does_what_it_says(self):
        printed = self.run_blocks("applications.md")
        self.assertEqual(printed[0].splitlines()[-1], "Hello")
        self.assertEqual((self.folder / "letters").read_text(encoding="utf-8"), "Hello again\n")
        self.assertEqual(self.ctl("endpoint", "list"), "")

    def prints_the_key(self, command):
        done = subprocess.run(command, env=self.environment(), stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              check=False, timeout=60)
        self.assertEqual((done.returncode, done.stdout), (0, self.endpoint()["KEY"] + "\n"), done.stderr)
        stranger = subprocess.run(command, env=dict(self.environment(), ZELT_APP_ID=""), stdin=subprocess.DEVNULL,
                                  capture_output=True, text=True, check=False, timeout=60)
        self.assertEqual((stranger.returncode, stranger.stdout), (1, ""))
        self.assertIn("no endpoint: Error getting appid", stranger.stderr)

    def source(self, language, name):
        program, = blocks("applications.md", language)
        path = self.folder / name
        path.write_text(program, encoding="utf-8")
        return str(path)

    def compiled(self, compiler, source, *arguments):
        program = str(self.folder / "endpoint")
        subprocess.run([*compiler, "-Wall", "-Werror", *SANITIZE, "-o", program, source, *arguments], check=True)
        return program

    def test_the_program_in_python_prints_the_key(self):
        self.prints_the_key(["/usr/bin/python3", self.source("python", "endpoint.py")])

    def test_the_program_in_c_prints_the_key(self):
        self.prints_the_key([self.compiled(["cc"], self.source("c", "endpoint.c"), *package("libsystemd", "json-c"))])

    def test_the_program_in_cpp_prints_the_key(self):
        libraries = [str(BIN.parent / name) for name in ("libzelt_bus.a", "libpubsub_util.a")]
        self.prints_the_key([self.compiled(
            ["c++", "-std=c++20", f"-I{ROOT / 'src'}", *COVERAGE], self.source("cpp", "endpoint.cpp"), *libraries,
            *package("glib-2.0", "libsystemd", "json-c"))])


class Links(unittest.TestCase):
    def test_every_link_of_the_pages_leads_to_a_page(self):
        for page in ("senders.md", "applications.md", "users.md", "item.md"):
            text = (ROOT / "docs" / page).read_text(encoding="utf-8")
            for target in re.findall(r"\]\(([a-z-]+\.md)?(?:#[a-z-]+)?\)", text):
                self.assertTrue(not target or (ROOT / "docs" / target).exists(), f"{page}: {target}")


if __name__ == "__main__":
    unittest.main()
