# SPDX-License-Identifier: GPL-3.0-only
"""The commands and the page of the web admin for an operator."""
import base64
import re

from exposition import MetricsTest, fetch
from harness import PASSWORD


class Commands(MetricsTest):
    member = "127.0.0.1"

    def test_the_devices_of_an_account_are_listed_with_what_is_kept(self):
        other = self.node + "/other"
        owner = self.away("bob", "one", self.node, other)
        self.device("bob", "two")
        for each in range(2):
            self.publish(owner, "x" * 100)
        self.publish(owner, "x", node=other)
        status, devices = self.command("pubsub_device_list", user="bob", host="localhost")
        self.assertEqual((status, [(each["resource"], each["state"], each["items"]) for each in devices]),
                         (200, [("one", "absent", 3), ("two", "connected", 0)]))
        self.assertGreater(devices[0]["bytes"], 3200)
        for text in (devices[0]["seen"], devices[0]["oldest"]):
            self.assertRegex(text, r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
        self.assertEqual((devices[1]["bytes"], devices[1]["oldest"]), (0, ""))
        status, nodes = self.command("pubsub_device_show", user="bob", host="localhost", resource="one")
        self.assertEqual((status, [(each["service"], each["node"], each["items"]) for each in nodes]),
                         (200, [("pubsub.localhost", self.node, 2), ("pubsub.localhost", other, 1)]))
        self.wait_for(lambda: self.command("pubsub_device_top")[1][:1]
                      == [{"jid": "bob@localhost/one", "state": "absent", "items": 3, "bytes": devices[0]["bytes"]}])

    def test_what_is_not_there_is_said(self):
        for name, arguments, text in (
                ("list", {"user": "bob", "host": "elsewhere"}, "does not serve this host"),
                ("list", {"user": "a@b", "host": "localhost"}, "no account"),
                ("show", {"user": "bob", "host": "localhost", "resource": "none"}, "no such device")):
            status, answer = self.command("pubsub_device_" + name, **arguments)
            self.assertGreaterEqual(status, 400)
            self.assertIn(text, str(answer))
        self.assertEqual(self.command("pubsub_device_list", user="nobody", host="localhost"), (200, []))

    def test_the_command_prints_what_the_listener_prints(self):
        status, listed = self.command("pubsub_device_metrics")
        printed = self.scrape().samples
        self.assertEqual(status, 200)
        self.assertEqual([(each["name"], *[tuple(label.split("=")) for label in each["labels"].split(",") if label])
                          for each in listed], list(printed))

    def test_a_shell_gets_a_line_for_each_with_tabs_between_the_columns(self):
        self.device("carol", "shell")

        def lines(*words):
            text = self.instance.evaluate("ejabberd_ctl:process([%s])" % ", ".join('"%s"' % word for word in words))
            self.assertTrue(text.endswith("\n0"), text)
            return [line.split("\t") for line in text[:-2].splitlines()]

        def device():
            return [line for line in lines("pubsub_device_list", "carol", "localhost") if line[0] == "shell"][0]

        self.assertEqual((device()[1], device()[3:]), ("connected", ["0", "0", ""]))
        owner = self.away("carol", "shell", "/a\tb\nc\x9b\xe4")
        self.publish(owner, "x", node="/a\tb\nc\x9b\xe4")
        self.assertEqual((device()[3], device()[5][:2]), ("1", "20"))
        shown = lines("pubsub_device_show", "carol", "localhost", "shell")
        self.assertEqual([line[:3] for line in shown], [["pubsub.localhost", r"/a\x09b\x0ac\x9bä", "1"]])
        self.assertIn(["pubsub_device_members", "", "1"], lines("pubsub_device_metrics"))

    def test_every_command_is_described_in_the_registry(self):
        described = self.instance.evaluate(
            "[begin Each = ejabberd_commands:get_command_definition(Name), {Name, element(4, Each) /= \"\", "
            "length(element(11, Each)), case element(17, Each) of none -> 0; Texts -> length(Texts) end, "
            "is_list(element(18, Each))} end || Name <- [pubsub_device_metrics, pubsub_device_list, "
            "pubsub_device_show, pubsub_device_top]]")
        self.assertEqual(described.replace(" ", ""),
                         "[{pubsub_device_metrics,true,0,0,true},{pubsub_device_list,true,2,2,true},"
                         "{pubsub_device_show,true,3,3,true},{pubsub_device_top,true,0,0,true}]")

    def test_no_command_and_no_page_prints_a_key(self):
        owner = self.device("owner", "keys")
        key = self.key_node(owner, self.node + "/key")
        owner.kill()
        self.assertEqual(self.post(key, "x")[0], 201)
        texts = [self.command("pubsub_device_" + name, **arguments)[1] for name, arguments in (
            ("metrics", {}), ("top", {}), ("list", {"user": "owner", "host": "localhost"}),
            ("show", {"user": "owner", "host": "localhost", "resource": "keys"}))]
        self.assertIn(self.node + "/key", str(texts[3]))
        self.assertNotIn(key, str(texts))

    def test_the_log_says_that_a_device_is_forgotten_with_its_account(self):
        self.instance.register("dave")
        self.device("dave", "phone")
        self.instance.evaluate("ejabberd_auth:remove_user(<<\"dave\">>, <<\"localhost\">>)")
        self.wait_for(lambda: "Forgot the device dave@localhost/phone; its account was removed" in self.instance.log())

    def test_a_request_that_fails_is_logged_without_what_was_asked(self):
        for failing in ("""pubsub_device_iq:process({iq, <<"1">>, get, <<>>, jid:decode(<<"bob@localhost/a">>), nowhere,
                           [{xmlel, <<"key">>, [{<<"node">>, <<"unseen">>}], []}], #{}})""",
                        """pubsub_device_publish:to_key_node({{<<"unseen">>, <<"/seen">>}, {<<>>, <<"localhost">>, <<>>}},
                           <<"id">>, [{xmlel, <<"payload">>, [], [{xmlcdata, <<"unseen">>}]}], none)"""):
            self.instance.evaluate("catch " + failing)
        for line in (r"The request key failed: \{error,\s*function_clause,\s*\[",
                     r"Publishing to node /seen with its key failed: \{error,\s*unregistered_route,\s*\["):
            self.wait_for(lambda line=line: re.search(line, self.instance.log()))
        self.assertNotIn("unseen", self.instance.log())


class Page(MetricsTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.instance.register("admin")

    def page(self, user=None, path="/pubsub-device/"):
        words = {"Authorization": "Basic " + base64.b64encode(("%s@localhost:%s" % (user, PASSWORD)).encode()).decode()}
        status, _, text = fetch(self.server.env["ADMIN_URL"] + path, headers=words if user else {})
        return status, text

    def test_administrators_see_totals_drops_and_the_devices_that_keep_most(self):
        owner = self.away("bob", "<b>\"'&", self.node)
        self.publish(owner, "x")
        self.wait_for(lambda: "bob@localhost/" in self.page("admin")[1])
        status, text = self.page("admin")
        self.assertEqual(status, 200)
        self.assertNotIn("<b>", text)
        self.assertIn("bob@localhost/&lt;b&gt;", text)
        for words in ("publications_total xmpp</td><td>1<", "dropped_total node</td><td>0<", "kept_items</td><td>1<",
                      "on average"):
            self.assertIn(words, text)
        self.assertIn("pubsub-device/", self.page("admin", "/")[1])

    def test_nobody_else_sees_the_page(self):
        for user in (None, "bob"):
            status, text = self.page(user)
            self.assertEqual(status, 401)
            self.assertNotIn("kept", text)
