# SPDX-License-Identifier: GPL-3.0-only
"""The servers that the benchmarks compare start with what the others run with."""
import pathlib
import shutil
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path[:0] = [str(ROOT / "bench"), str(ROOT / "scripts")]
from builds import Build  # noqa: E402
from server_load import BenchServer  # noqa: E402


class Servers(unittest.TestCase):
    def test_the_engine_alone_takes_nodes_and_subscriptions(self):
        folder = tempfile.mkdtemp(prefix="bench-")
        self.addCleanup(shutil.rmtree, folder)
        server = BenchServer(pathlib.Path(folder, "server"), Build(ROOT), engine_alone=True)
        self.addCleanup(server.close)
        server.create("owner", ["/bench/one"])
        client = server.client("other")
        answer = client.iq("set", "<pubsub xmlns='http://jabber.org/protocol/pubsub'>"
                                  "<subscribe node='/bench/one' jid='%s'/></pubsub>" % client.jid)
        client.close()
        self.assertEqual(answer.get("type"), "result")


if __name__ == "__main__":
    unittest.main()
