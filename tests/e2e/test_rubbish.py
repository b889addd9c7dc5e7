# SPDX-License-Identifier: GPL-3.0-only
"""Nothing that applications, services, the platform or the server send brings the service down or makes it stall.

PUBSUB_RUBBISH_SEED and PUBSUB_RUBBISH_ROUNDS choose another row of rubbish, and a longer one.
"""

import os
import random
import sys
import unittest

from app import App
from platformstubs import PlatformTest
from rubbishserver import RubbishServer
from stage import ROOT, is_running

sys.path.insert(0, str(ROOT / "tests"))
from rubbish import LEAVING, PRIVATE, PUBLIC, Rubbish  # noqa: E402

SEED = int(os.environ.get("PUBSUB_RUBBISH_SEED", "1"))
ROUNDS = int(os.environ.get("PUBSUB_RUBBISH_ROUNDS", "60"))
CALLS = 40  # in a round


class Everybody(PlatformTest):
    def setUp(self):
        super().setUp()
        self.rubbish = Rubbish(random.Random(SEED))
        self.server = RubbishServer(Rubbish(random.Random(SEED + 1)))
        self.addCleanup(self.server.close)
        self.apps = [App(self.stage.env["ZELT_PUBLIC_BUS"], name) for name in ("com.example.one", "com.example.two")]
        for app in self.apps:
            self.addCleanup(app.close)
        self.private.serve("com.zelt.rubbish", "item")

    def connect(self):
        """The platform tells the truth again, and somebody asks for a connection until there is one."""
        self.power.accepts = True
        self.account.reply = self.account.made(service="localhost", port=str(self.server.port))
        self.network.say(wifi="127.0.0.1")
        self.private.start("initializeAccount", {})
        for _ in range(20):  # an attempt may meet the server's rubbish
            self.private.call("connectStatus", {})
            try:
                self.pump(self.is_connected, "the service to be connected", 2)
                return
            except AssertionError:
                continue
        self.fail("the service does not connect any more")

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.stage.service_pid}/fd"))

    def platform_rubbish(self):
        choice = self.rubbish.random.randrange(5)
        if choice == 0:
            self.network.say_raw(self.rubbish.value())
        elif choice == 1:
            self.account.reply = self.rubbish.payload()
        elif choice == 2:
            self.system.tell(self.rubbish.value())
        elif choice == 3:
            self.power.accepts = self.rubbish.random.random() < 0.5
        elif self.power.alarms:
            self.power.fire(self.rubbish.random.choice(list(self.power.alarms)))

    def test_rubbish_from_every_side_is_borne(self):
        self.account.reply = self.account.made(service="localhost", port=str(self.server.port))
        self.start(xmpp_config="plain")
        self.wait_connected()
        descriptors = self.descriptors()
        draw = self.rubbish.random
        for _ in range(ROUNDS):
            if not self.is_connected():
                self.connect()
            for _ in range(CALLS):
                if draw.random() < 0.5:
                    draw.choice(self.apps).start(draw.choice(PUBLIC), self.rubbish.payload())
                else:
                    self.private.start(draw.choice(PRIVATE), self.rubbish.payload())
            if draw.random() < 0.3:
                self.platform_rubbish()
            if draw.random() < 0.1:
                self.private.start(draw.choice(LEAVING), self.rubbish.payload())
            self.settle()
        self.connect()
        self.assertTrue(is_running(self.stage.service_pid))
        self.assertLessEqual(self.descriptors(), descriptors)


if __name__ == "__main__":
    unittest.main()
