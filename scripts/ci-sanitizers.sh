#!/usr/bin/env bash
# Builds everything and runs the whole test suite under AddressSanitizer with
# UndefinedBehaviorSanitizer (preset asan), then under ThreadSanitizer (preset tsan):
#
#   scripts/ci-sanitizers.sh [preset...]      default: asan tsan
#
# The presets make every sanitizer stop the program at its first report, so any report fails
# the test it happened in. Both presets run even when the first fails; the exit status is 1
# when either failed. Each stage prints how long it took. The farm test (label farm, which
# needs Slurm's daemons) is left out: CI runs it in a stage of its own.
set -uo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh || exit 1

presets=("$@")
[ ${#presets[@]} -eq 0 ] && presets=(asan tsan)
jobs=$(nproc)
failed=()

for preset in "${presets[@]}"; do
  start=$SECONDS
  if cmake --preset "$preset" >/dev/null && cmake --build --preset "$preset" -j "$jobs"; then
    built=$SECONDS
    echo "ci-sanitizers: $preset: built in $((built - start)) s"
    ctest --preset "$preset" -j "$jobs" -LE farm || failed+=("$preset")
    echo "ci-sanitizers: $preset: tests ran in $((SECONDS - built)) s"
  else
    echo "ci-sanitizers: $preset: build failed after $((SECONDS - start)) s"
    failed+=("$preset")
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "ci-sanitizers: FAILED: ${failed[*]}"
  exit 1
fi
echo "ci-sanitizers: all tests passed under: ${presets[*]}"
