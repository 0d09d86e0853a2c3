#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Line coverage of the engine and the application under the whole test suite.
# Needs gcovr (Debian: apt install gcovr). Usage: scripts/coverage.sh [report.txt]
# Prints the summary; the per-file table goes to the report (build/coverage/coverage.txt).
set -euo pipefail
cd "$(dirname "$0")/.."

command -v gcovr >/dev/null || { echo "coverage.sh: gcovr is missing (apt install gcovr)" >&2; exit 1; }
report="${1:-build/coverage/coverage.txt}"

cmake --preset coverage >/dev/null
cmake --build --preset coverage
# Counters of an earlier run would be added to this one's.
find build/coverage -name '*.gcda' -delete
ctest --preset coverage -j "$(nproc)" || echo "coverage.sh: some tests failed; the figures below still count" >&2

gcovr --root . --object-directory build/coverage \
  --filter 'TrelvaneEngine/' --filter 'Trelvane/' \
  --exclude-unreachable-branches --print-summary --txt "$report" | tail -3
