# SPDX-License-Identifier: GPL-3.0-only
"""A server for each test class, and the requests that the tests use."""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.error
import urllib.request
from xml.sax.saxutils import escape, quoteattr

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "scripts"))
import database as postgresql  # noqa: E402
import xmppclient  # noqa: E402
from xmppclient import CONFIG, DEVICE, OWNER, PUBSUB, Server, condition, connect, form, item  # noqa: E402

RUN = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "ejabberd", "run")
DATABASE = os.environ.get("PUBSUB_TEST_DATABASE", "mnesia")  # where the servers keep their data, or postgresql
SPOOLS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "data")
ACCOUNTS = ("owner", "bob", "carol")
PASSWORD = "secret"


class Instance:
    """A running server in a temporary folder: a single one, the first member of a cluster, or one that joins.

    A folder that is given has the data, in mnesia, and its accounts already; it is removed all the same.
    """

    def __init__(self, options=(), member=None, join=None, folder=None, database=DATABASE):
        self.folder = folder or tempfile.mkdtemp(prefix="pubsub-server-")
        arguments = [each for option in options for each in ("--option", option)]
        arguments += ["--member", member] if member else []
        arguments += ["--join", join] if join else []
        # A member that joins uses the database of the others.
        arguments += ["--database", database] if database != "mnesia" and join is None and folder is None else []
        try:
            self._run("up", self.folder, *arguments)
            for name in ACCOUNTS if join is None and folder is None else ():
                self.register(name)
        except BaseException:
            self.remove()
            raise

    def _run(self, *arguments):
        done = subprocess.run([RUN, *arguments], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              check=False, timeout=120)
        if done.returncode != 0:
            raise AssertionError("ejabberd/run %s: %s" % (arguments[0], done.stdout))
        if arguments[0] in ("up", "start"):
            self.server = Server.from_env(self.folder + "/server.env")

    def register(self, name):
        self._run("account", self.folder, name, PASSWORD)

    def start(self):
        self._run("start", self.folder)

    def stop(self):
        self._run("down", self.folder)

    def kill(self):
        """Kills the server with SIGKILL and waits until it is gone."""
        os.kill(int(self.server.env["SERVER_PID"]), 9)
        self._run("down", self.folder)

    def kill_database(self):
        """Kills the server's own database with SIGKILL; `start` starts it again."""
        with open(self.folder + "/log/database.pid") as file:
            os.kill(int(file.read().split()[0]), 9)

    def start_database(self):
        """Starts the database alone."""
        postgresql.start(self.folder + "/database", self.folder + "/log/database.pid", self.folder + "/log/database.log")

    def query(self, statement):
        """What the statement returns in the server's own database, as text."""
        return postgresql.query(self.folder + "/database", statement).strip()

    def evaluate(self, expressions):
        """The values of Erlang expressions in the server, as text. Only a member of a cluster accepts this."""
        with open(self.folder + "/conf/settings.json") as file:
            known = json.load(file)
        member = "pubsub@" + known["member"]
        call = ("{ok, Tokens, _} = erl_scan:string(os:getenv(\"EXPRESSIONS\")), "
                "{ok, Parsed} = erl_parse:parse_exprs(Tokens), "
                "case rpc:call('%s', erl_eval, exprs, [Parsed, []], 60000) of "
                "{value, Value, _} -> io:format(\"~0tp\", [Value]), halt(0, [{flush, true}]); "
                "Error -> io:format(\"~0tp\", [Error]), halt(1, [{flush, true}]) end." % member)
        done = subprocess.run(["erl", "-noinput", "-hidden", "-name", "probe@" + known["member"],
                               "-dist_listen", "false", "-setcookie", known["cookie"], "-start_epmd", "false",
                               "-erl_epmd_port", str(known["dist"]), "-eval", call],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, timeout=90,
                              env=dict(os.environ, EXPRESSIONS=expressions + ".", HOME=self.folder + "/log"))
        if done.returncode != 0:
            raise AssertionError("the server evaluated %s to: %s" % (expressions, done.stdout))
        return done.stdout

    def log(self):
        with open(self.folder + "/log/server.log", errors="replace") as file:
            return file.read()

    def remove(self):
        self._run("down", self.folder)
        shutil.rmtree(self.folder, ignore_errors=True)


def unpacked(spool):
    """A new folder with the data of a server of an earlier version, from an archive of that name."""
    folder = tempfile.mkdtemp(prefix="pubsub-server-")
    subprocess.run(["tar", "-C", folder, "-xzf", os.path.join(SPOOLS, spool + ".tar.gz")], check=True)
    return folder


def decoded(answer):
    body = answer.read()
    return json.loads(body) if answer.headers.get("Content-Type") == "application/json" else body


