# SPDX-License-Identifier: GPL-3.0-only
"""The page of log lines has a row for each line that the programs write, and no row for any other."""

import collections
import functools
import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
HEAD = "| Line | Meaning, and what to do |"

# The section of the page with the lines of a folder; the first that fits.
SECTIONS = {
    "src/platform/bus/": "All programs", "src/util/log": "All programs",
    "src/platform/host/": "zelt-host", "src/unifiedpush/": "zelt-unifiedpush", "src/": "pubsubservice",
    "ejabberd/": "The server's extension",
}

# The functions that log, and the place of the format among their arguments.
LOGS = {"PrvPrintErr": 1, "PrvPrintDbg": 1, "PrintDbgRelease": 1, "glooxDbg": 1, "logLine": 0}
LOGS.update({name: 0 for name in ("LOG_CRITICAL", "LOG_ERROR", "LOG_WARNING", "LOG_NOTICE", "LOG_INFO", "LOG_DEBUG")})
# Functions that log formats of their callers, and the places of these among their arguments.
HELPERS = {"respond": (2,), "post": (3,), "logFailure": (0,), "watch": (3,), "subscribeTo": (4,), "isUp": (1, 2),
           "readReply": (2, 3), "isSound": (1,), "open": (0,), "write": (2,), "commit": (0,)}
# Whole lines that other functions have made, by the file that logs them.
MADE = {
    "src/platform/host/accountservices.cpp": (
        "no account is set; %s", "cannot read %s: %s", "%s is not a regular file; %s",
        "%s is readable by users other than its owner; `chmod 600` it and have the token changed",
        "%s belongs to another user; `chown` it to the user of this daemon", "%s: %s; %s"),
    "src/platform/host/main.cpp": ("%s: %s; correct it and restart zelt-host", "%s: %s"),
    "src/unifiedpush/main.cpp": (
        "there is no session bus: neither DBUS_SESSION_BUS_ADDRESS nor XDG_RUNTIME_DIR is set",
        "cannot connect to the session bus at %s: %s", "cannot take the name %s: %s",
        "%s is on the session bus already; one is enough for a user", "cannot read %s: %s",
        "%s was written by a newer version; install that one, or move the file away",
        "%s is damaged and cannot be moved away: %s"),
    "src/util/log.cpp": ("%lu lines of the same cause were left out",),
}
# The calls whose format cannot be seen, by file: those of the functions above, and of what is made elsewhere.
UNSEEN = {
    "src/request/reply.cpp": 1, "src/service/service.cpp": 1, "src/service/status.cpp": 1, "src/service/watchers.cpp": 4,
    "src/session/alarms.cpp": 2, "src/session/preferences.cpp": 1, "src/maintenance/deletestore.cpp": 1,
    "src/platform/host/accountservices.cpp": 1, "src/platform/host/main.cpp": 1, "src/unifiedpush/main.cpp": 1,
}
DEFINITIONS = ("src/util/log.h", "src/util/log.cpp", "src/platform/host/log.h", "src/platform/host/log.cpp")

TOKENS = {
    ".erl": r"%[^\n]*" r'|(?P<text>"(?:[^"\\]|\\.)*")' r"|\$\\?.|(?P<code>'(?:[^'\\]|\\.)*'|\w+|\S)",
    ".cpp": r"//[^\n]*|/\*.*?\*/" r'|R"\(.*?\)"' r'|(?P<text>"(?:[^"\\]|\\.)*")'
            r"|'(?:[^'\\\n]|\\.)+'|(?P<code>\d[\w']*|\w+|::|[=!<>]=|\S)",
}
TOKENS[".h"] = TOKENS[".cpp"]
PLACEHOLDER = r"%[0-9.-]*[hlzj]*[a-z]|~[0-9.]*t?[a-z]"
CONSTANT = re.compile(r"k[A-Z]\w*|[A-Z]\w*Errors")
WRITTEN = r"(?:\.\.\.|[A-Z][A-Z0-9_]*(?::[A-Z]+)*)"  # a placeholder on the page


