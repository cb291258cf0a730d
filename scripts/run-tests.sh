#!/usr/bin/env bash
# Sets everything up, builds, and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh release
ctest --preset release -j "$(nproc)"
