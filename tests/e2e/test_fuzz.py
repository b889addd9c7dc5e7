# SPDX-License-Identifier: GPL-3.0-only
"""Random input from applications, services, the platform and the server neither ends the service nor makes it stall.

PUBSUB_FUZZ_SEED and PUBSUB_FUZZ_ROUNDS set the seed and the length.
"""

import os
import random
import sys
import unittest

from app import App
from bus import BusClient
from fuzzserver import FuzzServer
from platformstubs import PlatformTest
from stage import ROOT, is_running

sys.path.insert(0, str(ROOT / "tests"))
from fuzz import LEAVING, PRIVATE, PUBLIC, Fuzz  # noqa: E402

SEED = int(os.environ.get("PUBSUB_FUZZ_SEED", "1"))
ROUNDS = int(os.environ.get("PUBSUB_FUZZ_ROUNDS", "60"))
CALLS = 40  # in a round
APPS = ("com.example.one", "com.example.two")


class Everybody(PlatformTest):
    def setUp(self):
        super().setUp()
        self.fuzz = Fuzz(random.Random(SEED))
        self.server = FuzzServer(Fuzz(random.Random(SEED + 1)))
        self.addCleanup(self.server.close)
        self.apps = [self.new_app(name) for name in APPS]
        self.sender = self.new_sender()
        self.private.serve("com.zelt.fuzz", "item")

    def new_app(self, name):
        app = App(self.stage.env["ZELT_PUBLIC_BUS"], name)
        self.addCleanup(app.close)
        return app

    def new_sender(self):
        sender = BusClient(self.stage.env["ZELT_PRIVATE_BUS"])
        self.addCleanup(sender.close)
        return sender

    def replace_a_client(self):
        """One dies with all that it waits for, and another comes."""
        which = self.fuzz.random.randrange(3)
        if which < 2:
            self.apps[which].kill()
            self.apps[which] = self.new_app(APPS[which])
        else:
            self.sender.close()
            self.sender = self.new_sender()

    def connect(self):
        """The platform tells the truth again, and somebody asks for a connection until there is one."""
        self.power.accepts = True
        self.account.reply = self.account.made(service="localhost", port=str(self.server.port))
        self.network.report(wifi="127.0.0.1")
        self.private.start("initializeAccount", {})
        for _ in range(20):  # an attempt may meet a bad answer of the server
            self.private.call("connectStatus", {})
            try:
                self.pump(self.is_connected, "the service to be connected", 2)
                return
            except AssertionError:
                continue
        self.fail("the service does not connect any more")

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.stage.service_pid}/fd"))

    def fuzz_platform(self):
        choice = self.fuzz.random.randrange(5)
        if choice == 0:
            self.network.report_raw(self.fuzz.value())
        elif choice == 1:
            self.account.reply = self.fuzz.payload()
        elif choice == 2:
            self.system.tell(self.fuzz.value())
        elif choice == 3:
            self.power.accepts = self.fuzz.random.random() < 0.5
        elif self.power.alarms:
            self.power.fire(self.fuzz.random.choice(list(self.power.alarms)))

    def test_fuzz_from_every_side_is_borne(self):
        self.account.reply = self.account.made(service="localhost", port=str(self.server.port))
        self.start(xmpp_config="plain")
        self.wait_connected()
        descriptors = self.descriptors()
        draw = self.fuzz.random
        for _ in range(ROUNDS):
            if not self.is_connected():
                self.connect()
            for _ in range(CALLS):
                if draw.random() < 0.5:
                    draw.choice(self.apps).start(draw.choice(PUBLIC), self.fuzz.payload())
                else:
                    self.sender.start(draw.choice(PRIVATE), self.fuzz.payload())
            if draw.random() < 0.3:
                self.fuzz_platform()
            if draw.random() < 0.1:
                self.replace_a_client()
            if draw.random() < 0.1:
                self.sender.start(draw.choice(LEAVING), self.fuzz.payload())
            self.settle()
        self.connect()
        self.assertTrue(is_running(self.stage.service_pid))
        self.pump(lambda: self.descriptors() <= descriptors, "what was opened to be closed")


if __name__ == "__main__":
    unittest.main()
