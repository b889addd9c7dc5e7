// SPDX-License-Identifier: GPL-3.0-only
// A service in its own process, for tests that examine a service from outside.
#pragma once

// Serves `echo` (answers with the request), `follow` (subscribes) and `long` (a long answer) on both buses
// under the tests' service name. To be called in a forked child; ends with the test program.
[[noreturn]] void serveEchoes();
