# SPDX-License-Identifier: GPL-3.0-only
"""The manual pages: without findings, and with every verb, option and setting that there is."""

import os
import re
import subprocess
import unittest

from stage import BIN, ROOT

PAGES = BIN.parent / "man"
NAMES = ("host.conf.5", "pubsub.conf.5", "pubsubctl.1", "pubsubservice.8", "zelt-host.8", "zelt-unifiedpush.1")
# scdoc begins each section and ends each block with an empty paragraph.
HARMLESS = re.compile(r"WARNING: skipping paragraph macro: PP (empty|after SH)$")
OPTION = re.compile(r"^  (?:-\w, )?(--[\w-]+)", re.MULTILINE)


def output(*command):
    done = subprocess.run([str(word) for word in command], env=dict(os.environ, LC_ALL="C.UTF-8", MANWIDTH="500"),
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False)
    return done.stdout


def shown(name):
    return output("man", "-E", "ascii", "--no-hyphenation", "-P", "cat", "-l", PAGES / name)


class Manuals(unittest.TestCase):
    def test_there_is_a_page_for_each_program_and_each_file_of_settings(self):
        self.assertEqual(sorted(path.name for path in PAGES.iterdir()), sorted(NAMES))

    def test_no_page_has_findings(self):
        for name in NAMES:
            with self.subTest(name):
                lint = output("mandoc", "-T", "lint", "-W", "warning", PAGES / name).splitlines()
                self.assertEqual([line for line in lint if not HARMLESS.search(line)], [])
                self.assertNotIn("warning", output("man", "--warnings", "-E", "UTF-8", "-P", "true", "-l", PAGES / name))

    def test_no_page_has_a_placeholder_or_names_another_version(self):
        version = output(BIN / "pubsubctl", "--version").split()[1]
        for name in NAMES:
            text = shown(name)
            self.assertNotIn("@VER", text)
            self.assertIn(f"pubsubservice {version}", text)

    def test_every_verb_and_every_option_is_on_the_page_of_the_command_line(self):
        page = shown("pubsubctl.1")
        overview = output(BIN / "pubsubctl", "--help")
        verbs = re.findall(r"^  (\S.*)\n      (\S.*)$", overview.split("\nVerbs:\n")[1].split("\n\n")[0], re.MULTILINE)
        self.assertGreater(len(verbs), 30)
        for usage, words in verbs:
            self.assertIn(f"\n       {usage}\n           {words[0].upper()}{words[1:]}.\n", page)
            verb = re.match(r"[a-z ]+[a-z]", usage.split(" [")[0]).group()
            for option in OPTION.findall(output(BIN / "pubsubctl", *verb.split(), "--help")):
                self.assertIn(option, page)
        for option in OPTION.findall(overview):
            self.assertRegex(page, rf"\n       (-\w, )?{option}")

    def test_every_key_of_the_hosts_settings_is_on_its_page_in_its_group(self):
        page = shown("host.conf.5")
        source = (ROOT / "src/platform/host/config.cpp").read_text(encoding="utf-8")
        keys = re.findall(r'^    \{"([\w-]+)", "([\w-]+)"\},$', source, re.MULTILINE)
        self.assertGreater(len(keys), 8)
        for group, key in keys:
            section = page.split(f"GROUP {group.upper()}\n")[1].split("\nGROUP")[0]
            self.assertIn(f"\n       {key}\n", "\n" + section)
        self.assertEqual(len(re.findall(r"^       [\w-]+$", page.split("GROUP NETWORK")[1], re.MULTILINE)), len(keys))

    def test_the_page_of_the_credentials_has_the_lines_in_their_order(self):
        source = (ROOT / "src/session/credentials.cpp").read_text(encoding="utf-8")
        read = re.search(r"outputs\[kLines\] = \{(.*)\};", source).group(1).replace("&", "").split(", ")
        words = {"jid": "JID", "password": "password", "server": "server host", "portText": "port",
                 "service": "pub-sub service", "resource": "resource"}
        listed = re.findall(r"^       \d\. (.*)$", shown("pubsub.conf.5"), re.MULTILINE)
        self.assertEqual(listed, [words[name] for name in read])

    def test_what_the_programs_say_of_their_call_is_on_their_pages(self):
        for name in ("zelt-host.8", "zelt-unifiedpush.1"):
            page = shown(name)
            call = output(BIN / name.rpartition(".")[0], "--help")
            for word in set(re.findall(r"--\w+|\b(?:ZELT|XDG|PUBSUB)_\w+", call)):
                self.assertIn(word, page, name)


if __name__ == "__main__":
    unittest.main()
