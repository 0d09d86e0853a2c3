#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# The synchronisation benchmark, then one run of it under the sampling profiler: the figures of
# trelvane_sync_bench (wall and processor time of a 300-clip, 8-hour shoot, accuracy against the
# truth), then the functions that took the most samples, by their own time and with their callees.
# Prints figures; never fails on them.
#
#   bench/sync_bench.sh [path/to/trelvane_sync_bench [options of the benchmark...]]
#
# Call stacks are only whole in a build that keeps frame pointers, e.g.
#   cmake -S . -B build/profile -G Ninja -DCMAKE_BUILD_TYPE=Release \
#         -DCMAKE_CXX_FLAGS="-g -fno-omit-frame-pointer" -DTRELVANE_BUILD_TESTS=OFF
# The own-time figures hold in any build. The first run decodes the recordings once (about a
# minute) and caches their features under $XDG_CACHE_HOME (else /tmp).
set -euo pipefail
bench="${1:-$(dirname "$0")/../build/release/bench/trelvane_sync_bench}"
shift || true

"$bench" "$@"

if ! command -v perf > /dev/null; then
  echo "perf is not installed: no profile" >&2
  exit 0
fi
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
echo
echo "profile of one run (perf record -g):"
if ! perf record -F 499 -g -o "$scratch/perf.data" -- "$bench" --runs 1 --no-single --no-yardstick \
  > "$scratch/run.txt" 2> "$scratch/perf.txt"; then
  echo "perf could not record (kernel.perf_event_paranoid is $(cat /proc/sys/kernel/perf_event_paranoid)):" >&2
  tail -5 "$scratch/perf.txt" >&2
  exit 0
fi
grep -E 'run 1|accuracy' "$scratch/run.txt" || true
report() {
  perf report -i "$scratch/perf.data" --stdio --sort symbol -g none --percent-limit 0.5 "$@" 2> /dev/null |
    grep -v -e '^#' -e '^$' | head -25
}
echo "own time:"
report --no-children
echo "with callees:"
report --children
