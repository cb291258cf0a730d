#!/usr/bin/env bash
# A one-node Slurm cluster on this machine, for trying and testing farm rendering:
#
#   scripts/slurm-local.sh start     brings it up; prints the lines a caller evaluates:
#                                      eval "$(scripts/slurm-local.sh start)"
#   scripts/slurm-local.sh status    what runs (exit 0: all three daemons; 3: none; 1: some)
#   scripts/slurm-local.sh stop      cancels its jobs, stops its daemons, removes its folder
#
# Needs Debian's slurm-wlm and munge (bash scripts/setup.sh --farm). Everything lives in one
# folder made by mktemp under ${TMPDIR:-/tmp}: a munge key, socket, pid, seed and log of its
# own, the generated slurm.conf, the controller's state, the node's spool, and each daemon's
# pid and log files. The folder's path is kept in ${TMPDIR:-/tmp}/veltrisca-slurm.current,
# which is how `stop` and `status` find it; a caller that wants a cluster of its own (a test)
# points TMPDIR at a folder of its own. /etc/slurm, /etc/munge and the system's munge socket
# are never read or written, and the daemons are plain processes (no systemd, no service).
#
# Runs as root only: slurmd has to be root to start a job as the user who submitted it, and
# slurmctld runs as the same user (SlurmUser=root) so that one owner holds the whole folder.
set -euo pipefail

tmp_root=${TMPDIR:-/tmp}
record="$tmp_root/veltrisca-slurm.current"

say() { echo "slurm-local: $*" >&2; }
die() { say "$*"; exit 1; }

# The processes of program $1 started for the cluster in folder $2: every daemon of ours has
# the folder in its command line (slurm.conf, munge key), which no pid file can get wrong.
daemon_pids() {
  local pid
  for pid in $(pgrep -x "$1"); do
    if tr '\0' '\n' <"/proc/$pid/cmdline" 2>/dev/null | grep -qF "$2/"; then
      echo "$pid"
    fi
  done
  return 0
}

cluster_dir() {
  [ -s "$record" ] || return 1
  local dir
  dir=$(<"$record")
  # Only a folder this script made is ever removed.
  [[ $(basename -- "$dir") == veltrisca-slurm.* ]] && [ -f "$dir/made-by-slurm-local" ] ||
    return 1
  echo "$dir"
}

# The first port from $1 up that nothing on the loopback answers on and that is not in $2.
free_port() {
  local p
  for ((p = $1; p < $1 + 200; p++)); do
    [ "$p" = "${2:-}" ] && continue
    (exec 3<>"/dev/tcp/127.0.0.1/$p") 2>/dev/null && continue
    echo "$p"
    return 0
  done
  return 1
}

daemons=(slurmd slurmctld munged)

