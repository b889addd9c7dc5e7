# SPDX-License-Identifier: GPL-3.0-only
"""The short form of the storm; storm.py by itself is the long one."""

import json
import unittest

from stage import StageTest
from storm import KINDS, Storm

ITEMS, SECONDS, SEED = 300, 12, 5


class ShortStorm(StageTest):
    def test_what_publishers_were_told_is_stored_arrives_or_is_overwritten_in_the_cache(self):
        counts = Storm(self.stage, ITEMS, SECONDS, SEED).run()
        print(json.dumps(counts), flush=True)
        self.assertEqual(counts["broken"], [])
        self.assertGreaterEqual(counts["told"], ITEMS)
        self.assertEqual(counts["received"] + counts["overwritten"], counts["told"] + counts["received_untold"])
        self.assertEqual(set(counts["kills"]), set(KINDS))


if __name__ == "__main__":
    unittest.main()
