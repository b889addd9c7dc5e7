# SPDX-License-Identifier: GPL-3.0-only
"""Who may write each data member of the session, by what stands before and after its name in every source.

Whatever is not known to read counts as a write: an argument of an unlisted function, an index, a reference or a pointer
that is not const. A new function that only reads its argument joins READING_CALLS.
"""

import pathlib
import re
import unittest

SOURCE = pathlib.Path(__file__).resolve().parent.parent.parent / "src"
HEADER = "session/pubsubsession.h"
FOLDERS = ("session", "request", "nodes", "delivery", "endpoints", "maintenance", "service")  # who sees the header

DETAILS = {"session/session.cpp", "session/login.cpp"}

# Member -> the files that may write it. They are its owners: others call a function that is defined there.
WRITERS = {
    # Requests that wait
    "m_msgMap": {"session/requests.cpp"},
    "m_endpointMap": {"session/requests.cpp"},
    "m_creating": {"session/requests.cpp"},
    "m_deferredSubscribes": {"endpoints/publicsubscribe.cpp"},
    "m_writeRates": {"endpoints/writerate.cpp"},
    "m_writeTimer": {"endpoints/writerate.cpp"},
    "m_writing": {"endpoints/writerate.cpp"},
    # Who receives a node's items
    "appNodeMap": {"delivery/handlerfile.cpp"},
    "serviceNodeMap": {"delivery/handlerfile.cpp"},
    "subMap": {"delivery/submap.cpp"},
    "m_offlineMap": {"delivery/offlinemap.cpp"},
    "m_onCloseRegistered": {"endpoints/onclose.cpp"},
    "m_confirming": {"delivery/handlerfile.cpp"},
    "m_handlerWatches": {"delivery/confirm.cpp"},
    "m_receivers": {"endpoints/receive.cpp"},
    "m_awakeSince": {"endpoints/receive.cpp"},
    # Addresses that come from a push provider
    "m_pushSearch": {"endpoints/pushbackend.cpp"},
    "m_pushRenewal": {"endpoints/pushendpoint.cpp"},
    "m_pushAccount": {"session/pushregistrations.cpp"},
    "m_pushNodes": {"session/pushregistrations.cpp"},
    # Items that somebody has and the server keeps
    "m_openNodes": {"session/openitems.cpp", "session/openlinks.cpp", "session/pushitems.cpp"},
    "m_takenItems": {"session/openitems.cpp"},
    # Each marks the station that it is
    "m_traces": {"delivery/incoming.cpp", "session/openitems.cpp", "endpoints/receive.cpp", "maintenance/trace.cpp"},
    "m_settleSource": {"session/openitems.cpp"},
    "m_dueNodes": {"session/openitems.cpp"},
    "m_dueTimer": {"session/openitems.cpp"},
    # What the server knows of a node
    "m_activateMap": {"maintenance/activation.cpp"},
    "m_handledItems": {"delivery/incoming.cpp"},
    "m_seqNosWritten": {"delivery/seqno.cpp"},
    "m_deleteMap": {"maintenance/deletestore.cpp"},
    "m_furtherNodes": {"maintenance/deletestore.cpp"},
    "m_furtherNodesRead": {"maintenance/deletestore.cpp"},
    "m_pendingList": {"nodes/pendingauth.cpp"},
    "m_pendingCursor": {"nodes/pendingauth.cpp"},
    # Who the device logs in as and where
    "m_jid": DETAILS,
    "m_password": DETAILS,
    "m_server": DETAILS,
    "m_username": DETAILS,
    "m_resource": DETAILS,
    "m_domain": DETAILS,
    "m_port": DETAILS,
    "m_pubsubService": DETAILS,
    "m_preparedText": {"session/session.cpp"},
    "m_preparedService": {"session/session.cpp"},
    # The connection
    "m_client": {"session/connection.cpp"},
    "m_pubsub": {"session/connection.cpp", "session/session.cpp"},  # goes with the session
    "m_source": {"session/connection.cpp"},
    "m_socket": {"session/connection.cpp"},
    "m_connected": {"session/connection.cpp"},
    "m_connecting": {"session/connection.cpp"},
    "m_lastError": {"session/connection.cpp"},
    "m_connectedAt": {"session/connection.cpp"},
    "m_endedByRequest": {"session/connection.cpp", "service/account.cpp"},
    "m_activationDone": {"session/connection.cpp"},
    "m_spare3": {"session/connection.cpp"},
    "m_survivedOutage": {"session/connection.cpp", "service/network.cpp"},  # ends with the connection
    "m_networkAvailable": {"service/network.cpp"},
    "m_onWan": {"service/network.cpp"},
    "m_ipAddress": {"service/network.cpp"},
    "m_reconnectPending": {"session/alarms.cpp"},
    "m_retryCount": {"session/alarms.cpp"},
    "m_bootFinished": {"session/alarms.cpp"},
    # What the start gives
    "m_privateHandle": {"service/service.cpp"},
    "m_publicHandle": {"service/service.cpp"},
    "m_serviceHandle": {"service/service.cpp"},
    "m_mainLoop": {"service/service.cpp"},
    # The stores
    "m_prefsHandle": {"session/preferences.cpp"},
    "m_offlinePrefHandle": {"delivery/offlinemap.cpp"},
    # Written by nothing
    "m_debugLog": set(),
    "m_spare1": set(),
    "m_spare2": set(),
}

