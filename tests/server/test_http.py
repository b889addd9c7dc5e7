# SPDX-License-Identifier: GPL-3.0-only
"""The HTTP listener of the push endpoint, byte by byte: refusals and their texts, the end of a request, and what a
connection survives."""
import json
import socket
import ssl
import time

from harness import Instance, ServerTest

DEADLINE = 10
METHODS = ("PATCH", "PUT", "DELETE", "TRACE", "BREW", "get", "CONNECT")
SMUGGLED = b"POST /push/%s HTTP/1.1\r\nHost: x\r\nContent-Length: 8\r\n\r\nsmuggled"


class Answer:
    def __init__(self, status, headers, body):
        self.status = status
        self.headers = headers
        self.body = body

    @property
    def error(self):
        """The text of a refusal in the extension's form; anything else, such as an HTML page, raises."""
        if self.headers.get("content-type") != "application/json":
            raise AssertionError("no JSON: %r %r" % (self.headers, self.body))
        return json.loads(self.body)["error"]


class Link:
    """A connection that sends given bytes and reads answers by their length."""

    def __init__(self, port, context=None, source=None):
        self.socket = socket.create_connection(("127.0.0.1", port), DEADLINE, source and (source, 0))
        if context:
            self.socket = context.wrap_socket(self.socket, server_hostname="localhost")
        self.buffer = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, data):
        self.socket.sendall(data)

    def send_pieces(self, data):
        """Sends each byte when the server has read the one before it."""
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for each in data:
            self.send(bytes([each]))
            end = time.monotonic() + DEADLINE
            while self._unread() and time.monotonic() < end:
                pass

    def _unread(self):
        """The bytes that wait at the server's end of this connection."""
        mine, its = (":%04X" % address[1] for address in (self.socket.getsockname(), self.socket.getpeername()))
        with open("/proc/net/tcp") as file:
            for line in file:
                words = line.split()
                if words[1].endswith(its) and words[2].endswith(mine):
                    return int(words[4].split(":")[1], 16)
        return 0

    def _more(self):
        data = self.socket.recv(65536)
        self.buffer += data
        return data

    def answer(self, head_only=False):
        while b"\r\n\r\n" not in self.buffer:
            if not self._more():
                raise AssertionError("the connection ended; before that came %r" % self.buffer)
        head, self.buffer = self.buffer.split(b"\r\n\r\n", 1)
        first, *lines = head.decode().split("\r\n")
        headers = {name.lower(): value for name, value in (line.split(": ", 1) for line in lines)}
        length = 0 if head_only else int(headers.get("content-length", 0))
        while len(self.buffer) < length:
            if not self._more():
                raise AssertionError("the body ended early")
        body, self.buffer = self.buffer[:length], self.buffer[length:]
        return Answer(int(first.split(" ")[1]), headers, body)

    def ask(self, data):
        self.send(data)
        return self.answer()

    def ends(self):
        """Whether the connection ends without further bytes."""
        try:
            return self.buffer == b"" and self._more() == b""
        except (ConnectionResetError, BrokenPipeError, ssl.SSLEOFError):
            return True


def request(method, key, body=None, more=b""):
    length = b"" if body is None else b"Content-Length: %d\r\n" % len(body)
    return b"%s /push/%s HTTP/1.1\r\nHost: x\r\n%s%s\r\n%s" % (method.encode(), key.encode(), length, more, body or b"")


def setUpModule():
    HttpTest.instance = Instance(member="127.0.0.1")


def tearDownModule():
    HttpTest.instance.remove()


class HttpTest(ServerTest):
    """One server for the whole file; it lets the tests add listeners."""

    @classmethod
    def setUpClass(cls):
        pass

    @classmethod
    def tearDownClass(cls):
        pass

    def port(self):
        return int(self.server.env["HTTP_URL"].split("/")[2].split(":")[1])

    def link(self):
        return Link(self.port())

    def ready(self):
        owner = self.client("owner", "http")
        key = self.key_node(owner)
        self.succeed(self.activate(owner))
        return owner, key

    def assert_published(self, owner, *texts):
        """Exactly these items were published."""
        for text in texts:
            found = self.take(owner)[0]
            self.assertEqual(found.text, text)
            self.ack(owner, found.id)
        self.assert_quiet(owner)

    def assert_goes_on(self, link, key, text):
        self.assertEqual(link.ask(request("POST", key, text.encode())).status, 201)