class ServerTest(unittest.TestCase):
    """One server for the class; clients are closed after each test. Every wait has a deadline."""

    options = ()
    member = None
    database = DATABASE
    spool = None  # the archive of the data with which the server starts

    @classmethod
    def setUpClass(cls):
        folder = unpacked(cls.spool) if cls.spool else None
        cls.instance = Instance(cls.options, cls.member, folder=folder, database=cls.database)

    @classmethod
    def tearDownClass(cls):
        crashes = [line for line in cls.instance.log().splitlines() if "crashed when running pubsub_device" in line]
        cls.instance.remove()
        if crashes:  # the engine continues as if the hook had succeeded
            raise AssertionError("\n".join(crashes))

    def setUp(self):
        self.clients = []
        self.settler = None
        self.node = "/" + self.id().split(".")[-1]

    def tearDown(self):
        for client in self.clients:
            client.kill()

    @property
    def server(self):
        return self.instance.server

    # ---- clients

    def client(self, user, resource=None, presence=None):
        client = connect(self.server, user, PASSWORD, resource, presence)
        self.clients.append(client)
        return client

    def device(self, user, resource=None):
        """A client that announced itself to the service."""
        client = self.client(user, resource)
        self.announce(client)
        return client

    def announce(self, client):
        client.send("<presence to='%s'/>" % self.server.pubsub)
        client.sync()

    # ---- requests

    def pubsub(self, client, content, kind="set", namespace=PUBSUB):
        return client.iq(kind, "<pubsub xmlns='%s'>%s</pubsub>" % (namespace, content))

    def succeed(self, answer):
        self.assertEqual(answer.get("type"), "result", xmppclient.xml(answer))
        return answer

    def refused(self, answer, expected):
        self.assertEqual(condition(answer), expected, xmppclient.xml(answer))
        return answer

    def create(self, client, node=None, **config):
        fields = [("pubsub#" + name, value) for name, value in config.items()]
        configure = "<configure>%s</configure>" % form(CONFIG, fields) if fields else ""
        return self.pubsub(client, "<create node=%s/>%s" % (quoteattr(node or self.node), configure))

    def delete(self, client, node=None):
        return self.pubsub(client, "<delete node=%s/>" % quoteattr(node or self.node), namespace=OWNER)

    def subscribe(self, client, jid=None, node=None, more=""):
        return self.pubsub(client, "<subscribe node=%s jid=%s/>%s"
                           % (quoteattr(node or self.node), quoteattr(jid or client.jid), more))

    def publish_stanza(self, text, item_id=None, node=None):
        name = " id=%s" % quoteattr(item_id) if item_id else ""
        return ("<pubsub xmlns='%s'><publish node=%s><item%s><payload>%s</payload></item></publish></pubsub>"
                % (PUBSUB, quoteattr(node or self.node), name, escape(text)))

    def publish(self, client, text, item_id=None, node=None):
        """Publishes and returns the item's id."""
        answer = self.succeed(client.iq("set", self.publish_stanza(text, item_id, node)))
        return answer.find(".//{%s}item" % PUBSUB).get("id")

    def ext(self, client, content, kind="set"):
        """A request of the extension; `content` is its element without the namespace."""
        name, rest = content[1:].split(" ", 1) if " " in content.split(">")[0] else (None, None)
        if name is None:
            name = content[1:].split("/")[0].split(">")[0]
            rest = content[1 + len(name):]
            return client.iq(kind, "<%s xmlns='%s'%s" % (name, DEVICE, rest))
        return client.iq(kind, "<%s xmlns='%s' %s" % (name, DEVICE, rest))

    def key_node(self, client, node=None):
        """Creates a key node and returns its key."""
        answer = self.succeed(self.ext(client, "<create-key-node node=%s/>" % quoteattr(node or self.node)))
        return answer.findtext("{%s}key" % DEVICE)

    def activate(self, client, since=0, node=None):
        return self.ext(client, "<activate node=%s seqNo='%s'/>" % (quoteattr(node or self.node), since))

    def ack(self, client, item_id, node=None):
        client.send("<message to='%s'><ack xmlns='%s' node=%s id=%s/></message>"
                    % (self.server.pubsub, DEVICE, quoteattr(node or self.node), quoteattr(item_id)))

    def post(self, key, body, method="POST", headers=None):
        """Status, headers and the body of an HTTP request to the key's endpoint; JSON is decoded."""
        request = urllib.request.Request("%s/%s" % (self.server.env["HTTP_URL"], key), method=method,
                                         data=body.encode() if isinstance(body, str) else body, headers=headers or {})
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        try:
            with opener.open(request, timeout=30) as answer:
                return answer.status, answer.headers, decoded(answer)
        except urllib.error.HTTPError as error:
            return error.code, error.headers, decoded(error)

    # ---- expectations

    def take(self, client, count=1, node=None):
        """The next `count` items of the node, in the order in which they came."""
        wanted = node or self.node
        return [item(client.wait_message(lambda each: item(each) is not None and item(each).node == wanted))
                for _ in range(count)]

    def texts(self, client, count, node=None):
        return [each.text for each in self.take(client, count, node)]

    def settle(self, *clients, node=None):
        """Returns when the service has handled all requests so far, and the clients have read the results.

        Items are sent in portions, so a client asks again until nothing more has come.
        """
        for client in clients:
            client.sync()
        if self.settler is None or self.settler.ended:
            self.settler = self.client("carol")
        self.succeed(self.ext(self.settler, "<deactivate node=%s/>" % quoteattr(node or self.node)))
        for client in clients:
            before = None
            while before != client.unread():
                before = client.unread()
                self.succeed(self.ext(client, "<deactivate node='/none'/>"))
                client.sync()

    def assert_quiet(self, client, node=None):
        self.settle(client, node=node)
        self.assertEqual([xmppclient.xml(each) for each in client.messages()], [])

    def wait_for(self, happened, deadline=30):
        """Polls until the condition holds. For what can only be observed from outside, such as a log or a clock."""
        end = time.monotonic() + deadline
        while not happened():
            self.assertLess(time.monotonic(), end, "it did not happen in time")
            time.sleep(0.05)

    def assert_alive(self):
        self.assertEqual(self.client("carol").iq("get", "<ping xmlns='urn:xmpp:ping'/>", to=self.server.domain)
                         .get("type"), "result")
