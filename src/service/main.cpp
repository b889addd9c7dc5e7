// SPDX-License-Identifier: GPL-3.0-only
// The process: everything is in the library, so that tests can run it too.
#include "service/service.h"

int main() {
    return runService();
}
