# SPDX-License-Identifier: GPL-3.0-only
"""A short run of receiverfaults.py, which can be run by itself for longer."""

import json
import unittest

from receiverfaults import KINDS, run

SEED = 5


class ReceiverFaults(unittest.TestCase):
    def test_every_item_that_publishers_were_told_of_is_acknowledged_in_order_over_kills(self):
        counts = run(len(KINDS), SEED)
        print(json.dumps(counts), flush=True)
        self.assertEqual(counts["broken"], [])
        self.assertEqual(counts["kills"], dict.fromkeys(KINDS, 1))
        for whose in ("", "handler: "):
            self.assertGreater(counts[whose + "told"], 0)
            self.assertEqual(counts[whose + "acknowledged"],
                             counts[whose + "told"] + counts[whose + "acknowledged_untold"])


if __name__ == "__main__":
    unittest.main()
