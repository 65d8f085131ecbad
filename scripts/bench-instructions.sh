#!/usr/bin/env bash
# Instructions per item of the benchmarks that mark a callgrind window (KOCallgrindWindow): every
# thread's instructions inside the window, divided by the items the benchmark names in its
# "window_items" counter. Usage: scripts/bench-instructions.sh <benchmark filter> [bench binary]
set -euo pipefail
filter="$1"
bench="${2:-build/release/bench/kovantis_bench}"
out="$(mktemp -d)"
trap '[ -n "${KEEP:-}" ] || rm -rf "$out"' EXIT
valgrind --tool=callgrind --quiet --callgrind-out-file="$out/cg.%p" "$bench" \
  --benchmark_filter="$filter" --benchmark_format=json --benchmark_out="$out/result.json" >/dev/null 2>"$out/valgrind.log" || {
  cat "$out/valgrind.log" >&2
  exit 1
}
python3 - "$out" <<'PY'
import glob, json, re, sys
out = sys.argv[1]
runs = [b for b in json.load(open(out + "/result.json"))["benchmarks"] if "window_items" in b]
dumps = []
for path in sorted(glob.glob(out + "/cg.*"), key=lambda p: [int(x) for x in re.findall(r"\d+", p)]):
    text = open(path, errors="replace").read()
    label = re.search(r"^desc: Trigger: Client Request: (.*)$", text, re.M)
    total = re.search(r"^(?:totals|summary): (\d+)", text, re.M)
    if label and total:
        dumps.append((label.group(1), int(total.group(1))))
for run, (label, total) in zip(runs, dumps):
    items = run["window_items"]
    print(f"{run['name']}: {total:,} instructions in window '{label}', {total / items:,.0f} per item ({items:,.0f} items)")
PY