# No other file than the writer even reads these: they are reached through its functions.
CLOSED = {"m_msgMap", "m_endpointMap", "m_deferredSubscribes", "m_writeRates", "m_writing", "appNodeMap", "m_deleteMap",
          "m_activateMap", "m_furtherNodes", "m_furtherNodesRead", "m_pendingList", "m_pendingCursor", "m_retryCount",
          "m_source", "m_socket", "m_preparedText", "m_preparedService", "m_handledItems", "m_seqNosWritten",
          "m_handlerWatches", "m_receivers", "m_awakeSince", "m_openNodes", "m_takenItems", "m_dueNodes",
          "m_pushRenewal", "m_pushAccount", "m_pushNodes"}

# Functions of the class that hand out a member to be written, and the files that may call them.
DOORS = {"furtherNodes": {"maintenance/deletestore.cpp"}}

# Files with a member of the same name in a class of their own: there, only what is reached through an object counts.
NAMESAKES = {"m_resource": {"delivery/cachefiles.h", "delivery/cachefiles.cpp"}}

# Functions that take a member as an argument and only read it.
READING_CALLS = {
    "if", "while", "switch", "JID", "Client", "Manager", "dispose", "setServer", "setResource", "connectToServer",
    "addAttribute", "set", "add", "replyWith", "PrvPrintErr", "post", "pushSubscription", "pushAuthorisation", "QSCall",
    "QSCallCancel", "QSSubscriptionPost", "QSSubscriptionRespond", "QSZeltServiceReadReceived",
    "g_main_loop_get_context", "g_io_channel_unix_new", "unixTimeOf", "lastHeard", "keyOf", "askWhetherProvider",
}

MUTATOR = (r"(?:erase|clear|insert\w*|emplace\w*|try_emplace|extract|push_\w+|pop_\w+|remove\w*|swap|merge|assign|"
           r"append|resize|sort|unique|splice|reset|replace|set\w*|begin|rbegin|data)\s*\(")
ASSIGNMENT = r"(?:[-+*/%|&^]|<<|>>)?=(?!=)"
PART = r"(?:\s*(?:\.|->)\s*\w+(?:\s*\([^()]*\))?)"  # .second, ->second, .front(), .at(key)
# What follows the name in a write. `->` alone leads away from the member, unless it is an iterator's.
WRITTEN_AFTER = re.compile(
    rf"\s*(?:{ASSIGNMENT}|\+\+|--|\[|\.\s*{MUTATOR}|(?:\.\s*\w+(?:\s*\([^()]*\))?)+\s*(?:{ASSIGNMENT}|\.\s*{MUTATOR}))")
ITERATOR_WRITTEN = re.compile(rf"\s*->\s*(?:first|second){PART}*\s*(?:{ASSIGNMENT}|\+\+|--|\[|\.\s*{MUTATOR})")
ITERATOR_OF = re.compile(r"\s*\.\s*(?:find|begin|end|lower_bound|upper_bound)\s*\(")

OBJECT = re.compile(r"(?:\b\w+\s*(?:\.|->|::)\s*)?$")  # session. session-> gCurrentSession. PubSubSession:: this->
WRITTEN_BEFORE = re.compile(r"(?:\+\+|--|\bdelete\s|(?:[(,={?:]|\breturn)\s*&|>>|\[[^\]]*&\s*\w+\s*=)\s*$")
# A reference that is not const, to the member or to a part of it: for (auto& entry : M), Map& map = a ? M : other
REFERENCE_TO = re.compile(r"(?:^|[(;{}])\s*(?:for\s*\(\s*)?(?P<type>(?:\w|::|<[^;={}]*>|\s|\*)+)&\s*"
                          r"(?:\w+|\[[^\]]*\])\s*[:={(][^;]*$")


