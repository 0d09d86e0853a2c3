#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Fails, naming the files, when a tracked C++ source differs from what clang-format makes of it
# with the checked-in .clang-format. `scripts/check-format.sh --fix` formats them in place.
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t files < <(git ls-files '*.cpp' '*.hpp')
if [ "${1:-}" = "--fix" ]; then
  clang-format -i "${files[@]}"
  exit 0
fi
unformatted=()
for f in "${files[@]}"; do
  clang-format --dry-run -Werror "$f" >/dev/null 2>&1 || unformatted+=("$f")
done
if [ "${#unformatted[@]}" -gt 0 ]; then
  echo "format: ${#unformatted[@]} file(s) differ from clang-format (scripts/check-format.sh --fix):" >&2
  printf '  %s\n' "${unformatted[@]}" >&2
  exit 1
fi
echo "format: ${#files[@]} files as clang-format makes them"