class Requests(HttpTest):
    def test_an_empty_body_is_refused_in_the_extensions_words_and_the_connection_goes_on(self):
        owner, key = self.ready()
        with self.link() as link:
            for body in (b"", None):
                answer = link.ask(request("POST", key, body))
                self.assertEqual(answer.status, 400)
                self.assertIn("The body is empty", answer.error)
            self.assert_goes_on(link, key, "full")
        self.assert_published(owner, "full")

    def test_every_other_method_is_refused_with_those_that_there_are_and_the_connection_goes_on(self):
        owner, key = self.ready()
        with self.link() as link:
            for method in METHODS:
                for body in (None, b"", b"body"):
                    answer = link.ask(request(method, key, body))
                    self.assertEqual((method, body, answer.status), (method, body, 405))
                    self.assertEqual(answer.headers["allow"], "GET, HEAD, OPTIONS, POST")
                    self.assertIn("POST", answer.error)
            self.assert_goes_on(link, key, "at last")
        self.assert_published(owner, "at last")

    def test_head_has_the_head_of_get_alone(self):
        _, key = self.ready()
        with self.link() as link:
            link.send(request("HEAD", key))
            head = link.answer(head_only=True)
            self.assertEqual(head.status, 200)
            got = link.ask(request("GET", key))
            self.assertEqual((got.status, got.headers), (200, head.headers))
            self.assertIn("about", json.loads(got.body))

    def test_requests_in_one_packet_are_answered_in_their_order(self):
        owner, key = self.ready()
        with self.link() as link:
            link.send(request("POST", key, b"first") + request("POST", key, b"") + request("POST", key, b"second")
                      + request("PATCH", key, b"{}") + b"\r\n" + request("GET", key, b"a body")
                      + request("POST", key, b"third"))
            self.assertEqual([link.answer().status for _ in range(6)], [201, 400, 201, 405, 200, 201])
        self.assert_published(owner, "first", "second", "third")

    def test_a_request_may_come_byte_by_byte(self):
        owner, key = self.ready()
        with self.link() as link:
            link.send_pieces(request("POST", key, b"slowly"))
            self.assertEqual(link.answer().status, 201)
        self.assert_published(owner, "slowly")

    def test_a_client_that_waits_for_leave_gets_it_or_the_refusal(self):
        owner, key = self.ready()
        expects = b"Expect: 100-continue\r\n"
        with self.link() as link:
            self.assertEqual(link.ask(request("POST", key, None, b"Content-Length: 5\r\n" + expects)).status, 100)
            self.assertEqual(link.ask(b"leave").status, 201)
            answer = link.ask(request("POST", key, None, b"Content-Length: 70000\r\n" + expects))
            self.assertEqual((answer.status, answer.headers["connection"]), (413, "close"))
            self.assertTrue(link.ends())
        self.assert_published(owner, "leave")

    def test_a_body_that_is_too_large_is_refused_before_it_is_read_and_the_connection_goes_on(self):
        owner, key = self.ready()
        with self.link() as link:
            answer = link.ask(request("POST", key, None, b"Content-Length: 100000\r\n"))
            self.assertEqual(answer.status, 413)
            self.assertIn("65536", answer.error)
            link.send(b"POST / HTTP/1.1\r\n\r\n".ljust(100000, b"x"))
            self.assert_goes_on(link, key, "small")
        self.assert_published(owner, "small")

    def test_a_huge_body_is_refused_and_the_connection_ends(self):
        _, key = self.ready()
        for length in (1000001, 999999999999999):
            with self.link() as link:
                answer = link.ask(request("POST", key, None, b"Content-Length: %d\r\n" % length) + b"x" * 100)
                self.assertEqual((answer.status, answer.headers["connection"]), (413, "close"))
                self.assertTrue(link.ends())

    def test_the_connection_lasts_as_the_client_says(self):
        _, key = self.ready()
        old = b"GET /push/%s HTTP/1.0\r\n%s\r\n"
        with self.link() as link:
            answer = link.ask(old % (key.encode(), b"Connection: keep-alive\r\n"))
            self.assertEqual((answer.status, answer.headers["connection"]), (200, "keep-alive"))
            self.assertEqual(link.ask(old % (key.encode(), b"")).headers["connection"], "close")
            self.assertTrue(link.ends())
        for words in (b"close", b"TE, Close"):
            with self.link() as link:
                answer = link.ask(request("GET", key, None, b"Connection: %s\r\n" % words))
                self.assertEqual((answer.status, answer.headers["connection"]), (200, "close"))
                self.assertTrue(link.ends())

    def test_addresses_are_read_as_before(self):
        owner, key = self.ready()
        with self.link() as link:
            for address, status in (("/push/%s?a=b" % key, 201), ("//push//%s/" % key, 201),
                                    ("http://x:80/push/%s" % key, 201),
                                    ("/push/%%%02X%s" % (ord(key[0]), key[1:]), 201),
                                    ("/push/%zz", 400), ("/push/%ff", 400), ("/push", 404), ("/", 404), ("*", 404),
                                    ("/other/%s" % key, 404), ("/push/a%2Fb", 404)):
                answer = link.ask(b"POST %s HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\n\r\nx" % address.encode())
                self.assertEqual((address, answer.status), (address, status))
                if status != 201:
                    self.assertTrue(answer.error)
        self.assert_published(owner, *["x"] * 4)