def stripped(text):
    """The source without comments and without what stands in literals."""
    pattern = r'R"(\w*)\(.*?\)\1"|//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\''
    return re.sub(pattern, lambda m: '""' if m.group(0)[0] in 'R"' else "0" if m.group(0)[0] == "'" else "\n" *
                  m.group(0).count("\n"), text, flags=re.DOTALL)


def enclosing_call(before):
    """The name of the function, or the bracket, whose argument list is open at the end of `before`."""
    depth = 0
    for at in range(len(before) - 1, -1, -1):
        if before[at] in ")]}":
            depth += 1
        elif before[at] in "([{":
            if depth == 0:
                name = re.search(r"(\w+)\s*$", before[max(0, at - 80):at])
                declared = re.search(r"(\w+)\s+\w+\s*$", before[max(0, at - 80):at])  # Type name(argument)
                if declared and declared.group(1) not in ("return", "else", "new", "delete", "throw"):
                    return declared.group(1)
                return name.group(1) if name else before[at]
            depth -= 1
        elif before[at] == ";" and depth == 0:
            break
    return None


def statement_before(before):
    """What stands before the name in its statement; the head of a loop is part of it."""
    depth = 0
    for at in range(len(before) - 1, -1, -1):
        if before[at] in ")":
            depth += 1
        elif before[at] == "(":
            depth -= 1
        elif before[at] in ";{}" and depth <= 0:
            return before[at + 1:]
    return before


def is_reference(statement):
    found = REFERENCE_TO.search(statement)
    return bool(found) and not re.search(r"\bconst\b", re.sub(r"<.*>", "", found.group("type")))


def writes_through_iterator(before, after):
    """Whether an iterator that is taken here is written through in the same function."""
    taken = re.search(r"\b(\w+)\s*[=({]\s*$", before[-80:])
    if not taken or not ITERATOR_OF.match(after):
        return False
    rest = re.split(r"\n}", after, maxsplit=1)[0]
    return any(ITERATOR_WRITTEN.match(rest[use.end():]) for use in re.finditer(rf"\b{taken.group(1)}\b", rest))


def is_write(text, start, end):
    before = text[:start - len(OBJECT.search(text[max(0, start - 80):start]).group(0))]
    after = text[end:]
    if WRITTEN_AFTER.match(after) or WRITTEN_BEFORE.search(before[-80:]) or is_reference(statement_before(before)):
        return True
    if writes_through_iterator(before, after):
        return True
    bare = re.search(r"[(,{]\s*$", before[-80:]) and re.match(r"\s*[),}]", after)
    return bool(bare) and enclosing_call(before) not in READING_CALLS


def uses(text, name, only_of_objects=False):
    for found in re.finditer(rf"\b{name}\b", text):
        if not only_of_objects or re.search(r"(?:\.|->)\s*$", text[:found.start()][-80:]):
            yield found.start(), found.end()


def lines_of(text, places):
    return [text.count("\n", 0, start) + 1 for start, _ in places]


def sources():
    for folder in FOLDERS:
        for file in sorted((SOURCE / folder).glob("*.[ch]*")):
            path = str(file.relative_to(SOURCE))
            if path != HEADER:
                yield path, stripped(file.read_text(encoding="utf-8"))


def members_of_the_header():
    text = stripped((SOURCE / HEADER).read_text(encoding="utf-8"))
    body = text[text.index("class PubSubSession"):]
    body = body[body.index("{") + 1:body.index("\n};")]
    members = set()
    for declaration in body.split(";"):
        declaration = re.sub(r"^\s*(public|private|protected):", "", declaration)
        declared = declaration.split("=")[0].strip()
        if declared and not re.search(r"[(]|\boperator$|^(using|friend|static constexpr)\b", declared):
            members.add(re.search(r"(\w+)$", declared).group(1))
    return members


