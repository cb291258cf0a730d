#!/usr/bin/env bash
# Renders a 24-frame sequence on a one-node Slurm cluster of the test's own
# (scripts/slurm-local.sh) as a job array of 5-frame chunks (tests/farm/render-chunk.sh):
#   1. every output frame is byte for byte the frame a single render of its input writes;
#   2. with one input frame truncated, the task of that chunk ends FAILED with the tool's exit
#      code 2 and no output for that frame, while every other frame, of that chunk too, renders.
#   3. with that frame repaired, the failed task run again (scontrol requeue) renders frame 13
#      and leaves the frames it had already written alone.
# The cluster is stopped however the test ends (failure, interrupt or success).
#
#   tests/farm/slurm-array-test.sh path/to/veltrisca
#
# Needs root and Debian's slurm-wlm and munge (bash scripts/setup.sh --farm).
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
if [ $# -ne 1 ] || [ ! -x "$1" ]; then
  echo "usage: $0 path/to/veltrisca" >&2
  exit 2
fi
veltrisca=$(realpath "$1")
frames=24
chunk=5
opts=(--distortion -30 --filter lanczos3 -q)

fail() {
  echo "slurm-array-test: FAIL: $*" >&2
  exit 1
}

work=$(mktemp -d "${TMPDIR:-/tmp}/vt-farm.XXXXXX")
# munged wants every folder above its socket open to all for traversal.
chmod 0711 "$work"
# The cluster's folder, and the record of it that `stop` reads, go inside the test's folder.
export TMPDIR=$work
cleanup() {
  local rc=$? dir
  trap - EXIT INT TERM
  if [ $rc -ne 0 ]; then
    if dir=$(cat "$work/veltrisca-slurm.current" 2>/dev/null); then
      for log in "$dir"/*.log; do
        [ -f "$log" ] && { echo "--- $log" >&2; tail -n 30 "$log" >&2; }
      done
    fi
    for log in "$work"/logs/*.log; do
      [ -f "$log" ] && { echo "--- $log" >&2; cat "$log" >&2; }
    done
  fi
  bash "$root/scripts/slurm-local.sh" stop || rc=1
  rm -rf "$work"
  exit $rc
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# The cluster first: without Slurm the test ends here, at once.
env_lines=$(bash "$root/scripts/slurm-local.sh" start)
eval "$env_lines"
[ -f "${SLURM_CONF:-}" ] || fail "slurm-local.sh start gave no SLURM_CONF"
export VELTRISCA=$veltrisca

# The sequence: the chart as frame 1, each later frame's colour 0.01 brighter than the one
# before, so that no two frames, and no two outputs, are alike (one oiiotool run writes all).
mkdir -p "$work/in" "$work/ref" "$work/logs"
"$veltrisca" chart "$work/in/in.0001.exr" --size 256x144
brighter=()
for ((f = 2; f <= frames; f++)); do
  printf -v n %04d "$f"
  brighter+=(--addc "0.01,0.01,0.01,0" -o "$work/in/in.$n.exr")
done
oiiotool "$work/in/in.0001.exr" "${brighter[@]}"
for ((f = 1; f <= frames; f++)); do
  printf -v n %04d "$f"
  "$veltrisca" render "$work/in/in.$n.exr" "$work/ref/ref.$n.exr" "${opts[@]}"
done
cmp -s "$work/ref/ref.0001.exr" "$work/ref/ref.0002.exr" && fail "frames 1 and 2 render alike"

# Waits until every task of job $1 has ended (polling the controller: sbatch --wait backs off
# to ever longer sleeps).
wait_job() {
  local deadline=$((SECONDS + 60)) tasks
  local final='JobState=(COMPLETED|FAILED|CANCELLED|TIMEOUT|NODE_FAIL|OUT_OF_MEMORY|BOOT_FAIL|DEADLINE|PREEMPTED) '
  while :; do
    # One line a task; the job has ended when every line shows one of Slurm's final states.
    tasks=$(scontrol show job -o "$1") || fail "scontrol cannot show job $1"
    grep -qvE "$final" <<<"$tasks" || return 0
    [ $SECONDS -lt $deadline ] || fail "job $1 has not ended after 60 s: $tasks"
    sleep 0.5
  done
}

# Submits the sequence from $work/in to $work/$1 and waits for every task to end; sets job to
# the job id.
submit() {
  mkdir -p "$work/$1"
  job=$(cd "$work" && sbatch --parsable --array=1-$frames:$chunk \
    --output="$work/logs/%A_%a.log" "$here/render-chunk.sh" \
    "$work/in/in.####.exr" "$work/$1/out.####.exr" $frames "${opts[@]}")
  [[ $job =~ ^[0-9]+$ ]] || fail "sbatch printed '$job' instead of a job id"
  wait_job "$job"
}

# Each task of job $1 as TASK=STATE/EXIT:SIGNAL, in task order, from the controller's records
# (kept for an hour: MinJobAge in the generated slurm.conf).
task_states() {
  scontrol show job -o "$1" | sed -E 's/.*ArrayTaskId=([0-9]+) .*JobState=([A-Z_]+) .*ExitCode=([0-9]+:[0-9]+).*/\1=\2\/\3/' |
    sort -n | tr '\n' ' '
}

# Output folder $1 must hold exactly the reference frames, less the frames listed after it.
check_outputs() {
  local dir=$work/$1 f n expected=0
  shift
  for ((f = 1; f <= frames; f++)); do
    printf -v n %04d "$f"
    if [[ " $* " == *" $f "* ]]; then
      [ ! -e "$dir/out.$n.exr" ] || fail "$dir/out.$n.exr was written from a damaged input"
      continue
    fi
    cmp "$work/ref/ref.$n.exr" "$dir/out.$n.exr" || fail "frame $f differs from its single render"
    expected=$((expected + 1))
  done
  local count
  count=$(find "$dir" -mindepth 1 | wc -l)
  [ "$count" -eq $expected ] || fail "$dir holds $count files instead of $expected: $(ls -A "$dir")"
}

start=$SECONDS
submit out
states=$(task_states "$job")
expected="1=COMPLETED/0:0 6=COMPLETED/0:0 11=COMPLETED/0:0 16=COMPLETED/0:0 21=COMPLETED/0:0 "
[ "$states" = "$expected" ] || fail "tasks ended as '$states', expected '$expected'"
check_outputs out
echo "slurm-array-test: $frames frames in chunks of $chunk rendered as on one process" \
  "($((SECONDS - start)) s)"

start=$SECONDS
cp "$work/in/in.0013.exr" "$work/in.0013.intact.exr"
truncate -s 1000 "$work/in/in.0013.exr"
submit damaged
states=$(task_states "$job")
expected="1=COMPLETED/0:0 6=COMPLETED/0:0 11=FAILED/2:0 16=COMPLETED/0:0 21=COMPLETED/0:0 "
[ "$states" = "$expected" ] || fail "tasks ended as '$states', expected '$expected'"
grep -q "in\.0013\.exr" "$work/logs/${job}_11.log" ||
  fail "the failed task's log does not name the damaged frame"
check_outputs damaged 13
echo "slurm-array-test: a truncated frame 13 failed task 11 alone, the other 23 frames" \
  "rendered ($((SECONDS - start)) s)"

# The input repaired, the failed task run again renders frame 13 and leaves the frames it had
# written alone (an output rewritten is a new file: outputs are renamed into place).
start=$SECONDS
cp "$work/in.0013.intact.exr" "$work/in/in.0013.exr"
before=$(stat -c '%n %i' "$work"/damaged/out.00{11,12,14,15}.exr)
scontrol requeue "${job}_11"
wait_job "$job"
states=$(task_states "$job")
expected="1=COMPLETED/0:0 6=COMPLETED/0:0 11=COMPLETED/0:0 16=COMPLETED/0:0 21=COMPLETED/0:0 "
[ "$states" = "$expected" ] || fail "after the requeue tasks ended as '$states', expected '$expected'"
check_outputs damaged
[ "$(stat -c '%n %i' "$work"/damaged/out.00{11,12,14,15}.exr)" = "$before" ] ||
  fail "the requeued task rendered again frames it had already written"
echo "slurm-array-test: task 11 requeued after the repair rendered frame 13 alone" \
  "($((SECONDS - start)) s)"
