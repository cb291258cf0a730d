#!/usr/bin/env bash
# One task of a Slurm job array that renders a frame sequence in chunks. The array's indices
# are the first frames of the chunks and its step is the chunk size, so frames 1-24 in chunks
# of 5 are tasks 1, 6, 11, 16 and 21, the last one rendering 21-24:
#
#   sbatch --array=1-24:5 render-chunk.sh IN.####.exr OUT.####.exr LAST [render options...]
#
# LAST is the sequence's last frame, where the final chunk stops. The tool is $VELTRISCA, else
# veltrisca on the PATH. The task's exit status is the tool's: non-zero when a frame failed,
# and the other frames of the chunk are rendered all the same. A task run again (scontrol
# requeue) renders only the frames whose output is missing, cut off or of another lens.
#SBATCH --job-name=veltrisca-render
#SBATCH --cpus-per-task=1
set -euo pipefail

veltrisca=${VELTRISCA:-veltrisca}
in=$1
out=$2
last=$3
shift 3

first=$SLURM_ARRAY_TASK_ID
end=$((first + SLURM_ARRAY_TASK_STEP - 1))
end=$((end < last ? end : last))

# Frames $1 to $2, the rest of the arguments being render options.
render_frames() {
  "$veltrisca" render "$in" "$out" --frames "$1-$2" --keep-going --skip-existing "${@:3}"
}

render_frames "$first" "$end" "$@"
