#!/usr/bin/env bash
# Sets everything up, builds, and runs the whole test suite but the farm test (label farm,
# which needs Slurm: tests/farm/, docs/farm.md).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh release
ctest --preset release -j "$(nproc)" -LE farm
