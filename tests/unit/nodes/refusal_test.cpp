// SPDX-License-Identifier: GPL-3.0-only
// All refusals of node methods have the same effects; the rows are in the tests of the methods.
#include "tests/unit/nodes/refusal.h"

TEST_P(NodeRefusal, IsAnsweredAtOnceAndKeepsNothing) {
    checkRefusal();
}