stop_cluster() {
  local dir
  if ! dir=$(cluster_dir); then
    say "no cluster recorded in $record: nothing to stop"
    rm -f "$record"
    return 0
  fi
  export SLURM_CONF="$dir/slurm.conf"
  # Jobs first, while the controller can still end them properly.
  if [ -n "$(daemon_pids slurmctld "$dir")" ]; then
    local jobs
    jobs=$(timeout 10 squeue -h -o %A 2>/dev/null | sort -u | tr '\n' ' ' || true)
    if [ -n "${jobs// /}" ]; then
      # shellcheck disable=SC2086  # one argument per job id
      timeout 10 scancel $jobs 2>/dev/null || true
      local i
      for ((i = 0; i < 30; i++)); do
        [ -z "$(timeout 5 squeue -h -o %A 2>/dev/null || true)" ] && break
        sleep 0.5
      done
    fi
  fi
  local name pid
  local -a pids=()
  for name in "${daemons[@]}"; do
    for pid in $(daemon_pids "$name" "$dir"); do
      kill -TERM "$pid" 2>/dev/null || true
      pids+=("$pid")
    done
  done
  # Whatever a job left behind: its step daemon (slurmstepd writes to this cluster's slurmd
  # log) and its processes (their environment names this cluster's slurm.conf).
  local proc
  for proc in /proc/[0-9]*; do
    pid=${proc#/proc/}
    if [ "$(cat "$proc/comm" 2>/dev/null)" = slurmstepd ]; then
      if readlink "$proc"/fd/* 2>/dev/null | grep -qxF "$dir/slurmd.log"; then
        kill -KILL "$pid" 2>/dev/null || true
      fi
    elif grep -qszxF "SLURM_CONF=$dir/slurm.conf" "$proc/environ" &&
      grep -qsz '^SLURM_JOB_ID=' "$proc/environ"; then
      kill -KILL "$pid" 2>/dev/null || true
    fi
  done
  local i left
  for ((i = 0; i < 50; i++)); do
    left=()
    for pid in "${pids[@]}"; do
      kill -0 "$pid" 2>/dev/null && left+=("$pid")
    done
    [ ${#left[@]} -eq 0 ] && break
    sleep 0.2
  done
  for pid in "${left[@]}"; do
    say "pid $pid did not stop on SIGTERM: killing it"
    kill -KILL "$pid" 2>/dev/null || true
  done
  rm -rf "$dir"
  rm -f "$record"
  say "stopped; removed $dir"
}

status_cluster() {
  local dir name pid up=0
  if ! dir=$(cluster_dir); then
    echo "slurm-local: not running (nothing recorded in $record)"
    return 3
  fi
  echo "slurm-local: folder $dir"
  for name in munged slurmctld slurmd; do
    pid=$(daemon_pids "$name" "$dir")
    if [ -n "$pid" ]; then
      echo "  $name running, pid ${pid//$'\n'/ }"
      up=$((up + 1))
    else
      echo "  $name not running (log: $dir/$name.log)"
    fi
  done
  if [ $up -eq 3 ]; then
    SLURM_CONF="$dir/slurm.conf" timeout 10 sinfo || true
    echo "export SLURM_CONF=$dir/slurm.conf"
    return 0
  fi
  [ $up -eq 0 ] && return 3
  return 1
}

start_failed() {
  [ "${start_ok:-1}" = 1 ] && return 0
  say "start failed; the end of each log follows"
  local log
  for log in "$1"/*.log; do
    [ -f "$log" ] && { echo "--- $log" >&2; tail -n 20 "$log" >&2; }
  done
  stop_cluster
}

start_cluster() {
  [ "$(id -u)" -eq 0 ] || die "run this as root (slurmd starts jobs as their submitting user)"
  local tool
  for tool in munged mungekey slurmctld slurmd sinfo sbatch; do
    command -v "$tool" >/dev/null ||
      die "$tool not found: install Slurm and munge with: bash scripts/setup.sh --farm"
  done
  if cluster_dir >/dev/null; then
    local st=0
    status_cluster >/dev/null || st=$?
    [ $st -eq 3 ] || die "a cluster is already recorded in $record: run '$0 stop' first"
    say "clearing a stopped cluster left in $(cluster_dir)"
    stop_cluster
  fi

  mkdir -p "$tmp_root"
  local dir
  dir=$(mktemp -d "$tmp_root/veltrisca-slurm.XXXXXX")
  # A Unix socket's path must fit in 108 bytes.
  if [ ${#dir} -gt 80 ]; then
    rmdir "$dir"
    die "TMPDIR is too long a path for the munge socket: $tmp_root"
  fi
  : >"$dir/made-by-slurm-local"
  # munged insists that everyone may traverse the folder of its socket.
  chmod 0711 "$dir"
  echo "$dir" >"$record"
  # From here on a failure (set -e) takes down whatever had started.
  start_ok=0
  start_dir=$dir
  trap 'start_failed "$start_dir"' EXIT
  mkdir -p "$dir/state" "$dir/spool"
  : >"$dir/plugstack.conf"

  # munge: own key, socket and files; the Slurm side is pointed at the socket by AuthInfo.
  mungekey --create --keyfile="$dir/munge.key" --bits=1024
  chmod 0400 "$dir/munge.key"
  local sock="$dir/munge.socket"
  munged --key-file="$dir/munge.key" --socket="$sock" \
    --pid-file="$dir/munged.pid" --log-file="$dir/munged.log" --seed-file="$dir/munged.seed" \
    </dev/null >>"$dir/munged.log" 2>&1
  local i
  for ((i = 0; i < 50; i++)); do
    [ -S "$sock" ] && break
    sleep 0.1
  done
  [ -S "$sock" ] || { say "munged made no socket"; exit 1; }

  # This machine as slurmd sees it: CPUs, sockets, cores, threads and memory.
  local node hw
  node=$(hostname -s)
  hw=$(slurmd -C | head -n 1)
  [[ $hw == NodeName=* ]] || { say "slurmd -C printed: $hw"; exit 1; }
  hw=${hw#NodeName=* }
  local ctld_port slurmd_port
  ctld_port=$(free_port 16817)
  slurmd_port=$(free_port $((ctld_port + 1)) "$ctld_port")

  cat >"$dir/slurm.conf" <<EOF
# Generated by scripts/slurm-local.sh for a one-node cluster on $node; removed on stop.
ClusterName=veltrisca
SlurmctldHost=$node(127.0.0.1)
SlurmctldPort=$ctld_port
SlurmdPort=$slurmd_port
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
CredType=cred/munge
# A requeued job waits out the credential lifetime before it may start again: 10 s rather
# than 120 keeps a requeued task quick, and is ample for a launch on this one node.
AuthInfo=socket=$sock,cred_expire=10
StateSaveLocation=$dir/state
SlurmdSpoolDir=$dir/spool
SlurmctldPidFile=$dir/slurmctld.pid
SlurmdPidFile=$dir/slurmd.pid
SlurmctldLogFile=$dir/slurmctld.log
SlurmdLogFile=$dir/slurmd.log
SlurmctldDebug=info
SlurmdDebug=info
PlugStackConfig=$dir/plugstack.conf
# Without systemd or a writable cgroup tree: processes tracked through /proc, no task
# binding, no job containers.
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobContainerType=job_container/none
SwitchType=switch/none
MpiDefault=none
# No accounting database: a finished job stays visible to scontrol for an hour instead.
AccountingStorageType=accounting_storage/none
JobAcctGatherType=jobacct_gather/none
JobCompType=jobcomp/none
MinJobAge=3600
MailProg=/bin/true
SchedulerType=sched/backfill
# Start a submitted job at once rather than batching submissions for up to 3 s, and go
# through the queue every second rather than every minute, which is when a job that has
# only waited for a time to pass (a requeued one) starts.
SchedulerParameters=batch_sched_delay=0,sched_interval=1
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
ReturnToService=2
KillWait=5
InactiveLimit=0
NodeName=$node NodeAddr=127.0.0.1 $hw State=UNKNOWN
PartitionName=local Nodes=$node Default=YES MaxTime=INFINITE State=UP
EOF

  export SLURM_CONF="$dir/slurm.conf"
  slurmctld -f "$SLURM_CONF" </dev/null >>"$dir/slurmctld.log" 2>&1
  slurmd -f "$SLURM_CONF" -N "$node" </dev/null >>"$dir/slurmd.log" 2>&1

  local state=""
  for ((i = 0; i < 150; i++)); do
    state=$(timeout 5 sinfo -h -n "$node" -o %T 2>/dev/null || true)
    [ "$state" = idle ] && break
    sleep 0.2
  done
  [ "$state" = idle ] || { say "node $node is '${state:-unknown}' instead of idle"; exit 1; }
  start_ok=1
  say "node $node idle (controller port $ctld_port, slurmd port $slurmd_port, folder $dir)"
  echo "export SLURM_CONF=$SLURM_CONF"
}

case "${1:-}" in
  start) start_cluster ;;
  stop) stop_cluster ;;
  status) status_cluster ;;
  *)
    echo "usage: $0 start|stop|status" >&2
    exit 2
    ;;
esac
