#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-only
# Runs the benchmarks; every figure stands beside a reference from the same run. ./bench.sh --quick takes less time,
# ./bench.sh --help says what else there is.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
[[ -x /usr/bin/python3 ]] || "$root/scripts/install-packages"
exec /usr/bin/python3 "$root/bench/run.py" "$@"
