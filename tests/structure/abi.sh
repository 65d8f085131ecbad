#!/usr/bin/env bash
# The ABI of our shared libraries, held still. The C libraries' ABI is recorded with libabigail's
# abidw (types and all) and compared with abidiff; libkovantis's exported names are recorded as a
# sorted list. A check fails on any difference from the record:
#   - a compatible one (something added): record it;
#   - a breaking one: raise the library's major version (its SONAME) and record, together.
# It also compares the record with the one on the base branch (KOVANTIS_ABI_BASE, "main" by
# default) when git has it: a record changed incompatibly under the same SONAME fails.
#
#   abi.sh check  c|symbols LIBRARY RECORD [HEADERS_DIR]
#   abi.sh record c|symbols LIBRARY RECORD [HEADERS_DIR]
#   abi.sh record [BUILD_DIR]     every record under abi/, from BUILD_DIR (build/release)
# Exit status 77 (skipped) when abidw is missing outside CI; under CI ($CI set) that fails.
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
repo="$(cd "$here/../.." && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

fail() {
  echo "ABI check: $*" >&2
  exit 1
}

need_abigail() {
  if command -v abidw >/dev/null && command -v abidiff >/dev/null; then return; fi
  if [ -n "${CI:-}" ]; then fail "abidw and abidiff are missing (Debian package abigail-tools; scripts/setup.sh installs it)"; fi
  echo "ABI check skipped: abidw and abidiff are missing (apt-get install abigail-tools)"
  exit 77
}

soname_of_library() { readelf -d "$1" | sed -n 's/.*Library soname: \[\(.*\)\].*/\1/p'; }

# The record of a library, written to stdout.
dump() {
  local kind="$1" library="$2" headers="${3:-}"
  case "$kind" in
    c)
      abidw --exported-interfaces-only --headers-dir "$headers" --drop-private-types --no-corpus-path \
        --no-show-locs --no-comp-dir-path --no-elf-needed "$library"
      ;;
    symbols)
      echo "# SONAME $(soname_of_library "$library")"
      nm -D --defined-only "$library" | awk '{print $NF}' | LC_ALL=C sort -u
      ;;
    *) fail "no such kind of record: $kind" ;;
  esac
}

soname_of_record() {
  case "$1" in
    c) sed -n "s/.*<abi-corpus[^>]* soname='\([^']*\)'.*/\1/p" "$2" | head -1 ;;
    symbols) sed -n 's/^# SONAME //p' "$2" ;;
  esac
}

# Compares two records of a kind; prints the differences. Status: 0 none, 4 compatible, 8 breaking.
compare() {
  local kind="$1" old="$2" new="$3" rc=0
  case "$kind" in
    c)
      abidiff "$old" "$new" >"$work/report" 2>&1 || rc=$?
      if ((rc & 3)); then
        cat "$work/report" >&2
        fail "abidiff could not compare $old and $new"
      fi
      cat "$work/report"
      # abidiff calls only a removed symbol incompatible; a changed function (a parameter's type,
      # a struct it reaches) breaks callers as surely, so anything removed or changed breaks.
      local broken
      broken="$(grep -E 'changes summary:' "$work/report" | grep -oE '[0-9]+ (Removed|Changed)' |
        awk '{n += $1} END {print n + 0}')"
      if ((rc & 8)) || [ "$broken" -gt 0 ]; then return 8; fi
      if ((rc & 4)); then return 4; fi
      return 0
      ;;
    symbols)
      grep -v '^#' "$old" >"$work/old.names" || true
      grep -v '^#' "$new" >"$work/new.names" || true
      local removed added
      removed="$(LC_ALL=C comm -23 "$work/old.names" "$work/new.names")"
      added="$(LC_ALL=C comm -13 "$work/old.names" "$work/new.names")"
      [ -n "$removed" ] && printf 'removed:\n%s\n' "$(echo "$removed" | c++filt | sed 's/^/  /')"
      [ -n "$added" ] && printf 'added:\n%s\n' "$(echo "$added" | c++filt | sed 's/^/  /')"
      if [ -n "$removed" ]; then return 8; fi
      if [ -n "$added" ]; then return 4; fi
      return 0
      ;;
  esac
}

check() {
  local kind="$1" library="$2" record="$3" headers="${4:-}"
  [ "$kind" = c ] && need_abigail
  [ -f "$record" ] || fail "no record $record: bash tests/structure/abi.sh record"
  local name soname recorded rc=0
  name="$(basename "$record")"
  soname="$(soname_of_library "$library")"
  recorded="$(soname_of_record "$kind" "$record")"
  if [ "$soname" != "$recorded" ]; then
    fail "$name records $recorded, the library is $soname: record the ABI of the new major version (bash tests/structure/abi.sh record)"
  fi
  dump "$kind" "$library" "$headers" >"$work/built"
  compare "$kind" "$record" "$work/built" || rc=$?
  case "$rc" in
    8) fail "$soname breaks the ABI of $name (above): raise the major version and record the ABI again, in the same change" ;;
    4) fail "$soname adds to the ABI of $name (above): record it (bash tests/structure/abi.sh record)" ;;
  esac

  # The record itself against the base branch's: replaced incompatibly under the same SONAME?
  local base="${KOVANTIS_ABI_BASE:-main}" path="${record#"$repo"/}"
  if command -v git >/dev/null && git -C "$repo" cat-file -e "$base:$path" 2>/dev/null; then
    git -C "$repo" show "$base:$path" >"$work/base"
    if ! cmp -s "$work/base" "$record"; then
      rc=0
      compare "$kind" "$work/base" "$record" >"$work/base-report" || rc=$?
      if [ "$rc" = 8 ] && [ "$(soname_of_record "$kind" "$work/base")" = "$recorded" ]; then
        cat "$work/base-report" >&2
        fail "$name breaks the ABI recorded on $base while $recorded stays: raise the major version with it"
      fi
    fi
  fi
  echo "ABI check: $soname matches $name"
}

record() {
  local kind="$1" library="$2" record="$3" headers="${4:-}"
  [ "$kind" = c ] && need_abigail
  mkdir -p "$(dirname "$record")"
  dump "$kind" "$library" "$headers" >"$record"
  echo "recorded $(basename "$record") from $(soname_of_library "$library")"
}

case "${1:-}" in
  check) check "${@:2}" ;;
  record)
    if [ $# -ge 3 ]; then
      record "${@:2}"
    else
      build="${2:-$repo/build/release}"
      record c "$build/src/C/libkovantis_c.so" "$repo/abi/libkovantis_c.abi" "$repo/include/kovantis"
      record c "$build/src/C/libkovantis_sim_c.so" "$repo/abi/libkovantis_sim_c.abi" "$repo/include/kovantis"
      record symbols "$build/libkovantis.so" "$repo/abi/libkovantis.symbols"
    fi
    ;;
  *)
    sed -n '2,/^set -euo/p' "$0" | sed '$d' >&2
    exit 2
    ;;
esac
