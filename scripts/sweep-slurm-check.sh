#!/usr/bin/env bash
# Brings up a one-node Slurm cluster on this machine (munged, slurmctld, slurmd on localhost,
# their configuration, state and logs under build/slurm-check, ports 16817-16818), submits a
# small sweep as a job array of shards, merges the parts and compares the result byte for byte
# with the same sweep played on one machine; then stops the daemons it started. Needs root (the
# daemons, and apt-get for slurm-wlm and munge when they are missing).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
if [ "$(id -u)" -ne 0 ]; then
  echo "sweep-slurm-check: needs root: it starts munged, slurmctld and slurmd" >&2
  exit 1
fi
scripts/deps.sh slurm-wlm munge
sim=$root/build/release/tools/sim/pelyx-sim
sweep=tools/sim/sweeps/shards-check.json
shards=4
dir=$root/build/slurm-check
out=$dir/parts

# Daemons this script started, stopped by their own pid files on every exit (and waited for,
# so that the next check finds the ports free).
stop() {
  for d in slurmd slurmctld munged; do
    [ -s "$dir/$d.pid" ] || continue
    pid=$(cat "$dir/$d.pid")
    kill "$pid" 2>/dev/null || continue
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.2; done
  done
}
if [ -d "$dir" ]; then stop; fi
rm -rf "$dir" && mkdir -p "$dir/state" "$dir/spool" "$out"
chmod 700 "$dir"
trap stop EXIT

# munge with its own key, socket and files, so that a munged the machine may run is left alone.
dd if=/dev/urandom of="$dir/munge.key" bs=1024 count=1 status=none
chmod 400 "$dir/munge.key"
munged --force --socket="$dir/munge.socket" --key-file="$dir/munge.key" --pid-file="$dir/munged.pid" \
  --log-file="$dir/munged.log" --seed-file="$dir/munged.seed"

node=$(hostname -s)
cpus=$(nproc)
cat > "$dir/slurm.conf" <<CONF
ClusterName=pelyxcheck
SlurmctldHost=$node(127.0.0.1)
SlurmctldPort=16817
SlurmdPort=16818
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
AuthInfo=socket=$dir/munge.socket
CredType=cred/munge
StateSaveLocation=$dir/state
SlurmdSpoolDir=$dir/spool
SlurmctldPidFile=$dir/slurmctld.pid
SlurmdPidFile=$dir/slurmd.pid
SlurmctldLogFile=$dir/slurmctld.log
SlurmdLogFile=$dir/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
JobCompType=jobcomp/none
MpiDefault=none
SchedulerType=sched/backfill
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
ReturnToService=2
NodeName=$node NodeAddr=127.0.0.1 CPUs=$cpus State=UNKNOWN
PartitionName=check Nodes=$node Default=YES MaxTime=60 State=UP
CONF
export SLURM_CONF=$dir/slurm.conf
slurmctld -i
slurmd

# The node comes up within seconds; give it a minute on a loaded machine.
for _ in $(seq 60); do
  sinfo -h -N -o %t 2>/dev/null | grep -qE '^(idle|mix|alloc)' && break
  sleep 1
done
sinfo -N || true
sinfo -h -N -o %t | grep -qE '^(idle|mix|alloc)' || { echo "sweep-slurm-check: the node did not come up; see $dir/*.log" >&2; exit 1; }

"$sim" --sweep "$sweep" --jobs 2 --quiet --summary "$dir/one.json" --recommend "$dir/one.hints.json"
job=$(sbatch --parsable --array=0-$((shards - 1)) --chdir="$root" --output="$dir/task-%a.out" \
  --export=ALL,PELYX_SIM="$sim" scripts/sweep-slurm.sbatch "$sweep" "$out")
echo "sweep-slurm-check: job array $job of $shards shards submitted"
for _ in $(seq 300); do
  [ -z "$(squeue -h -j "$job" 2>/dev/null)" ] && break
  sleep 1
done
[ -z "$(squeue -h -j "$job")" ] || { echo "sweep-slurm-check: the job array is still queued or running after 300 s" >&2; exit 1; }
"$sim" --merge "$out"/part-*.json --quiet --summary "$dir/all.json" --recommend "$dir/all.hints.json"
cmp "$dir/one.json" "$dir/all.json"
cmp "$dir/one.hints.json" "$dir/all.hints.json"
echo "sweep-slurm-check: $shards shards as a Slurm job array merged to the one-machine summary (cmp equal)"
