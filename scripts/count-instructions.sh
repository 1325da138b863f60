#!/usr/bin/env bash
# Counts the instructions each thread spends per request, through the manager
# and through raw libcurl, with 32 requests in flight against the in-process
# server, under valgrind's callgrind. Unlike a timing, the count does not drift
# with the machine's speed, so it shows what a change to the request path saves.
#
# Each case runs for 1000 and for 3000 requests; the difference between the two
# counts, divided by 2000, leaves out start-up and connection set-up. Threads:
#   caller    the benchmark's thread: builds requests and pumps the main queue
#             (for raw libcurl it also runs the transfers);
#   transfer  the transfer engine's thread (krcommon only);
#   delegate  the operation queue threads that run the session's delegate events
#             (krcommon only);
#   server    the in-process HTTP server's threads.
#
# Needs valgrind (apt-get install valgrind) and the bench build (make bench).
# Usage: scripts/count-instructions.sh [build dir, default build/bench]
set -euo pipefail
build=${1:-build/bench}
program="$build/bench/krcommon_bench_http"
command -v valgrind >/dev/null || { echo "valgrind is needed: apt-get install valgrind" >&2; exit 1; }
[[ -x "$program" ]] || { echo "no $program: build the bench preset first (make bench)" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for case in KR_RequestGet BASE_RequestGet KR_RequestPost BASE_RequestPost; do
  for requests in 1000 3000; do
    valgrind --tool=callgrind --separate-threads=yes --callgrind-out-file="$work/$case.$requests" \
      "$program" --benchmark_filter="^COUNT_$case/32/iterations:$requests\$" >/dev/null 2>"$work/log"
  done
done
python3 - "$work" <<'PY'
import pathlib, re, sys
work = pathlib.Path(sys.argv[1])
def counts(case, requests):
    roles = {}
    for f in work.glob(f"{case}.{requests}-*"):
        text = f.read_text(errors="replace")
        total = re.search(r"^(?:summary|totals): (\d+)", text, re.M)
        if not total:
            continue
        if "TransferEngine::run()" in text or "SessionEngine::run()" in text:
            role = "transfer"
        elif "EventQueue::drain()" in text or "SessionEngine::drainEvents()" in text:
            role = "delegate"
        elif re.search(r"benchmark::|BenchmarkRunner", text) and re.search(r"runLoad", text):
            role = "caller"
        else:
            role = "server"
        roles[role] = roles.get(role, 0) + int(total.group(1))
    return roles
print("| case | caller | transfer | delegate | server | client total |")
print("|---|---|---|---|---|---|")
for case in ["KR_RequestGet", "BASE_RequestGet", "KR_RequestPost", "BASE_RequestPost"]:
    few, many = counts(case, 1000), counts(case, 3000)
    per = {r: (many.get(r, 0) - few.get(r, 0)) / 2000 for r in ("caller", "transfer", "delegate", "server")}
    cell = lambda v: f"{v / 1000:.1f}k" if v else "-"
    print(f"| {case}/32 | {cell(per['caller'])} | {cell(per['transfer'])} | {cell(per['delegate'])} | "
          f"{cell(per['server'])} | {cell(per['caller'] + per['transfer'] + per['delegate'])} |")
PY
