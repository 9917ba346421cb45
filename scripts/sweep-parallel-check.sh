#!/usr/bin/env bash
# A small sweep played as shards by GNU parallel on two local job slots, merged, and compared
# byte for byte with the same sweep played on one machine (summary and recommendation).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh parallel
sim=build/release/tools/sim/pelyx-sim
sweep=tools/sim/sweeps/shards-check.json
shards=5
out=build/sweep-parallel-check
rm -rf "$out" && mkdir -p "$out"
"$sim" --sweep "$sweep" --jobs 2 --quiet --summary "$out/one.json" --recommend "$out/one.hints.json"
seq 0 $((shards - 1)) | parallel --will-cite -j 2 --halt now,fail=1 \
  "$sim" --sweep "$sweep" --jobs 1 --quiet --shard {}/$shards --summary "$out/part-{}.json"
"$sim" --merge "$out"/part-*.json --quiet --summary "$out/all.json" --recommend "$out/all.hints.json"
cmp "$out/one.json" "$out/all.json"
cmp "$out/one.hints.json" "$out/all.hints.json"
echo "sweep-parallel-check: $shards shards on GNU parallel merged to the one-machine summary (cmp equal)"
