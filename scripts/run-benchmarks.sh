#!/usr/bin/env bash
# Runs every benchmark program in BUILD_DIR/bench and prints a Markdown table in
# which each library figure (KR_<case>) stands beside its baseline (BASE_<case>)
# and any reference (REF_<case>) from the same run. The ratio is baseline time
# divided by krcommon time: above 1 means krcommon is faster; a case that
# pairs each iteration with its baseline (floor_ratio) reports that ratio, and
# PAIR_<case> rows (both clients in alternation) get a table of their own.
# Each figure is the median of BENCH_REPETITIONS runs (5 by default).
set -euo pipefail
build=${1:-build/bench}
out=${2:-$build/benchmarks.json.d}
min_time=${BENCH_MIN_TIME:-0.3}
repetitions=${BENCH_REPETITIONS:-5}
mkdir -p "$out"
for program in "$build"/bench/krcommon_bench_*; do
  [[ -x "$program" ]] || continue
  name=$(basename "$program")
  echo "== $name" >&2
  # COUNT_ cases run a fixed number of requests for scripts/count-instructions.sh.
  "$program" --benchmark_filter=-COUNT_ --benchmark_min_time="$min_time" --benchmark_repetitions="$repetitions" \
    --benchmark_report_aggregates_only=true --benchmark_out="$out/$name.json" --benchmark_out_format=json >&2
done
python3 - "$out" <<'PY'
import json, pathlib, re, sys
rows = {}
pairs = {}
for f in sorted(pathlib.Path(sys.argv[1]).glob("*.json")):
    for b in json.loads(f.read_text())["benchmarks"]:
        # The median of the repetitions: steadier than the mean on a shared machine.
        if b.get("run_type") != "aggregate" or b.get("aggregate_name") != "median":
            continue
        p = re.match(r"PAIR_([^/]+?)(/.*?)?(_median)?$", b["name"])
        if p:
            pairs[p.group(1) + (p.group(2) or "").replace("/real_time", "")] = b
            continue
        m = re.match(r"(KR|BASE|REF)_([^/]+?)(/.*?)?(_median)?$", b["name"])
        if not m:
            continue
        kind, case, rest, _ = m.groups()
        rest = re.sub(r"/(real|manual)_time", "", rest or "")
        rows.setdefault((f.stem, case + rest), {})[kind] = b
def t(b):
    unit = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[b["time_unit"]]
    return b["real_time"] * unit
print("| case | krcommon | baseline | ratio (baseline / krcommon) | reference | ratio (reference / krcommon) |")
print("|---|---|---|---|---|---|")
for (prog, case), r in rows.items():
    kr = r.get("KR")
    if not kr:
        continue
    def cell(x):
        return f"{t(x):,.0f} ns" if x else "-"
    def ratio(x):
        return f"{t(x) / t(kr):.2f}x" if x else "-"
    # A case that times its baseline beside itself in every iteration reports
    # that paired ratio, steadier than one of two separate runs.
    paired = kr.get("floor_ratio")
    base_ratio = f"{paired:.2f}x (paired)" if paired else ratio(r.get("BASE"))
    print(f"| {case} | {cell(kr)} | {cell(r.get('BASE'))} | {base_ratio} | {cell(r.get('REF'))} | {ratio(r.get('REF'))} |")
if pairs:
    # Cases that alternate the library and its baseline within one run.
    print()
    print("| case (paired run) | krcommon per item | baseline per item | ratio (baseline / krcommon) | added per item |")
    print("|---|---|---|---|---|")
    for case, b in pairs.items():
        print(f"| {case} | {b['kr_us']:,.1f} us | {b['raw_us']:,.1f} us | {b['pair_ratio']:.2f}x | {b['added_us']:,.1f} us |")
PY
