// SPDX-License-Identifier: GPL-3.0-only
// The process: everything is in the library, so that tests can run it too.
#include "platform/manager/journal.h"
#include "service/service.h"

int main() {         // uncovered: a test program has a main() of its own; the end-to-end tests run this one
    logToJournal();  // uncovered: as main()
    return runService();  // uncovered: as main()
}
