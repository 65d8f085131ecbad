#!/usr/bin/env bash
# Applies the project's one code format (.clang-format) to every tracked C and C++ file, or with
# --check lists the files that are not in it and fails.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.cpp' '*.h' '*.c')
if [ "${1:-}" = "--check" ]; then
  bad=()
  for f in "${files[@]}"; do
    clang-format --dry-run -Werror "$f" >/dev/null 2>&1 || bad+=("$f")
  done
  if [ "${#bad[@]}" -gt 0 ]; then
    printf 'format: not in the project format (run scripts/format.sh):\n'
    printf '  %s\n' "${bad[@]}"
    exit 1
  fi
  echo "format: ${#files[@]} files in the project format"
else
  clang-format -i "${files[@]}"
fi
