# SPDX-License-Identifier: GPL-3.0-only
"""A short run of faults.py, which can be run by itself for longer."""

import json
import unittest

from faults import KINDS, Faults
from stage import StageTest

ITEMS, SECONDS, SEED = 300, 12, 5


class RandomFaults(StageTest):
    def test_what_publishers_were_told_is_stored_arrives_or_is_overwritten_in_the_cache(self):
        counts = Faults(self.stage, ITEMS, SECONDS, SEED).run()
        print(json.dumps(counts), flush=True)
        self.assertEqual(counts["broken"], [])
        self.assertGreaterEqual(counts["told"], ITEMS)
        self.assertEqual(counts["received"] + counts["overwritten"], counts["told"] + counts["received_untold"])
        self.assertEqual(set(counts["kills"]), set(KINDS))


if __name__ == "__main__":
    unittest.main()
