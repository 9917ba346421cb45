#!/usr/bin/env bash
# `make browser-check`: the report pages of a short run, a --compare and a small sweep of the
# built-in scenario, opened in headless Chromium by scripts/browser-check.py after its self-test.
# Everything, screenshots included, stays in build/browser-check/.
set -euo pipefail
cd "$(dirname "$0")/.."
sim=build/release/tools/sim/pelyx-sim
out=build/browser-check
rm -rf "$out" && mkdir -p "$out/run" "$out/compare" "$out/sweep"

# Four seconds end before the built-in scenario's last phase, whose figures are then all empty:
# the page must say so without a null.
"$sim" --quiet --duration 4 --summary "$out/run/summary.json" --frames "$out/run/frames.csv"
"$sim" --compare --duration 4 --jobs 2 --summary "$out/compare/summary.json" --frames "$out/compare/frames.csv" \
  > "$out/compare/console.txt" 2>&1
cat > "$out/sweep/sweep.json" <<'SWEEP'
{ "seed": 1, "seeds": 1, "duration_s": 6,
  "axes": [ { "hint": 4189, "values": ["com.example.game:golden=0.8_jank=1.2;1.5;2.0_dynamic=1", null] } ] }
SWEEP
"$sim" --sweep "$out/sweep/sweep.json" --jobs 2 --summary "$out/sweep/summary.json" > "$out/sweep/console.txt" 2>&1
for page in run compare sweep; do
  # shellcheck disable=SC2046  # the frames files, when the run wrote any
  tools/report/pelyx-report --out "$out/$page/report" "$out/$page/summary.json" $(ls "$out/$page"/*.csv 2>/dev/null) \
    > /dev/null
done
scripts/browser-check.py --self-test --screenshots "$out" \
  run="$out/run/report/index.html" compare="$out/compare/report/index.html" sweep="$out/sweep/report/index.html"
