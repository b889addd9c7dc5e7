// SPDX-License-Identifier: GPL-3.0-only
// Every refusal of a node method behaves alike; the rows stand with the methods.
#include "tests/unit/nodes/refusal.h"

TEST_P(NodeRefusal, IsAnsweredAtOnceAndKeepsNothing) {
    checkRefusal();
}