class Owners(unittest.TestCase):
    def test_the_table_names_every_member_of_the_session_and_no_other(self):
        self.assertEqual(members_of_the_header(), set(WRITERS))
        self.assertEqual(CLOSED - set(WRITERS), set())

    def test_only_the_owners_write(self):
        wrong = []
        for path, text in sources():
            for name, owners in WRITERS.items():
                if path in owners:
                    continue
                written = [use for use in uses(text, name, path in NAMESAKES.get(name, ())) if is_write(text, *use)]
                wrong += [f"{path}:{line} writes {name}" for line in lines_of(text, written)]
        self.assertEqual(wrong, [])

    def test_every_owner_of_the_table_writes(self):
        texts = dict(sources())
        idle = [f"{path} does not write {name}" for name, owners in WRITERS.items() for path in sorted(owners)
                if not any(is_write(texts[path], *use) for use in uses(texts[path], name))]
        self.assertEqual(idle, [])

    def test_what_is_closed_is_touched_by_its_owner_alone(self):
        wrong = []
        for path, text in sources():
            for name, owners in {**{name: WRITERS[name] for name in CLOSED}, **DOORS}.items():
                if path not in owners:
                    wrong += [f"{path}:{line} touches {name}" for line in lines_of(text, uses(text, name))]
        self.assertEqual(wrong, [])

    def test_the_class_hands_out_no_other_member_to_be_written(self):
        text = stripped((SOURCE / HEADER).read_text(encoding="utf-8"))
        handing = re.findall(r"^(?!\s*(?:static\s+)?const\b)\s+[\w:<>, ]+[&]\s*(\w+)\s*\(", text, re.MULTILINE)
        self.assertEqual(set(handing), set(DOORS))


class Detection(unittest.TestCase):
    WRITES = [
        "m_x = 1;", "session.m_x = 1;", "session->m_x += 1;", "gCurrentSession.m_x |= true;", "++m_x;",
        "--session.m_x;",
        "m_x++;", "m_x[key] = 1;", "f(m_x[key]);", "m_x.erase(key);", "session.m_x.clear();", "m_x.extract(key);",
        "if (m_x.emplace(a, b).second)", "m_x.push_back(a);", "m_x.remove_if(f);", "m_x.insert_or_assign(a, b);",
        "auto old = std::exchange(m_x, nullptr);", "delete std::exchange(session.m_x, nullptr);",
        "std::swap(a, m_x);", "std::erase_if(m_x, f);", "auto moved = std::move(session.m_x);", "delete m_x;",
        "QPAppGetHandle(name, &m_x);", "auto* pointer = &session.m_x;", "return &m_x;", "fill(1, m_x);",
        "auto& map = m_x;", "Map& map = app ? other : m_x;",
        "std::list<std::string>& list = (app ? m_x : other)[node];",
        "for (auto& [node, rate] : session->m_x) {", "for (std::pair<const int, int>& entry : m_x)",
        "m_x.at(key) = 1;", "m_x.front().clear();", "m_x.field = 1;", "return {name, m_x};",
        "Preferences store{name, m_x};",
        "Preferences store(name, m_x);", "PubSubSession::m_x = nullptr;", "this->m_x = 1;", "x = m_x = 1;",
        "const auto entry = m_x.find(node);\n    entry->second.handle = handle;",
        "auto entry = session.m_x.find(node);\n    if (entry->second.remove(endpoint) == 0)",
        "const auto [first, second] = take(m_x);", "m_x.setResource(text);", "m_x.swap(other);", "stream >> m_x;",
        "std::sort(m_x.begin(), m_x.end());", "call([&map = session.m_x] { map.clear(); });", "auto copy(m_x);",
        "std::tie(a, m_x) = pair;",
    ]
    READS = [
        "if (m_x == 1)", "if (m_x)", "if (!session.m_x || other)", "a = m_x;", "f(m_x + 1);", "return m_x;",
        "x == m_x;",
        "const auto entry = m_x.find(node);\n    if (entry != m_x.end() && entry->second == 1)",
        "const auto& entries = gCurrentSession.m_x;", "for (const auto& [node, entry] : m_x)", "m_x.contains(node);",
        "m_x->send(iq);", "session.m_x->disconnect();", "if (a && m_x)", "a & m_x;", "gloox::JID(session.m_x);",
        "const gloox::JID service(m_x);", "m_x.full().empty();", "reply.set(key, session.m_x);", "m_x >= 1;",
        "m_x <= 1;",
        "m_x != 1;", "const std::string start = session.m_x + 0;", "// m_x = 1", "/* m_x = 1 */", "log(\"m_x = 1\");",
        "const gloox::JID jid = gCurrentSession.m_x;", "QSHandle* handle = m_x;", "std::string& text = other; if (m_x)",
    ]

    @staticmethod
    def written(source):
        text = stripped(f"void f() {{\n    {source}\n}}\n")
        return any(is_write(text, *use) for use in uses(text, "m_x"))

    def test_knows_every_kind_of_write(self):
        self.assertEqual([source for source in self.WRITES if not self.written(source)], [])

    def test_takes_no_reading_for_a_write(self):
        self.assertEqual([source for source in self.READS if self.written(source)], [])


if __name__ == "__main__":
    unittest.main()