class MalformedRequests(HttpTest):
    def assert_refused(self, data, status):
        with self.link() as link:
            try:
                link.send(data)
            except OSError:
                pass  # the server closes before it has read everything
            answer = link.answer()
            self.assertEqual((data[:60], answer.status, answer.headers["connection"]), (data[:60], status, "close"))
            self.assertTrue(answer.error)
            self.assertTrue(link.ends(), "something comes after the refusal of %r" % data[:60])

    def test_what_two_readers_could_take_in_two_ways_is_refused_and_nothing_after_it_is_read(self):
        owner, key = self.ready()
        inner = SMUGGLED % key.encode()
        length = b"Content-Length: %d\r\n" % len(inner)
        for fields, status in ((b"Content-Length: 0\r\n" + length, 400),
                               (length + length, 400),
                               (b"Content-Length: 0, %d\r\n" % len(inner), 400),
                               (b"Content-Length: +4\r\n", 400),
                               (b"Content-Length: -1\r\n", 400),
                               (b"Content-Length: 0x4\r\n", 400),
                               (b"Content-Length: 4 4\r\n", 400),
                               (b"Content-Length:\r\n", 400),
                               (b"Content-Length: %s4\r\n" % (b"0" * 30), 400),
                               (b"Content-Length : 4\r\n", 400),
                               (b" Content-Length: 4\r\n", 400),
                               (b"X: y\r\n Content-Length: 4\r\n", 400),
                               (b"X: y\nContent-Length: 4\r\n", 400),
                               (b"X: y\rContent-Length: 4\r\n", 400),
                               (b"X: \x00\r\n", 400),
                               (b"Content-Length\r\n", 400),
                               (b": 4\r\n", 400),
                               (b"Host: y\r\n", 400),
                               (b"Transfer-Encoding: chunked\r\n", 411),
                               (b"transfer-encoding:\tidentity\r\n", 411),
                               (length + b"Transfer-Encoding: chunked\r\n", 400),
                               (b"Transfer-Encoding: x\r\n" + length, 400)):
            self.assert_refused(request("POST", key, None, fields) + inner, status)
            self.assert_refused(request("GET", key, None, fields) + inner, status)
        self.assertEqual(self.post(key, "the only one")[0], 201)
        self.assert_published(owner, "the only one")

    def test_a_request_in_a_body_is_a_part_of_the_body(self):
        owner, key = self.ready()
        inner = SMUGGLED % key.encode()
        with self.link() as link:
            for method, status in (("POST", 404), ("GET", 200), ("PUT", 405), ("BREW", 405)):
                address = "nothing" if method == "POST" else key
                self.assertEqual(link.ask(request(method, address, inner)).status, status)
            self.assert_goes_on(link, key, "the only one")
        self.assert_published(owner, "the only one")

    def test_what_is_no_http_is_told_so(self):
        for data in (b"hello\r\n\r\n", b"GET /push/x\r\n\r\n", b"GET  /push/x HTTP/1.1\r\n\r\n",
                     b"GET /push/x HTTP/1.1 \r\n\r\n", b"GET /push/x HTTP/1.1\n", b"\n",
                     b"G@T /push/x HTTP/1.1\r\nHost: x\r\n\r\n",
                     b"GET /push/\xc3\xa4 HTTP/1.1\r\nHost: x\r\n\r\n", b"GET /push/x http/1.1\r\nHost: x\r\n\r\n",
                     b"HTTP/1.1 200 OK\r\n\r\n", b"GET /push/x HTTP/1.1\r\n\r\n",
                     b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03",
                     b"<?xml version='1.0'?>", b" GET /push/x HTTP/1.1\r\nHost: x\r\n\r\n"):
            self.assert_refused(data, 400)
        self.assert_refused(b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", 505)

    def test_a_head_that_is_too_long_is_told_so_whether_it_ends_or_not(self):
        start = b"GET /push/x HTTP/1.1\r\nHost: x\r\n"
        for data in (start + b"X: " + b"x" * 20000 + b"\r\n\r\n", start + b"X: y\r\n" * 4000, b"G" * 20000,
                     b"GET /push/" + b"x" * 100000 + b" HTTP/1.1\r\nHost: x\r\n\r\n"):
            self.assert_refused(data, 431)
        with self.link() as link:
            self.assertEqual(link.ask(start + b"X: " + b"x" * 16000 + b"\r\n\r\n").status, 200)

    def test_a_client_that_still_sends_gets_the_refusal_and_an_orderly_end(self):
        with self.link() as link:
            answer = link.ask(b"POST /push/x HTTP/1.1\r\nHost: x\r\nContent-Length: 2000000\r\n\r\n")
            self.assertEqual(answer.status, 413)
            for _ in range(20):
                link.send(b"x" * 10000)
            self.assertEqual(link.socket.recv(1), b"")


class Listeners(HttpTest):
    """Listeners with other options, in addition to the one that every test has."""

    def listen(self, options):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
        self.instance.evaluate("ok = ejabberd_listener:add_listener({%d, {127,0,0,1}, tcp}, pubsub_device_listener, %s)"
                               % (port, options))
        return port

    def test_waits_have_an_end(self):
        owner, key = self.ready()
        port = self.listen("#{request_timeout => 300, send_timeout => 300}")
        for data in (b"G", b"GET /push/x HTTP/1.1\r\nHost: x\r\n",
                     request("POST", key, None, b"Content-Length: 5\r\n") + b"half"):
            with Link(port) as link:
                answer = link.ask(data)
                self.assertEqual((answer.status, answer.headers["connection"]), (408, "close"))
                self.assertTrue(answer.error)
                self.assertTrue(link.ends())
        with Link(port) as link:  # the whole head has one deadline, however it is split
            began = time.monotonic()
            while not link.buffer and time.monotonic() - began < DEADLINE:
                link.send(b"x")
                link.socket.settimeout(0.05)
                try:
                    link._more()
                except socket.timeout:
                    pass
            self.assertTrue(link.buffer, "a head goes on for ever")
            link.socket.settimeout(DEADLINE)
            self.assertEqual(link.answer().status, 408)
        with Link(port) as link:  # a silent client gets no answer
            self.assertTrue(link.ends())
        with Link(port) as link:
            self.assertEqual(link.ask(request("POST", key, None, b"Content-Length: 70000\r\n")).status, 413)
            self.assertTrue(link.ends())
        self.assertEqual(self.post(key, "x")[0], 201)
        self.assert_published(owner, "x")

    def test_a_client_that_does_not_read_its_answers_is_left(self):
        port = self.listen("#{send_timeout => 300}")
        flood = request("GET", "x") * 1000
        with Link(port) as link:
            with self.assertRaises((ConnectionResetError, BrokenPipeError)):
                while True:
                    link.send(flood)

    def test_tls_carries_the_same_requests(self):
        owner, key = self.ready()
        port = self.listen("#{tls => true}")
        context = ssl.create_default_context(cafile=self.server.env["CA_FILE"])
        with Link(port, context) as link:
            link.send(request("POST", key, b"first") + request("POST", key, b"") + request("PATCH", key))
            self.assertEqual([link.answer().status for _ in range(3)], [201, 400, 405])
            self.assert_goes_on(link, key, "x" * 60000)
            self.assertEqual(link.ask(request("POST", key, b"x" * 100000)).status, 413)
            self.assertEqual(link.ask(b"no HTTP\r\n\r\n").status, 400)
            self.assertTrue(link.ends())
        self.assert_published(owner, "first", "x" * 60000)
        self.assertEqual(self.post(key, "y")[0], 201)

    def test_tls_that_comes_slowly_has_the_same_end(self):
        port = self.listen("#{tls => true, request_timeout => 300}")
        for data in (b"", b"\x16\x03\x01", b"no TLS at all, and long enough to be seen as such\r\n\r\n"):
            with Link(port) as link:
                link.send(data)
                while link._more():
                    pass

    def ask(self, link):
        return link.ask(request("GET", "x")).status

    def assert_refused(self, link):
        answer = link.ask(request("GET", "x"))
        self.assertEqual((answer.status, answer.headers.get("connection")), (503, "close"))
        self.assertTrue(answer.headers["retry-after"].isdigit())
        self.assertTrue(answer.error)
        self.assertTrue(link.ends())

    def assert_room(self, connect):
        end = time.monotonic() + DEADLINE
        while True:
            with connect() as link:
                if self.ask(link) == 200:
                    return
            self.assertLess(time.monotonic(), end, "a place stays taken")

    def crowd(self, count, connect):
        links = [connect() for _ in range(count)]
        for link in links:
            self.addCleanup(link.socket.close)
            self.assertEqual(self.ask(link), 200)
        return links

    def test_one_address_has_so_many_connections_and_others_have_theirs(self):
        port = self.listen("#{max_connections_address => 3, proxies => []}")
        links = self.crowd(3, lambda: Link(port))
        with Link(port) as link:
            self.assert_refused(link)
        with Link(port, source="127.0.0.2") as link:
            self.assertEqual(self.ask(link), 200)
        self.assertEqual([self.ask(link) for link in links], [200] * 3)
        links[0].socket.close()
        self.assert_room(lambda: Link(port))

    def test_a_connection_whose_process_is_killed_leaves_its_place(self):
        port = self.listen("#{max_connections_address => 3, proxies => []}")
        self.crowd(3, lambda: Link(port))
        with Link(port) as link:
            self.assert_refused(link)
        self.instance.evaluate("[exit(Pid, kill) || Pid <- processes(), "
                               "proc_lib:translate_initial_call(Pid) == {pubsub_device_listener, init, 2}]")
        self.crowd(3, lambda: Link(port))
        with Link(port) as link:
            self.assert_refused(link)

    def test_a_listener_has_so_many_connections_and_refuses_few_at_a_time(self):
        port = self.listen("#{max_connections => 8, max_connections_address => 1, proxies => "
                           "(pubsub_device_listener:listen_opt_type(proxies))([<<\"127.0.0.0/8\">>, <<\"::1\">>])}")
        self.crowd(8, lambda: Link(port))
        with Link(port, source="127.0.0.2") as link:
            self.assert_refused(link)
        silent = [Link(port) for _ in range(9)]
        for link in silent:
            self.addCleanup(link.socket.close)
        # One at a time is answered; the others are closed at once.
        told = 0
        for link in silent:
            try:
                told += self.ask(link) == 503
            except (AssertionError, OSError):
                pass
        self.assertLessEqual(told, 1)
        other = self.listen("#{}")
        self.crowd(300, lambda: Link(other))  # a proxy on this machine has no bound
        self.client("owner").sync()

    def test_the_address_is_what_the_proxy_says(self):
        port = self.listen("#{max_connections_address => 2, use_proxy_protocol => true}")

        def connect(kind, address):
            link = Link(port)
            link.send(b"PROXY %s %s %s 4000 80\r\n" % (kind, address, address))
            return link

        for kind, address, same, other in ((b"TCP4", b"192.0.2.1", b"192.0.2.1", b"192.0.2.2"),
                                           (b"TCP6", b"2001:db8::1", b"2001:db8::ffff:2", b"2001:db8:0:1::1"),
                                           (b"TCP6", b"::ffff:198.51.100.1", b"::ffff:198.51.100.1",
                                            b"::ffff:198.51.100.2")):
            self.crowd(2, lambda kind=kind, address=address: connect(kind, address))
            with connect(kind, same) as link:
                self.assert_refused(link)
            with connect(kind, other) as link:
                self.assertEqual(self.ask(link), 200)
        with connect(b"TCP4", b"198.51.100.1") as link:
            self.assert_refused(link)

    def test_tls_says_that_there_are_too_many(self):
        port = self.listen("#{tls => true, max_connections_address => 1, proxies => []}")
        context = ssl.create_default_context(cafile=self.server.env["CA_FILE"])
        self.crowd(1, lambda: Link(port, context))
        with Link(port, context) as link:
            self.assert_refused(link)

    def test_path_and_headers_are_the_operators(self):
        _, key = self.ready()
        port = self.listen("#{path => [<<\"a\">>, <<\"b\">>], custom_headers => [{<<\"X-Test\">>, <<\"yes\">>}]}")
        with Link(port) as link:
            answer = link.ask(b"POST /a/b/%s HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\n\r\nx" % key.encode())
            self.assertEqual((answer.status, answer.headers["x-test"]), (201, "yes"))
            self.assertTrue(answer.headers["location"].startswith("/a/b/%s/" % key))
            self.assertEqual(link.ask(request("POST", key, b"x")).status, 404)