class Source:
    """The tokens of a file: a text with its first quote before it, anything else as it stands."""

    def __init__(self, path, source):
        self.path = path
        self.tokens = []
        for found in re.finditer(TOKENS[pathlib.PurePath(path).suffix], source, re.DOTALL):
            if found["text"]:
                text = re.sub(r"\\(.)", lambda escape: {"n": "\n"}.get(escape[1], escape[1]), found["text"][1:-1])
                if self.tokens and self.tokens[-1].startswith('"'):
                    self.tokens[-1] += text
                else:
                    self.tokens.append('"' + text)
            elif found["code"]:
                self.tokens.append(found["code"])

    def until_closed(self, start):
        """What a bracket before `start` encloses, split at its commas."""
        depth, parts = 1, [[]]
        for token in self.tokens[start:]:
            depth += (token in ("(", "[", "{")) - (token in (")", "]", "}"))
            if depth == 0:
                break
            if token == "," and depth == 1:
                parts.append([])
            else:
                parts[-1].append(token)
        return parts

    def calls(self, name):
        return [self.until_closed(at + 2) for at, token in enumerate(self.tokens[:-1])
                if token == name and self.tokens[at + 1] == "("]

    def value_of(self, name, kind=""):
        """What is defined here by this name, of this type if one is given; nothing when there is none."""
        for at, token in enumerate(self.tokens):
            after = self.tokens[at + 1:at + 4]
            if token != name or not after or kind not in ("", self.tokens[at - 1]):
                continue
            start = at + (4 if after == ["[", "]", "="] else 2)
            if "=" in (after[0], after[-1]):
                return self.tokens[start:self.tokens.index(";", start)]
            if after[0] == "{":
                return [token for part in self.until_closed(start) for token in part + [","]]
        return []


def split(tokens, marks):
    parts = [[]]
    for token in tokens:
        if token in marks:
            parts.append([])
        else:
            parts[-1].append(token)
    return parts


def joined(operand):
    return "".join(token[1:] for token in operand if token.startswith('"')) or "%s"


def formats_of(expression, source, others=(), depth=0):
    """The formats that an expression stands for: texts, and the constants that it names. A sum of texts is one."""
    found = []
    for part in split(expression, (",", ";", "=", "?", ":", "{", "}")):
        if any(token.startswith('"') for token in part):
            found.append("".join(joined(operand) for operand in split(part, ("+",))))
            continue
        for name in part:
            if CONSTANT.fullmatch(name):
                value = next((value for each in (source, *others) if (value := each.value_of(name))), [])
            else:
                value = source.value_of(name, "string") if depth == 0 else []
            found += formats_of(value, source, others, depth + 1)
    return found


def direct(source, others):
    """(format, or None where it cannot be seen) for each call of a function that logs."""
    for name, place in LOGS.items():
        for arguments in source.calls(name) if source.path not in DEFINITIONS else ():
            formats = [text for text in formats_of(arguments[place], source, others) if text != "%s"]
            yield from formats or [None]


def through_helpers(source, others):
    for name, places in HELPERS.items():
        for arguments in source.calls(name):
            for place in places:
                if place < len(arguments):
                    # A path or a name of XML is none.
                    yield from (text for text in formats_of(arguments[place], source, others) if " " in text)


def section_of(path):
    return next(section for folder, section in SECTIONS.items() if path.startswith(folder))


def read_sources():
    paths = [path for folder in ("src", "ejabberd") for path in sorted((ROOT / folder).rglob("*"))
             if path.suffix in TOKENS]
    return [Source(str(path.relative_to(ROOT)), path.read_text(encoding="utf-8")) for path in paths]


def lines_of(sources):
    """{(section, format)}, and the files of the calls whose formats cannot be seen."""
    lines, unseen = set(), collections.Counter()
    for source in sources:
        section = section_of(source.path)
        seen = list(direct(source, sources))
        unseen[source.path] += seen.count(None)
        seen += [*through_helpers(source, sources), *MADE.get(source.path, ())]
        lines.update((section, text) for text in seen if text)
    return lines, +unseen


def rows_of(page):
    """(section, line) for each line in the first column of the tables of lines."""
    section, inside = "", False
    for row in page.splitlines():
        section = row[3:] if row.startswith("## ") else section
        inside = row == HEAD or (inside and row.startswith("|"))
        if inside and row != HEAD:
            yield from ((section, line) for _, line in re.findall(r"(`+)(.+?)\1", row.split(" | ")[0]))


