# SPDX-License-Identifier: GPL-3.0-only
"""What the tests of web push have in common: endpoints, requests to them, and items as they come to a device."""
import base64
import collections
import os
import ssl
import sys
import time
from xml.sax.saxutils import quoteattr

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import webpush  # noqa: E402
from harness import ServerTest
from xmppclient import DEVICE, EVENT, item

Pushed = collections.namedtuple("Pushed", "id seq_no content encoding attributes")


def pushed(message):
    """The item of a message: `attributes` are those besides the id and the number."""
    found = message.find("{%s}event/{%s}items/{%s}item" % (EVENT, EVENT, EVENT))
    payload = [each for each in found if each.tag.split("}")[-1] == "payload"][0]
    text = payload.text or ""
    rest = {name: value for name, value in found.attrib.items() if name not in ("id", "seqNo")}
    encoding = payload.get("encoding")
    content = base64.b64decode(text, validate=True) if encoding == "base64" else text.encode()
    return Pushed(found.get("id"), int(found.get("seqNo")), content, encoding, rest)


class PushTest(ServerTest):
    def context(self):
        return ssl.create_default_context(cafile=self.server.env["CA_FILE"])

    def make(self, client, more="", node=None):
        """Asks for a key node and returns the answer."""
        return self.ext(client, "<create-key-node node=%s %s/>" % (quoteattr(node or self.node), more))

    def endpoint(self, resource="push", more="web-push='true'", limit=False):
        """The owner's device with an endpoint that it has activated, and the key."""
        owner = self.client("owner", resource)
        key = self.succeed(self.make(owner, more)).findtext("{%s}key" % DEVICE)
        self.announce(owner)
        if limit:
            self.succeed(self.limit(owner))
        else:
            self.succeed(self.activate(owner))
        return owner, key

    def limit(self, client, urgency=None, since=0, node=None):
        return self.ext(client, "<activate node=%s seqNo='%s' limit='1'%s/>"
                        % (quoteattr(node or self.node), since, " urgency='%s'" % urgency if urgency else ""))

    def again(self, resource="push"):
        """The owner's device with a new session, and the node activated."""
        owner = self.device("owner", resource)
        self.succeed(self.activate(owner))
        return owner

    def url(self, key, secure=True):
        return "%s/%s" % (self.server.env["HTTPS_URL" if secure else "HTTP_URL"], key)

    def publish_http(self, key, body, headers=None, expected=201):
        """Posts, checks the status, and returns the answer."""
        status, answer_headers, answer = self.post(key, body, headers=headers)
        self.assertEqual((status, answer if status != expected else None), (expected, None))
        return webpush.Answer(status, answer_headers, answer)

    def refusal(self, answer, status, errno):
        """A refusal in its whole form."""
        self.assertEqual((answer.status, answer.body.get("errno")), (status, errno), answer.body)
        self.assertEqual(sorted(answer.body), ["errno", "error", "remedy"])
        self.assertTrue(answer.body["error"] and answer.body["remedy"])
        return answer

    def message(self, location, method="GET", headers=None):
        """A request to the address of a message."""
        origin = "/".join(self.server.env["HTTP_URL"].split("/")[:3])
        return webpush.request(origin + location, method, headers=headers)

    def next_item(self, client, node=None):
        wanted = node or self.node
        return pushed(client.wait_message(lambda each: item(each) is not None and item(each).node == wanted))

    def contents(self, client, count, node=None):
        """So many items come, each acknowledged, and then none."""
        found = []
        for _ in range(count):
            each = self.next_item(client, node)
            self.ack(client, each.id, node)
            found.append(each.content)
        self.assert_quiet(client, node)
        return found

    @staticmethod
    def now():
        return int(time.time())