@functools.cache
def row_of(text):
    """What a row of this format looks like: the same text, with a word of capitals or `...` for each value."""
    pieces = re.split(f"(?:{PLACEHOLDER})+", text.rstrip().replace("\n", " "))
    return re.compile(WRITTEN.join(map(re.escape, pieces)))


def differences(sources, page):
    """The lines without a row, and the rows without a line."""
    lines, rows = lines_of(sources)[0], list(rows_of(page))
    alike = [(line, row) for line in lines for row in rows if line[0] == row[0] and row_of(line[1]).fullmatch(row[1])]
    return sorted(lines - {line for line, _ in alike}), sorted(set(rows) - {row for _, row in alike})


class LogLines(unittest.TestCase):
    def setUp(self):
        self.sources = read_sources()
        self.page = (ROOT / "docs/logs.md").read_text(encoding="utf-8")

    def test_every_line_has_a_row_in_its_section_and_every_row_a_line(self):
        without_row, without_line = differences(self.sources, self.page)
        self.assertEqual(without_row, [], "write what the line means, and what to do, in docs/logs.md")
        self.assertEqual(without_line, [], "nothing writes this line any more")

    def test_no_format_is_out_of_sight(self):
        self.assertEqual(lines_of(self.sources)[1], UNSEEN, "name the function in HELPERS, or the whole line in MADE")

    def test_what_is_made_elsewhere_is_still_made(self):
        self.assertEqual(set(MADE) - {source.path for source in self.sources}, set())
        texts = "\n".join(token for source in self.sources for token in source.tokens if token.startswith('"'))
        pieces = {piece for lines in MADE.values() for line in lines for piece in re.split(PLACEHOLDER, line)}
        self.assertEqual({piece for piece in pieces if piece not in texts}, set())


class Reading(unittest.TestCase):
    """On samples, so that a line that is overlooked shows."""

    PAGE = f"## pubsubservice\n\n{HEAD}\n|---|---|\n| `Read N of FILE`, `Gone` | meaning `no line` |\n\n`neither`\n"

    def differences(self, text, path="src/session/a.cpp"):
        return differences([Source(path, text)], self.PAGE)

    def test_lines_and_rows_that_agree(self):
        text = 'f() { PrvPrintErr({}, "Read %d " // "x"\n "of %s\\n", n(1, "y"), file); PrvPrintErr(site, "Gone"); }'
        self.assertEqual(self.differences(text), ([], []))

    def test_a_line_without_a_row_and_a_row_without_a_line(self):
        text = 'PrvPrintErr({}, "Read %d of %s", n, file); PrvPrintErr({}, "Lost");'
        self.assertEqual(self.differences(text), ([("pubsubservice", "Lost")], [("pubsubservice", "Gone")]))

    def test_a_line_in_the_section_of_another_program(self):
        without_row, without_line = self.differences('logLine("Gone");', "src/platform/host/a.cpp")
        self.assertEqual(without_row, [("zelt-host", "Gone")])
        self.assertEqual(len(without_line), 2)

    def test_constants_choices_and_sums(self):
        text = ('constexpr char kGone[] = "Gone"; const std::string read = "Read " + what + " of %s";'
                "PrvPrintErr({}, kGone, 1'000, 'x');"
                'reply.respond(message, id, read.c_str()); PrvPrintErr({}, a ? "B c" : "D e");')
        self.assertEqual(self.differences(text), ([("pubsubservice", "B c"), ("pubsubservice", "D e")], []))

    def test_a_format_that_cannot_be_seen(self):
        unseen = 'PrvPrintErr({}, format, 1); PrvPrintErr({}, "%s", text);'
        self.assertEqual(lines_of([Source("src/a.cpp", unseen)]), (set(), {"src/a.cpp": 2}))

    def test_erlang(self):
        text = '''f($") -> ?LOG_ERROR("~b items of ~ts " % "no"\n "are lost: ~p", [N, 'it"s', R]).'''
        lines, _ = lines_of([Source("ejabberd/a.erl", text)])
        self.assertEqual(lines, {("The server's extension", "~b items of ~ts are lost: ~p")})
        self.assertRegex("N items of NODE are lost: REASON", row_of("~b items of ~ts are lost: ~p"))


if __name__ == "__main__":
    unittest.main()
